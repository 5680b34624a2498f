#include <ctype.h>
#include <fcntl.h>
#include <stdio.h>
#include <spawn.h>
#include <sys/wait.h>

#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "CommonLog.h"
#include "TestSupport.h"

extern char** environ;

namespace {

// PM_LOG_LEVEL and PM_LOG_FILE are read once per process, so each case runs the logging in
// a child of its own with the two variables as given (unset when nullopt).
struct ChildEnv {
    std::optional<std::string> level;
    std::optional<std::string> file;
};

int RunLogChild(const std::vector<std::string>& args, const ChildEnv& env,
                const std::string& stderrPath) {
    std::vector<std::string> envStrings;
    for (char** e = environ; *e != nullptr; ++e) {
        std::string entry(*e);
        if (entry.rfind("PM_LOG_LEVEL=", 0) != 0 && entry.rfind("PM_LOG_FILE=", 0) != 0) {
            envStrings.push_back(entry);
        }
    }
    if (env.level) {
        envStrings.push_back("PM_LOG_LEVEL=" + *env.level);
    }
    if (env.file) {
        envStrings.push_back("PM_LOG_FILE=" + *env.file);
    }
    std::vector<std::string> argStrings{PM_LOG_CHILD};
    argStrings.insert(argStrings.end(), args.begin(), args.end());
    auto pointers = [](std::vector<std::string>& strings) {
        std::vector<char*> out;
        for (auto& s : strings) {
            out.push_back(s.data());
        }
        out.push_back(nullptr);
        return out;
    };
    std::vector<char*> argv = pointers(argStrings);
    std::vector<char*> envp = pointers(envStrings);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 2, stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    pid_t pid = 0;
    int rc = posix_spawn(&pid, PM_LOG_CHILD, &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        return -1;
    }
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}

std::vector<std::string> ReadLines(const std::string& path) {
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::string ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream all;
    all << in.rdbuf();
    return all.str();
}

// Splits "[HH:MM:SS.mmm L<level>] <text>" (std::regex trips a GCC 12 warning under ASan).
bool ParseRecord(const std::string& line, int* level, std::string* text) {
    const char* shape = "[dd:dd:dd.ddd L";
    size_t i = 0;
    for (; shape[i] != '\0'; ++i) {
        if (i >= line.size() || (shape[i] == 'd' ? !isdigit(static_cast<unsigned char>(line[i]))
                                                 : line[i] != shape[i])) {
            return false;
        }
    }
    size_t close = line.find("] ", i);
    if (close == std::string::npos || close == i) {
        return false;
    }
    for (size_t k = i; k < close; ++k) {
        if (!isdigit(static_cast<unsigned char>(line[k]))) {
            return false;
        }
    }
    *level = std::stoi(line.substr(i, close - i));
    *text = line.substr(close + 2);
    return true;
}

// Levels of the "level N record" lines; fails on any other line.
std::vector<int> PrintedLevels(const std::vector<std::string>& lines) {
    std::vector<int> levels;
    for (const auto& line : lines) {
        int level = -1;
        std::string text;
        if (!ParseRecord(line, &level, &text) ||
            text != "level " + std::to_string(level) + " record") {
            ADD_FAILURE() << "unexpected line: " << line;
            continue;
        }
        levels.push_back(level);
    }
    return levels;
}

struct LevelCase {
    const char* name;
    std::optional<std::string> pmLogLevel;
    std::vector<int> printed;
};

void PrintTo(const LevelCase& c, std::ostream* os) {
    *os << c.name;
}

class LogLevelTest : public testing::TestWithParam<LevelCase> {};

TEST_P(LogLevelTest, PrintsRecordsUpToTheLevel) {
    const LevelCase& c = GetParam();
    pmtest::TempDir dir;
    const std::string err = dir.File("stderr");
    ASSERT_EQ(RunLogChild({"levels"}, {c.pmLogLevel, std::nullopt}, err), 0);
    EXPECT_EQ(PrintedLevels(ReadLines(err)), c.printed);
}

INSTANTIATE_TEST_SUITE_P(Table, LogLevelTest,
                         testing::Values(LevelCase{"DefaultIsOne", std::nullopt, {0, 1}},
                                         LevelCase{"Empty", std::string(""), {0, 1}},
                                         LevelCase{"NotANumber", std::string("loud"), {0, 1}},
                                         LevelCase{"Zero", std::string("0"), {0}},
                                         LevelCase{"Three", std::string("3"), {0, 1, 2, 3}},
                                         LevelCase{"Negative", std::string("-1"), {}}),
                         [](const testing::TestParamInfo<LevelCase>& info) {
                             return std::string(info.param.name);
                         });

TEST(Log, AppendsToPmLogFile) {
    pmtest::TempDir dir;
    const std::string file = dir.Write("records.log", "earlier line\n");
    const std::string err = dir.File("stderr");
    ASSERT_EQ(RunLogChild({"levels"}, {std::string("2"), file}, err), 0);
    ASSERT_EQ(RunLogChild({"levels"}, {std::string("2"), file}, err), 0);

    std::vector<std::string> lines = ReadLines(file);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front(), "earlier line");
    lines.erase(lines.begin());
    EXPECT_EQ(PrintedLevels(lines), (std::vector<int>{0, 1, 2, 0, 1, 2}));
    EXPECT_EQ(ReadAll(err), "") << "nothing goes to stderr while the file is open";
}

