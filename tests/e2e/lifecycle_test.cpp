// The rest of the driver's life on one host: installed, reported on, edited
// by an administrator, removed by its own uninstaller, reported as gone, and
// installed again; and the uninstaller's refusals, which leave the record as
// it was so that a second run resumes.
#include <nlohmann/json.hpp>

#include "scenario.hpp"

namespace {

using namespace scenario;
using nlohmann::json;

const std::string uninstaller = prefix + "bin/quorl-driver-uninstaller";
const std::string status_program = prefix + "bin/quorl-driver-status";
const std::string edited = "/etc/modules-load.d/vantoria.conf";

json run_json(lab::Host& host, const std::string& program, int* status) {
    const lab::RunResult r = host.run({program, "--json"});
    *status = r.status;
    return json::parse(r.out, nullptr, false);
}

struct BuildPath {
    const char* story;
    std::vector<std::string> args;
};
void PrintTo(const BuildPath& path, std::ostream* os) { *os << path.story; }

class Lifecycle : public ::testing::TestWithParam<BuildPath> {};

TEST_P(Lifecycle, InstalledReportedEditedRemovedAndInstalledAgain) {
    LAB_REQUIRE();
    lab::Host host;
    ready(host);
    ASSERT_EQ(host.install(GetParam().args).status, 0);
    int status = -1;
    json report = run_json(host, status_program, &status);
    EXPECT_EQ(status, 0) << report.dump(2);
    EXPECT_EQ(report["installed"], true);
    EXPECT_EQ(report["version"], "3.2.1");
    EXPECT_EQ(report["changed"], json::array());
    EXPECT_EQ(report["modules_loaded"], json::array({"vantoria"}));

    host.shell("echo 'vnt_peer_mem_drv' >> " + edited);
    report = run_json(host, status_program, &status);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(report["changed"], json::array({edited}));
    EXPECT_EQ(report["missing"], json::array());

    // The modules wherever they stand in the list, the peer-memory one first.
    host.proc_modules("snd 4096 0 - Live 0xffffffffc0000000\nvantoria 4096 0 - Live 0xffffffffc0a00000\n"
                      "vnt_peer_mem_drv 4096 0 - Live 0xffffffffc0b00000\n");
    report = run_json(host, uninstaller, &status);
    EXPECT_EQ(status, 0) << report.dump(2);
    EXPECT_EQ(report["kept"], json::array({edited}));
    EXPECT_EQ(report["modules_unloaded"], json::array({"vnt_peer_mem_drv", "vantoria"}));
    EXPECT_EQ(host.module_events().unloaded, (std::vector<std::string>{"vnt_peer_mem_drv", "vantoria"}));
    // The module index no longer leads modprobe to the module.
    EXPECT_TRUE(lacks(host.read("/lib/modules/" + release + "/modules.dep").value_or(""), "vantoria"));

    // The host as it was before the installation (every recorded path gone, the
    // DKMS tree too), but for the edited file, the two logs and the module index
    // that depmod rewrote.
    std::vector<lab::Change> left;
    for (const lab::Change& change : host.changes()) {
        const bool index = change.path.rfind("/usr/lib/modules/" + release + "/modules.", 0) == 0;
        if (!index && change.path.rfind(package_dir + "/", 0) != 0) left.push_back(change);
    }
    EXPECT_EQ(left, (std::vector<lab::Change>{{'C', edited},
                                              {'C', "/var/log/vantoriaquorl"},
                                              {'C', "/var/log/vantoriaquorl/driver_installer.log"},
                                              {'C', "/var/log/vantoriaquorl/driver_uninstaller.log"}}));

    // The installed programs went with the rest; the package still has its own.
    report = run_json(host, package_dir + "/quorl/bin/quorl-driver-status", &status);
    EXPECT_EQ(status, 3);
    EXPECT_EQ(report["installed"], false);
    EXPECT_EQ(host.run({package_dir + "/quorl/bin/quorl-driver-uninstaller"}).err,
              "No Quorl driver is installed: there is nothing to remove.\n");
    EXPECT_EQ(host.install(GetParam().args).status, 0);
}

INSTANTIATE_TEST_SUITE_P(Hosts, Lifecycle,
                         ::testing::Values(BuildPath{"dkms", {}}, BuildPath{"plain_make", {"--disable-dkms"}}),
                         [](const auto& info) { return std::string(info.param.story); });

// The uninstaller stops: the module list or a removal step says no. Nothing
// of the record is lost, and a second run, once the cause is gone, finishes.
struct Refusal {
    const char* story;
    std::function<void(lab::Host&)> obstacle;  // after the installation
    int status;
    std::string message;
    std::function<void(lab::Host&)> cleared;  // what the administrator does before the second run
};
void PrintTo(const Refusal& row, std::ostream* os) { *os << row.story; }

const Refusal refusals[] = {
    {"a_module_in_use_below_the_first_line",
     [](lab::Host& h) {
         h.proc_modules("snd 4096 0 - Live 0xffffffffc0000000\nvantoria 4096 2 - Live 0xffffffffc0a00000\n");
     },
     43,
     "Kernel module vantoria is in use (use count 2, held by no other module): stop what uses it, then run the "
     "uninstaller again. Nothing was removed from the disk.\n",
     [](lab::Host& h) { h.proc_modules("snd 4096 0 - Live 0xffffffffc0000000\n"); }},
    {"dkms_cannot_remove_the_registration",
     [](lab::Host& h) { h.stub("dkms").answer("dkms", "remove quorl/3.2.1 --all", 1, "Error! busy\n", 1); },
     140,
     "The removal stopped with code 140. The install record is kept: run the uninstaller again once the cause is "
     "fixed, and it resumes where it stopped.\n",
     nullptr},
};

class UninstallerStops : public ::testing::TestWithParam<Refusal> {};

TEST_P(UninstallerStops, KeepsTheRecordAndASecondRunFinishes) {
    LAB_REQUIRE();
    const Refusal& row = GetParam();
    lab::Host host;
    ready(host);
    ASSERT_EQ(host.install().status, 0);
    const std::string record = host.record();
    row.obstacle(host);
    const lab::RunResult r = host.run({uninstaller});
    EXPECT_EQ(r.status, row.status);
    EXPECT_TRUE(in_order(r.err, {row.message, "Quorl Driver uninstallation failed. error code:" +
                                                  std::to_string(row.status) + "\n"}));
    EXPECT_EQ(host.record(), record);
    if (row.status == 43) {
        for (const Line& line : parse_record(record)) EXPECT_TRUE(present(host, line)) << line.type << " " << line.path;
    }
    if (row.cleared) row.cleared(host);
    const lab::RunResult again = host.run({uninstaller});
    EXPECT_EQ(again.status, 0) << again.err;
    EXPECT_FALSE(host.exists(record_path));
    EXPECT_FALSE(host.exists(uninstaller));
}

INSTANTIATE_TEST_SUITE_P(Hosts, UninstallerStops, ::testing::ValuesIn(refusals),
                         [](const auto& info) { return std::string(info.param.story); });

}  // namespace
