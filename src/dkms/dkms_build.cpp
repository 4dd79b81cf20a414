#include "dkms/dkms_build.hpp"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "app/log.hpp"
#include "app/result_codes.hpp"
#include "dkms/dkms_config.hpp"
#include "host/commands.hpp"
#include "host/environment_probes.hpp"
#include "host/files.hpp"
#include "kmod/module_loading.hpp"
#include "kmod/peer_memory.hpp"
#include "record/run_state.hpp"

namespace fs = std::filesystem;

namespace {

// Under signing, dkms may ask the user about the key; the build then runs as
// a child that keeps our terminal instead of a pipe. True when it failed.
bool build_on_terminal(std::string command, std::string& output) {
    const pid_t child = fork();
    if (child < 0) {
        log_message(3, "fork failed in %s.\n\tbuild dkms as normal. might stuck if secureboot enabled.\n",
                    strerror(errno));
        command += " 2>&1";
        int32_t status = 0;
        return !run_command(command, output, status) || status != 0;
    }
    if (child == 0) {
        log_message(1, "Building vantoria driver...\n\n");
        execl("/bin/bash", "bash", "-c", command.c_str(), static_cast<char*>(nullptr));
        log_message(4, "execl %s %s failed %s", "bash", command.c_str(), strerror(errno));
        // _exit: the parent's unflushed buffers are not the child's to write.
        _exit(5);
    }
    log_message(0, "wait for pid %u\n", static_cast<unsigned>(child));
    int wait_status = 0;
    waitpid(child, &wait_status, WUNTRACED);
    const BuildChildOutcome outcome = judge_build_wait_status(wait_status);
    if (outcome.ended_abnormally) log_message(0, "dkms build is not exit normally. compile may corrupt.\n");
    return outcome.failed;
}

// Loads the module that dkms installed, in the running kernel, then the
// peer-memory module where OFED and ib_core allow, and checks the cards.
int check_module_loads(DriverInstaller& installer, const DkmsConfig& config, const std::string& version) {
    const PackageManifest& package = installer.package;
    const std::string module_file = (fs::path(config.dkms_tree) / "quorl" / version / package.kernel_version /
                                     machine_arch() / "module" / "vantoria.ko")
                                        .string();
    const time_t load_start = time(nullptr);

    if (!file_exists(module_file)) {
        log_message(3, "module file not in %s skip insmod check\n", module_file.c_str());
    } else {
        installer.fetch_module_version(module_file);
        const int32_t error = load_module_image(module_file.c_str(), installer.module_params.c_str());
        if (error != 0) {
            // "Module already in kernel" ends here as well: a loaded older module is no success.
            const int result = report_load_failure(module_file, error);
            dump_kernel_messages(load_start);
            return result;
        }
    }

    int result = insert_module(package.name, installer.module_params);

    if (!ofed_available() || result != 0 || module_use_state("ib_core") >= 0) {
        log_message(0, "Skip vnt_peer_mem_drvinstall\n");
    } else {
        result = insert_module("vnt_peer_mem_drv", "");
    }
    dump_kernel_messages(load_start);

    if (!installer.check_firmware()) {
        log_message(1, "No card with suitable firmware found. Driver's install might wrong\n");
        return code::no_suitable_firmware;
    }
    return result & 0xff;
}

}  // namespace

BuildChildOutcome judge_build_wait_status(int wait_status) {
    // Bits 8 to 15 alone decide: a child killed by a signal has 0 there and
    // passes, with no more than the message of the first test.
    return {(wait_status & 0x7f) != 0, ((wait_status >> 8) & 0xff) != 0};
}

