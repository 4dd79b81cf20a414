#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

// A scratch directory for one test, removed with everything in it at the end.
class TempDir {
public:
    TempDir() {
        char name[] = "/tmp/installer-unit-XXXXXX";
        path_ = mkdtemp(name);
    }
    ~TempDir() { std::filesystem::remove_all(path_); }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

    // Writes a file below the directory, creating its parents.
    std::string write(const std::string& name, const std::string& content) const {
        std::string full = *this / name;
        std::filesystem::create_directories(std::filesystem::path(full).parent_path());
        std::ofstream(full, std::ios::binary) << content;
        return full;
    }

private:
    std::string path_;
};

inline std::string slurp(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
}
