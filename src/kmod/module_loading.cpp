#include "kmod/module_loading.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <regex>
#include <unordered_map>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "app/log.hpp"
#include "app/result_codes.hpp"
#include "host/commands.hpp"
#include "host/files.hpp"
#include "host/regex_options.hpp"
#include "installer/installer.hpp"

namespace {

// init_module on x86-64, called by number: the image comes from memory, so
// there is no finit_module and no load flags.
constexpr long init_module_syscall = 175;

}  // namespace

int32_t load_module_image(const char* path, const char* parameters) {
    const std::string setcap = std::string("setcap 'cap_sys_module=+ep' ") + path + " >/dev/null 2>&1";
    const int setcap_status = system(setcap.c_str());

    int fd = open(path, O_RDONLY);
    if (fd < 0) return setcap_status;
    struct stat st;
    if (fstat(fd, &st) != 0) {
        close(fd);
        return setcap_status;
    }
    void* image = mmap(nullptr, st.st_size, PROT_READ, MAP_PRIVATE, fd, 0);
    if (image == MAP_FAILED) {
        close(fd);
        return setcap_status;
    }
    int32_t result = 0;
    if (syscall(init_module_syscall, image, static_cast<unsigned long>(st.st_size), parameters) != 0) result = errno;
    munmap(image, st.st_size);
    close(fd);
    return result;
}

bool DriverInstaller::fetch_module_version(const std::string& path) {
    if (!file_exists(path)) {
        log_message(3, "ko file %s does not exist. set driver_version empty.\n", path.c_str());
        driver_version.clear();
        return false;
    }
    const std::string command = "modinfo " + path + " | grep 'version:'";
    std::string output;
    int32_t status = 0;
    if (!run_command(command, output, status) || status != 0) {
        log_message(0, "fetch module version %s failed %s %d\n", command.c_str(), output.c_str(), status);
        driver_version.clear();
        return false;
    }
    log_message(0, "fetch %s 's ver: %s\n", path.c_str(), output.c_str());
    driver_version = module_version_from_modinfo(output);
    return true;
}

std::string module_version_from_modinfo(const std::string& output) {
    size_t blank = output.rfind(' ');
    std::string version = blank == std::string::npos ? output : output.substr(blank + 1);
    trim_whitespace(version);
    return version;
}

int insert_module(const std::string& name, const std::string& parameters) {
    std::string command;
    if (!parameters.empty()) {
        log_message(0, "Insert %s with parameters:%s\n", name.c_str(), parameters.c_str());
        command = "modprobe " + name + " " + parameters + " 2>&1";
    } else {
        command = "modprobe " + name + " 2>&1";
    }
    std::string output;
    int32_t status = 0;
    run_command(command, output, status);
    if (status != 0) {
        log_message(4, "Failed to insert kernel module:\n%s\n", output.c_str());
        return code::modprobe_failed;
    }
    log_message(2, "modprobe %s succeed.\n", name.c_str());
    return 0;
}

int32_t module_use_state_in(const std::string& text, const std::string& name) {
    char pattern[128];
    snprintf(pattern, sizeof pattern, "^(?:%s)[ \t]+([0-9]+)[ \t]+([0-9]+).*", name.c_str());
    // Without the multiline flag "^" holds only at the start of the text, so
    // only the first line of /proc/modules can match.
    // Compiling the expression costs more than all the rest of the check, and
    // a run asks about the same few names again and again: keep each one.
    static std::unordered_map<std::string, std::regex> compiled;
    auto found = compiled.find(pattern);
    if (found == compiled.end())
        found = compiled.emplace(pattern, std::regex(pattern, std::regex::ECMAScript | regex_in_loop)).first;
    const std::regex& expression = found->second;
    std::smatch match;
    // "^" holds at the start alone, so the search starts nowhere else.
    if (!std::regex_search(text, match, expression, std::regex_constants::match_continuous)) return 0;
    if (match.size() == 3) {
        if (match[2].str()[0] == '0') return -1;
        log_message(2, "module %s is being used.\n%s\n", name.c_str(), match[0].str().c_str());
        return -2;
    }
    for (const auto& sub_match : match) puts(sub_match.str().c_str());
    return 1;
}

int32_t module_use_state(const std::string& name) {
    std::string text;
    read_file_chunked("/proc/modules", text);
    return module_use_state_in(text, name);
}

bool host_has_journal() {
    return !find_in_path("journalctl").empty() && file_exists("/run/systemd/journal") &&
           file_exists("/lib/systemd/system/systemd-journald.service") &&
           (file_exists("/run/log/journal") || file_exists("/var/log/journal"));
}

bool journal_text_is_useful(const std::string& text) {
    return !text.empty() && text != "\n" && !ends_with(text, "No entries --\n");
}

void dump_kernel_messages(time_t since) {
    std::string messages;
    bool from_journal = false;
    if (host_has_journal()) {
        char when[20] = {};
        struct tm local{};
        localtime_r(&since, &local);
        if (strftime(when, sizeof when, "%F %T", &local) != 0) {
            char command[64];
            snprintf(command, sizeof command, "journalctl -kS '%s' --no-pager -q 2>&1", when);
            int32_t status = 0;
            if (run_command(command, messages, status) && status == 0) from_journal = journal_text_is_useful(messages);
        }
    }
    if (!from_journal) run_command_output("dmesg | tail -n 25", messages);
    log_message(2, "Kernel messages:\n%s\n", messages.c_str());
}

std::string module_load_error_text(int error) {
    if (error == 2) return "Unknown symbol in module or unknown parameter (see dmesg)";
    if (error == 17) return "Module already in kernel";
    return strerror(error);
}

bool is_key_error(int error) { return error >= 126 && error <= 129; }

bool built_for_running_kernel(const std::string& kernel_version) {
    struct utsname host{};
    uname(&host);
    if (kernel_version == host.release) return true;
    log_message(2, "Configured kernel source %s is not the running one. skip module install.\n",
                kernel_version.c_str());
    return false;
}

int report_load_failure(const std::string& module, int32_t error) {
    const std::string text = module_load_error_text(error);
    log_message(1, "Module load failed. error: %s\n", text.c_str());
    if (is_key_error(error)) {
        log_message(3, "Try insmod %s failed due to module sign. %d %s\n", module.c_str(), error, strerror(error));
        return code::load_key_rejected;
    }
    log_message(3, "Try insmod %s %d %s\n", module.c_str(), error, text.c_str());
    return code::load_failed;
}
