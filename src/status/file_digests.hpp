#pragma once

#include <cstddef>
#include <string>
#include <vector>

// What reading one file for its digest found.
struct FileDigest {
    enum class Outcome {
        read,        // md5 holds the digest
        missing,     // nothing there, or a dangling link
        unreadable,  // there, but this user may not read it (or reading failed)
        not_a_file,  // there, but a directory or a device: no content to compare
    };
    Outcome outcome = Outcome::missing;
    std::string md5;  // as md5sum prints it: 32 lower-case hex digits

    bool operator==(const FileDigest&) const = default;
};

// The digest of each path, in the order given. The files are read in large
// blocks and hashed in this process, on `threads` threads: a record of ten
// thousand files must not cost ten thousand md5sum processes.
std::vector<FileDigest> digest_files(const std::vector<std::string>& paths, size_t threads);

// The threads this host can spare for hashing: one for each processor that
// nothing else is running on, and at least one.
size_t hashing_threads();
