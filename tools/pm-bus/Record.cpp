// pm-bus record: every message on the bus with its time into a session file, until SIGINT,
// SIGTERM or --for S.
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "BusListener.h"
#include "Commands.h"
#include "SessionFile.h"
#include "Signals.h"

namespace pmbus {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kPollMs = 50;
constexpr double kReadyTimeoutS = 1e6;  // wait for a broker as long as the user does

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

class CSessionWriter {
public:
    ~CSessionWriter() {
        if (m_file != nullptr) {
            fclose(m_file);
        }
    }
    bool Open(const std::string& path) {
        m_path = path;
        m_file = fopen(path.c_str(), "w");
        return m_file != nullptr ? Put(SessionHeader()) : Failed();
    }
    bool Put(const std::string& text) {
        return m_failed || (fputs(text.c_str(), m_file) >= 0 ? true : Failed());
    }
    bool Flush() { return m_failed || (fflush(m_file) == 0 ? true : Failed()); }
    bool Close() {
        bool ok = Flush();
        FILE* file = m_file;
        m_file = nullptr;
        return (fclose(file) == 0 || Failed()) && ok && !m_failed;
    }
    bool Broken() const { return m_failed; }

private:
    bool Failed() {
        if (!m_failed) {
            fprintf(stderr, "pm-bus: cannot write %s: %s\n", m_path.c_str(), strerror(errno));
        }
        m_failed = true;
        return false;
    }
    std::string m_path;
    FILE* m_file = nullptr;
    bool m_failed = false;
};

}  // namespace

int RunRecord(const Arguments& args) {
    Common::BusEndpoints ends;
    if (!pmtools::BusFromEnv(ends)) {
        return 1;
    }
    CSessionWriter writer;
    if (!writer.Open(args.file)) {
        return 1;
    }
    pmtools::CBusListener listener(
        {{}, "pm-bus", "recording " + ends.out + " to " + args.file, false});
    if (!listener.Open(ends)) {
        return 1;
    }
    Clock::time_point start = Clock::now();
    auto write = [&](const uint8_t* frame, size_t size) {
        writer.Put(FormatSessionLine(SecondsSince(start), frame, size) + "\n");
    };
    // The clock starts when nothing sent from then on can be missed.
    auto early = [](const uint8_t*, size_t) {};
    if (!listener.WaitReady(kReadyTimeoutS, early)) {
        writer.Put(FormatSessionEnd(0) + "\n");
        return writer.Close() ? 0 : 1;
    }
    start = Clock::now();
    while (!writer.Broken() && pmtools::TakeStopSignal(0) == 0 &&
           (args.forS < 0 || SecondsSince(start) < args.forS)) {
        listener.Poll(kPollMs, write);
        writer.Flush();
    }
    writer.Put(FormatSessionEnd(SecondsSince(start)) + "\n");
    return writer.Close() ? 0 : 1;
}

}  // namespace pmbus
