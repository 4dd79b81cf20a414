#include "status/status_report.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <map>

namespace {

using Texts = std::vector<std::string>;
const std::string module_file = "/lib/modules/6.1.0-lab-amd64/kernel/drivers/misc/vantoria.ko";
const std::string unit_file = "/lib/systemd/system/vantoriaquorl-init@.service";
const std::string conf = "/etc/modules-load.d/vantoria.conf";

ChipInfo tr_card(uint32_t firmware) {
    ChipInfo chip;
    chip.device_id = 0x0002;
    decode_firmware_register(firmware, chip);
    std::snprintf(chip.pci_name, sizeof chip.pci_name, "0000:65:00.0");
    return chip;
}

// What a host shows, by path; the reader hands the judge one sight for each recorded path, in order.
struct Host : Observations {
    std::map<std::string, PathSight> paths;
    Observations seen() const {
        Observations seen = *this;
        for (const RecordedPath& path : recorded_paths(entries))
            seen.sights.push_back(paths.count(path.path) ? paths.at(path.path) : PathSight{});
        return seen;
    }
};

// A plain build for the lab's kernel, every part of it as installed.
Host healthy() {
    Host seen;
    seen.record = RecordReading::read;
    seen.entries = {{"QUORL", "/usr/local/quorl-3.2.1/", "/usr/local/quorl-3.2.1/"},
                    {"SERVICE", "vantoriaquorl-init@vantoria", "5e"},
                    {"FILE", module_file, "a1"},
                    {"FILE", unit_file, "5e"},
                    {"FILE", conf, "c0"},
                    {"RLINK", "/usr/local/quorl-3.2.1//lib", "/usr/local/quorl-3.2.1//lib"},
                    {"DIR", "/usr/local/quorl-3.2.1", "/usr/local/quorl-3.2.1"}};
    using Kind = PathSight::Kind;
    seen.paths = {{unit_file, {Kind::file, "5e"}}, {module_file, {Kind::file, "a1"}}, {conf, {Kind::file, "c0"}},
                  {"/usr/local/quorl-3.2.1//lib", {Kind::link, ""}}, {"/usr/local/quorl-3.2.1", {Kind::directory, ""}}};
    seen.running_kernel = "6.1.0-lab-amd64";
    seen.modules_dep = "kernel/drivers/misc/other.ko: kernel/drivers/misc/vantoria.ko\nkernel/drivers/misc/vantoria.ko:\n";
    seen.proc_modules = "snd 4096 0 - Live 0x0\nvantoria 8192 0 - Live 0x1\n";
    seen.loaded_version = "3.2.1";
    seen.services_enabled = {"vantoriaquorl-init@vantoria"};
    seen.cards = std::vector<ChipInfo>{tr_card(0x01000009)};
    return seen;
}

TEST(StatusReport, FindingsAndExitStatus) {
    using Kind = PathSight::Kind;
    struct Row {
        const char* story;
        std::function<void(Host&)> change;
        int status;
        Texts problems;
    } rows[] = {
        {"no record", [](Host& s) { s.record = RecordReading::absent; }, 3, {}},
        {"no QUORL line", [](Host& s) { s.entries.erase(s.entries.begin()); }, 4,
         {"the install record /var/log/vantoriaquorl/uninstall/.driver_uninstall_manifests does not begin with a QUORL line"}},
        {"drift", [](Host& s) {
             s.paths[conf].md5 = "c1";
             s.paths[unit_file].kind = Kind::absent;
             s.paths["/usr/local/quorl-3.2.1//lib"].kind = Kind::directory;
             s.paths["/usr/local/quorl-3.2.1"].kind = Kind::absent;
         }, 1, {"changed: " + conf, "changed: /usr/local/quorl-3.2.1//lib", "missing: " + unit_file,
                "missing: /usr/local/quorl-3.2.1"}},
        {"compressed module", [](Host& s) { s.modules_dep = "updates/dkms/vantoria.ko.zst:\n"; }, 0, {}},
        {"kernel upgraded", [](Host& s) {
             s.running_kernel = "6.2.0-new";
             s.modules_dep = "kernel/x.ko: kernel/vantoria.ko\nkernel/old_vantoria.ko:\n";
         }, 1,
         {"no driver module for the running kernel 6.2.0-new: the installed modules are for 6.1.0-lab-amd64"}},
        {"not loaded", [](Host& s) { s.proc_modules = "vnt_peer_mem_drv 1 0 - Live 0x0\n"; }, 1,
         {"driver module vantoria is not loaded"}},
        {"older name loaded", [](Host& s) { s.proc_modules = "qv_driver 1 0 - Live 0x0\n"; }, 0, {}},
        {"peer memory recorded", [](Host& s) { s.entries.push_back({"FILE", "/m/vnt_peer_mem_drv.ko", "e"}); }, 1,
         {"missing: /m/vnt_peer_mem_drv.ko", "peer-memory module vnt_peer_mem_drv is not loaded"}},
        {"dkms unregistered", [](Host& s) {
             s.entries.push_back({"DKMS", "3.2.2", "3.2.2"});
             s.loaded_version = "3.2.2";
         }, 1, {"DKMS: quorl/3.2.2 is not registered"}},
        {"old firmware", [](Host& s) { s.cards = std::vector<ChipInfo>{tr_card(0x01000008)}; }, 1,
         {"no card has firmware above 1.0.8"}},
    };
    for (const Row& row : rows) {
        Host host = healthy();
        row.change(host);
        const StatusReport report = judge_status(host.seen());
        EXPECT_EQ(report.status, row.status) << row.story;
        EXPECT_EQ(report.problems, row.problems) << row.story;
    }
}

// The unit file counts once among the intact paths, though two lines name it.
TEST(StatusReport, Text) {
    Host host = healthy();
    host.paths[conf].md5 = "c1";
    host.cards.reset();
    const StatusReport report = judge_status(host.seen());
    EXPECT_EQ(status_text(report),
              "Quorl driver 3.2.1 installed in /usr/local/quorl-3.2.1/\n"
              "recorded paths: 4 intact, 1 changed, 0 missing, 0 unreadable\n"
              "DKMS: not used (built with make)\n"
              "running kernel 6.1.0-lab-amd64: driver module present\n"
              "modules loaded: vantoria (driver version 3.2.1)\n"
              "services enabled: vantoriaquorl-init@vantoria\n"
              "cards: not read (their registers are for root only)\n"
              "problems:\n  changed: /etc/modules-load.d/vantoria.conf\n"
              "status 1: installed, with the problems above\n");
}

}  // namespace
