// What every fuzz target shares. Each target feeds one reader or judgement of
// text that comes from outside the installer, and treats as expected only the
// abnormal end that the installer accepts for that input; anything else, a
// crash, a sanitizer report, a leak or a slow input, is a finding.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "app/log.hpp"

// The log open on /dev/null, quiet: every message is formatted as in a real
// run, and nothing grows or reaches the terminal.
inline void open_log_on_null() {
    log_init("/dev/null");
    log_set_quiet();
}

inline std::string as_text(const uint8_t* data, size_t size) {
    return std::string(reinterpret_cast<const char*>(data), size);
}

// The input as a /proc file gives it: through a stream, in chunks.
template <typename Reader>
void read_as_proc_file(const uint8_t* data, size_t size, Reader reader) {
    // fmemopen wants at least one byte; an empty file is /dev/null.
    FILE* file = size > 0 ? fmemopen(const_cast<uint8_t*>(data), size, "r") : fopen("/dev/null", "r");
    if (file == nullptr) abort();
    reader(file);
    fclose(file);
}

// A finding that the sanitizers cannot see: the decision broke its own rule.
#define FUZZ_CHECK(condition) \
    do {                      \
        if (!(condition)) {   \
            fprintf(stderr, "check failed: %s\n", #condition); \
            abort();          \
        }                     \
    } while (0)
