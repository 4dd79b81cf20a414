#include "kmod/config_probes.hpp"

#include <cstdint>

#include "app/log.hpp"
#include "host/commands.hpp"
#include "host/files.hpp"
#include "installer/installer.hpp"

std::string conftest_command(const std::string& script_dir, const PackageManifest& package,
                             const InstallOptions& options, const std::string& test) {
    // The words of the test are not quoted: the script receives them one by one.
    return "sh \"" + script_dir + "/vnt/kernel_test.sh\" \"gcc\" \"" + package.arch + "\" \"" +
           options.kernel_source_path + "\" \"" + options.kernel_source_path + "\"  " + test + " 2>&1";
}

bool run_conftest(PackageManifest package, InstallOptions options, const std::string& test, std::string& output) {
    const std::string script_dir = exe_directory() + "/" + package.kernel_path;
    const std::string command = conftest_command(script_dir, package, options, test);
    int32_t status = 0;
    const bool started = run_command(command, output, status);
    log_message(0, "running cmd:%s output%s %d\n", command.c_str(), output.c_str(), status);
    if (!started) return false;
    if (!output.empty() && output.back() == '\n') output.pop_back();
    return status == 0;
}

int32_t DriverInstaller::check_configuration_option(const std::string& option) {
    const std::string test = "test_configuration_option " + option;
    if (options.kernel_source_path.empty()) return 2;
    std::string output;
    return run_conftest(package, options, test, output) ? 1 : 0;
}

bool DriverInstaller::query_signing_hash(std::string& hash) {
    const std::string test = "guess_module_signing_hash";
    if (!run_conftest(package, options, test, hash)) {
        log_message(0, "running conftest:%s failed", test.c_str());
        hash.clear();
        return false;
    }
    return true;
}
