// /proc/self/cgroup, as the container check reads it. Nothing may end the process.
#include "fuzz_support.hpp"
#include "host/environment_probes.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text = read_as_proc_file(data, size);
    const bool docker = cgroup_text_names_docker(text);
    FUZZ_CHECK(!docker || text.find("docker") != std::string::npos);
    return 0;
}
