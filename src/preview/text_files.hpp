// Small whole-file reads and writes of the preview's own state files.
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
std::vector<std::string> lines_of(const std::string& text);

}  // namespace preview
