#include "host/file_digest.hpp"

#include <cstdint>

#include "app/log.hpp"
#include "host/commands.hpp"
#include "host/files.hpp"
#include "record/run_state.hpp"

std::string file_md5(const std::string& path) {
    // The path goes between single quotes unescaped: a quote inside it breaks
    // the command, and the failure shows below.
    std::string command = "md5sum '" + path + "' 2>&1";
    if (!file_exists(path)) return "";

    std::string output;
    int32_t status = 0;
    if (!run_command(command, output, status) || status != 0) {
        log_message(3, "MD5 for %s failed: %d ctx: %s\n", path.c_str(), status, output.c_str());
        return "";
    }
    size_t blank = output.find(' ');
    if (blank == std::string::npos) {
        log_message(3, "md5sum for %s: %s\n", path.c_str(), output.c_str());
        return "";
    }
    return output.substr(0, blank);
}

std::string cached_file_md5(const std::string& path) {
    auto found = md5_cache.find(path);
    if (found != md5_cache.end()) return found->second;
    std::string digest = file_md5(path);
    md5_cache[path] = digest;
    return digest;
}
