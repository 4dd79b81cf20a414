// /proc/cmdline, as the decision whether modules must be signed reads it.
// Nothing may end the process.
#include "fuzz_support.hpp"
#include "installer/preparation.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text = read_as_proc_file(data, size);
    // The chunked read never holds more than the file, and never a NUL byte.
    FUZZ_CHECK(text.find('\0') == std::string::npos);
    const bool enforced = cmdline_enforces_signing(text);
    FUZZ_CHECK(!enforced || text.find("module.sig_enforce=1") != std::string::npos);
    return 0;
}
