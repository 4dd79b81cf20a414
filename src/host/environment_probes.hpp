#pragma once

#include <string>

// The distribution's identity; each string stays as it was when the file
// gives nothing for it.
struct OsIdentity {
    std::string id;
    std::string version;
};

// Whether a line of /proc/self/cgroup names docker.
bool inside_docker();
bool cgroup_text_names_docker(const std::string& text);

// Reads /etc/os-release into `identity`.
void read_os_release(OsIdentity& identity);
// Keys are found as substrings anywhere in a line, and later lines overwrite
// earlier ones: a VARIANT_ID= or BUILD_ID= line behind ID= wins the id.
void parse_os_release(const std::string& text, OsIdentity& identity);

// Always "x86_64": the architecture this program is built for.
std::string machine_arch();

// The firmware's Secure Boot flag: 1 on, 0 off, -2 when neither firmware file
// exists, -5 when a file is empty, or the negative of an error number.
int secure_boot_state();
int secure_boot_state_from(const char* const paths[], int count);

// Sets the character type to the first UTF-8 locale that `locale -a` lists.
bool select_utf8_locale();
