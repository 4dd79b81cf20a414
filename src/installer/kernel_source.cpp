#include "installer/kernel_source.hpp"

#include <algorithm>
#include <sys/utsname.h>

#include "app/log.hpp"
#include "app/result_codes.hpp"
#include "host/files.hpp"
#include "installer/installer.hpp"

std::vector<std::string> kernel_source_candidates(const std::string& release) {
    // The last one carries no release: it is taken on trust.
    return {
        "/lib/modules/" + release + "/build",
        "/lib/modules/" + release + "/source",
        "/usr/src/kernels/" + release,
        "/usr/src/linux-headers-" + release,
        "/usr/src/linux",
    };
}

std::string first_directory(const std::vector<std::string>& candidates) {
    for (const std::string& candidate : candidates) {
        // A dangling build link is no directory, so the search goes on.
        if (is_directory(candidate)) return candidate;
    }
    return "";
}

std::string find_kernel_source() {
    struct utsname host {};
    uname(&host);
    const std::string release = host.release;
    std::string found = first_directory(kernel_source_candidates(release));
    if (found.empty()) log_message(3, "Get kernel source of running kernel:%s failed.\n", release.c_str());
    return found;
}

bool validate_kernel_source(const std::string& path) {
    if (path.empty()) return false;
    // Only the exact text: "/usr/" and "/usr/src" go on to the header test.
    if (path == "/usr") {
        log_message(4, "The kernel source path %s is invalid.\nThis should not be /usr", path.c_str());
        return false;
    }
    for (const char* header : {"/include/linux/kernel.h", "/include/generated/utsrelease.h"}) {
        const std::string header_path = path + header;
        if (!file_exists(header_path)) {
            log_message(4, "The kernel header file '%s' does not exist.  The most likely reason for this is that the kernel source path '%s' is incorrect. %s",
                        header_path.c_str(), path.c_str(),
                        "Please make sure you have installed the kernel source files for your kernel and that they are properly configured; on Red Hat Linux systems, for example, be sure you have the 'kernel-source' or 'kernel-devel' RPM installed.  If you know the correct kernel source files are installed, you may specify the kernel source path with the '--kernel-source-path' command line option.");
            return false;
        }
    }
    return true;
}

bool parse_uts_release(const std::string& text, std::string& release) {
    std::string line;
    if (!find_line_containing(text, "UTS_RELEASE", &line)) return false;
    // Characters are counted, not parsed: the word, a blank and the opening
    // quote. A line that stops short of them makes substr throw
    // std::out_of_range, which nothing catches: the process ends abnormally.
    std::string value = line.substr(line.find("UTS_RELEASE") + 13);
    std::erase(value, '"');
    release = value;
    return true;
}

int DriverInstaller::fetch_kernel_version() {
    const std::string path = options.kernel_source_path + "/include/generated/utsrelease.h";
    std::string text;
    read_file(path, text);
    std::string release;
    if (!text.empty() && parse_uts_release(text, release)) {
        package.kernel_version = release;
        return code::success;
    }
    log_message(3, "Fetch kernel version from %s failed.\n", path.c_str());
    return code::kernel_source_unusable;
}
