#pragma once

#include <cstdint>
#include <ctime>
#include <string>

// Hands a .ko file to the kernel through the init_module system call, on a
// mapping of the file. Returns 0 when the kernel took it, the errno when it
// refused it. When the file cannot be opened, examined or mapped, the result
// is the raw status of the preceding `setcap` (0 when that succeeded, so that
// modprobe decides next).
int32_t load_module_image(const char* path, const char* parameters);

// Loads a module by name with modprobe: 0, or 51 when modprobe failed.
int insert_module(const std::string& name, const std::string& parameters);

// Whether `name` is the module on the first line of /proc/modules: 0 not
// listed there, -1 listed and idle, -2 listed and in use, 1 a match of
// unexpected shape. Only the first line can ever match: the most recently
// loaded module.
int32_t module_use_state(const std::string& name);
int32_t module_use_state_in(const std::string& proc_modules_text, const std::string& name);

// Logs the kernel's messages since `since`: from the journal when the host
// has one and it says something, else the last 25 lines of dmesg.
void dump_kernel_messages(time_t since);
bool host_has_journal();
bool journal_text_is_useful(const std::string& text);

// The text that goes with an errno of a refused load.
std::string module_load_error_text(int error);
// ENOKEY, EKEYEXPIRED, EKEYREVOKED, EKEYREJECTED: the kernel did not accept the signature.
bool is_key_error(int error);

// Whether the modules were built for the kernel that runs; a module for
// another kernel cannot be tried, which is said, at no error level.
bool built_for_running_kernel(const std::string& kernel_version);

// Tells why the kernel refused `module` (a name or a file) and gives the
// code: 50 for a signature the kernel did not accept, 49 for anything else,
// "Module already in kernel" included.
int report_load_failure(const std::string& module, int32_t error);

// The version modinfo prints: what follows the last blank of the whole output.
std::string module_version_from_modinfo(const std::string& output);
