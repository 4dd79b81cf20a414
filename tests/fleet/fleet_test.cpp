// The collection vantoria.quorl rolls the driver out over four simulated
// hosts, driven by Debian's ansible-playbook with four forks as an
// administrator drives it: check mode with --diff, the real run, the same run
// again, an audit with driver_info, and the removal, twice. The module is the
// built collection's; the programs it runs come from the .run in each host.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <string>

#include "lab_host.hpp"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using Recap = std::map<std::string, std::string>;

const std::string run_file = "/root/quorl-driver-3.2.1.run";
const std::string tree = FLEET_WORK_DIR "/results";
const std::string same = "ok=1 changed=0 unreachable=0 failed=0 skipped=0 rescued=0 ignored=0";
const std::string changed = "ok=1 changed=1 unreachable=0 failed=0 skipped=0 rescued=0 ignored=0";
const std::string failed = "ok=0 changed=0 unreachable=0 failed=1 skipped=0 rescued=0 ignored=0";
const Recap busy_fails = {
    {"fleet-fresh", changed}, {"fleet-older", changed}, {"fleet-edited", changed}, {"fleet-busy", failed}};
const std::string busy_console = "Uninstall quorl driver vantoria failed. Quorl Driver installation failed. "
                                 "error code:43 Logfile is /var/log/vantoriaquorl/driver_installer.log";

// What the controller printed, each host's last result (the tree callback's) and the play's recap.
struct Played {
    int status = -1;
    std::string out;
    std::map<std::string, json> result;
    Recap recap;
    json at(const std::string& host, const std::string& pointer) {  // null where the result has nothing
        const json::json_pointer where(pointer);
        return result[host].contains(where) ? result[host][where] : json();
    }
};

Played ansible(const std::string& command) {
    fs::remove_all(tree);
    Played run;
    FILE* pipe = popen(("cd " FLEET_SOURCE_DIR " && " + command + " 2>&1").c_str(), "r");
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) run.out.append(buffer, n);
    const int status = pclose(pipe);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::error_code none;
    for (const auto& file : fs::directory_iterator(tree, none))
        run.result[file.path().filename()] = json::parse(std::ifstream(file.path()), nullptr, false);
    std::istringstream lines(run.out.substr(std::min(run.out.find("PLAY RECAP"), run.out.size())));
    std::smatch m;
    for (std::string line; std::getline(lines, line);)
        if (std::regex_match(line, m, std::regex(R"((fleet-\w+)\s+:\s+(.*\S)\s*)")))
            run.recap[m[1]] = std::regex_replace(m[2].str(), std::regex(R"(\s+)"), " ");
    return run;
}

// The task's diff as the module writes it from the preview's report.
std::string diff_of(json preview) {
    const std::pair<const char*, const char*> marks[] = {{"created", "+ "},          {"changed", "~ "},
                                                         {"deleted", "- "},          {"modules_unloaded", "unload "},
                                                         {"modules_loaded", "load "}, {"systemctl", ""}};
    std::string text;
    for (const auto& [key, mark] : marks)
        for (const auto& item : preview[key]) text += mark + item.get<std::string>() + "\n";
    return text;
}

// The host's change list in the preview's terms.
json changes_of(const lab::Host& host) {
    json lists = {{"created", json::array()}, {"changed", json::array()}, {"deleted", json::array()}};
    for (const lab::Change& c : host.changes())
        lists[c.kind == 'C' ? "created" : c.kind == 'M' ? "changed" : "deleted"].push_back(c.path);
    return lists;
}

// An older driver: this package's, built with make, moved to where 3.1.0 would lie.
const std::string older_driver =
    "sh " + run_file + " --disable-dkms && mv /usr/local/quorl-3.2.1 /usr/local/quorl-3.1.0 && "
    "sed -i s/quorl-3.2.1/quorl-3.1.0/g /var/log/vantoriaquorl/uninstall/.driver_uninstall_manifests";

