#include "PluginLoader.h"

#include <dirent.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <exception>
#include <memory>

#include "CommonLog.h"

namespace plugin {
namespace {

constexpr const char kLogTag[] = "S_MANAGE: ";
constexpr size_t kDirSize = 32;
constexpr size_t kPathSize = 64;

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};
using DirHandle = std::unique_ptr<DIR, DirCloser>;

}  // namespace

const char* Directory(ePeripheralType type) {
    switch (type) {
        case PERIPHERAL_TYPE_SERIAL:
            return "../plugin/serial/";
        case PERIPHERAL_TYPE_CANPORT:
            return "../plugin/can/";
        case PERIPHERAL_TYPE_ETHERNET:
            return "../plugin/ethernet/";
    }
    return nullptr;
}

Found FindFile(const char* directory, const std::string& name, unsigned int mainId,
               unsigned int subId, size_t registered) {
    char dirPath[kDirSize];
    snprintf(dirPath, sizeof(dirPath), "%s", directory);
    DirHandle dir(opendir(dirPath));
    if (!dir) {
        PM_LOG(0, kLogTag, "Open basic service plugin lib directory failed, path = %s\n", dirPath);
        return {false, -1, ""};
    }
    PM_LOG(2, kLogTag, "Begin to Find lib file, name = %s, mainId = %d, subId = %d, size = %d\n",
           name.c_str(), mainId, subId, static_cast<int>(registered));
    // Directory order, unsorted: with several candidates the first listed one wins.
    while (struct dirent* entry = readdir(dir.get())) {
        PM_LOG(3, kLogTag, "dir_name = %s\n", entry->d_name);
        if (strstr(entry->d_name, name.c_str()) == nullptr) {
            continue;
        }
        char path[kPathSize];
        if (snprintf(path, sizeof(path), "%s%s", dirPath, entry->d_name) >=
            static_cast<int>(sizeof(path))) {
            PM_LOG(0, kLogTag, "Plugin path too long, dir = %s, file = %s\n", dirPath,
                   entry->d_name);
            return {true, -1, ""};
        }
        // dlopen of a FIFO or a device never returns; a directory cannot load either.
        struct stat info;
        if (stat(path, &info) != 0 || !S_ISREG(info.st_mode)) {
            PM_LOG(0, kLogTag, "Skip plugin entry, not a regular file, path = %s\n", path);
            continue;
        }
        PM_LOG(2, kLogTag, "Find lib success, begin to open, dir = %s\n", path);
        return {true, 0, path};
    }
    return {true, 0, ""};
}

CPeripheralBase* CallCreator(PeripheralCreateFn create, CPeripheralManage* manage,
                             CMsgClientManage* client, const std::string& name,
                             ePeripheralType type, unsigned int mainId, unsigned int subId) {
    const char* what = nullptr;
    try {
        return create(manage, client, mainId, subId);
    } catch (const std::exception& e) {
        PM_LOG(0, kLogTag,
               "Plugin factory threw, name = %s, type = %d, mainId = %d, subId = %d, "
               "what = %s\n",
               name.c_str(), type, mainId, subId, e.what());
        return nullptr;
    } catch (...) {
        what = "(not a std::exception)";
    }
    PM_LOG(0, kLogTag,
           "Plugin factory threw, name = %s, type = %d, mainId = %d, subId = %d, "
           "what = %s\n",
           name.c_str(), type, mainId, subId, what);
    return nullptr;
}

}  // namespace plugin
