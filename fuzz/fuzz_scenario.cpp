// pm-recorder's scenario document, as `pm-recorder FILE` and `ctl apply` read it: any text.
// A document is taken whole or refused with a reason; nothing it says may make the reader
// allocate without bound or read out of its records.
#include <stddef.h>
#include <stdint.h>

#include <string>

#include "Scenario.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    pmrecorder::Scenario scenario;
    std::string error;
    pmrecorder::ParseScenarioText(std::string(reinterpret_cast<const char*>(data), size), scenario,
                                  error);
    return 0;
}
