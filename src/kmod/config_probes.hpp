#pragma once

#include <string>

#include "app/install_options.hpp"
#include "installer/package_manifest.hpp"

// Runs the package's kernel_test.sh against the kernel tree with a test name
// and its words, the script's output going into `output` (one trailing line
// feed removed). True when the script exited with 0.
bool run_conftest(PackageManifest package, InstallOptions options, const std::string& test, std::string& output);

// The command line run_conftest runs.
std::string conftest_command(const std::string& script_dir, const PackageManifest& package,
                             const InstallOptions& options, const std::string& test);
