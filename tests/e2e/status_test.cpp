// The status report on an installed host that is not quite as the
// installation left it, or asked by someone who is not root. Whatever it
// finds, it changes nothing on the host.
#include <nlohmann/json.hpp>

#include "scenario.hpp"

namespace {

using namespace scenario;
using nlohmann::json;

const std::string status_program = prefix + "bin/quorl-driver-status";
const std::string conf = "/etc/modules-load.d/vantoria.conf";

struct StatusRow {
    const char* story;
    std::vector<std::string> install_args;
    std::string after_install;  // a shell script run as root
    std::function<void(lab::Host&)> setup;
    uid_t uid;
    int status;
    std::vector<std::string> problems;
    std::function<void(const json&)> check = nullptr;
};
void PrintTo(const StatusRow& row, std::ostream* os) { *os << row.story; }

const StatusRow rows[] = {
    {"not_root_sees_no_cards_and_no_drift_in_what_it_cannot_read", {}, "chmod 0600 " + conf, nullptr, 1000, 0, {},
     [](const json& report) {
         EXPECT_EQ(report["cards"], nullptr);
         EXPECT_EQ(report["unreadable"], json::array({conf}));
         EXPECT_EQ(report["services_enabled"], json::array({"vantoriaquorl-init@vantoria"}));
     }},
    {"record_unreadable", {}, "chmod 0600 " + record_path, nullptr, 1000, 4,
     {"the install record " + record_path + " cannot be read"},
     [](const json& report) { EXPECT_EQ(report["installed"], nullptr); }},
    {"plain_build_after_a_kernel_upgrade", {"--disable-dkms"}, "",
     [](lab::Host& host) { host.kernel("6.2.0-lab-amd64"); }, 0, 1,
     {"no driver module for the running kernel 6.2.0-lab-amd64: the installed modules are for 6.1.0-lab-amd64"},
     [](const json& report) {
         EXPECT_EQ(report["modules_for_running_kernel"], false);
         EXPECT_EQ(report["module_kernels"], json::array({release}));
     }},
    {"another_version_loaded", {}, "echo 3.1.0 > /sys/module/vantoria/version", nullptr, 0, 1,
     {"the loaded driver module is version 3.1.0; installed is 3.2.1"},
     [](const json& report) { EXPECT_EQ(report["cards"][0]["firmware"], "1.0.9"); }},
    {"service_disabled", {}, "systemctl disable vantoriaquorl-init@vantoria", nullptr, 0, 1,
     {"service vantoriaquorl-init@vantoria is not enabled"},
     [](const json& report) { EXPECT_EQ(report["services_disabled"], json::array({"vantoriaquorl-init@vantoria"})); }},
};

class Status : public ::testing::TestWithParam<StatusRow> {};

TEST_P(Status, Row) {
    LAB_REQUIRE();
    const StatusRow& row = GetParam();
    lab::Host host;
    ready(host);
    ASSERT_EQ(host.install(row.install_args).status, 0);
    if (!row.after_install.empty()) {
        ASSERT_EQ(host.shell(row.after_install).status, 0);
    }
    if (row.setup) row.setup(host);
    const std::vector<lab::Change> before = host.changes();

    lab::RunOptions options;
    options.uid = options.gid = row.uid;
    const lab::RunResult r = host.run({status_program, "--json"}, options);
    EXPECT_EQ(r.status, row.status) << r.out << r.err;
    EXPECT_EQ(r.err, "");
    const json report = json::parse(r.out, nullptr, false);
    EXPECT_EQ(report["status"], row.status);
    EXPECT_EQ(report["problems"], json(row.problems));
    if (row.check) row.check(report);
    EXPECT_EQ(host.changes(), before);
}

INSTANTIATE_TEST_SUITE_P(Hosts, Status, ::testing::ValuesIn(rows), [](const auto& info) {
    return std::string(info.param.story);
});

}  // namespace
