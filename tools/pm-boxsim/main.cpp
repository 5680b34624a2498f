// pm-boxsim: an extension box on a pseudo-terminal (or a real tty). The recorder's side opens
// the line; every sub-port of the box is a pseudo-terminal of its own, so that any program
// can be the device behind it. Faults are switched from standard input (see --help).
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "BoxSim.h"
#include "CommonLog.h"
#include "FdIo.h"
#include "MessageText.h"

namespace {

struct Args {
    std::string tty;
    std::string pathFile;
    std::string scriptFile;
    std::string imageOut;
    int subPorts = 4;
    int lateMs = 0;
    bool verbose = false;
    boxsim::BoxModel::Options box;
};

void Usage(FILE* out) {
    fprintf(out,
            "usage: pm-boxsim [options]\n"
            "  --tty PATH          speak on this tty instead of a new pseudo-terminal\n"
            "  --path-file FILE    write the line's path there once it is open\n"
            "  --subports N        pseudo-terminals for sub-ports 1..N (0-4, default 4)\n"
            "  --hub               be a hub box (device byte 0x19)\n"
            "  --version TEXT      the version the box reports (default BOX-MCU-V1.00)\n"
            "  --new-version TEXT  the version it reports after a good upgrade\n"
            "  --image-out FILE    where a good upgrade's image is written\n"
            "  --script FILE       answers by command, one per line: \"04 = 04 03 41 42 43\"\n"
            "                      (the answer's command, length and payload as bytes; nothing\n"
            "                      after '=': no answer)\n"
            "  -v                  print every frame\n"
            "commands on standard input:\n"
            "  silent on|off, late MS, corrupt N, refuse-settings on|off, wrong-length on|off,\n"
            "  refuse-start on|off, fail-line N, stop-after-line N, io STATE, version TEXT,\n"
            "  status, quit\n");
}

bool ParseArgs(int argc, char** argv, Args& args) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&](std::string& out) {
            if (i + 1 >= argc) {
                fprintf(stderr, "pm-boxsim: %s needs a value\n", arg.c_str());
                return false;
            }
            out = argv[++i];
            return true;
        };
        std::string number;
        if (arg == "--tty") {
            if (!value(args.tty))
                return false;
        } else if (arg == "--path-file") {
            if (!value(args.pathFile))
                return false;
        } else if (arg == "--script") {
            if (!value(args.scriptFile))
                return false;
        } else if (arg == "--image-out") {
            if (!value(args.imageOut))
                return false;
        } else if (arg == "--version") {
            if (!value(args.box.version))
                return false;
        } else if (arg == "--new-version") {
            if (!value(args.box.newVersion))
                return false;
        } else if (arg == "--subports") {
            if (!value(number))
                return false;
            args.subPorts = atoi(number.c_str());
            if (args.subPorts < 0 || args.subPorts > 4) {
                fprintf(stderr, "pm-boxsim: --subports takes 0 to 4\n");
                return false;
            }
        } else if (arg == "--hub") {
            args.box.device = boxsim::kHubDevice;
        } else if (arg == "-v") {
            args.verbose = true;
        } else if (arg == "--help" || arg == "-h") {
            Usage(stdout);
            exit(0);
        } else {
            fprintf(stderr, "pm-boxsim: unknown argument %s\n", arg.c_str());
            Usage(stderr);
            return false;
        }
    }
    return true;
}

bool LoadScript(const std::string& path, boxsim::BoxModel& model) {
    std::ifstream in(path);
    if (!in) {
        fprintf(stderr, "pm-boxsim: cannot read %s\n", path.c_str());
        return false;
    }
    std::string line;
    int number = 0;
    while (std::getline(in, line)) {
        ++number;
        if (line.empty() || line[0] == '#') {
            continue;
        }
        const size_t eq = line.find('=');
        std::vector<uint8_t> cmd;
        std::vector<uint8_t> body;
        std::string error;
        if (eq == std::string::npos || !pmtools::ParseHexBytes(line.substr(0, eq), cmd, error) ||
            cmd.size() != 1 || !pmtools::ParseHexBytes(line.substr(eq + 1), body, error)) {
            fprintf(stderr, "pm-boxsim: %s:%d: expected \"CMD = BYTES\"\n", path.c_str(), number);
            return false;
        }
        model.script[cmd[0]] = body;
    }
    return true;
}

