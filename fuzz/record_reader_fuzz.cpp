// libFuzzer target: tavictl's record file reader. Whatever the text, reading ends with the
// entries or with an error naming a line, never with a fault; entries it accepts have a
// topic and a time.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "decoder.h"
#include "fuzz_support.h"
#include "recordfile.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::quiet_logging();
    tavictl::use_rt_table(mapping_factory());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Every input starts as a record file, so that the lines after the first are reached.
    const std::string text = "{\"format\":\"tavictl-record\",\"version\":1}\n" +
                             std::string(reinterpret_cast<const char*>(data), size);
    const auto entries = tavictl::read_record(text);
    if (!entries) {
        if (entries.error().compare(0, 5, "line ") != 0) {
            std::abort();
        }
        return 0;
    }
    for (const auto& entry : entries.value()) {
        if (entry.topic.empty() || !(entry.t >= 0)) {
            std::abort();
        }
    }
    return 0;
}
