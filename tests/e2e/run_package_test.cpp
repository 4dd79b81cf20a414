// The driver package as one file, quorl-driver-3.2.1.run, as an administrator
// uses it: `sh` it with the installer's options, or with --preview first. It
// unpacks into a temporary directory of /tmp, runs the program there and takes
// the directory away; a damaged file runs nothing.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "lab_host.hpp"
#include "scenario.hpp"

namespace {

using scenario::in_order;
const std::string run_file = "/root/quorl-driver-3.2.1.run";

// The preview plays the kernel itself, so the host runs this machine's release.
lab::Host& with_run_file(lab::Host& host, const std::string& content) {
    const std::string release = lab::machine_release();
    return host.kernel(release).kernel_tree(release).card({}).directory("/lib/firmware").file(run_file, content);
}

std::string run_file_content() {
    std::ifstream in(LAB_RUN_FILE, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

TEST(RunPackage, PreviewsThenInstallsThenTheUninstallerRemovesIt) {
    LAB_REQUIRE();
    lab::Host host;
    with_run_file(host, run_file_content());

    lab::RunOptions preview;
    preview.lab_kernel = false;
    const lab::RunResult previewed = host.run({"sh", run_file, "--preview"}, preview);
    EXPECT_EQ(previewed.status, 0) << previewed.err;
    EXPECT_TRUE(in_order(previewed.out, {"\n== Preview of the installation on this machine\n"
                                         "Status 0: the installation would succeed.\n"}));
    EXPECT_EQ(host.changes(), std::vector<lab::Change>{});
    EXPECT_EQ(host.list("/tmp"), std::vector<std::string>{});

    const lab::RunResult installed = host.run({"sh", run_file});
    EXPECT_EQ(installed.status, 0);
    EXPECT_TRUE(installed.err.ends_with(scenario::success)) << installed.err;
    EXPECT_TRUE(host.exists(scenario::prefix + "bin/quorl-driver-uninstaller"));
    EXPECT_EQ(host.list("/tmp"), std::vector<std::string>{});

    const lab::RunResult removed = host.run({scenario::prefix + "bin/quorl-driver-uninstaller"});
    EXPECT_EQ(removed.status, 0) << removed.err;
    EXPECT_FALSE(host.exists(scenario::record_path));
}

// Relative key paths are the caller's: here /root, not the temporary directory.
TEST(RunPackage, KeyPathsAreTakenFromTheCallersDirectory) {
    LAB_REQUIRE();
    lab::Host host;
    with_run_file(host, run_file_content()).file("/root/keys/k.key", "secret\n");
    const lab::RunResult r =
        host.run({"sh", run_file, "--module-signing-secret-key", "keys/k.key", "--module-signing-public-key", "keys/k.der"});
    EXPECT_EQ(r.status, 11);
    EXPECT_TRUE(in_order(r.err, {"Private Key:/root/keys/k.key\nPublic Key:/root/keys/k.der\n", scenario::failure(11)}));
}

TEST(RunPackage, ADamagedFileRunsNothing) {
    LAB_REQUIRE();
    std::string content = run_file_content();
    ASSERT_GT(content.size(), 1000000u);  // the programs make the archive most of the file
    content[content.size() / 2] ^= 0x01;
    lab::Host host;
    with_run_file(host, content);
    const lab::RunResult r = host.run({"sh", run_file, "--disable-dkms"});
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(in_order(r.err, {"Error in SHA256 checksums: "})) << r.err;
    EXPECT_EQ(host.changes(), std::vector<lab::Change>{});
    EXPECT_EQ(host.read("/var/log/vantoriaquorl/driver_installer.log"), std::nullopt);
}

}  // namespace
