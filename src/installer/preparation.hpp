#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "app/install_options.hpp"
#include "installer/package_manifest.hpp"
#include "record/manifest_entry.hpp"

// The parts of DriverInstaller::prepare that decide something, kept apart
// from the host so that they can be tried on any text or tree.

// The first run of three dotted numbers in `text`, or empty.
std::string first_dotted_triple(const std::string& text);

// Judges the outputs of `uname -r` and `gcc --version`: only a gcc of major
// version 3 or lower is refused. An output of uname without three dotted
// numbers throws std::out_of_range.
bool judge_compiler(const std::string& uname_output, const std::string& gcc_output);

// Runs `uname -r` and `gcc --version` and judges them; false, without a
// word, when either can't be run or fails.
bool check_compiler();

// Makes sure that `driver_prefix` is a directory, creating it and what is
// missing above it; the directories it created go to `created_dir_entries`.
// Returns 0, or 11 when the prefix exists and is no directory.
int prepare_target_directory(const std::string& driver_prefix, std::vector<ManifestEntry>& created_dir_entries);

// Whether the kernel command line, as /proc/cmdline reads, asks for signed
// modules: any line that holds "module.sig_enforce=1", as a plain substring.
bool cmdline_enforces_signing(const std::string& cmdline);

// What the signing decision asks of the host, each only when the deciders
// before it have said no.
struct SigningProbes {
    std::function<int32_t()> module_sig_force;   // 1 when the kernel's configuration forces signatures
    std::function<bool()> cmdline_enforces;      // the kernel command line asks for signatures
    std::function<int()> secure_boot;            // 1 when Secure Boot is on
    std::function<bool()> openssl_found;
};

// Settles package.do_module_sign (and, with a key pair of the user's,
// options.disable_dkms). Returns 0, 11 when a given key file is missing, or
// 33 when signing is needed and openssl isn't there.
int decide_module_signing(InstallOptions& options, PackageManifest& package, const SigningProbes& probes);
