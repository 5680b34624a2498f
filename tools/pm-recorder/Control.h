// Commands to a running simulator over the bus: what `pm-recorder apply FILE` uses.
#ifndef TOOLS_PM_RECORDER_CONTROL_H
#define TOOLS_PM_RECORDER_CONTROL_H

#include <string>

#include "Simulator.h"

namespace pmrecorder {

// Sends `command` (a line as typed on the simulator's standard input) and waits up to
// `timeoutMs` for the reply. The request is repeated until answered; the simulator runs each
// request once and answers repeats from memory. False with the reason when no reply came.
bool SendControl(const std::string& command, int timeoutMs, CommandReply& reply,
                 std::string& error);

}  // namespace pmrecorder

#endif