int build_with_dkms(DriverInstaller& installer) {
    const PackageManifest& package = installer.package;
    const DkmsConfig config = read_dkms_config();
    std::string output;
    int32_t status = 0;

    // Any older registration goes first, whatever its version.
    run_command_output("dkms status | grep quorl", output);
    if (!output.empty()) remove_dkms_modules("3.2.1");

    const std::string work_dir = fs::current_path().string();
    const std::string conf_path = (fs::path(work_dir) / package.kernel_path / "dkms.conf").string();
    std::string version;
    if (!run_command("bash -c 'source " + conf_path + " >/dev/null 2>&1 && echo -n ${PACKAGE_VERSION}'", version,
                     status) ||
        status != 0 || version.empty()) {
        version = "3.2.1";
    }

    // The package's own dkms.conf changes in place, before the copy: a second
    // run from the same directory finds no marker and keeps the first choice.
    const std::string replacement = package.vgpu ? "VGPU_ENABLE=1" : "";
    const std::string sed_command = "sed -i 's/QUORLPLACEHOLDER/" + replacement + "/' " + conf_path;
    if (!run_command(sed_command, output, status) || status != 0) {
        log_message(4, "replace dkms params failed. cmd :%s %s\n", sed_command.c_str(), output.c_str());
        return code::general_failure;
    }
    log_message(0, "Using module version is %s\n", version.c_str());

    // rmdir takes only an empty directory; what stays is overwritten by the copy.
    const std::string source_dest = config.source_tree + "/quorl-" + version;
    if (is_directory(source_dest)) rmdir(source_dest.c_str());

    log_message(2, "Start to install driver source.\n");
    make_directories(source_dest);
    if (!run_command("cp -fr " + work_dir + "/" + package.kernel_path + "/* " + source_dest + " 2>&1", output,
                     status) ||
        status != 0) {
        log_message(4, "copy driver source failed.\n%s\n", output.c_str());
        return code::missing_file_or_tool;
    }

    if (!run_command("dkms add -m quorl -v " + version + " --force 2>&1", output, status) || status != 0) {
        log_message(4, "dkms add failed.\n%s\n", output.c_str());
        return code::dkms_add_failed;
    }
    // Recorded before the build, so that a failed build still leaves the
    // uninstaller the means to clear the registration.
    install_entries.push_back({"DKMS", version, ""});

    const std::string build_command = "dkms build quorl/" + version + " -k " + package.kernel_version;
    bool build_failed;
    if (package.do_module_sign) {
        build_failed = build_on_terminal(build_command, output);
    } else {
        build_failed = !run_command(build_command + " 2>&1", output, status) || status != 0;
    }

    const std::string version_dir = config.dkms_tree + "/quorl/" + version;
    if (build_failed) {
        log_message(4, "module %s compile failed.\n", package.name.c_str());
        const std::string build_log = version_dir + "/build/make.log";
        if (!file_exists(build_log)) {
            log_message(4, "dkms compile file %s not found.\n", build_log.c_str());
            return code::dkms_add_failed;
        }
        read_file(build_log, output);
        log_message(0, "%s\n", output.c_str());
        return code::build_failed;
    }

    log_message(2, "dkms build success.\n");
    const std::string build_log = version_dir + "/" + package.kernel_version + "/" + machine_arch() + "/log/make.log";
    if (!file_exists(build_log)) log_message(3, "dkms compile file %s not found.\n", build_log.c_str());
    // An unreadable log leaves the last command's text in `output`, and that is what is logged.
    read_file(build_log, output);
    log_message(0, "%s\n", output.c_str());

    const std::string install_command = "dkms install quorl/" + version + " -k " + package.kernel_version + " --force 2>&1";
    if (!run_command(install_command, output, status) || status != 0) {
        log_message(4, "dkms install driver failed.\n%s\n", output.c_str());
        return code::dkms_install_failed;
    }
    log_message(2, "%s success.\n%s", install_command.c_str(), output.c_str());

    // A kernel that is not running cannot take the module. The run still ends
    // as failed, so the user-space tree is not copied, though the message is
    // no error.
    if (!built_for_running_kernel(package.kernel_version)) return code::not_running_kernel;

    return check_module_loads(installer, config, version);
}
