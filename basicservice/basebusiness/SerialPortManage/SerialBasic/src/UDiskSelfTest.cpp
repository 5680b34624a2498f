#include "UDiskSelfTest.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace selftest {
namespace {

constexpr size_t kEntryOffset = 48;
constexpr size_t kEntrySize = 80;
constexpr size_t kEntries = 4;
constexpr size_t kMountSize = 40;
constexpr size_t kSizeOffset = 40;

}  // namespace

Mount FirstMount(const MsgView& payload) {
    Mount mount{"", 0};
    for (size_t k = 0; k < kEntries && mount.directory.empty(); ++k) {
        const size_t entry = kEntryOffset + kEntrySize * k;
        char text[kMountSize + 1] = {};  // a directory without its NUL ends here
        payload.Copy(entry, text, kMountSize);
        mount.directory = text;
        mount.recordSize = static_cast<uint64_t>(payload.U32(entry + kSizeOffset)) |
                           static_cast<uint64_t>(payload.U32(entry + kSizeOffset + 4)) << 32;
    }
    return mount;
}

bool ReadFile(const char* path, char* out, size_t size, ssize_t& got) {
    // Only a plain file is opened: a disk's file may be a link to a device, and opening a tty
    // read-write already moves its modem lines. Not blocking: a FIFO put in its place between
    // the two looks must not hold the manager thread. Never a controlling terminal: a host
    // that leads its session would be hung up with it.
    struct stat info;
    const int fd = stat(path, &info) == 0 && S_ISREG(info.st_mode)
                       ? open(path, O_RDWR | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)
                       : -1;
    if (fd < 0 || fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        if (fd >= 0) {
            close(fd);
        }
        return false;
    }
    lseek(fd, 1, SEEK_SET);  // the file's first byte is not part of the text
    got = read(fd, out, size);
    close(fd);
    return true;
}

std::vector<TestPort> Layout(eProductType type) {
    switch (type) {
        case 6:
        case 18:  // behind an extension box on port 4
            return {{4, -1, 1, 5, 0}, {4, 0, 34, 5, 0}, {4, 1, 36, 1, 0}};
        case 16:
        case 20:
            return {{1, -1, 36, 1, 0}};
        case 47:
        case 48:
            return {{1, -1, 36, 1, 0}, {0, -1, 34, 5, 0}};
        case 14:
            return {{4, -1, 36, 1, 0}};
        default:
            return {{0, -1, 36, 1, 0}};
    }
}

void ApplyLayout(paramSerialSetting_t& setting, eProductType type) {
    for (const TestPort& t : Layout(type)) {
        SerialPortEntry_t& port = setting.port[t.port];
        if (t.extend < 0) {
            port.mainFun = t.mainFun;
            port.baudrate = t.baudrate;
            port.subFun = t.subFun;
        } else {
            port.extend[t.extend].mainFun = t.mainFun;
            port.extend[t.extend].baudrate = t.baudrate;
            port.extend[t.extend].subFun = t.subFun;
        }
    }
}

}  // namespace selftest
