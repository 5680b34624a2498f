// Logs from a process of its own, so that PM_LOG_LEVEL and PM_LOG_FILE are read afresh.
//   pm_log_child levels            one record at each level 0..4
//   pm_log_child long <n>          one record of n characters without a final newline
//   pm_log_child threads <t> <n>   t threads logging n records each, at once
#include <stdlib.h>
#include <string.h>

#include <string>
#include <thread>
#include <vector>

#include "CommonLog.h"

namespace {

void LogLevels() {
    for (int level = 0; level <= 4; ++level) {
        Common::gclDebugPrintf(level, __FILE__, __FUNCTION__, __LINE__, "level %d record\n", level);
    }
}

void LogLong(int n) {
    std::string text(static_cast<size_t>(n), 'x');
    Common::gclDebugPrintf(0, __FILE__, __FUNCTION__, __LINE__, "%s", text.c_str());
}

void LogFromThreads(int threads, int records) {
    const std::string payload(200, 'p');
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) {
        pool.emplace_back([t, records, &payload] {
            for (int i = 0; i < records; ++i) {
                Common::gclDebugPrintf(0, __FILE__, __FUNCTION__, __LINE__,
                                       "thread %d record %d %s\n", t, i, payload.c_str());
            }
        });
    }
    for (auto& thread : pool) {
        thread.join();
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && strcmp(argv[1], "levels") == 0) {
        LogLevels();
    } else if (argc == 3 && strcmp(argv[1], "long") == 0) {
        LogLong(atoi(argv[2]));
    } else if (argc == 4 && strcmp(argv[1], "threads") == 0) {
        LogFromThreads(atoi(argv[2]), atoi(argv[3]));
    } else {
        return 2;
    }
    return 0;
}
