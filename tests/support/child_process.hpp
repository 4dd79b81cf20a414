#pragma once

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

// Runs `body` in a forked child after `arrange` has set the child apart from
// this machine (a mount namespace of its own, a chroot), so that what the body
// writes to fixed paths of the machine, or reads from them, is the test's own.
// The test fails when the body failed in the child (its messages show above),
// and is skipped when `arrange` says why the child cannot be set apart.
inline void in_child(const std::function<std::string()>& arrange, const std::function<void()>& body) {
    int reason[2];
    ASSERT_EQ(pipe(reason), 0);
    fflush(nullptr);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(reason[0]);
        const std::string why = arrange();
        if (!why.empty()) {
            if (write(reason[1], why.data(), why.size()) < 0) _exit(2);
            _exit(77);
        }
        close(reason[1]);
        body();
        fflush(nullptr);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    close(reason[1]);
    std::string why;
    char buffer[256];
    for (ssize_t n; (n = read(reason[0], buffer, sizeof buffer)) > 0;) why.append(buffer, n);
    close(reason[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 77 && !why.empty()) {
        // Under CI nothing skips: a part that cannot run fails the run.
        const char* ci = std::getenv("CI");
        if (ci && std::string(ci) == "true") FAIL() << "cannot run under CI: " << why;
        GTEST_SKIP() << why;
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the part of the test run in a child failed";
}

// A mount namespace of the child's own, in which nothing it mounts is seen
// outside, with an empty tmpfs on /tmp and `keep` (a directory below it, such
// as the test's scratch) still in its place.
inline std::string own_tmp(const std::string& keep = "") {
    if (geteuid() != 0) return "needs root, for a mount namespace of its own";
    if (unshare(CLONE_NEWNS) != 0) return std::string("cannot make a mount namespace: ") + strerror(errno);
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return std::string("cannot make the mounts private: ") + strerror(errno);
    const int kept = keep.empty() ? -1 : open(keep.c_str(), O_PATH | O_DIRECTORY);
    if (mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0) return std::string("cannot mount a tmpfs on /tmp: ") + strerror(errno);
    if (kept >= 0) {
        std::error_code error;
        std::filesystem::create_directories(keep, error);
        const std::string from = "/proc/self/fd/" + std::to_string(kept);
        if (mount(from.c_str(), keep.c_str(), nullptr, MS_BIND, nullptr) != 0)
            return "cannot keep " + keep + ": " + strerror(errno);
        close(kept);
    }
    return "";
}

// `directory` as the child's root.
inline std::string own_root(const std::string& directory) {
    if (geteuid() != 0) return "needs root, for a chroot";
    if (chroot(directory.c_str()) != 0 || chdir("/") != 0) return "cannot chroot to " + directory + ": " + strerror(errno);
    return "";
}
