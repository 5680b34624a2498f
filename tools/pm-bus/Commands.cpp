#include "Commands.h"
#include "BusWire.h"

#include <signal.h>
#include <string.h>
#include <sys/time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <optional>
#include <string>

#include "EventNames.h"
#include "MessageText.h"
#include "MsgBroker.h"
#include "MsgClientManage.h"
#include "Signals.h"

namespace pmbus {

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned kSliceMs = 50;  // longest wait between looks at the deadline and signals
constexpr double kDefaultCallTimeoutS = 5.0;

std::string IdText(uint32_t id) {
    std::string name = pmtools::NameOfEvent(id);
    return name.empty() ? std::to_string(id) : std::to_string(id) + " (" + name + ")";
}

std::string BusName() {
    Common::BusEndpoints ends = Common::BusEndpointsFromEnv();
    return ends.in + " and " + ends.out;
}

bool Connected(CMsgClientManage& client) {
    if (client.IsConnected()) {
        return true;
    }
    fprintf(stderr, "pm-bus: cannot connect to the bus at %s\n", BusName().c_str());
    return false;
}

enum class Outcome { kDone, kTimedOut, kStopped };

// Dispatches the client's messages until `done` holds, the deadline passes or a stop signal
// arrives. No deadline when timeoutS is negative.
Outcome PumpUntil(CMsgClientManage& client, double timeoutS, const bool& done) {
    std::optional<Clock::time_point> deadline;
    if (timeoutS >= 0) {
        deadline = Clock::now() + std::chrono::microseconds(static_cast<long long>(timeoutS * 1e6));
    }
    while (!done) {
        unsigned slice = kSliceMs;
        if (deadline) {
            auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(*deadline - Clock::now());
            if (left.count() <= 0) {
                return Outcome::kTimedOut;
            }
            slice = std::min<unsigned>(slice, static_cast<unsigned>(left.count()));
        }
        client.MSGWaitForEvent(slice);
        if (!done && pmtools::TakeStopSignal(0) != 0) {
            return Outcome::kStopped;
        }
    }
    return Outcome::kDone;
}

// Exit status for a wait that did not end with its message.
int Missed(Outcome outcome, uint32_t id, double timeoutS) {
    if (outcome == Outcome::kTimedOut) {
        fprintf(stderr, "pm-bus: no message %s within %g s\n", IdText(id).c_str(), timeoutS);
    } else {
        fprintf(stderr, "pm-bus: interrupted while waiting for %s\n", IdText(id).c_str());
    }
    return 1;
}

// Our request as the broker hands it back: sender, flags and payload as sent.
bool IsOwnRequest(const char* data, int len, const Arguments& args, pmtools::HeadFields& head) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(data);
    return len > 0 && pmtools::ReadHead(bytes, static_cast<size_t>(len), head) &&
           head.senderId == args.from && head.needAnswer && !head.isAnswer &&
           head.length == args.payload.size() &&
           static_cast<size_t>(len) == Common::kMsgHeadSize + args.payload.size() &&
           std::equal(args.payload.begin(), args.payload.end(), bytes + Common::kMsgHeadSize);
}

}  // namespace

void PrintMessage(const uint8_t* message, size_t size, bool fullHex) {
    struct timeval now;
    gettimeofday(&now, nullptr);
    std::string line = pmtools::FormatMessage(message, size, now, fullHex);
    fprintf(stdout, "%s\n", line.c_str());
    fflush(stdout);
}

int RunBroker() {
    Common::CMsgBroker broker;
    const Common::BusEndpoints& ends = broker.Endpoints();
    int rc = broker.Start();
    if (rc == 1) {
        fprintf(stderr, "pm-bus: a broker already serves %s and %s\n", ends.in.c_str(),
                ends.out.c_str());
        return 1;
    }
    if (rc != 0) {
        fprintf(stderr, "pm-bus: cannot start a broker at %s and %s\n", ends.in.c_str(),
                ends.out.c_str());
        return 1;
    }
    fprintf(stderr, "pm-bus: broker running at %s and %s\n", ends.in.c_str(), ends.out.c_str());
    int sig = pmtools::WaitStopSignal();
    fprintf(stderr, "pm-bus: %s received, broker stopping\n", sig == SIGINT ? "SIGINT" : "SIGTERM");
    broker.Stop();
    return 0;
}

