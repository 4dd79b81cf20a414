#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "app/log.hpp"
#include "record/run_state.hpp"

inline std::string slurp(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
}

// A scratch directory for one test, removed with everything in it at the end.
class TempDir {
public:
    TempDir() {
        char name[] = "/tmp/installer-unit-XXXXXX";
        path_ = mkdtemp(name);
    }
    ~TempDir() { std::filesystem::remove_all(path_); }
    TempDir(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }
    // Writes a file below the directory, creating its parents.
    std::string write(const std::string& name, const std::string& content) const {
        std::filesystem::create_directories(std::filesystem::path(*this / name).parent_path());
        std::ofstream(*this / name, std::ios::binary) << content;
        return *this / name;
    }

private:
    std::string path_;
};

// A test that starts from a fresh process state, its log in a file of its own scratch directory.
class LoggedTest : public ::testing::Test {
protected:
    void SetUp() override {
        reset_run_state();
        log_reset_for_tests();
        log_init(log_path.c_str());
    }
    void TearDown() override {
        log_reset_for_tests();
        reset_run_state();
    }
    std::string log_text() const { return slurp(log_path); }

    TempDir dir;
    const std::string log_path = dir / "installer.log";
};
