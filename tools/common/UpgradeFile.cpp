#include "UpgradeFile.h"

#include <cstring>
#include <fstream>
#include <iterator>

#include "BusWire.h"

namespace pmtools {

namespace {

constexpr size_t kCountOffset = 96;
constexpr size_t kEntryCrcOffset = 64;
constexpr size_t kEntryLengthOffset = 76;
constexpr char kMagic[] = "PMFW";

}  // namespace

uint32_t UpgradeCrc(const uint8_t* data, size_t size) {
    uint32_t crc = 0;
    for (size_t i = 0; i < size; ++i) {
        crc ^= data[i];
        for (int k = 0; k < 8; ++k) {
            crc = (crc & 1) ? (crc >> 1) ^ 0xEDB88320u : crc >> 1;
        }
    }
    return crc;
}

std::vector<uint8_t> MakeUpgradeFile(const std::vector<uint8_t>& image,
                                     const std::string& version) {
    std::vector<uint8_t> file(kUpgradeHeadSize + kUpgradeEntrySize);
    memcpy(file.data(), kMagic, 4);
    memcpy(file.data() + 4, version.data(), std::min(version.size(), size_t(60)));
    Common::PutLe32(file.data() + kCountOffset, 1);
    uint8_t* entry = file.data() + kUpgradeHeadSize;
    Common::PutLe32(entry + kEntryCrcOffset, UpgradeCrc(image.data(), image.size()));
    Common::PutLe32(entry + kEntryLengthOffset, static_cast<uint32_t>(image.size()));
    file.insert(file.end(), image.begin(), image.end());
    return file;
}

bool InspectUpgradeFile(const std::vector<uint8_t>& file, UpgradeFileInfo& info,
                        std::string& error) {
    if (file.size() < kUpgradeHeadSize + kUpgradeEntrySize) {
        error = "shorter than a head and one entry (" + std::to_string(file.size()) + " bytes)";
        return false;
    }
    info.entries = Common::GetLe32(file.data() + kCountOffset);
    const uint8_t* entry = file.data() + kUpgradeHeadSize;
    info.crc = Common::GetLe32(entry + kEntryCrcOffset);
    info.imageLength = Common::GetLe32(entry + kEntryLengthOffset);
    if (memcmp(file.data(), kMagic, 4) == 0) {
        const char* text = reinterpret_cast<const char*>(file.data() + 4);
        info.version.assign(text, strnlen(text, 60));
    }
    const uint64_t imageAt = kUpgradeHeadSize + uint64_t(kUpgradeEntrySize) * info.entries;
    if (info.entries == 0 || imageAt + info.imageLength > file.size()) {
        error = "the head claims " + std::to_string(info.entries) + " entries and an image of " +
                std::to_string(info.imageLength) + " bytes, the file has " +
                std::to_string(file.size());
        return false;
    }
    info.computedCrc = UpgradeCrc(file.data() + imageAt, info.imageLength);
    return true;
}

std::vector<uint8_t> UpgradeFileRecord(const std::string& name, const std::vector<uint8_t>& file) {
    std::vector<uint8_t> record(kUpgradeRecordHeadSize);
    if (name.empty()) {
        return record;  // state 0: no file
    }
    record[0] = 1;  // read
    record[1] = 3;  // the peripherals' upgrade files
    record[2] = 0;  // from the USB disk
    const std::string base = name.substr(name.find_last_of('/') + 1);
    memcpy(record.data() + 4, base.data(), std::min(base.size(), kUpgradeNameSize - 1));
    Common::PutLe32(record.data() + 68, static_cast<uint32_t>(file.size()));
    record.insert(record.end(), file.begin(), file.end());
    return record;
}

bool ReadWholeFile(const std::string& path, std::vector<uint8_t>& out) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return false;
    }
    out.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return true;
}

}  // namespace pmtools
