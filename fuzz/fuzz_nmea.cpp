// The GPS plug-in's NMEA parser: bytes as a receiver delivers them (cut anywhere, garbage,
// wrong baud rates), split into lines and applied to the fix.
#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "NmeaParser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    nmea::LineSplitter splitter;
    nmea::FixTracker tracker;
    std::vector<std::string> lines;
    // Byte 0 says where the stream is cut into two deliveries.
    const size_t cut = size > 0 ? data[0] % (size + 1) : 0;
    const char* text = reinterpret_cast<const char*>(data);
    splitter.Feed(text, cut, lines);
    splitter.Feed(text + cut, size - cut, lines);
    for (const std::string& line : lines) {
        tracker.Apply(line);
    }
    volatile size_t sink = nmea::FormatIsoTime(tracker.Fix()).size();
    (void)sink;
    return 0;
}
