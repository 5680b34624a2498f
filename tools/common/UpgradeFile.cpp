#include "UpgradeFile.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Checksum.h"
#include "BusWire.h"

namespace pmtools {

namespace {

// Within the file, not the record: the service's offsets less the record's head.
constexpr size_t kCountOffset = UPGRADE_FILE_COUNT_OFFSET - UPGRADE_FILE_HEAD_OFFSET;
constexpr size_t kEntry0 = UPGRADE_FILE_HEAD_OFFSET + UPGRADE_FILE_HEAD_SIZE;
constexpr size_t kEntryCrcOffset = UPGRADE_FILE_CRC_OFFSET - kEntry0;
constexpr size_t kEntryLengthOffset = UPGRADE_FILE_IMAGE_LEN_OFFSET - kEntry0;
static_assert(kCountOffset == 96 && kEntryCrcOffset == 64 && kEntryLengthOffset == 76,
              "the file's head and first entry as the file format describes them");
constexpr char kMagic[] = "PMFW";

}  // namespace

uint32_t UpgradeCrc(const uint8_t* data, size_t size) {
    return Common::Crc32Register(0, data, size);
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
    if (imageAt + info.imageLength > file.size()) {
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
    memcpy(record.data() + UPGRADE_FILE_NAME_OFFSET, base.data(),
           std::min(base.size(), kUpgradeNameSize - 1));
    Common::PutLe32(record.data() + UPGRADE_FILE_LENGTH_OFFSET, static_cast<uint32_t>(file.size()));
    record.insert(record.end(), file.begin(), file.end());
    return record;
}

bool ReadWholeFile(const std::string& path, std::vector<uint8_t>& out, size_t limit,
                   std::string& error) {
    // Not blocking: a FIFO without a writer must not hold the tool in open().
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        error = strerror(errno);
        return false;
    }
    struct stat info;
    if (fstat(fd, &info) != 0) {
        error = strerror(errno);
        close(fd);
        return false;
    }
    if (!S_ISREG(info.st_mode)) {
        error = S_ISDIR(info.st_mode) ? "it is a folder" : "it is not a regular file";
        close(fd);
        return false;
    }
    if (static_cast<uint64_t>(info.st_size) > limit) {
        error = "it has " + std::to_string(info.st_size) + " bytes, more than the " +
                std::to_string(limit) + " that one bus message can carry";
        close(fd);
        return false;
    }
    out.resize(static_cast<size_t>(info.st_size));
    size_t done = 0;
    while (done < out.size()) {
        const ssize_t n = read(fd, out.data() + done, out.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            error = n < 0 ? strerror(errno) : "it became shorter while it was read";
            close(fd);
            return false;
        }
        done += static_cast<size_t>(n);
    }
    close(fd);
    return true;
}

bool WriteWholeFile(const std::string& path, const std::vector<uint8_t>& bytes,
                    std::string& error) {
    struct stat info;
    if (stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
        error = S_ISDIR(info.st_mode) ? "it is a folder" : "it is not a regular file";
        return false;
    }
    // Written beside it under a name of its own, then renamed: a file that could not be
    // written whole never appears under the name the box's version is taken from.
    std::string temporary = path + ".XXXXXX";
    const int fd = mkostemp(&temporary[0], O_CLOEXEC);
    if (fd < 0) {
        error = strerror(errno);
        return false;
    }
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            error = n < 0 ? strerror(errno) : "nothing was written";
            break;
        }
        done += static_cast<size_t>(n);
    }
    if (done == bytes.size() && fchmod(fd, 0644) != 0) {
        error = strerror(errno);
        done = 0;
    }
    if (close(fd) != 0 && done == bytes.size()) {
        error = strerror(errno);
        done = 0;
    }
    if (done == bytes.size() && rename(temporary.c_str(), path.c_str()) == 0) {
        return true;
    }
    if (error.empty()) {
        error = strerror(errno);
    }
    unlink(temporary.c_str());
    return false;
}

}  // namespace pmtools