// Non-blocking: see Deliver.
int OpenPty(std::string& path) {
    const int master = Common::OpenPtyMaster(path, O_NONBLOCK);
    if (master >= 0) {
        Common::MakePtyRaw(master);  // the other side opens the path
    }
    return master;
}

int OpenTty(const std::string& path) {
    int fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    struct termios raw;
    if (fd >= 0 && tcgetattr(fd, &raw) == 0) {
        cfmakeraw(&raw);
        tcsetattr(fd, TCSANOW, &raw);
    }
    return fd;
}

constexpr long long kHangUpRestMs = 200;
constexpr int kLineWriteWaitMs = 1000;

long long NowMs() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Writes what the other side takes within `waitMs`; the rest is lost, as on a wire whose
// receiver stopped. Never holds the box for longer: its control commands must get through.
void Deliver(int fd, const std::vector<uint8_t>& bytes, int waitMs) {
    Common::WriteMode mode;
    mode.waitMs = waitMs;
    Common::WriteAll(fd, bytes.data(), bytes.size(), mode);
}

class BoxSimulator {
public:
    explicit BoxSimulator(const Args& args) : m_args(args), m_model(args.box) {}

    bool Open() {
        if (!m_args.scriptFile.empty() && !LoadScript(m_args.scriptFile, m_model)) {
            return false;
        }
        std::string path = m_args.tty;
        m_line = path.empty() ? OpenPty(path) : OpenTty(path);
        if (m_line < 0) {
            fprintf(stderr, "pm-boxsim: cannot open the line: %s\n", strerror(errno));
            return false;
        }
        printf("line: %s\n", path.c_str());
        for (int id = 1; id <= m_args.subPorts; ++id) {
            std::string subPath;
            const int fd = OpenPty(subPath);
            if (fd < 0) {
                fprintf(stderr, "pm-boxsim: no pseudo-terminal for sub-port %d\n", id);
                return false;
            }
            m_sub.push_back(fd);
            printf("sub %d: %s\n", id, subPath.c_str());
        }
        fflush(stdout);
        if (!m_args.pathFile.empty()) {
            std::ofstream(m_args.pathFile) << path << "\n";
        }
        return true;
    }

    // A pseudo-terminal whose other side nobody holds open reports a hang-up at once, every
    // time it is polled: such a one is left out of the poll and looked at again a little
    // later, so that a box nobody talks to sleeps.
    int Run() {
        std::vector<int> lines = {m_line};
        lines.insert(lines.end(), m_sub.begin(), m_sub.end());
        std::vector<long long> restUntil(lines.size(), 0);
        while (!m_quit) {
            const long long now = NowMs();
            std::vector<pollfd> fds = {{m_stdinOpen ? STDIN_FILENO : -1, POLLIN, 0}};
            int timeout = -1;
            for (size_t i = 0; i < lines.size(); ++i) {
                const bool resting = restUntil[i] > now;
                fds.push_back({resting ? -1 : lines[i], POLLIN, 0});
                if (resting) {
                    const int left = static_cast<int>(restUntil[i] - now);
                    timeout = timeout < 0 ? left : std::min(timeout, left);
                }
            }
            if (poll(fds.data(), fds.size(), timeout) < 0) {
                if (errno == EINTR) {
                    continue;
                }
                return 1;
            }
            if (fds[0].revents & (POLLIN | POLLHUP)) {
                FromControl();
            }
            for (size_t i = 0; i < lines.size(); ++i) {
                const short events = fds[i + 1].revents;
                if (events & POLLIN) {
                    if (i == 0) {
                        FromLine();
                    } else {
                        FromSubPort(static_cast<int>(i), lines[i]);
                    }
                } else if (events & (POLLHUP | POLLERR)) {
                    restUntil[i] = NowMs() + kHangUpRestMs;
                }
            }
        }
        return 0;
    }

private:
    void FromLine() {
        uint8_t buffer[4096];
        const ssize_t n = read(m_line, buffer, sizeof(buffer));
        if (n <= 0) {
            return;  // the recorder's side closed the line meanwhile: polled again later
        }
        m_decoder.Feed(buffer, static_cast<size_t>(n));
        boxsim::Frame frame;
        while (m_decoder.Next(frame)) {
            Trace("<-", frame);
            const boxsim::BoxModel::Output out = m_model.OnFrame(frame);
            if (!out.toLine.empty() && m_lateMs > 0) {
                usleep(static_cast<useconds_t>(m_lateMs) * 1000);
            }
            for (const boxsim::Frame& answer : out.toLine) {
                Send(answer);
            }
            for (const auto& [id, bytes] : out.toSub) {
                if (id >= 1 && id <= static_cast<int>(m_sub.size())) {
                    Deliver(m_sub[static_cast<size_t>(id - 1)], bytes, 0);
                }
            }
        }
        SaveImage();
    }

