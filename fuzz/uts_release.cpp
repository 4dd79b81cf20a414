// The kernel tree's include/generated/utsrelease.h. A release line that ends
// right behind its name, with fewer than two characters after the word, ends
// the installer abnormally (std::out_of_range): that, and only that, is
// expected here.
#include <stdexcept>

#include "fuzz_support.hpp"
#include "host/files.hpp"
#include "installer/kernel_source.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text = as_text(data, size);
    std::string line;
    const bool has_word = find_line_containing(text, "UTS_RELEASE", &line);
    const bool cut_short = has_word && line.size() < line.find("UTS_RELEASE") + 13;
    std::string release = "unset";
    try {
        FUZZ_CHECK(parse_uts_release(text, release) == has_word);
        FUZZ_CHECK(!cut_short);
        FUZZ_CHECK(has_word || release == "unset");
    } catch (const std::out_of_range&) {
        FUZZ_CHECK(cut_short);
    }
    return 0;
}
