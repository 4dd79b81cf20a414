// /etc/dkms/framework.conf. Every problem falls back to the defaults: nothing
// may end the process.
#include "dkms/dkms_config.hpp"
#include "fuzz_support.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    DkmsConfig config;
    parse_dkms_config(as_text(data, size), config);
    for (const std::string* value : {&config.source_tree, &config.dkms_tree, &config.install_tree})
        FUZZ_CHECK(value->find('"') == std::string::npos);
    return 0;
}
