// The outputs of `uname -r` and `gcc --version`, as the compiler check
// compares them. An output of uname without three dotted numbers ends the
// installer abnormally (std::out_of_range): that, and only that, is expected
// here. The input holds both texts: uname's, up to a backslash and one more
// byte, then gcc's.
#include <fuzzer/FuzzedDataProvider.h>
#include <stdexcept>

#include "fuzz_support.hpp"
#include "installer/preparation.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    const std::string uname_output = input.ConsumeRandomLengthString();
    const std::string gcc_output = input.ConsumeRemainingBytesAsString();
    const bool kernel_triple = !first_dotted_triple(uname_output).empty();
    try {
        judge_compiler(uname_output, gcc_output);
        FUZZ_CHECK(kernel_triple);
    } catch (const std::out_of_range&) {
        FUZZ_CHECK(!kernel_triple);
    }
    return 0;
}
