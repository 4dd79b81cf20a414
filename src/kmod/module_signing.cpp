#include "kmod/module_signing.hpp"

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <utility>
#include <vector>

#include "app/log.hpp"
#include "app/result_codes.hpp"
#include "host/commands.hpp"
#include "host/file_digest.hpp"
#include "host/files.hpp"
#include "record/run_state.hpp"

namespace fs = std::filesystem;

int DriverInstaller::sign_module_file(const std::string& module_path) {
    // A pair given by halves is no pair: both keys are generated afresh.
    const bool generates_pair =
        options.module_signing_public_key.empty() || options.module_signing_secret_key.empty();
    if (generates_pair) {
        const std::string openssl = find_in_path("openssl");
        if (openssl.empty()) {
            log_message(1, "generate key failed, openssl not found.\n");
            return code::missing_file_or_tool;
        }
        make_temp_file(options.module_signing_public_key, 0644);
        make_temp_file(options.module_signing_secret_key, 0600);
        if (options.module_signing_public_key.empty() || options.module_signing_secret_key.empty()) {
            log_message(1, "Failed to create temorary file for module sign\n");
            return code::general_failure;
        }
        log_message(0, "private key:%s\npublic_key:%s\n", options.module_signing_secret_key.c_str(),
                    options.module_signing_public_key.c_str());

        const std::string command = openssl +
                                    " req -new -x509 -newkey rsa:2048 -days 7300 -nodes -subj"
                                    " \"/CN=quorl-installer generated signing key/\""
                                    " -keyout " +
                                    options.module_signing_secret_key + " -outform DER -out " +
                                    options.module_signing_public_key + " 2>&1";
        std::string output;
        int32_t status = 0;
        if (!run_command(command, output, status) || status != 0) {
            log_message(0, "%s %d", command.c_str(), status);
            // The exit status read as an errno: that is the text the user sees.
            log_message(1, "Failed to generate key pair %s\n", strerror(status));
            return code::general_failure;
        }
    }

    if (options.module_signing_hash.empty() && !query_signing_hash(options.module_signing_hash)) {
        log_message(3, "Unable to guess the module signing hash\nGuessing sha256\n");
        // The quotes belong to the value; inside the quoted argument below the shell drops them.
        options.module_signing_hash = "\"sha256\"";
    }

    // sign-file takes hash, private key, public key, module, in this order.
    const std::string command = options.kernel_source_path + "/scripts/sign-file" + " \"" +
                                options.module_signing_hash + "\" \"" + options.module_signing_secret_key + "\" \"" +
                                options.module_signing_public_key + "\" \"" + module_path + "\"" + " 2>&1";
    std::string output;
    int32_t status = 0;
    const bool signed_it = run_command(command, output, status) && status == 0;
    log_message(0, "output is %s\n", output.c_str());
    if (!signed_it) {
        log_message(0, "%s %d", command.c_str(), status);
        log_message(1, "Failed to sign module file: %s\n", strerror(status));
        return code::general_failure;
    }
    log_message(0, "using secret: %s\nusing public der: %s\n", options.module_signing_secret_key.c_str(),
                options.module_signing_public_key.c_str());
    // Each good signature says whether its own call made the pair, so a second
    // module signed with a pair the first one made clears the flag again.
    options.generated_key = generates_pair;
    return 0;
}

std::string fingerprint_prefix(const std::string& openssl_output) {
    const size_t equals = openssl_output.find('=');
    const std::string text = equals == std::string::npos ? openssl_output : openssl_output.substr(equals + 1);
    return text.substr(0, 8);
}

std::string key_name_stem(const std::string& fingerprint) {
    if (fingerprint.empty()) return "";
    std::string digits = fingerprint;
    std::erase(digits, ':');
    return "vantoria-cert-" + digits.substr(0, 8);
}

int DriverInstaller::save_generated_keys() { return save_generated_keys_into(*this, "/usr/share/vantoria"); }

int save_generated_keys_into(DriverInstaller& installer, const std::string& key_directory) {
    InstallOptions& options = installer.options;
    // Copies of the temporary paths: the options get the lasting ones on the way.
    const std::vector<std::pair<std::string, std::string>> keys = {
        {options.module_signing_public_key, ".der"},
        {options.module_signing_secret_key, ".key"},
    };

    // Only a directory made here belongs to the driver and goes with it on removal.
    if (!file_exists(key_directory)) {
        std::error_code error;
        fs::create_directories(key_directory, error);
        if (error) {
            log_message(4, "create_directories %s failed. code:%d message:%s\n", key_directory.c_str(),
                        error.value(), error.message().c_str());
            return code::general_failure;
        }
        fs::permissions(key_directory, fs::perms(0755), fs::perm_options::replace);
        install_entries.push_back({"DIR", key_directory, ""});
    }

    std::string fingerprint;
    const std::string openssl = find_in_path("openssl");
    if (!openssl.empty()) {
        const std::string command =
            openssl + " x509 -noout -fingerprint -inform DER -in " + options.module_signing_public_key + " 2>&1";
        std::string output;
        int32_t status = 0;
        if (!run_command(command, output, status) || status != 0) {
            log_message(0, "try get key's fingerprint failed.%s:%d\n%s\n", command.c_str(), status, output.c_str());
        } else {
            fingerprint = fingerprint_prefix(output);
        }
    }
    if (!fingerprint.empty()) log_message(2, "The generated key's fingerprint is %s\n", fingerprint.c_str());
    const std::string stem = key_name_stem(fingerprint);

    for (const auto& [source, extension] : keys) {
        if (!file_exists(source)) {
            log_message(0, "key file %s not exist.\n", source.c_str());
            continue;
        }
        // Without a fingerprint the temporary file's own name is kept.
        const fs::path destination = fs::path(key_directory) /
                                     (stem.empty() ? fs::path(source).filename().string() + extension : stem + extension);
        std::error_code error;
        const bool copied = fs::copy_file(source, destination, error);
        // Neither the group nor the others may use a private key, nor anyone execute a key.
        // A failure here, as in the removal below, ends the process.
        fs::permissions(destination, fs::perms(0117), fs::perm_options::remove);
        if (copied) {
            log_message(2, "Module sign key:%s\n", destination.c_str());
            if (extension == ".der") options.module_signing_public_key = destination;
            if (extension == ".key") options.module_signing_secret_key = destination;
        } else {
            log_message(3, "copy key file %s failed. %s\n", source.c_str(), error.message().c_str());
        }
        // Recorded and removed even when the copy failed: a name already taken loses the new key.
        install_entries.push_back({"FILE", destination, cached_file_md5(destination)});
        fs::remove(source);
    }
    return 0;
}
