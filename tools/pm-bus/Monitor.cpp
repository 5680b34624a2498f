// The monitor: every message (or the chosen ids) as one line each, until SIGINT or SIGTERM.
#include "BusListener.h"
#include "Commands.h"
#include "Signals.h"

namespace pmbus {

namespace {
constexpr int kPollMs = 100;
}  // namespace

int RunMonitor(const Arguments& args) {
    Common::BusEndpoints ends;
    if (!pmtools::BusFromEnv(ends)) {
        return 1;
    }
    pmtools::CBusListener listener({args.ids, "pm-bus", "monitoring " + ends.out, false});
    if (!listener.Open(ends)) {
        return 1;
    }
    auto print = [&](const uint8_t* frame, size_t size) { PrintMessage(frame, size, args.hex); };
    while (pmtools::TakeStopSignal(0) == 0) {
        listener.Poll(kPollMs, print);
    }
    return 0;
}

}  // namespace pmbus
