// /proc/modules, as the check of whether a module is loaded and in use reads
// it, for each name that the installer asks about. Nothing may end the process.
#include "fuzz_support.hpp"
#include "kmod/module_loading.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text = read_as_proc_file(data, size);
    for (const char* name : {"qv_driver", "vantoria", "vnt_peer_mem_drv", "ib_core"}) {
        const int32_t state = module_use_state_in(text, name);
        // A plain name has the pattern's two groups: 1 cannot come back.
        FUZZ_CHECK(state == 0 || state == -1 || state == -2);
        FUZZ_CHECK(state == 0 || text.rfind(name, 0) == 0);
    }
    return 0;
}
