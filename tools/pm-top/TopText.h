// The model as lines of text: the panes of the screen and the --once snapshot are the same
// lines, so what a bug report shows is what the person saw.
#ifndef TOOLS_PM_TOP_TOP_TEXT_H
#define TOOLS_PM_TOP_TOP_TEXT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "ConfigNames.h"
#include "TopModel.h"

namespace pmtop {

struct View {
    const TopModel& model;
    const ConfigNames& names;
    int64_t nowMs;
};

using Lines = std::vector<std::string>;

Lines PortLines(const View& v);      // serial ports with their sub-ports, CAN, Ethernet
Lines BoxLines(const View& v);       // extension boxes and hubs
Lines RecorderLines(const View& v);  // the recorder states the service follows

// Whether a message matches the pane's filter: an event id (decimal or 0x hex), or any part
// of its name ("version" matches extend-version and get-extend-version.answer). An empty
// filter matches everything.
bool MessageMatches(uint32_t eventId, const std::string& filter);
// The last `count` messages that match, oldest first.
Lines MessageLines(const TopModel& model, const std::string& filter, size_t count);

// What an upgrade state means to the person waiting for it.
std::string UpgradeStateText(uint8_t state);
// "[#####-----]" with `width` cells between the brackets.
std::string ProgressBar(int percent, int width);

// The whole plain-text snapshot: a head line with the bus state, then every pane.
std::string Snapshot(const View& v, const std::string& busState, size_t messages);

}  // namespace pmtop

#endif
