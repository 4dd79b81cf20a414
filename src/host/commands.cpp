#include "host/commands.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include "app/log.hpp"

namespace {

// Reads the command's output in chunks of 1024 bytes; a short chunk means the
// pipe is drained. `wait_status` is what pclose returned.
bool run_through_shell(const std::string& command, std::string& output, int& wait_status) {
    output.clear();
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return false;

    char buffer[1024] = {};
    for (;;) {
        size_t count = fread(buffer, 1, sizeof buffer, pipe);
        if (count == 0) break;
        output.append(buffer, count);
        if (count < sizeof buffer) break;
    }
    wait_status = pclose(pipe);
    return true;
}

}  // namespace

bool run_command(const std::string& command, std::string& output, int32_t& status) {
    int wait_status = 0;
    if (!run_through_shell(command, output, wait_status)) return false;
    status = (wait_status >> 8) & 0xff;
    return true;
}

bool run_command_output(const std::string& command, std::string& output) {
    int wait_status = 0;
    return run_through_shell(command, output, wait_status);
}

bool make_temp_file(std::string& path, uint32_t mode) {
    path.clear();
    char name[24] = {};
    snprintf(name, sizeof name, "%s", "/tmp/vantoriatmp-XXXXXX");
    int fd = mkstemp(name);
    if (fd < 0) {
        log_message(0, "get temp file failed.\n %s", strerror(errno));
        return false;
    }
    if (fchmod(fd, mode) != 0) {
        // The descriptor and the file are left as they are.
        log_message(0, "set permissions %04o on file %s failed %s\n", mode, name, strerror(errno));
        return false;
    }
    close(fd);
    path = name;
    return true;
}