    void FromSubPort(int id, int fd) {
        uint8_t buffer[512];  // a frame's worth after stuffing
        const ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n > 0) {
            Send(m_model.FromSubPort(id, std::vector<uint8_t>(buffer, buffer + n)));
        }
    }

    void Send(const boxsim::Frame& frame) {
        Trace("->", frame);
        Deliver(m_line, boxsim::Encode(frame), kLineWriteWaitMs);
    }

    void Trace(const char* way, const boxsim::Frame& frame) {
        if (m_args.verbose) {
            // Never waited for: a trace nobody reads must not stall the box.
            Common::LogOutputPrintf("pm-boxsim: %s addr %02X dev %02X body %s\n", way,
                                    frame.address, frame.device, boxsim::ToHex(frame.body).c_str());
        }
    }

    void SaveImage() {
        const std::vector<uint8_t>& image = m_model.UpgradedImage();
        if (m_model.Upgrades() == m_saved || m_args.imageOut.empty()) {
            return;
        }
        m_saved = m_model.Upgrades();
        std::ofstream(m_args.imageOut, std::ios::binary)
            .write(reinterpret_cast<const char*>(image.data()),
                   static_cast<std::streamsize>(image.size()));
        printf("upgraded: %zu bytes, version %s\n", image.size(), m_model.Version().c_str());
        fflush(stdout);
    }

    void FromControl() {
        char buffer[512];
        const ssize_t n = read(STDIN_FILENO, buffer, sizeof(buffer));
        if (n <= 0) {
            m_stdinOpen = false;  // keep running: a script may simply not talk to us
            return;
        }
        m_control.append(buffer, static_cast<size_t>(n));
        size_t eol;
        while ((eol = m_control.find('\n')) != std::string::npos) {
            Command(m_control.substr(0, eol));
            m_control.erase(0, eol + 1);
        }
    }

    void Command(const std::string& line) {
        std::istringstream in(line);
        std::string word;
        std::string value;
        in >> word >> value;
        const bool on = value == "on";
        boxsim::Faults& f = m_model.faults;
        if (word.empty()) {
            return;
        } else if (word == "silent") {
            f.silent = on;
        } else if (word == "late") {
            m_lateMs = atoi(value.c_str());
        } else if (word == "corrupt") {
            f.corruptChecks = atoi(value.c_str());
        } else if (word == "refuse-settings") {
            f.refuseSettings = on;
        } else if (word == "wrong-length") {
            f.wrongLength = on;
        } else if (word == "refuse-start") {
            f.refuseStart = on;
        } else if (word == "fail-line") {
            f.failLine = atoi(value.c_str());
        } else if (word == "stop-after-line") {
            f.stopAfterLine = atoi(value.c_str());
        } else if (word == "io") {
            Send(m_model.IoReport(static_cast<uint8_t>(strtoul(value.c_str(), nullptr, 0))));
        } else if (word == "version") {
            m_model.SetVersion(value);
        } else if (word == "status") {
            printf("version %s, link mode %d, keep-alives %d, version queries %d\n",
                   m_model.Version().c_str(), m_model.LinkMode(), m_model.Commands(0x07),
                   m_model.Commands(0x04));
        } else if (word == "quit") {
            m_quit = true;
        } else {
            printf("unknown command: %s\n", word.c_str());
        }
        fflush(stdout);
    }

    Args m_args;
    boxsim::BoxModel m_model;
    boxsim::Decoder m_decoder;
    int m_line = -1;
    std::vector<int> m_sub;
    std::string m_control;
    int m_lateMs = 0;
    int m_saved = 0;  // upgrades whose image was written
    bool m_quit = false;
    bool m_stdinOpen = true;
};

void Quit(int) {
    _exit(0);
}

}  // namespace

int main(int argc, char** argv) {
    Args args;
    if (!ParseArgs(argc, argv, args)) {
        return 2;
    }
    signal(SIGINT, Quit);
    signal(SIGTERM, Quit);
    signal(SIGPIPE, SIG_IGN);
    BoxSimulator simulator(args);
    if (!simulator.Open()) {
        return 1;
    }
    return simulator.Run();
}
