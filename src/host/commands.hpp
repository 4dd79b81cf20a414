#pragma once

#include <cstdint>
#include <string>

// Runs `command` through the shell and captures its standard output (callers
// append "2>&1" where they want the error stream too). Returns false when no
// shell could be started. `status` is the exit code; a command killed by a
// signal reports 0, since only bits 8 to 15 of the wait status are taken.
bool run_command(const std::string& command, std::string& output, int32_t& status);

// The same, with the exit code dropped.
bool run_command_output(const std::string& command, std::string& output);

// Creates a file from the template "/tmp/vantoriatmp-XXXXXX" with permission
// bits `mode`; `path` holds its name on success and is empty on failure.
bool make_temp_file(std::string& path, uint32_t mode);
