#include "dkms/dkms_config.hpp"

#include <cstdint>
#include <cstdio>
#include <sstream>

#include "app/log.hpp"
#include "app/result_codes.hpp"
#include "host/commands.hpp"
#include "host/environment_probes.hpp"
#include "host/files.hpp"
#include "record/run_state.hpp"

namespace {

const char* const framework_file = "/etc/dkms/framework.conf";

std::string value_behind(const std::string& line, size_t at, size_t key_length) {
    std::string value = line.substr(at + key_length);
    std::erase(value, '"');
    return value;
}

}  // namespace

void parse_dkms_config(const std::string& text, DkmsConfig& config) {
    std::istringstream stream(text);
    std::string line;
    while (std::getline(stream, line)) {
        if (!line.empty() && line[0] == '#') continue;
        size_t at;
        if ((at = line.find("dkms_tree=")) != std::string::npos) {
            config.dkms_tree = value_behind(line, at, 10);
        } else if ((at = line.find("source_tree=")) != std::string::npos) {
            config.source_tree = value_behind(line, at, 12);
        } else if ((at = line.find("install_tree=")) != std::string::npos) {
            config.install_tree = value_behind(line, at, 13);
        }
    }
}

DkmsConfig read_dkms_config() {
    log_message(2, "parsing dkms config %s\n", framework_file);
    DkmsConfig config;
    std::string text;
    if (!file_exists(framework_file)) {
        log_message(3, "dkms conf %s not exist. assume default value.\n", framework_file);
    } else if (!read_file(framework_file, text)) {
        log_message(3, "parse dkms file failed. assume default value.\n");
    } else if (text.empty()) {
        log_message(3, "dkms conf %s is empty. assume default value.\n", framework_file);
    } else {
        parse_dkms_config(text, config);
    }
    log_message(2, "source_tree %s\ndkms_tree %s\ninstall_tree %s\n", config.source_tree.c_str(),
                config.dkms_tree.c_str(), config.install_tree.c_str());
    return config;
}

int remove_dkms_modules(const std::string& /*version*/) {
    if (find_in_path("dkms").empty()) {
        log_message(3, "dkms not installed, exit dkms uninstall.\n if you have dkms, please check PATH.");
        return removal::dkms_missing;
    }
    const DkmsConfig config = read_dkms_config();
    for (const std::string& path : glob_paths(config.dkms_tree + "/quorl/*")) {
        log_message(2, "checking %s\n", path.c_str());
        if (is_symlink(path)) continue;
        const std::string source = path + "/source";
        if (!is_symlink(source) && !is_directory(source)) continue;
        const std::string version = path.substr(path.rfind('/') + 1);

        const std::string command = "dkms remove quorl/" + version + " --all 2>&1";
        log_message(0, "CMD: %s", command.c_str());
        std::string output;
        int32_t status = 0;
        // Exit code 3 means there was nothing left to remove.
        if (!run_command(command, output, status) || (status != 0 && status != 3)) {
            printf("Error happened in %s. please check manually. remove returns %d.\n%s\n", command.c_str(), status,
                   output.c_str());
            return removal::dkms_removal_failed;
        }
        uninstall_state.dkms.push_back(version);

        // The sources are looked for at the fixed path, whatever source_tree says.
        const std::string source_dir = "/usr/src/quorl-" + version;
        log_message(0, "CMD: %s", source_dir.c_str());
        if (file_exists(source_dir)) {
            if (!run_command("rm -rf " + source_dir + " 2>&1", output, status) || status != 0) {
                log_message(3, "remove dkms src /usr/src/%s may failed. please remove it manually.\n", version.c_str());
                return removal::dkms_removal_failed;
            }
            uninstall_state.removed.push_back(source_dir);
        }
    }
    return 0;
}

int uninstall_dkms_entry(ManifestEntry entry) {
    // Unlike the service's skip inside a container, this one stops the
    // removal walk as a failure.
    if (inside_docker()) {
        log_message(2, "in side docker. skip dkms uninstall.\n");
        return removal::dkms_in_container;
    }
    return remove_dkms_modules(entry.path);
}

void clean_dkms_autoinstaller(const std::string& distribution) {
    if (distribution != "UBUNTU") {
        log_message(3, "Distro not match\n");
        return;
    }
    log_message(2, "this is UBUNTU\n");
    std::string output;
    if (!run_command_output("dkms status | wc -l", output)) log_message(4, "dkms status failed.\n");
    if (output.empty()) log_message(4, "query dkms status failed.\n");
    if (!output.empty() && output[0] == '0') {
        log_message(2, "no module managed by dkms. remove /etc/init.d/dkms_autoinstaller.\n");
        remove("/etc/init.d/dkms_autoinstaller");
    } else {
        log_message(2, "There's other module managed by dkms. remove quorl in dkms_autoinstaller.\n");
        run_command_output("sed -i '/# Vantoria QuorL/d' /etc/init.d/dkms_autoinstaller", output);
    }
}
