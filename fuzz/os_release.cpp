// /etc/os-release. Any content gives an identity; nothing may end the process.
#include "fuzz_support.hpp"
#include "host/environment_probes.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    OsIdentity identity{"unset-id", "unset-version"};
    parse_os_release(as_text(data, size), identity);
    FUZZ_CHECK(identity.id.find('"') == std::string::npos && identity.version.find('"') == std::string::npos);
    return 0;
}
