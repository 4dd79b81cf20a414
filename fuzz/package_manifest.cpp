// The package's .manifest. Fewer than four lines end the installer
// abnormally through the bounds check (std::out_of_range): that, and only
// that, is expected here.
#include <stdexcept>

#include "fuzz_support.hpp"
#include "host/files.hpp"
#include "installer/package_manifest.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text = as_text(data, size);
    const size_t lines = split_string(text, '\n').size();
    try {
        const PackageManifest package = parse_package_manifest(text);
        FUZZ_CHECK(lines >= 4);
        FUZZ_CHECK(package.kernel_version.empty() && package.arch.empty());
    } catch (const std::out_of_range&) {
        FUZZ_CHECK(lines < 4);
    }
    return 0;
}
