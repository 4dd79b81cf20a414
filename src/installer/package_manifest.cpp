#include "installer/package_manifest.hpp"

#include <vector>

#include "app/log.hpp"
#include "host/files.hpp"

PackageManifest parse_package_manifest(const std::string& text) {
    // A line means what its place says; nothing is trimmed, so a carriage
    // return stays in the value. With fewer than four lines the bounds-checked
    // `at` throws std::out_of_range, which nothing catches: the process ends
    // abnormally.
    const std::vector<std::string> lines = split_string(text, '\n');
    PackageManifest package;
    package.title = lines.at(0);
    package.version = lines.at(1);
    package.name = lines.at(2);
    package.kernel_path = lines.at(3);
    return package;
}

PackageManifest read_package_manifest(const std::string& path) {
    std::string text;
    if (!read_file(path, text)) {
        PackageManifest package;
        package.name = "vantoria";
        package.version = "3.2.1";
        package.title = "Quorl Driver for Linux-x86_64";
        package.kernel_path = "./kernel/";
        log_message(1, "Initializing driverConfig using default values. This driver installation package maybe incomplete.\n");
        return package;
    }
    return parse_package_manifest(text);
}
