// Log level, PM_LOG_FILE, whole lines under threads, and the capture hook.
#include <ctype.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CommonLog.h"
#include "TestSupport.h"

extern char** environ;

namespace {

using Lines = std::vector<std::string>;
using pmtest::ScopedEnv;

// PM_LOG_LEVEL and PM_LOG_FILE are read once per process: each case logs from a child.
int RunChild(const std::string& args, std::optional<std::string> level,
             std::optional<std::string> file, const std::string& stderrPath) {
    ScopedEnv levelEnv("PM_LOG_LEVEL", std::move(level));
    ScopedEnv fileEnv("PM_LOG_FILE", std::move(file));
    int status =
        system((pmtest::EmulatorCommand() + PM_LOG_CHILD " " + args + " 2>" + stderrPath).c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

Lines ReadLines(const std::string& path) {
    std::ifstream in(path);
    Lines lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

// Splits "[HH:MM:SS.mmm L<level>] <text>" (std::regex trips a GCC 12 warning under ASan).
bool ParseRecord(const std::string& line, int* level, std::string* text) {
    const std::string shape = "[dd:dd:dd.ddd L";
    size_t close = line.find("] ");
    if (close == std::string::npos || close <= shape.size()) {
        return false;
    }
    for (size_t i = 0; i < close; ++i) {
        bool digit = isdigit(static_cast<unsigned char>(line[i]));
        if (i < shape.size() ? (shape[i] == 'd' ? !digit : line[i] != shape[i]) : !digit) {
            return false;
        }
    }
    *level = atoi(line.c_str() + shape.size());
    *text = line.substr(close + 2);
    return true;
}

// Levels of the "level N record" lines; fails on any other line.
std::vector<int> PrintedLevels(const Lines& lines) {
    std::vector<int> levels;
    for (const auto& line : lines) {
        int level = -1;
        std::string text;
        if (!ParseRecord(line, &level, &text) ||
            text != "level " + std::to_string(level) + " record") {
            ADD_FAILURE() << "unexpected line: " << line;
        }
        levels.push_back(level);
    }
    return levels;
}

TEST(Log, PrintsRecordsUpToPmLogLevel) {
    struct Case {
        std::optional<std::string> level;
        std::vector<int> printed;
    };
    const Case cases[] = {
        {std::nullopt, {0, 1}}, {"loud", {0, 1}}, {"0", {0}}, {"3", {0, 1, 2, 3}}, {"-1", {}},
    };
    pmtest::TempDir dir;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.level.value_or("(unset)"));
        ASSERT_EQ(RunChild("levels", c.level, std::nullopt, dir.File("stderr")), 0);
        EXPECT_EQ(PrintedLevels(ReadLines(dir.File("stderr"))), c.printed);
    }
    // A PM_LOG_FILE that cannot be opened: said once on stderr, where the records go.
    ASSERT_EQ(RunChild("levels", std::nullopt, dir.File("no/dir/x.log"), dir.File("stderr")), 0);
    Lines lines = ReadLines(dir.File("stderr"));
    ASSERT_FALSE(lines.empty());
    EXPECT_NE(lines[0].find("cannot open PM_LOG_FILE"), std::string::npos) << lines[0];
    EXPECT_EQ(PrintedLevels(Lines(lines.begin() + 1, lines.end())), (std::vector<int>{0, 1}));
}

TEST(Log, LongRecordsOfThreadsAreWholeLinesAppendedToPmLogFile) {
    pmtest::TempDir dir;
    const std::string file = dir.Write("records.log", "earlier line\n");
    ASSERT_EQ(RunChild("threads 4 300", std::nullopt, file, dir.File("stderr")), 0);
    EXPECT_TRUE(ReadLines(dir.File("stderr")).empty()) << "nothing on stderr";
    Lines lines = ReadLines(file);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0], "earlier line") << "PM_LOG_FILE is appended to";
    std::set<std::string> expected;
    for (int t = 0; t < 4; ++t) {
        for (int i = 0; i < 300; ++i) {
            expected.insert("thread " + std::to_string(t) + " record " + std::to_string(i) + " " +
                            std::string(1000, 'p'));
        }
    }
    for (const auto& line : Lines(lines.begin() + 1, lines.end())) {
        int level = -1;
        std::string text;
        ASSERT_TRUE(ParseRecord(line, &level, &text) && expected.erase(text) == 1)
            << "damaged or repeated: " << line.substr(0, 100);
    }
    EXPECT_TRUE(expected.empty()) << expected.size() << " records missing";
}