int RunSend(const Arguments& args) {
    CMsgClientManage client("pm-bus", 300000);
    if (!Connected(client)) {
        return 1;
    }
    int rc =
        client.MSGSendMessage(0, static_cast<int>(args.id), args.request ? 1 : 0,
                              reinterpret_cast<const char*>(args.payload.data()),
                              static_cast<int>(args.payload.size()), static_cast<int>(args.from));
    if (rc != 0) {
        fprintf(stderr, "pm-bus: could not send %s\n", IdText(args.id).c_str());
        return 1;
    }
    return 0;
}

int RunWait(const Arguments& args) {
    CMsgClientManage client("pm-bus", 300000);
    if (!Connected(client)) {
        return 1;
    }
    bool done = false;
    client.RegisterHandler(static_cast<int>(args.from), static_cast<int>(args.id),
                           [&](const char* data, int len) {
                               if (!done && data != nullptr && len > 0) {
                                   PrintMessage(reinterpret_cast<const uint8_t*>(data),
                                                static_cast<size_t>(len), args.hex);
                                   done = true;
                               }
                               return 0;
                           });
    // Registration has reached the broker: from here on nothing sent is missed.
    fprintf(stderr, "pm-bus: waiting for %s\n", IdText(args.id).c_str());
    Outcome outcome = PumpUntil(client, args.timeoutS, done);
    return outcome == Outcome::kDone ? 0 : Missed(outcome, args.id, args.timeoutS);
}

// The client API does not tell the sequence number it gave the request, so call listens to
// its own request as it comes back from the broker and takes the number from there. Answers
// reach the same subscriber through the same broker, hence always after the request.
int RunCall(const Arguments& args) {
    CMsgClientManage client("pm-bus", 300000);
    if (!Connected(client)) {
        return 1;
    }
    const uint32_t answerId = args.id | Common::kMsgAnswerBit;
    std::optional<uint32_t> seq;
    bool done = false;
    client.RegisterHandler(static_cast<int>(args.from), static_cast<int>(args.id),
                           [&](const char* data, int len) {
                               pmtools::HeadFields head;
                               if (!seq && IsOwnRequest(data, len, args, head)) {
                                   seq = head.seq;
                               }
                               return 0;
                           });
    client.RegisterHandler(
        static_cast<int>(args.from), static_cast<int>(answerId), [&](const char* data, int len) {
            pmtools::HeadFields head;
            const auto* bytes = reinterpret_cast<const uint8_t*>(data);
            if (!done && seq && len > 0 &&
                pmtools::ReadHead(bytes, static_cast<size_t>(len), head) && head.seq == *seq) {
                PrintMessage(bytes, static_cast<size_t>(len), args.hex);
                done = true;
            }
            return 0;
        });
    if (client.MSGSendMessage(
            0, static_cast<int>(args.id), 1, reinterpret_cast<const char*>(args.payload.data()),
            static_cast<int>(args.payload.size()), static_cast<int>(args.from)) != 0) {
        fprintf(stderr, "pm-bus: could not send %s\n", IdText(args.id).c_str());
        return 1;
    }
    double timeoutS = args.timeoutS >= 0 ? args.timeoutS : kDefaultCallTimeoutS;
    Outcome outcome = PumpUntil(client, timeoutS, done);
    if (outcome == Outcome::kTimedOut) {
        fprintf(stderr, "pm-bus: no answer %s to %s within %g s\n", IdText(answerId).c_str(),
                IdText(args.id).c_str(), timeoutS);
        return 1;
    }
    return outcome == Outcome::kDone ? 0 : Missed(outcome, answerId, timeoutS);
}

int RunNames() {
    for (const pmtools::EventName& e : pmtools::EventTable()) {
        printf("%10u  0x%08x  %-30s %s\n", e.id, e.id, e.name, e.what);
    }
    printf("An answer is the request's id | 0x8000, named <request>.answer.\n");
    return 0;
}

}  // namespace pmbus
