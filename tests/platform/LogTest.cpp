// Log level, PM_LOG_FILE, whole lines under threads, and the capture hook.
#include <ctype.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <fstream>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CommonLog.h"
#include "TestSupport.h"

namespace {

using Lines = std::vector<std::string>;
using pmtest::ScopedEnv;

// PM_LOG_LEVEL and PM_LOG_FILE are read once per process: each case logs from a child.
int RunChild(const std::string& args, std::optional<std::string> level,
             std::optional<std::string> file, const std::string& stderrPath) {
    ScopedEnv levelEnv("PM_LOG_LEVEL", std::move(level));
    ScopedEnv fileEnv("PM_LOG_FILE", std::move(file));
    int status = system((PM_LOG_CHILD " " + args + " 2>" + stderrPath).c_str());
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
