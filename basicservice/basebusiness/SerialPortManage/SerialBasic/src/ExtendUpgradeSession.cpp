#include "ExtendUpgradeSession.h"

#include <stdlib.h>
#include <string.h>

#include "BusWire.h"
#include "Checksum.h"
#include "CommonLog.h"

unsigned long Crc_32(unsigned long crc, const unsigned char* data, unsigned long len) {
    return Common::Crc32Register(static_cast<uint32_t>(crc), data, len);
}

CExtendUpgradeSession::CExtendUpgradeSession() : m_records() {
    End();
}

void CExtendUpgradeSession::Identify(uint8_t mainId, uint8_t subId, uint8_t devId,
                                     const std::string& flag) {
    for (ExtendUpgradeState_t& record : m_records) {
        record = ExtendUpgradeState_t{};
        record.source = 0xFF;
        record.mainId = mainId;
        record.subId = subId;
        record.devId = devId;
        strncpy(record.flag, flag.c_str(), sizeof(record.flag) - 1);
        record.flagEnd = 4;
    }
}

void CExtendUpgradeSession::Begin(unsigned char source) {
    m_source = source;
    m_curState = PERIPHERAL_UPGRADE_DOING;
    m_records[source].source = source;
    m_records[source].state = PERIPHERAL_UPGRADE_DOING;
}

int CExtendUpgradeSession::TakeFile(const unsigned char* file, unsigned int length,
                                    const char* logTag) {
    if (file == nullptr) {
        return -1;
    }
    if (!m_image.empty()) {
        m_image.clear();
        m_image.shrink_to_fit();
        m_imageLength = 0;
        memset(m_fileName, 0, sizeof(m_fileName));
        memset(m_newVersion, 0, sizeof(m_newVersion));
    }
    if (length < UPGRADE_FILE_MIN_SIZE) {
        PM_LOG(0, logTag, "Upgrade file record too short, length = %u(<%u)\n", length,
               UPGRADE_FILE_MIN_SIZE);
        return -1;
    }
    const uint64_t entries = Common::GetLe32(file + UPGRADE_FILE_COUNT_OFFSET);
    const uint64_t imageOffset =
        UPGRADE_FILE_HEAD_OFFSET + UPGRADE_FILE_HEAD_SIZE + UPGRADE_FILE_ENTRY_SIZE * entries;
    const uint32_t imageLength = Common::GetLe32(file + UPGRADE_FILE_IMAGE_LEN_OFFSET);
    // The record comes from the bus: what it claims must lie within what arrived.
    if (imageOffset + imageLength > length) {
        PM_LOG(0, logTag,
               "Upgrade file record shorter than it claims, entries = %llu, image = %u, "
               "received = %u\n",
               static_cast<unsigned long long>(entries), imageLength, length);
        return -1;
    }
    m_image.assign(file + imageOffset, file + imageOffset + imageLength);
    m_imageLength = imageLength;
    memcpy(m_fileName, file + UPGRADE_FILE_NAME_OFFSET, UPGRADE_FILE_NAME_SIZE);
    m_fileName[UPGRADE_FILE_NAME_SIZE - 1] = '\0';
    // The version is the file's name up to ".CRC": the head's own version field is not read.
    const char* cut = strstr(m_fileName, ".CRC");
    const size_t versionLength =
        cut != nullptr ? static_cast<size_t>(cut - m_fileName) : strlen(m_fileName);
    memset(m_newVersion, 0, sizeof(m_newVersion));
    memcpy(m_newVersion, m_fileName,
           versionLength < EXTEND_BOX_VERSION_SIZE ? versionLength : EXTEND_BOX_VERSION_SIZE - 1);
    m_imageCrc = Common::GetLe32(file + UPGRADE_FILE_CRC_OFFSET);
    const unsigned long crc = Crc_32(0, m_image.data(), m_image.size());
    PM_LOG(1, logTag, "Analy upgrade file, headLen = %d, fileLen = %d, version = %s, crc = %ld\n",
           static_cast<int>(UPGRADE_FILE_HEAD_SIZE + UPGRADE_FILE_ENTRY_SIZE * entries),
           static_cast<int>(Common::GetLe32(file + UPGRADE_FILE_LENGTH_OFFSET)), m_newVersion,
           static_cast<long>(crc));
    if (crc != m_imageCrc) {
        PM_LOG(0, logTag, "Upgrade file crc error\n");
        return -1;
    }
    return 0;
}

CExtendUpgradeSession::Line CExtendUpgradeSession::NextLine(int line) {
    Line out{};
    out.expected = m_nextLine;
    out.total = m_imageLength;
    if (line != m_nextLine) {
        out.action = Line::kWrongLine;
        return out;
    }
    if (m_bytesSent >= m_imageLength || m_image.size() < m_imageLength) {
        out.action = Line::kEnd;
        m_nextLine = 1;
        return out;
    }
    out.action = Line::kData;
    const uint32_t left = m_imageLength - m_bytesSent;
    const unsigned int chunk = left > UPGRADE_LINE_SIZE ? UPGRADE_LINE_SIZE : left;
    Common::PutBe32(out.data, static_cast<uint32_t>(line));
    memcpy(out.data + 4, m_image.data() + m_bytesSent, chunk);
    out.size = 4 + chunk;
    m_bytesSent += chunk;
    out.sent = m_bytesSent;
    m_nextLine = line + 1;
    out.percent = static_cast<int8_t>(static_cast<uint64_t>(out.sent) * 100 / m_imageLength);
    out.report = out.percent != m_percent;
    m_percent = out.percent;
    return out;
}

ExtendUpgradeState_t CExtendUpgradeSession::Report(enumPeripheralUpgradeState state,
                                                   unsigned char source) {
    ExtendUpgradeState_t record = m_records[0];
    record.source = source;
    record.state = static_cast<uint8_t>(state);
    record.percent = m_percent;
    if (source < EXTEND_BOX_UPGRADE_SOURCES) {
        m_records[source].state = static_cast<uint8_t>(state);
        m_records[source].percent = m_percent;
    }
    return record;
}

bool CExtendUpgradeSession::SilentFor(long long now, long long limit) const {
    return llabs(now - m_lastAnswerTime) > limit;
}

void CExtendUpgradeSession::Succeeded(long long now) {
    m_lastAnswerTime = now;
    m_curState = PERIPHERAL_UPGRADE_SUCCESS;
}

void CExtendUpgradeSession::End() {
    m_source = 0;
    memset(m_fileName, 0, sizeof(m_fileName));
    memset(m_newVersion, 0, sizeof(m_newVersion));
    m_imageLength = 0;
    m_bytesSent = 0;
    m_imageCrc = 0;
    m_curState = 0;
    m_lastAnswerTime = 0;
    m_percent = 0;
    m_nextLine = 1;
    m_image.clear();
    m_image.shrink_to_fit();
}
