#include "fuzz_support.hpp"

#include "app/log.hpp"
#include "host/files.hpp"

// Every target runs with the log open on /dev/null, quiet: each message is
// formatted as in a real run, and nothing grows or reaches the terminal.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    log_init("/dev/null");
    log_set_quiet();
    return 0;
}

std::string read_as_proc_file(const uint8_t* data, size_t size) {
    // fmemopen wants at least one byte; an empty file is /dev/null.
    FILE* file = size > 0 ? fmemopen(const_cast<uint8_t*>(data), size, "r") : fopen("/dev/null", "r");
    if (file == nullptr) abort();
    std::string text;
    read_chunks(file, text);
    fclose(file);
    return text;
}
