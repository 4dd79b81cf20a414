#include "preview/text_files.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

namespace preview {

std::string read_text(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void write_text(const std::string& path, const std::string& text) {
    int fd = open(path.c_str(), O_WRONLY | O_TRUNC | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return;
    for (size_t off = 0; off < text.size();) {
        ssize_t w = write(fd, text.data() + off, text.size() - off);
        if (w <= 0) break;
        off += static_cast<size_t>(w);
    }
    close(fd);
}

bool write_to_kernel(const std::string& path, const std::string& value) {
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool written = write(fd, value.data(), value.size()) == static_cast<ssize_t>(value.size());
    close(fd);
    return written;
}

void append_text(const std::string& path, const std::string& text) { write_text(path, read_text(path) + text); }

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

}  // namespace preview
