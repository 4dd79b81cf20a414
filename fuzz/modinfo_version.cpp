// The output of `modinfo ... | grep 'version:'`, from which the module's
// version is taken. Nothing may end the process.
#include "fuzz_support.hpp"
#include "kmod/module_loading.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string output = as_text(data, size);
    const std::string version = module_version_from_modinfo(output);
    FUZZ_CHECK(version.size() <= output.size());
    FUZZ_CHECK(version.find(' ') == std::string::npos);
    return 0;
}
