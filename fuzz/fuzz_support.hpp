// What every fuzz target shares. Each target feeds one reader or judgement of
// text that comes from outside the installer, and treats as expected only the
// abnormal end that the installer accepts for that input; anything else, a
// crash, a sanitizer report, a leak or a slow input, is a finding.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>


inline std::string as_text(const uint8_t* data, size_t size) {
    return std::string(reinterpret_cast<const char*>(data), size);
}

// The input as the installer reads a /proc file: through a stream, in chunks.
std::string read_as_proc_file(const uint8_t* data, size_t size);

// A finding that the sanitizers cannot see: the decision broke its own rule.
#define FUZZ_CHECK(condition) \
    do {                      \
        if (!(condition)) {   \
            fprintf(stderr, "check failed: %s\n", #condition); \
            abort();          \
        }                     \
    } while (0)
