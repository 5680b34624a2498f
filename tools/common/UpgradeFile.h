// The extension boxes' upgrade file, as the recorder reads it from a USB disk, and the record
// in which the recorder hands it to the service (the answer 39473 to the file request 6705).
//
// File: a 100-byte head whose word at offset 96 is N, N entries of 80 bytes (entry 0: the
// image's check value at 64, its length at 76), then the image. Words are little-endian.
// The check value is the reflected CRC-32 register started at 0, without the final inversion.
// The service takes the new version from the file's name, up to ".CRC".
#ifndef TOOLS_COMMON_UPGRADE_FILE_H
#define TOOLS_COMMON_UPGRADE_FILE_H

#include <cstdint>
#include <string>
#include <vector>

#include "ExtendBoxRecords.h"

namespace pmtools {

// The layout is the service's (ExtendBoxRecords.h), which counts from the record's start.
constexpr size_t kUpgradeHeadSize = UPGRADE_FILE_HEAD_SIZE;
constexpr size_t kUpgradeEntrySize = UPGRADE_FILE_ENTRY_SIZE;
constexpr size_t kUpgradeNameSize = UPGRADE_FILE_NAME_SIZE;
// state, type, location, reserved, name, length, 32 bytes: the file follows
constexpr size_t kUpgradeRecordHeadSize = UPGRADE_FILE_HEAD_OFFSET;

uint32_t UpgradeCrc(const uint8_t* data, size_t size);

// One entry. The head carries "PMFW" and the version text for people; the service reads only N.
std::vector<uint8_t> MakeUpgradeFile(const std::vector<uint8_t>& image, const std::string& version);

struct UpgradeFileInfo {
    uint32_t entries = 0;
    uint32_t crc = 0;          // as stored in entry 0
    uint32_t imageLength = 0;  // as stored in entry 0
    uint32_t computedCrc = 0;
    std::string version;  // from the head, when pm-fwpack wrote it
};
// False with the reason when the file cannot hold what its head and entry claim.
bool InspectUpgradeFile(const std::vector<uint8_t>& file, UpgradeFileInfo& info,
                        std::string& error);

// The 39473 payload for `file` under `name` (its base name is sent); an empty name gives the
// record of a file that was not found (state 0, length 0).
std::vector<uint8_t> UpgradeFileRecord(const std::string& name, const std::vector<uint8_t>& file);

// The largest upgrade file: the record that carries it (the head above, then the file) must
// fit one bus message.
constexpr size_t kMaxUpgradeFileSize = 0x7FFFFF - kUpgradeRecordHeadSize;

// Reads a regular file of at most `limit` bytes; false with the reason (a folder, a FIFO or
// device, which are refused without waiting on them, a file above the limit, a read error).
bool ReadWholeFile(const std::string& path, std::vector<uint8_t>& out, size_t limit,
                   std::string& error);
// Writes `bytes` to `path` (replaced if it exists); false with the reason when not all of it
// could be written and closed.
bool WriteWholeFile(const std::string& path, const std::vector<uint8_t>& bytes, std::string& error);

}  // namespace pmtools

#endif
