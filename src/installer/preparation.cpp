#include "installer/preparation.hpp"

#include <cstdlib>
#include <filesystem>
#include <regex>

#include "app/constants.hpp"
#include "app/log.hpp"
#include "app/result_codes.hpp"
#include "host/commands.hpp"
#include "host/environment_probes.hpp"
#include "host/files.hpp"
#include "host/regex_options.hpp"
#include "host/system_utilities.hpp"
#include "installer/installer.hpp"
#include "installer/kernel_source.hpp"
#include "record/previous_driver.hpp"
#include "record/run_state.hpp"
#include "record/tree_scan.hpp"

namespace fs = std::filesystem;

std::string first_dotted_triple(const std::string& text) {
    static const std::regex triple("\\d+\\.\\d+\\.\\d+", std::regex::ECMAScript | regex_in_loop);
    // A match that begins inside a run of digits would also match from the
    // run's first digit, so the first match begins where a run begins, and
    // it is tried there alone: tried at every digit, a long run without its
    // dots took time in the square of its length.
    auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
    for (size_t at = 0; at < text.size(); ++at) {
        if (!is_digit(text[at]) || (at > 0 && is_digit(text[at - 1]))) continue;
        std::smatch match;
        if (std::regex_search(text.begin() + at, text.end(), match, triple, std::regex_constants::match_continuous))
            return match.str(0);
    }
    return "";
}

bool judge_compiler(const std::string& uname_output, const std::string& gcc_output) {
    const std::string kernel_version = first_dotted_triple(uname_output);
    log_message(2, "kernel version: %s\n", kernel_version.c_str());
    // The kernel's numbers decide nothing, but the second cut needs two
    // characters: without a dotted triple in uname's output substr throws
    // std::out_of_range, which nothing catches, and the process ends abnormally.
    [[maybe_unused]] const int kernel_major = atoi(kernel_version.substr(0, 1).c_str());
    [[maybe_unused]] const int kernel_minor = atoi(kernel_version.substr(2, 2).c_str());

    // The first triple of the output counts, whoever's it is; none gives 0.
    const std::string gcc_version = first_dotted_triple(gcc_output);
    log_message(2, "gcc version: %s\n", gcc_version.c_str());
    const int gcc_major = atoi(gcc_version.substr(0, 2).c_str());

    // Despite the message, the kernel is not compared: only a gcc of major
    // version 3 or lower is refused.
    if (gcc_major > 3) return true;
    log_message(4, "Kernel version and gcc version didn't match. Please install kernel and gcc with matching version.\n");
    return false;
}

bool check_compiler() {
    std::string uname_output;
    int32_t status = 0;
    if (!run_command("uname -r", uname_output, status) || status != 0) return false;
    std::string gcc_output;
    if (!run_command("gcc --version", gcc_output, status) || status != 0) return false;
    return judge_compiler(uname_output, gcc_output);
}

int prepare_target_directory(const std::string& driver_prefix, std::vector<ManifestEntry>& created_dir_entries) {
    // The prefix ends in "/", and with that slash a plain file would make
    // stat fail as "not a directory" and pass for missing; it is judged
    // without it, so that such a file is refused rather than built over.
    std::string directory = driver_prefix;
    while (directory.size() > 1 && directory.back() == '/') directory.pop_back();

    if (!fs::exists(directory)) {
        const std::string first_created = first_missing_path(driver_prefix);
        // A failure here throws std::filesystem::filesystem_error, which
        // nothing catches: the process ends abnormally.
        fs::create_directories(driver_prefix);
        // Only what this run made goes to the record, so that removal takes
        // away these directories and nothing above them.
        const std::vector<ManifestEntry> created = scan_tree(first_created);
        created_dir_entries.insert(created_dir_entries.end(), created.begin(), created.end());
        return code::success;
    }

    // A link is judged by its target text, as the link holds it.
    fs::path judged = directory;
    if (fs::is_symlink(directory)) judged = fs::read_symlink(directory);
    if (!fs::is_directory(judged)) return code::target_unusable;
    return code::success;
}

