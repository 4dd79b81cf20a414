#pragma once

#include <string>

// The MD5 of a file as `md5sum` prints it, or empty on any failure. Does not
// touch md5_cache.
std::string file_md5(const std::string& path);

// The digest by cache: the cached value for `path` if there is one, else
// file_md5 of it, stored in md5_cache even when it is empty.
std::string cached_file_md5(const std::string& path);
