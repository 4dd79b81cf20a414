#include "system/service.hpp"

#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "../test_support.hpp"
#include "app/log.hpp"
#include "record/run_state.hpp"

namespace fs = std::filesystem;

namespace {

TEST(Service, EqualsIgnoreCaseFoldsAsciiCapitalsOnly) {
    struct Case {
        std::string a, b;
        bool equal;
    } cases[] = {
        {"aarch64", "aarch64", true},  {"AArch64", "aarch64", true}, {"KYLIN", "Kylin", true},
        {"kylin", "Kylin ", false},    {"Kylin", "Kyli", false},     {"", "", true},
        {"x86_64", "aarch64", false},  {"\xc3\x84", "\xc3\xa4", false},  // no locale: Ä is not ä
        {"@", "`", false},  // the neighbours of the letter range stay as they are
        {"[", "{", false},
    };
    for (const Case& c : cases) EXPECT_EQ(equals_ignore_case(c.a, c.b), c.equal) << c.a << " / " << c.b;
}

TEST(Service, PciTimeoutOnlyOnAarch64Kylin) {
    struct Case {
        std::string arch, os;
        bool wanted;
    } cases[] = {
        {"aarch64", "Kylin", true},   {"AARCH64", "kylin", true}, {"x86_64", "Kylin", false},
        {"aarch64", "debian", false}, {"aarch64", "", false},     {"", "Kylin", false},
    };
    for (const Case& c : cases) EXPECT_EQ(pci_timeout_wanted(c.arch, c.os), c.wanted) << c.arch << " " << c.os;
}

TEST(Service, InstanceNameListsThePeerMemoryModuleWhenListedAtAll) {
    struct Case {
        int32_t state;
        std::string name;
    } cases[] = {
        {0, "vantoriaquorl-init@vantoria"},
        {-1, "vantoriaquorl-init@vantoria,vnt_peer_mem_drv"},
        {-2, "vantoriaquorl-init@vantoria,vnt_peer_mem_drv"},
        {1, "vantoriaquorl-init@vantoria,vnt_peer_mem_drv"},
    };
    for (const Case& c : cases) EXPECT_EQ(service_instance_name(c.state), c.name) << c.state;
}

TEST(Service, SpecPacksItsThreeNumbersIntoBitFields) {
    const ServiceSpec spec{"vantoriaquorl-init@vantoria", packaged_service_files.data(), 3,
                           service_status_not_looked_at, 0};
    EXPECT_EQ(sizeof(ServiceSpec), sizeof(std::string) + sizeof(const ServiceFile*) + 3);
    uint32_t bits = 0;
    std::memcpy(&bits, reinterpret_cast<const char*>(&spec) + sizeof(std::string) + sizeof(const ServiceFile*), 3);
    EXPECT_EQ(bits, 0x203u);
    EXPECT_EQ(spec.expected_status, -128);
    EXPECT_EQ(spec.file_count, 3u);
}

TEST(Service, MainPidOfAFailedService) {
    struct Case {
        std::string text;
        bool found;
        int32_t pid, pid_status;
    } cases[] = {
        {"   Main PID: 1234 (code=exited, status=1/FAILURE)\n", true, 1234, 1},
        {"Main PID: 77 (code=killed, status=9/KILL)", true, 77, 9},
        {"x\n     Main PID: 5 (code=exited, status=203/EXEC)\n  Tasks: 0\n", true, 5, 203},
        // More digits than 32 bits hold read as the largest number.
        {"Main PID: 99999999999 (code=exited, status=4294967297/FAILURE)", true, 2147483647, 2147483647},
        {"Main PID: 2147483647 (code=exited, status=0002147483648/FAILURE)", true, 2147483647, 2147483647},
        {"Main PID: " + std::string(50000, '1') + " (code=exited, status=1/FAILURE)", true, 2147483647, 1},
        {"Main PID: 12 (code=" + std::string(50000, 'a') + ", status=3/FAILURE)", true, 12, 3},
        {"Main PID: 1234 (bash)\n", false, -7, -7},  // a running process has no status
        {"Main PID: 1234 (code=exited, status=1/FAIL-URE)\n", false, -7, -7},
        {"Main PID: 1234 (code=exited, status=/FAILURE)\n", false, -7, -7},
        {"Main PID:1234 (code=exited, status=1/FAILURE)\n", false, -7, -7},
        {"", false, -7, -7},
    };
    for (const Case& c : cases) {
        int32_t pid = -7, pid_status = -7;
        const std::string shown = c.text.substr(0, 80);
        EXPECT_EQ(parse_main_pid(c.text, pid, pid_status), c.found) << shown;
        EXPECT_EQ(pid, c.pid) << shown;
        EXPECT_EQ(pid_status, c.pid_status) << shown;
    }
}

TEST(Service, EnableCommandIsCutAtItsBuffer) {
    EXPECT_EQ(service_enable_command("vantoriaquorl-init@vantoria"),
              "systemctl enable vantoriaquorl-init@vantoria 2>&1 && systemctl restart vantoriaquorl-init@vantoria 2>&1");
    const std::string long_name(120, 'n');
    const std::string full = "systemctl enable " + long_name + " 2>&1 && systemctl restart " + long_name + " 2>&1";
    EXPECT_EQ(service_enable_command(long_name), full.substr(0, 255));
}

TEST(Service, DestinationsAndRecordedPaths) {
    struct Case {
        std::string destination, source, directory, recorded;
    } cases[] = {
        {"/lib/systemd/system", "./conf/vantoriaquorl-init@.service", "/lib/systemd/system",
         "/lib/systemd/system/vantoriaquorl-init@.service"},
        // The prefix ends in "/" already; the doubled slash is used and recorded as it is.
        {"bin", "./bin/pci_timeout.sh", "/usr/local/quorl-3.2.1//bin", "/usr/local/quorl-3.2.1//bin/pci_timeout.sh"},
        {"bin", "vantoriaquorl.sh", "/usr/local/quorl-3.2.1//bin", "/usr/local/quorl-3.2.1//bin/vantoriaquorl.sh"},
    };
    for (const Case& c : cases) {
        const std::string directory = service_destination(c.destination, "/usr/local/quorl-3.2.1/");
        EXPECT_EQ(directory, c.directory);
        EXPECT_EQ(copied_service_file(directory, c.source), c.recorded);
    }
}

using ServiceLogTest = LoggedTest;

// One answer of `systemctl status` as the query reports it.
struct Answer {
    bool ran;
    int32_t pid, status, pid_status;
};

TEST_F(ServiceLogTest, StatusCheckAttemptsThreeTimesAndPausesAfterEachFailure) {
    struct Case {
        const char* what;
        int8_t expected_status, expected_pid_status;
        std::vector<Answer> answers;
        int result;
        int queries;
        int pauses;
    } cases[] = {
        {"running at once", 0, 0, {{true, 0, 0, 0}}, 0, 1, 0},
        {"running at the third", 0, 0, {{true, 9, 3, 1}, {true, 9, 3, 1}, {true, 0, 0, 0}}, 0, 3, 2},
        {"never running", 0, 0, {{true, 9, 3, 1}, {true, 9, 3, 1}, {true, 9, 3, 1}}, 35, 3, 3},
        {"expected exit status", 3, 1, {{true, 12, 3, 1}}, 0, 1, 0},
        {"right status, wrong process status", 3, 1, {{true, 12, 3, 2}, {true, 12, 3, 2}, {true, 12, 3, 2}}, 35, 3, 3},
        {"status unreadable", 3, 1, {{true, -1, 0, 0}}, 0, 1, 0},
        {"no shell, then expected", 3, 1, {{false, -1, 0, 0}, {true, 12, 3, 1}}, 0, 2, 1},
    };
    for (const Case& c : cases) {
        const ServiceSpec spec{"unit@x", packaged_service_files.data(), 3, c.expected_status, c.expected_pid_status};
        int queries = 0;
        std::vector<unsigned> pauses;
        auto query = [&](const std::string& name, int32_t& pid, int32_t& status, int32_t& pid_status) {
            EXPECT_EQ(name, "unit@x");
            const Answer& answer = c.answers.at(queries++);
            pid = answer.pid;
            status = answer.status;
            pid_status = answer.pid_status;
            return answer.ran;
        };
        auto pause = [&](unsigned seconds) {
            pauses.push_back(seconds);
            return 0u;
        };
        testing::internal::CaptureStderr();
        EXPECT_EQ(check_service_status(spec, query, pause), c.result) << c.what;
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(queries, c.queries) << c.what;
        EXPECT_EQ(pauses, std::vector<unsigned>(c.pauses, 5u)) << c.what;
    }
}

TEST_F(ServiceLogTest, StatusCheckMessages) {
    const ServiceSpec started{"unit@x", packaged_service_files.data(), 3, 0, 0};
    const ServiceSpec exited{"unit@y", packaged_service_files.data(), 3, 3, 1};
    auto answer = [](Answer a) {
        return [a](const std::string&, int32_t& pid, int32_t& status, int32_t& pid_status) {
            pid = a.pid;
            status = a.status;
            pid_status = a.pid_status;
            return a.ran;
        };
    };
    auto no_pause = [](unsigned) { return 0u; };
    check_service_status(started, answer({true, 9, 3, 1}), no_pause);
    check_service_status(exited, answer({true, 9, 4, 1}), no_pause);
    testing::internal::CaptureStderr();
    check_service_status(exited, answer({true, -1, 0, 0}), no_pause);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Get service unit@y service_status failed. please check manually\n");

    std::string expected;
    for (int attempt = 1; attempt <= 3; ++attempt) {
        expected += "Checking service service_status: (" + std::to_string(attempt) + "/3)\n";
        expected += "pid 9 service_status 3 pidtstatus 1\n";
        expected += "Warning: Service unit@x start with unexpected status.\n\texpected:0, actual:3\n";
    }
    for (int attempt = 1; attempt <= 3; ++attempt) {
        expected += "Checking service service_status: (" + std::to_string(attempt) + "/3)\n";
        expected += "pid 9 service_status 4 pidtstatus 1\n";
        // The same words when it is the status that differs.
        expected += "Warning: Service unit@y status is 3 as expected, but it's process is 1 other than 1\n";
    }
    expected += "Checking service service_status: (1/3)\n";
    expected += "Get service unit@y service_status failed. please check manually\n";
    EXPECT_EQ(log_text(), expected);
}

// A systemctl of our own, first on PATH, answering by the unit's name.
class FakeSystemctlTest : public ServiceLogTest {
protected:
    void SetUp() override {
        ServiceLogTest::SetUp();
        dir.write("bin/systemctl",
                  "#!/bin/sh\n"
                  "echo \"$*\" >> " + dir / "calls" + "\n"
                  "case $2 in\n"
                  "running) echo '   Active: active (running)'; exit 0 ;;\n"
                  "exited) echo '   Main PID: 4242 (code=exited, status=3/NOTIMPLEMENTED)'; exit 3 ;;\n"
                  "killed) echo '   Main PID: 17 (code=killed, status=9/KILL)'; exit 3 ;;\n"
                  "*) exit 4 ;;\n"
                  "esac\n");
        fs::permissions(dir / "bin/systemctl", fs::perms::owner_all);
        saved_path = getenv("PATH");
        setenv("PATH", (dir / "bin:" + saved_path).c_str(), 1);
    }
    void TearDown() override {
        setenv("PATH", saved_path.c_str(), 1);
        ServiceLogTest::TearDown();
    }
    std::string saved_path;
};

TEST_F(FakeSystemctlTest, QueryReadsTheStatusAndTheMainProcess) {
    struct Case {
        std::string unit;
        bool result;
        int32_t pid, status, pid_status;
    } cases[] = {
        {"running", true, 0, 0, -7},  // a good status leaves the process status alone
        {"exited", true, 4242, 3, 3},
        {"killed", true, 17, 3, 9},
        {"unknown", false, 0, 4, -7},
    };
    for (const Case& c : cases) {
        int32_t pid = -7, status = -7, pid_status = -7;
        EXPECT_EQ(query_service_status(c.unit, pid, status, pid_status), c.result) << c.unit;
        EXPECT_EQ(pid, c.pid) << c.unit;
        EXPECT_EQ(status, c.status) << c.unit;
        EXPECT_EQ(pid_status, c.pid_status) << c.unit;
    }
    EXPECT_EQ(slurp(dir / "calls"), "status running\nstatus exited\nstatus killed\nstatus unknown\n");
}

TEST_F(FakeSystemctlTest, StatusCheckOfAServiceThatLooks) {
    struct Case {
        std::string unit;
        int8_t expected_status, expected_pid_status;
        int result;
        size_t pauses;
    } cases[] = {
        {"running", 0, 0, 0, 0},
        {"exited", 3, 3, 0, 0},
        {"exited", 3, 1, 35, 3},
        {"killed", 3, 9, 0, 0},
        {"unknown", 0, 0, 35, 3},
    };
    for (const Case& c : cases) {
        const ServiceSpec spec{c.unit, packaged_service_files.data(), 3, c.expected_status, c.expected_pid_status};
        size_t pauses = 0;
        EXPECT_EQ(check_service_status(spec, query_service_status,
                                       [&](unsigned seconds) {
                                           EXPECT_EQ(seconds, 5u);
                                           ++pauses;
                                           return 0u;
                                       }),
                  c.result)
            << c.unit;
        EXPECT_EQ(pauses, c.pauses) << c.unit;
    }
}

// The copy of a service's files, in docker where nothing is enabled: what a
// unit test can do without systemctl.
class ServiceCopyTest : public ServiceLogTest {
protected:
    void SetUp() override {
        ServiceLogTest::SetUp();
        cwd = fs::current_path();
        saved_umask = umask(0);
        dir.write("pkg/conf/unit@.service", "[Unit]\n");
        dir.write("pkg/bin/first.sh", "#!/bin/sh\necho first\n");
        dir.write("pkg/bin/second.sh", "#!/bin/sh\necho second\n");
        fs::create_directories(dir / "pkg/bin/a-directory.sh");
        fs::permissions(dir / "pkg/bin/first.sh", fs::perms::all);
        fs::permissions(dir / "pkg/bin/second.sh", fs::perms::all);
        fs::create_directories(dir / "system");
        fs::create_directories(dir / "prefix");
        ASSERT_EQ(chdir((dir / "pkg").c_str()), 0);
    }
    void TearDown() override {
        EXPECT_EQ(chdir(cwd.c_str()), 0);
        umask(saved_umask);
        ServiceLogTest::TearDown();
    }
    static unsigned mode_of(const std::string& path) {
        struct stat st;
        return stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
    }

