// The view holds against a package that tries to leave it, and nothing of it
// outlives a preview that is killed.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "lab_host.hpp"

namespace {

// The sample package whose kernel build runs `recipe` first, from the
// preview in the package directory, with this machine's release.
lab::Host& package_building(lab::Host& host, const std::string& recipe) {
    const std::string release = lab::machine_release();
    host.kernel(release).kernel_tree(release).card({}).package();
    const std::string kernel = host.package_dir() + "/kernel/";
    return host.copy(ESCAPE_ATTEMPTS, kernel + "escape_attempts.sh")
        .file(kernel + "Makefile", "KERNELDIR ?= /lib/modules/$(shell uname -r)/build\nall: modules\nmodules:\n\t" + recipe +
                                       "\n\t$(MAKE) -C $(KERNELDIR) M=$(CURDIR) modules\n");
}

lab::RunOptions in_package(lab::Host& host) {
    lab::RunOptions options;
    options.cwd = host.package_dir();
    options.lab_kernel = false;
    options.timeout = 300;
    return options;
}

TEST(Confinement, APackageThatTriesEveryWayOutStaysInTheView) {
    LAB_REQUIRE();
    lab::Host host;
    package_building(host, "bash $(CURDIR)/escape_attempts.sh");
    const lab::RunResult r = host.run({"./quorl-driver-preview", "--json", "--disable-dkms"}, in_package(host));
    // The honest part of the installation goes on as it would.
    EXPECT_EQ(r.status, 0) << r.err;
    const auto report = nlohmann::json::parse(r.out, nullptr, false);
    ASSERT_FALSE(report.is_discarded()) << r.out;
    for (const char* list : {"created", "changed", "deleted"}) {
        for (const auto& path : report[list]) EXPECT_EQ(path.get<std::string>().find("escaped"), std::string::npos) << path;
    }
    EXPECT_NE(report["created"].dump().find("/var/tmp/inside-the-view"), std::string::npos) << "the attempts ran";
    EXPECT_EQ(host.changes(), std::vector<lab::Change>{});
}

TEST(Confinement, AKilledPreviewTakesEveryProcessOfTheViewWithIt) {
    LAB_REQUIRE();
    lab::Host host;
    package_building(host, "sleep 1000 & until grep -qx sleep /run/realproc/[0-9]*/comm; do :; done; "
                           "echo build-started > /dev/tty; wait");
    // The build says on the view's console that it has begun; the preview is
    // killed then, and within a second nothing of the view runs.  (/proc
    // lists no processes in the lab; /run/realproc does.)
    const lab::RunResult r = host.shell(R"sh(running() { cat /run/realproc/[0-9]*/comm 2> /dev/null | grep -E "^(sleep|make|quorl-driver-)"; }
mkfifo /tmp/console
./quorl-driver-preview --disable-dkms > /tmp/console 2>&1 &
preview=$!
exec 3< /tmp/console
while read -r line <&3; do [[ $line == build-started ]] && break; done
running > /dev/null || echo "the build did not start: $line"
kill -9 $preview
wait $preview
echo "preview: $?"
export -f running
timeout 1 bash -c 'while running > /dev/null; do :; done' || running)sh",
                                        in_package(host));
    EXPECT_EQ(r.out, "preview: 137\n") << r.err;
    EXPECT_EQ(host.changes(), std::vector<lab::Change>{});
}

}  // namespace
