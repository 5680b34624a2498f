// Logs from a process of its own, so that PM_LOG_LEVEL and PM_LOG_FILE are read afresh.
//   pm_log_child levels            one record at each level 0..4
//   pm_log_child threads <t> <n>   t threads logging n long records each, at once; every
//                                  other record lacks its final newline
//   pm_log_child stall <n>         n records as fast as it can, "flooded" on stdout, then one
//                                  more record once a byte arrives on stdin
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

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
    if (argc == 3 && strcmp(argv[1], "stall") == 0) {
        for (int i = 0; i < atoi(argv[2]); ++i) {
            Common::gclDebugPrintf(0, __FILE__, __func__, __LINE__, "stall record %d\n", i);
        }
        printf("flooded\n");
        fflush(stdout);
        char byte;
        if (read(STDIN_FILENO, &byte, 1) == 1) {
            Common::gclDebugPrintf(0, __FILE__, __func__, __LINE__, "after the stall\n");
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