// A log output nobody reads (stderr a pipe, stalled) costs records, never the caller: the
// records it could not take are counted and the count comes out once it takes them again.
// The child floods its log into `err[1]`, which nobody reads until it said "flooded".
void StallAndCheckTheLoss(int (&err)[2]) {
    int in[2];
    ASSERT_EQ(pipe2(in, O_CLOEXEC), 0);  // the child holds no end it does not use
    pmtest::TempDir dir;
    const std::string outPath = dir.File("out");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT, 0644);
    posix_spawn_file_actions_adddup2(&actions, err[1], 2);
    // About 1 MB of records, far more than a pipe holds.
    std::vector<std::string> args = pmtest::EmulatorArgs();
    args.insert(args.end(), {PM_LOG_CHILD, "stall", "20000"});
    std::vector<char*> argv;
    for (std::string& a : args) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    pid_t child = -1;
    ASSERT_EQ(posix_spawn(&child, argv[0], &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(err[1]);

    // Held by its log, it would never get here: nobody reads its stderr yet.
    EXPECT_TRUE(pmtest::WaitUntil([&] { return ReadLines(outPath) == Lines{"flooded"}; },
                                  std::chrono::seconds(20)));
    fcntl(err[0], F_SETFL, O_NONBLOCK);
    std::string text;
    char buf[65536];
    auto drain = [&] {
        for (ssize_t n; (n = read(err[0], buf, sizeof buf)) > 0;) {
            text.append(buf, static_cast<size_t>(n));
        }
    };
    drain();
    ASSERT_EQ(write(in[1], "x", 1), 1);
    close(in[1]);
    int status = 0;
    ASSERT_TRUE(pmtest::WaitUntil([&] {
        drain();
        return waitpid(child, &status, WNOHANG) == child;
    }));
    drain();
    close(err[0]);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    // Whole records, the first ones in order, then the count of the lost ones, then the last.
    Lines lines;
    for (size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos;
         start = end + 1) {
        lines.push_back(text.substr(start, end - start));
    }
    ASSERT_GE(lines.size(), 3u);
    int level = -1;
    std::string record;
    for (size_t i = 0; i + 2 < lines.size(); ++i) {
        ASSERT_TRUE(ParseRecord(lines[i], &level, &record)) << lines[i];
        ASSERT_EQ(record, "stall record " + std::to_string(i));
    }
    ASSERT_TRUE(ParseRecord(lines[lines.size() - 2], &level, &record));
    const unsigned long lost = strtoul(record.c_str() + strlen("log: "), nullptr, 10);
    EXPECT_EQ(record, "log: " + std::to_string(lost) + " lines lost, the output did not take them");
    EXPECT_EQ(lost, 20000 - (lines.size() - 2));
    ASSERT_TRUE(ParseRecord(lines.back(), &level, &record));
    EXPECT_EQ(record, "after the stall");
}

TEST(Log, AStalledOutputLosesRecordsButNeverHoldsTheCaller) {
    int err[2];
    ASSERT_EQ(pipe2(err, O_CLOEXEC), 0);
    StallAndCheckTheLoss(err);
}

// A socket cannot be reopened non-blocking as a pipe can: the log looks for room first.
TEST(Log, AStalledSocketLosesRecordsButNeverHoldsTheCaller) {
    int err[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, err), 0);
    StallAndCheckTheLoss(err);
}

TEST(Log, CaptureHookSeesEveryLevelExactlyAsFormatted) {
    pmtest::LogCapture capture;
    const int saved = Common::GetLogLevel();
    Common::SetLogLevel(0);
    const int line = __LINE__ + 1;
    Common::gclDebugPrintf(4, "here.cpp", "Probe", line, "value = %d, name = %s", 42, "box");
    Common::SetLogLevel(saved);

    std::vector<Common::LogRecord> records = capture.Records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].level, 4);
    EXPECT_STREQ(records[0].file, "here.cpp");
    EXPECT_STREQ(records[0].func, "Probe");
    EXPECT_EQ(records[0].line, line);
    EXPECT_EQ(records[0].text, "value = 42, name = box");
}

}  // namespace
