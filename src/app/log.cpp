#include "app/log.hpp"

#include "host/files.hpp"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <libgen.h>
#include <mutex>

namespace {

FILE* log_file = nullptr;
bool quiet = false;
std::mutex log_mutex;

const char* level_prefix(int level) {
    switch (level) {
    case 0: return "Debug: ";
    case 3: return "Warning: ";
    case 4: return "Error: ";
    case 5: return "Emerge: ";
    default: return "";
    }
}

}  // namespace

void log_init(const char* path) {
    char buffer[256];
    snprintf(buffer, sizeof buffer, "%s", path);
    const char* dir = dirname(buffer);
    if (!is_directory(dir)) make_directories(dir);

    // "wa" opens for writing and empties the file: each run starts a fresh log.
    log_file = fopen(path, "wa");
    if (log_file == nullptr) {
        fputs("Failed to init qxlogger.\n", stderr);
        exit(1);
    }
}

void log_message(int level, const char* format, ...) {
    std::lock_guard<std::mutex> lock(log_mutex);

    if ((level == 1 && !quiet) || level == 5) {
        va_list args;
        va_start(args, format);
        vfprintf(stderr, format, args);
        va_end(args);
    }
    if (log_file == nullptr) return;

    char buffer[2048];
    const char* prefix = level_prefix(level);
    size_t used = strlen(prefix);
    memcpy(buffer, prefix, used + 1);
    va_list args;
    va_start(args, format);
    vsnprintf(buffer + used, sizeof buffer - used, format, args);
    va_end(args);
    fputs(buffer, log_file);
    fflush(log_file);
}

void log_set_quiet() { quiet = true; }

void log_close() {
    if (log_file != nullptr) fclose(log_file);
    log_file = nullptr;
}

void log_reset_for_tests() {
    log_close();
    quiet = false;
}
