#include "system/service.hpp"

#include <filesystem>
#include <gtest/gtest.h>
#include <unistd.h>

#include "test_support.hpp"

namespace fs = std::filesystem;

namespace {

TEST(Service, SmallDecisions) {
    EXPECT_TRUE(pci_timeout_wanted("AArch64", "KYLIN"));
    EXPECT_FALSE(pci_timeout_wanted("aarch64", "Kylin "));
    EXPECT_FALSE(pci_timeout_wanted("x86_64", "Kylin"));
    EXPECT_FALSE(equals_ignore_case("@", "`"));  // the neighbours of the letter range stay as they are
    EXPECT_FALSE(equals_ignore_case("[", "{"));
    EXPECT_EQ(copied_service_file("/d", "plain.sh"), "/d/plain.sh");
}

// No service of this run asks for a status check, so no scenario reaches the
// three tests below; install_service keeps the check for a spec that does.

TEST(Service, MainPidOfAFailedService) {
    struct Case {
        std::string text;
        bool found;
        int32_t pid, pid_status;
    } cases[] = {
        {"x\n     Main PID: 5 (code=exited, status=203/EXEC)\n  Tasks: 0\n", true, 5, 203},
        // More digits than 32 bits hold read as the largest number.
        {"Main PID: 99999999999 (code=exited, status=4294967297/FAILURE)", true, 2147483647, 2147483647},
        {"Main PID: 2147483647 (code=exited, status=0002147483648/FAILURE)", true, 2147483647, 2147483647},
        {"Main PID: " + std::string(50000, '1') + " (code=exited, status=1/FAILURE)", true, 2147483647, 1},
        {"Main PID: 12 (code=" + std::string(50000, 'a') + ", status=3/FAILURE)", true, 12, 3},
        {"Main PID: 1234 (bash)\n", false, -7, -7},  // a running process has no status
        {"Main PID:1234 (code=exited, status=1/FAILURE)\n", false, -7, -7},
    };
    for (const Case& c : cases) {
        int32_t pid = -7, pid_status = -7;
        const std::string shown = c.text.substr(0, 80);
        EXPECT_EQ(parse_main_pid(c.text, pid, pid_status), c.found) << shown;
        EXPECT_EQ(pid, c.pid) << shown;
        EXPECT_EQ(pid_status, c.pid_status) << shown;
    }
}

// One answer of `systemctl status` as the query reports it.
struct Answer {
    bool ran;
    int32_t pid, status, pid_status;
};

TEST_F(LoggedTest, StatusCheckAttemptsThreeTimesAndPausesAfterEachFailure) {
    struct Case {
        const char* what;
        int8_t expected_status, expected_pid_status;
        std::vector<Answer> answers;
        int result, pauses;
    } cases[] = {
        {"running at the third", 0, 0, {{true, 9, 3, 1}, {true, 9, 3, 1}, {true, 0, 0, 0}}, 0, 2},
        {"never running", 0, 0, {{true, 9, 3, 1}, {true, 9, 3, 1}, {true, 9, 3, 1}}, 35, 3},
        {"expected exit status", 3, 1, {{true, 12, 3, 1}}, 0, 0},
        {"right status, wrong process status", 3, 1, {{true, 12, 3, 2}, {true, 12, 3, 2}, {true, 12, 3, 2}}, 35, 3},
        {"status unreadable", 3, 1, {{true, -1, 0, 0}}, 0, 0},
        {"no shell, then expected", 3, 1, {{false, -1, 0, 0}, {true, 12, 3, 1}}, 0, 1},
    };
    for (const Case& c : cases) {
        const ServiceSpec spec{"unit@x", packaged_service_files.data(), 3, c.expected_status, c.expected_pid_status};
        size_t queries = 0;
        std::vector<unsigned> pauses;
        auto query = [&](const std::string& name, int32_t& pid, int32_t& status, int32_t& pid_status) {
            EXPECT_EQ(name, "unit@x");
            const Answer& answer = c.answers.at(queries++);
            pid = answer.pid, status = answer.status, pid_status = answer.pid_status;
            return answer.ran;
        };
        testing::internal::CaptureStderr();
        EXPECT_EQ(check_service_status(spec, query, [&](unsigned s) { return pauses.push_back(s), 0u; }), c.result) << c.what;
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(queries, c.answers.size()) << c.what;
        EXPECT_EQ(pauses, std::vector<unsigned>(c.pauses, 5u)) << c.what;
    }
    EXPECT_NE(log_text().find("Checking service service_status: (1/3)\npid 9 service_status 3 pidtstatus 1\n"
                              "Warning: Service unit@x start with unexpected status.\n\texpected:0, actual:3\n"
                              "Checking service service_status: (2/3)\n"),
              std::string::npos);
    EXPECT_NE(log_text().find("Warning: Service unit@x status is 3 as expected, but it's process is 2 other than 1\n"
                              "Checking service service_status: (2/3)\n"),
              std::string::npos);
    EXPECT_NE(log_text().find("Checking service service_status: (1/3)\nGet service unit@x service_status failed. please "
                              "check manually\n"),
              std::string::npos);
}

TEST_F(LoggedTest, QueryReadsTheStatusAndTheMainProcessOfOurSystemctl) {
    dir.write("bin/systemctl", "#!/bin/sh\n[ $2 = running ] && exit 0\n"
                               "echo '   Main PID: 4242 (code=exited, status=3/NOTIMPLEMENTED)'; exit 3\n");
    std::filesystem::permissions(dir / "bin/systemctl", std::filesystem::perms::owner_all);
    const std::string saved_path = getenv("PATH");
    setenv("PATH", (dir / "bin:" + saved_path).c_str(), 1);
    int32_t pid = -7, status = -7, pid_status = -7;
    EXPECT_TRUE(query_service_status("running", pid, status, pid_status));
    EXPECT_EQ(std::vector<int32_t>({pid, status, pid_status}), std::vector<int32_t>({0, 0, -7}));
    EXPECT_TRUE(query_service_status("exited", pid, status, pid_status));
    EXPECT_EQ(std::vector<int32_t>({pid, status, pid_status}), std::vector<int32_t>({4242, 3, 3}));
    setenv("PATH", saved_path.c_str(), 1);
}

// In docker nothing is enabled: the copy of a service's files is what a
// unit test can do without systemctl.
TEST_F(LoggedTest, AServiceCopyRecordsTheDirectoriesItCreated) {
    const std::string cwd = fs::current_path();
    dir.write("pkg/conf/unit@.service", "[Unit]\n");
    dir.write("pkg/bin/first.sh", "#!/bin/sh\necho first\n");
    fs::create_directories(dir / "system");
    ASSERT_EQ(chdir((dir / "pkg").c_str()), 0);
    const std::vector<ServiceFile> files = {{"./conf/unit@.service", dir / "system"}, {"./bin/first.sh", "bin/scripts"}};
    EXPECT_EQ(install_service({"unit@x", files.data(), 2, service_status_not_looked_at, 0}, 2, dir / "prefix/"), 0);
    ASSERT_EQ(chdir(cwd.c_str()), 0);
    // The created bin/scripts is scanned from its first missing directory.
    EXPECT_EQ(install_entries, (std::vector<ManifestEntry>{
                                   {"FILE", dir / "system/unit@.service", "50e1eb67aba60e41e02887b7d25adfb2"},
                                   {"FILE", dir / "prefix/bin/scripts/first.sh", "8c06c96e25fee26c0898ffd6050ade6e"},
                                   {"DIR", dir / "prefix/bin/scripts", ""},
                                   {"DIR", dir / "prefix/bin", ""},
                                   {"DIR", dir / "prefix", ""}}));
}

}  // namespace
