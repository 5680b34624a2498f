// Logs from a process of its own, so that PM_LOG_LEVEL and PM_LOG_FILE are read afresh.
//   pm_log_child levels            one record at each level 0..4
//   pm_log_child threads <t> <n>   t threads logging n long records each, at once; every
//                                  other record lacks its final newline
#include <stdlib.h>
#include <string.h>

#include <string>
#include <thread>
#include <vector>

#include "CommonLog.h"

int main(int argc, char** argv) {
    if (argc == 2 && strcmp(argv[1], "levels") == 0) {
        for (int level = 0; level <= 4; ++level) {
            Common::gclDebugPrintf(level, __FILE__, __func__, __LINE__, "level %d record\n", level);
        }
        return 0;
    }
    if (argc != 4 || strcmp(argv[1], "threads") != 0) {
        return 2;
    }
    const std::string payload(1000, 'p');  // longer than the logger's stack buffer
    std::vector<std::thread> pool;
    for (int t = 0; t < atoi(argv[2]); ++t) {
        pool.emplace_back([t, n = atoi(argv[3]), &payload] {
            for (int i = 0; i < n; ++i) {
                Common::gclDebugPrintf(0, __FILE__, __func__, __LINE__, "thread %d record %d %s%s",
                                       t, i, payload.c_str(), i % 2 ? "" : "\n");
            }
        });
    }
    for (auto& thread : pool) {
        thread.join();
    }
    return 0;
}