bool cmdline_enforces_signing(const std::string& cmdline) {
    // No notion of a word: "xmodule.sig_enforce=10" asks for signatures too.
    return find_line_containing(cmdline, "module.sig_enforce=1");
}

int decide_module_signing(InstallOptions& options, PackageManifest& package, const SigningProbes& probes) {
    package.do_module_sign = false;
    log_message(0, "do check module sign prepare\n");

    const std::string& secret_key = options.module_signing_secret_key;
    const std::string& public_key = options.module_signing_public_key;
    if (!public_key.empty() && !secret_key.empty()) {
        log_message(0, "Check on private key:%s public key:%s\n", secret_key.c_str(), public_key.c_str());
        if (!file_exists(public_key) || !file_exists(secret_key)) {
            log_message(1, "Module signature key given but not exists.\nPrivate Key:%s\nPublic Key:%s\n",
                        secret_key.c_str(), public_key.c_str());
            return code::target_unusable;
        }
        log_message(0, "module sign key not empty do module sign.\n");
        package.do_module_sign = true;
        // The user's own keys are used by the plain build alone, so DKMS is
        // ruled out whatever the host or the command line says.
        options.disable_dkms = true;
    } else if (probes.module_sig_force() == 1) {
        log_message(0, "CONFIG_MODULE_SIG_FORCE not empty do module sign.\n");
        package.do_module_sign = true;
    } else if (probes.cmdline_enforces()) {
        log_message(0, "module.sig_enforce set, do module sign.\n");
        package.do_module_sign = true;
    } else if (probes.secure_boot() == 1) {
        log_message(0, "sb enabled do module sign\n");
        package.do_module_sign = true;
    } else {
        return code::success;
    }

    if (!probes.openssl_found()) {
        log_message(1, "openssl is requied when module sign is mandatory\n");
        return code::tool_missing;
    }
    return code::success;
}

int DriverInstaller::prepare() {
    // Beside the program, whatever the working directory is.
    const std::string manifest_path = exe_directory() + "/" + package_manifest_name;
    package = read_package_manifest(manifest_path);
    package.vgpu = options.enable_vgpu;
    host_arch = machine_arch();
    if (package.arch.empty()) package.arch = host_arch;
    if (package.version.empty()) {
        log_message(4, "parse manifest failed %s\n", manifest_path.c_str());
        return code::package_version_missing;
    }

    // A container does not stop the run here; it rules out DKMS later.
    if (inside_docker()) {
        environment = 2;
        log_message(3, "You're install driver inside docker, the installation may be corrupt.\n");
    } else {
        environment = 1;
    }

    if (options.kernel_source_path.empty()) options.kernel_source_path = find_kernel_source();
    if (!validate_kernel_source(options.kernel_source_path)) {
        log_message(5, "kernel source is not ready.\n");
        return code::kernel_source_unusable;
    }
    log_message(0, "Using kernel source: %s\n", options.kernel_source_path.c_str());
    int result = fetch_kernel_version();
    if (result != code::success) return result;

    if (!check_system_utilities(system_utilities, 17)) return code::tool_missing;
    if (!check_compiler()) return code::compiler_check_failed;

    result = remove_previous_drivers();
    if (result != code::success) return result;
    // The removal hashed the older driver's files, and the new ones will lie
    // at the same paths: their digests must not come from the cache.
    md5_cache.clear();

    result = prepare_target_directory(driver_prefix, created_dir_entries);
    if (result != code::success) return result;

    // Coming last, a host that needs signatures and lacks openssl has already
    // lost its older driver when this fails.
    const SigningProbes probes{
        [this] { return check_configuration_option("CONFIG_MODULE_SIG_FORCE"); },
        [] {
            std::string cmdline;
            read_file_chunked("/proc/cmdline", cmdline);
            return cmdline_enforces_signing(cmdline);
        },
        [] { return secure_boot_state(); },
        [] { return !find_in_path("openssl").empty(); },
    };
    return decide_module_signing(options, package, probes);
}