TEST(Log, FallsBackToStderrWhenPmLogFileCannotBeOpened) {
    pmtest::TempDir dir;
    const std::string err = dir.File("stderr");
    ASSERT_EQ(RunLogChild({"levels"}, {std::nullopt, dir.File("missing/dir/records.log")}, err), 0);
    std::vector<std::string> lines = ReadLines(err);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_NE(lines[0].find("cannot open PM_LOG_FILE"), std::string::npos) << lines[0];
    lines.erase(lines.begin());
    EXPECT_EQ(PrintedLevels(lines), (std::vector<int>{0, 1}));
}

TEST(Log, LongTextIsPrintedWholeWithOneNewline) {
    pmtest::TempDir dir;
    const std::string file = dir.File("records.log");
    ASSERT_EQ(RunLogChild({"long", "10000"}, {std::nullopt, file}, dir.File("stderr")), 0);
    const std::string all = ReadAll(file);
    ASSERT_FALSE(all.empty());
    EXPECT_EQ(all.find('\n'), all.size() - 1) << "one line, ending in one newline";
    int level = -1;
    std::string text;
    ASSERT_TRUE(ParseRecord(all.substr(0, all.size() - 1), &level, &text));
    EXPECT_EQ(level, 0);
    EXPECT_EQ(text, std::string(10000, 'x'));
}

TEST(Log, RecordsOfSeveralThreadsNeverInterleave) {
    pmtest::TempDir dir;
    const std::string file = dir.File("records.log");
    const int threads = 8;
    const int records = 400;
    ASSERT_EQ(RunLogChild({"threads", std::to_string(threads), std::to_string(records)},
                          {std::nullopt, file}, dir.File("stderr")),
              0);
    const std::string payload(200, 'p');
    std::set<std::pair<int, int>> seen;
    for (const auto& line : ReadLines(file)) {
        int level = -1;
        std::string text;
        int thread = -1;
        int record = -1;
        int consumed = 0;
        ASSERT_TRUE(ParseRecord(line, &level, &text)) << "damaged line: " << line;
        ASSERT_EQ(sscanf(text.c_str(), "thread %d record %d %n", &thread, &record, &consumed), 2)
            << "damaged line: " << line;
        ASSERT_EQ(text.substr(static_cast<size_t>(consumed)), payload) << "damaged line: " << line;
        EXPECT_TRUE(seen.insert({thread, record}).second) << line;
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(threads * records));
}

TEST(Log, CaptureHookSeesEveryLevelExactlyAsFormatted) {
    pmtest::LogCapture capture;
    const int saved = Common::GetLogLevel();
    Common::SetLogLevel(0);
    EXPECT_EQ(Common::GetLogLevel(), 0);
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
