#include <cstring>
#include <libgen.h>

#include "app/constants.hpp"
#include "app/log.hpp"
#include "host/environment_probes.hpp"
#include "host/files.hpp"
#include "installer/installer.hpp"

std::string derive_driver_prefix(const std::string& given_prefix, const std::string& prefix_with_slash) {
    const std::string directory_word = "quorl-" + installer_version;
    std::string copy = given_prefix;
    // POSIX basename: a trailing slash is ignored, an empty text gives ".".
    std::string last_component = basename(copy.data());
    if (last_component == directory_word) return prefix_with_slash;
    return prefix_with_slash + directory_word + "/";
}

DriverInstaller::DriverInstaller(const InstallOptions& given) {
    options.generated_key = given.generated_key;
    options.disable_dkms = given.disable_dkms;
    options.enable_vgpu = given.enable_vgpu;
    options.kernel_source_path = given.kernel_source_path;
    options.prefix = given.prefix;
    options.module_signing_secret_key = given.module_signing_secret_key;
    options.module_signing_public_key = given.module_signing_public_key;
    options.module_signing_hash = given.module_signing_hash;

    given_prefix = options.prefix;
    if (!ends_with(options.prefix, "/")) options.prefix += "/";
    driver_prefix = derive_driver_prefix(given_prefix, options.prefix);
    log_message(0, "driver prefix is %s.\n", driver_prefix.c_str());

    std::string params;
    for (const ModuleParameter& parameter : module_parameters) {
        if (!parameter.enabled) continue;
        if (!params.empty()) params += " ";
        params += parameter.text;
    }
    log_message(0, "PARAMS:/%s/\n", params.c_str());
    module_params = params;

    OsIdentity identity;
    read_os_release(identity);
    os_id = identity.id;
}
