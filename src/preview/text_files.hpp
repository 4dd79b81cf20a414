// Small whole-file reads and writes of the preview's own state files, and
// of the kernel's control files.
#pragma once

#include <string>
#include <vector>

namespace preview {

// The whole file, or "" when it cannot be read.
std::string read_text(const std::string& path);
// Rewrites the file in place (a bind mount may show this very inode
// elsewhere), creating it with mode 0644 if needed.
void write_text(const std::string& path, const std::string& text);
void append_text(const std::string& path, const std::string& text);
// A file of the kernel's (a /proc map, a cgroup control file) takes its
// value in one write, which refuses what it does not take: false then, or
// when the file is not there.
bool write_to_kernel(const std::string& path, const std::string& value);
std::vector<std::string> lines_of(const std::string& text);

}  // namespace preview
