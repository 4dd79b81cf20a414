#include "host/environment_probes.hpp"

#include <cerrno>
#include <clocale>
#include <cstdint>
#include <cstdio>
#include <langinfo.h>
#include <sstream>
#include <unistd.h>

#include "app/log.hpp"
#include "host/commands.hpp"
#include "host/files.hpp"

bool cgroup_text_names_docker(const std::string& text) {
    std::string line;
    if (!find_line_containing(text, "docker", &line)) return false;
    log_message(0, "seeking %s found line is #%s#\n", "docker", line.c_str());
    return true;
}

bool inside_docker() {
    std::string text;
    read_file_chunked("/proc/self/cgroup", text);
    if (text.empty()) return false;
    return cgroup_text_names_docker(text);
}

namespace {

std::string without_double_quotes(std::string text) {
    std::erase(text, '"');
    return text;
}

}  // namespace

void parse_os_release(const std::string& text, OsIdentity& identity) {
    std::istringstream stream(text);
    std::string line;
    while (std::getline(stream, line)) {
        size_t at = line.find("VERSION_ID=");
        if (at != std::string::npos) {
            identity.version = without_double_quotes(line.substr(at + 11));
            continue;
        }
        at = line.find("ID=");
        if (at != std::string::npos) identity.id = without_double_quotes(line.substr(at + 3));
    }
}

void read_os_release(OsIdentity& identity) {
    std::string text;
    read_file("/etc/os-release", text);
    if (text.empty()) return;
    parse_os_release(text, identity);
}

std::string machine_arch() { return "x86_64"; }

int secure_boot_state_from(const char* const paths[], int count) {
    int result = -2;
    for (int i = 0; i < count; ++i) {
        if (access(paths[i], R_OK) != 0) continue;
        FILE* file = fopen(paths[i], "r");
        if (file == nullptr) {
            result = -errno;
        } else {
            // The flag is the last byte in both layouts: efivars puts four
            // attribute bytes ahead of the value.
            int last = EOF;
            int byte;
            while ((byte = fgetc(file)) != EOF) last = byte;
            if (ferror(file)) {
                result = -ferror(file);
            } else if (last == EOF) {
                fclose(file);
                result = -5;
                continue;
            } else {
                result = last & 1;
            }
            fclose(file);
        }
        if (result >= 0) return result;
    }
    return result;
}

int secure_boot_state() {
    static const char* const paths[] = {
        "/sys/firmware/efi/vars/SecureBoot-8be4df61-93ca-11d2-aa0d-00e098032b8c/data",
        "/sys/firmware/efi/efivars/SecureBoot-8be4df61-93ca-11d2-aa0d-00e098032b8c",
    };
    return secure_boot_state_from(paths, 2);
}

bool select_utf8_locale() {
    std::string output;
    int32_t status = 0;
    if (!run_command("locale -a", output, status) || status != 0) return false;
    for (const std::string& line : split_string(output, '\n')) {
        if (!ends_with(line, "UTF-8") && !ends_with(line, "utf-8") && !ends_with(line, "utf8")) continue;
        setlocale(LC_CTYPE, line.c_str());
        std::string codeset = nl_langinfo(CODESET);
        if (codeset == "UTF-8") {
            log_message(0, "Set character type %s.\n", codeset.c_str());
            return true;
        }
    }
    return false;
}
