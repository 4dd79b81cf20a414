// The install record of an earlier run, as an administrator may have edited
// it or a crash cut it short. The reader takes any content: nothing may end
// the process here.
#include "fuzz_support.hpp"
#include "host/files.hpp"
#include "record/install_record.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text = as_text(data, size);
    const std::vector<ManifestEntry> entries = parse_install_record(text);
    // One entry a line, however malformed; no field crosses a line or a blank.
    FUZZ_CHECK(entries.size() == split_string(text, '\n').size());
    for (const ManifestEntry& entry : entries) {
        for (const std::string* field : {&entry.type, &entry.path, &entry.md5})
            FUZZ_CHECK(field->find_first_of(" \n") == std::string::npos);
    }
    return 0;
}
