#pragma once

#include <string>

#include "installer/installer.hpp"

// Signing on the plain build path: DriverInstaller::sign_module_file signs one
// built .ko in place with the kernel tree's sign-file, generating a key pair
// into temporary files when the user gave none; DriverInstaller::save_generated_keys
// then moves a generated pair to /usr/share/vantoria so that the user can
// enrol the public key.

// The first eight characters of openssl's fingerprint line after its "="
// (all of the output when there is no "="), colons included: three bytes.
std::string fingerprint_prefix(const std::string& openssl_output);

// The name of the saved key files without extension: "vantoria-cert-" and at
// most eight characters of the fingerprint without its colons; empty when
// there is no fingerprint.
std::string key_name_stem(const std::string& fingerprint);

// save_generated_keys with another lasting directory, so that the copying
// and recording can be watched away from /usr/share.
int save_generated_keys_into(DriverInstaller& installer, const std::string& key_directory);