TEST(Fleet, RollsTheDriverOutAuditsAndRemovesIt) {
    LAB_REQUIRE();
    if (!fs::exists(FLEET_COLLECTIONS "/ansible_collections/vantoria/quorl/MANIFEST.json")) {
        const char* why = "the collection was not built: no ansible-galaxy (bash tools/packages.sh installs it)";
        if (!lab::skips_allowed()) FAIL() << why;
        GTEST_SKIP() << why;
    }
    for (const auto& [name, value] : {std::pair{"ANSIBLE_CONFIG", FLEET_SOURCE_DIR "/ansible.cfg"},
             {"ANSIBLE_COLLECTIONS_PATH", FLEET_COLLECTIONS}, {"ANSIBLE_CALLBACKS_ENABLED", "tree"},
             {"ANSIBLE_CALLBACK_TREE_DIR", tree.c_str()}, {"LAB_ATTACH", LAB_ATTACH}})
        setenv(name, value, 1);

    lab::Host fresh("fleet-fresh"), older("fleet-older"), edited("fleet-edited"), busy("fleet-busy");
    const std::map<std::string, lab::Host*> three = {
        {"fleet-fresh", &fresh}, {"fleet-older", &older}, {"fleet-edited", &edited}};
    const std::string release = lab::machine_release();  // the preview runs this machine's kernel
    for (lab::Host* host : {&fresh, &older, &edited, &busy})
        host->kernel(release).kernel_tree(release).card({}).directory("/lib/firmware")
            .copy(LAB_RUN_FILE, run_file, 0644);
    ASSERT_EQ(older.shell(older_driver).status, 0);
    ASSERT_EQ(busy.shell(older_driver).status, 0);
    busy.proc_modules("vantoria 4096 1 - Live 0xffffffffc0a00000\n");
    const std::string edit = " && echo vnt_peer_mem_drv >> /etc/modules-load.d/vantoria.conf";
    ASSERT_EQ(edited.shell("sh " + run_file + edit).status, 0);
    for (lab::Host* host : {&fresh, &older, &edited, &busy}) host->settle();
    const std::string busy_record = busy.record();

    // Check mode: each preview shown as its host's diff, the busy host failing already, nothing changed.
    Played check = ansible("ansible-playbook --check --diff fleet.yml");
    EXPECT_EQ(check.status, 2) << check.out;
    EXPECT_EQ(check.recap, busy_fails);
    const std::map<std::string, json> unloaded = {
        {"fleet-fresh", json::array()}, {"fleet-older", {"vantoria"}}, {"fleet-edited", {"vantoria"}}};
    for (const auto& [name, modules] : unloaded) {
        EXPECT_EQ(check.at(name, "/preview/modules_unloaded"), modules) << name;
        EXPECT_EQ(check.at(name, "/preview/modules_loaded"), json({"vantoria"})) << name;
        const std::string shown = diff_of(check.at(name, "/preview")) + "changed: [" + name + "]\n";
        EXPECT_NE(check.out.find(shown), std::string::npos) << name;
    }
    EXPECT_EQ(check.at("fleet-edited", "/preview/changed/0"), "/etc/modules-load.d/vantoria.conf");
    EXPECT_EQ(check.at("fleet-busy", "/rc"), 43);
    EXPECT_EQ(check.at("fleet-busy", "/msg"), "The installation would fail with code 43: " + busy_console);
    for (lab::Host* host : {&fresh, &older, &edited, &busy}) EXPECT_EQ(host->changes(), std::vector<lab::Change>{});

    // The real run does on each host what its preview said; the busy host keeps its older driver and record.
    Played real = ansible("ansible-playbook fleet.yml");
    EXPECT_EQ(real.status, 2) << real.out;
    EXPECT_EQ(real.recap, busy_fails);
    for (const auto& [name, host] : three) {
        EXPECT_EQ(real.at(name, "/rc"), 0) << name;
        EXPECT_EQ(real.at(name, "/status/status"), 0) << name;
        const json predicted = check.at(name, "/preview");
        EXPECT_EQ(changes_of(*host), (json{{"created", predicted["created"]}, {"changed", predicted["changed"]},
                                           {"deleted", predicted["deleted"]}})) << name;
    }
    EXPECT_EQ(real.at("fleet-busy", "/rc"), 43);
    EXPECT_EQ(real.at("fleet-busy", "/msg"), "The installation failed with code 43: " + busy_console);
    EXPECT_EQ(real.at("fleet-busy", "/log_lines/11"), "Error: 'vantoria' is busy. The packaged driver you're "
                                                      "attempting to install should kill these associated processes "
                                                      "first.");
    EXPECT_EQ(busy.record(), busy_record) << "the older driver's record, which alone can remove it, is gone";

    Played again = ansible("ansible-playbook fleet.yml");
    const Recap settled = {
        {"fleet-fresh", same}, {"fleet-older", same}, {"fleet-edited", same}, {"fleet-busy", failed}};
    EXPECT_EQ(again.recap, settled) << again.out;

    Played audit = ansible("ansible fleet -m vantoria.quorl.driver_info --tree " + tree);
    EXPECT_EQ(audit.status, 0) << audit.out;
    for (const std::string name : {"fleet-fresh", "fleet-older", "fleet-edited", "fleet-busy"}) {
        EXPECT_EQ(audit.at(name, "/changed"), false) << name;
        EXPECT_EQ(audit.at(name, "/ansible_facts/quorl_driver/installed"), true) << name;
        EXPECT_EQ(audit.at(name, "/ansible_facts/quorl_driver/status"), name == "fleet-busy" ? 1 : 0) << name;
        EXPECT_EQ(audit.at(name, "/ansible_facts/quorl_driver/version"), name == "fleet-busy" ? "3.1.0" : "3.2.1")
            << name;
        EXPECT_EQ(audit.at(name, "/ansible_facts/quorl_driver/modules_loaded"), json({"vantoria"})) << name;
    }

    // The removal: three hosts lose the driver, the busy module stops the fourth, saying what holds it.
    Played removal = ansible("ansible-playbook fleet.yml -e state=absent");
    EXPECT_EQ(removal.recap, busy_fails) << removal.out;
    for (const auto& [name, host] : three) {
        EXPECT_EQ(removal.at(name, "/status/installed"), false) << name;
        EXPECT_FALSE(host->exists("/usr/local/quorl-3.2.1")) << name;
    }
    EXPECT_EQ(removal.at("fleet-busy", "/rc"), 43);
    EXPECT_EQ(removal.at("fleet-busy", "/msg"),
              "The removal failed with code 43: Kernel module vantoria is in use (use count 1, held by no other "
              "module): stop what uses it, then run the uninstaller again. Nothing was removed from the disk.");
    EXPECT_EQ(busy.record(), busy_record);
    Played removed = ansible("ansible-playbook fleet.yml -e state=absent");
    EXPECT_EQ(removed.recap, settled) << removed.out;
}

}  // namespace
