// The output of `systemctl status`, from which the service check takes the
// main process and its exit status. Nothing may end the process.
#include "fuzz_support.hpp"
#include "system/service.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    int32_t pid = -7;
    int32_t pid_status = -7;
    const bool found = parse_main_pid(as_text(data, size), pid, pid_status);
    FUZZ_CHECK(found || (pid == -7 && pid_status == -7));
    return 0;
}
