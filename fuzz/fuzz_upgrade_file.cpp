// The upgrade file as pm-fwpack --inspect, pm-upgrade --file and pm-recorder read it: any
// bytes, claims of entries and image lengths that lie included. What the head and entry 0 say
// must be checked against what arrived before any of it is read.
#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "UpgradeFile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::vector<uint8_t> file(data, data + size);
    pmtools::UpgradeFileInfo info;
    std::string error;
    if (pmtools::InspectUpgradeFile(file, info, error)) {
        // What the recorder would hand the service for it.
        const std::vector<uint8_t> record = pmtools::UpgradeFileRecord("FUZZ.CRC", file);
        volatile uint8_t sink = record.empty() ? 0 : record.back();
        (void)sink;
    }
    return 0;
}
