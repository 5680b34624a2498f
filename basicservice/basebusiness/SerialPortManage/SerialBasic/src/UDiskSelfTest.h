// The factory self-test as a USB disk brings it: which of the disk record's mounts is looked
// at, which file is read and how, and where the test peripherals go on each product.
#ifndef SERIALBASIC_UDISK_SELF_TEST_H
#define SERIALBASIC_UDISK_SELF_TEST_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "MsgView.h"
#include "PeripheralDefine.h"
#include "SysConfig.h"

namespace selftest {

constexpr uint32_t kUsbStateLength = 72;
constexpr uint32_t kUDiskInfoMinLength = 8;
constexpr uint64_t kMinRecordSize = 10000000;  // a disk that small records nothing
constexpr size_t kPathSize = 128;
constexpr size_t kFileReadSize = 128;
constexpr const char kFile[] = "/AutoTest/AUTO_TEST_CFG";

struct Mount {
    std::string directory;  // empty: no disk
    uint64_t recordSize;    // 0: not told
};

// The first of the record's four mounts that names a directory.
Mount FirstMount(const MsgView& payload);

// Reads up to `size` bytes of the test file's text (its first byte is not part of it) and
// gives read's answer in `got`; false when `path` is no plain file or cannot be opened.
bool ReadFile(const char* path, char* out, size_t size, ssize_t& got);

struct TestPort {
    int port;
    int extend;  // -1: the port entry itself
    uint8_t mainFun, baudrate, subFun;
};

// Where the factory's test peripherals go, by product type.
std::vector<TestPort> Layout(eProductType type);
void ApplyLayout(paramSerialSetting_t& setting, eProductType type);

}  // namespace selftest

#endif
