#include "kmod/manual_build.hpp"

#include <ctime>
#include <string>

#include "app/log.hpp"
#include "app/result_codes.hpp"
#include "host/commands.hpp"
#include "host/file_digest.hpp"
#include "host/files.hpp"
#include "kmod/module_loading.hpp"
#include "kmod/peer_memory.hpp"
#include "record/run_state.hpp"

bool main_module_result_lets_peer_memory_follow(int result, bool do_module_sign) {
    const int low = result & 0xff;
    return low == 0 || (low == code::load_key_rejected && do_module_sign);
}

bool peer_memory_module_wanted(bool ofed_sources, int32_t ib_core_state) { return ofed_sources && ib_core_state < 0; }

int DriverInstaller::build_and_install_modules() {
    // No normalisation: the default kernel_path keeps its "./" inside the path.
    std::string source_dir = exe_directory() + "/" + package.kernel_path;

    log_message(2, "Building %s\n", package.name.c_str());
    const int main_result = build_install_module(package.name, source_dir, false);
    if ((main_result & 0xff) == code::load_key_rejected && package.do_module_sign) {
        log_message(0,
                    "Load signed kernel module %s failed, possibly because the kernel does not trust the key.\n",
                    package.name.c_str());
    }
    if (!main_module_result_lets_peer_memory_follow(main_result, package.do_module_sign)) return main_result;
    int result = main_result;

    // ib_core is asked about only when the OFED sources are there.
    const bool ofed_sources = ofed_available();
    const int32_t ib_core_state = ofed_sources ? module_use_state("ib_core") : 0;
    if (peer_memory_module_wanted(ofed_sources, ib_core_state)) {
        log_message(2, "Building %s\n", "vnt_peer_mem_drv");
        source_dir += "/vnt_peer_mem";
        // After a refused key the peer-memory module is built, signed and
        // copied but not loaded: the kernel would refuse it the same way. Its
        // result replaces the main module's, so a clean build leaves 0 and
        // the run goes on to tell the user to enrol the key.
        const bool skip_load = (main_result & 0xff) == code::load_key_rejected;
        result = build_install_module("vnt_peer_mem_drv", source_dir, skip_load);
    } else {
        log_message(0, "Skip vnt_peer_mem_drv install\n");
    }

    if (!package.do_module_sign) return result;
    // A pair generated for the main module and used again for the peer-memory
    // module no longer counts as generated: then it stays in /tmp, unsaved.
    if (options.generated_key) {
        save_generated_keys();
        log_message(1,
                    "The key pair is generated. In order to load driver module. Please enroll public key first.\n");
    }
    log_message(1, "Module is signed by:\n\tPrivate Key:%s\n\tPublic Key: %s\n\n",
                options.module_signing_secret_key.c_str(), options.module_signing_public_key.c_str());
    return result;
}

int DriverInstaller::build_install_module(const std::string& module_name, const std::string& source_dir,
                                          bool skip_load) {
    const std::string option_text = package.vgpu ? " VGPU_ENABLE=1 " : " ";
    const std::string command = "make -C " + source_dir + option_text + "KERNELDIR=" + options.kernel_source_path +
                                " > " + ".build_driver" + " 2>&1";
    log_message(2, "Start to build driver: %s\n", module_name.c_str());

    // One output text serves the whole operation: the build log, then what
    // the copy and depmod printed.
    std::string output;
    int32_t status = 0;
    const bool built = run_command(command, output, status) && status == 0;
    // The build output reaches the log whatever the outcome.
    read_file(".build_driver", output);
    log_message(2, "%s\n", output.c_str());
    if (!built) {
        log_message(4, "Failed to build driver.\n");
        return code::build_failed;
    }

    if (package.do_module_sign) {
        log_message(0, "do sign module\n");
        const int signed_result = sign_module_file(source_dir + "/" + module_name + ".ko");
        if ((signed_result & 0xff) != 0) {
            log_message(1, "sign module failed\n");
            return signed_result;
        }
    }

    log_message(2, "Start to install driver: %s\n", module_name.c_str());
    const std::string target_dir = "/lib/modules/" + package.kernel_version + "/kernel/drivers/misc/";
    if (!is_directory(target_dir)) make_directories(target_dir);
    if (!run_command("cp -f " + source_dir + "/" + module_name + ".ko " + target_dir + " 2>&1", output, status) ||
        status != 0) {
        log_message(4, "Failed to install driver in %s.\n", target_dir.c_str());
        return code::copy_or_check_failed;
    }

    // Recorded before depmod, so that a module that fails from here on is
    // still removed by the uninstaller.
    const std::string installed_path = target_dir + module_name + ".ko";
    install_entries.push_back({"FILE", installed_path, cached_file_md5(installed_path)});

    // Bare: the running kernel's tree, and its error stream to the terminal.
    if (!run_command("depmod", output, status) || status != 0) {
        log_message(4, "Failed to depmod, modprobe/modinfo might cant find %s:\n%s\n", package.name.c_str(),
                    output.c_str());
        return code::depmod_failed;
    }

    if (skip_load) {
        log_message(2, "Skip load module %s\n", module_name.c_str());
        return 0;
    }

    if (!built_for_running_kernel(package.kernel_version)) return code::not_running_kernel;

    fetch_module_version(installed_path);

    const time_t load_start = time(nullptr);
    const int32_t error = load_module_image(installed_path.c_str(), module_params.c_str());
    if (error != 0) {
        const int result = report_load_failure(module_name, error);
        // A refused key is reason enough; the kernel's messages are shown for the other refusals.
        if (result == code::load_failed) dump_kernel_messages(load_start);
        return result;
    }

    // Not a fallback: modprobe follows a direct load that worked, and always
    // by the main module's name, whichever module was just loaded.
    const time_t modprobe_start = time(nullptr);
    if ((insert_module(package.name, module_params) & 0xff) != 0) {
        log_message(4, "Failed to insert kernel module:\n%s\n", output.c_str());
        dump_kernel_messages(modprobe_start);
        return code::modprobe_failed;
    }
    log_message(2, "Install %s succeed.\n", module_name.c_str());
    dump_kernel_messages(modprobe_start);

    if (!check_firmware()) {
        log_message(1, "No card with suitable firmware found. Driver's install might wrong\n");
        return code::no_suitable_firmware;
    }
    return 0;
}
