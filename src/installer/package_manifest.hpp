#pragma once

#include <string>

// What the package says it is, and the build settings that no file supplies.
// Declared byte-packed, like InstallOptions.
#pragma pack(push, 1)
struct PackageManifest {
    std::string name;            // main kernel module
    std::string version;
    std::string title;
    std::string kernel_path;     // package directory of the module sources, beside the program
    std::string kernel_version;  // release the modules are built for
    std::string arch;
    bool vgpu = false;
    bool do_module_sign = false;
};
#pragma pack(pop)

// Reads the four lines of `.manifest`. A missing file gives the defaults with
// a warning; fewer than four lines end the process abnormally.
PackageManifest read_package_manifest(const std::string& path);

// The same on text already read, for the part that does not depend on the file.
PackageManifest parse_package_manifest(const std::string& text);