    std::string cwd;
    mode_t saved_umask = 0;
    const std::string prefix = dir / "prefix/";
};

TEST_F(ServiceCopyTest, CopiesInOrderAndRecordsWhatItCreated) {
    const std::vector<ServiceFile> files = {
        {"./conf/unit@.service", dir / "system"},
        {"./bin/first.sh", "bin/scripts"},
        {"./bin/second.sh", "bin/scripts"},
    };
    const ServiceSpec spec{"unit@x", files.data(), 3, service_status_not_looked_at, 0};
    EXPECT_EQ(install_service(spec, 2, prefix), 0);

    // The created bin/scripts is scanned from its first missing directory; the
    // next copy finds it and records the path in the doubled-slash form.
    const std::vector<ManifestEntry> expected = {
        {"FILE", dir / "system/unit@.service", "50e1eb67aba60e41e02887b7d25adfb2"},
        {"FILE", dir / "prefix/bin/scripts/first.sh", "8c06c96e25fee26c0898ffd6050ade6e"},
        {"DIR", dir / "prefix/bin/scripts", ""},
        {"DIR", dir / "prefix/bin", ""},
        {"FILE", dir / "prefix//bin/scripts/second.sh", "837d4bd130f42c84015832bd9ef5469e"},
    };
    EXPECT_EQ(install_entries, expected);
    EXPECT_EQ(slurp(dir / "prefix/bin/scripts/second.sh"), "#!/bin/sh\necho second\n");
    // Group and other may neither write nor execute what was recorded.
    EXPECT_EQ(mode_of(dir / "prefix/bin/scripts/first.sh"), 0744u);
    EXPECT_EQ(mode_of(dir / "prefix/bin/scripts/second.sh"), 0744u);
    EXPECT_EQ(mode_of(dir / "system/unit@.service"), 0644u);
    EXPECT_EQ(md5_cache.count("unit@x"), 0u);  // no SERVICE record inside docker
    EXPECT_NE(log_text().find("Debug: cmd is cp -f ./bin/first.sh " + prefix + "/bin/scripts 2>&1\n"),
              std::string::npos);
}

TEST_F(ServiceCopyTest, AFailedCopyIsSkippedAndAMissingSourceEndsTheService) {
    const std::vector<ServiceFile> files = {
        {"./bin/a-directory.sh", "bin"},
        {"./bin/first.sh", "bin"},
        {"./bin/missing.sh", "bin"},
        {"./bin/second.sh", "bin"},
    };
    const ServiceSpec failed_copy{"unit@x", files.data(), 2, service_status_not_looked_at, 0};
    EXPECT_EQ(install_service(failed_copy, 2, prefix), 0);
    // The failed copy made bin and left it unrecorded; the next copy finds it there.
    const std::vector<ManifestEntry> after_first = {
        {"FILE", dir / "prefix//bin/first.sh", "8c06c96e25fee26c0898ffd6050ade6e"},
    };
    EXPECT_EQ(install_entries, after_first);
    EXPECT_NE(log_text().find("Warning: Install ./bin/a-directory.sh failed.\n"), std::string::npos);

    const ServiceSpec missing{"unit@x", files.data() + 1, 3, service_status_not_looked_at, 0};
    EXPECT_EQ(install_service(missing, 2, prefix), 8);
    EXPECT_EQ(install_entries.size(), 2u);
    EXPECT_FALSE(fs::exists(dir / "prefix/bin/second.sh"));
    EXPECT_NE(log_text().find("Error: service or bin not existed ./bin/missing.sh\n"), std::string::npos);
}

}  // namespace
