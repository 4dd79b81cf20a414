#include "system/service.hpp"

#include <filesystem>
#include <gtest/gtest.h>
#include <unistd.h>

#include "test_support.hpp"

namespace fs = std::filesystem;

namespace {

// The timeout script's condition (aarch64 and Kylin, inside docker) no
// scenario host can meet, and it must never be inverted: pinned here.
TEST(Service, SmallDecisions) {
    EXPECT_TRUE(pci_timeout_wanted("AArch64", "KYLIN"));
    EXPECT_FALSE(pci_timeout_wanted("aarch64", "Kylin "));
    EXPECT_FALSE(pci_timeout_wanted("x86_64", "Kylin"));
    EXPECT_FALSE(equals_ignore_case("@", "`"));  // the neighbours of the letter range stay as they are
    EXPECT_FALSE(equals_ignore_case("[", "{"));
    EXPECT_EQ(copied_service_file("/d", "plain.sh"), "/d/plain.sh");
}

// No service of this run asks for a status check (every spec says its
// status is not looked at), so the check, the query and the Main PID reading
// are kept as the service code must have them but are not tested here: no
// fault in them can change what an installation does.

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
