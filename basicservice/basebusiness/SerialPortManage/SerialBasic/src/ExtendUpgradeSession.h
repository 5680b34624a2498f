// One extension box's firmware upgrade as far as it needs no line and no bus: the file record
// taken apart and checked, the image cut into numbered lines, the percentage, the answer
// clock, and the state record kept for each source that may ask for it. The box sends what
// this decides and holds its state lock around every call: the session itself is not locked.
#ifndef SERIALBASIC_EXTEND_UPGRADE_SESSION_H
#define SERIALBASIC_EXTEND_UPGRADE_SESSION_H

#include <cstdint>
#include <string>
#include <vector>

#include "ExtendBoxRecords.h"

// The reflected CRC-32 register of IEEE 802.3, table-driven, without the usual inversions:
// `crc` goes in as it is and the register comes out as it is.
unsigned long Crc_32(unsigned long crc, const unsigned char* data, unsigned long len);

class CExtendUpgradeSession {
public:
    CExtendUpgradeSession();

    // What every state record names: the box's ids, its device byte and the localised flag.
    void Identify(uint8_t mainId, uint8_t subId, uint8_t devId, const std::string& flag);

    // A trigger from `source` was taken: its record says DOING until a state replaces it.
    void Begin(unsigned char source);
    // The file part of a 39473 answer, `length` bytes of it: 0 when the image is whole and its
    // check value holds, else -1 (logged under `logTag`). A second file replaces the first.
    int TakeFile(const unsigned char* file, unsigned int length, const char* logTag);

    struct Line {
        enum Action { kData, kEnd, kWrongLine } action;
        unsigned char data[4 + UPGRADE_LINE_SIZE];  // the line number (big-endian), the bytes
        unsigned int size;                          // of data, kData only
        int expected;                               // the line that was due
        bool report;                                // the percentage changed with this line
        int8_t percent;
        uint32_t sent, total;
    };
    // What acknowledging line `line - 1` (or READY, for line 1) calls for.
    Line NextLine(int line);

    // The record of `state` for `source`, kept as that source's record when it has one.
    ExtendUpgradeState_t Report(enumPeripheralUpgradeState state, unsigned char source);
    // The kept record of `source` (below EXTEND_BOX_UPGRADE_SOURCES).
    const ExtendUpgradeState_t& RecordOf(unsigned char source) const { return m_records[source]; }

    void Answered(long long now) { m_lastAnswerTime = now; }
    bool SilentFor(long long now, long long limit) const;
    void Succeeded(long long now);
    // Back to no session: the image freed, the line count at 1; the records stay.
    void End();

    unsigned char Source() const { return static_cast<unsigned char>(m_source); }
    int CurState() const { return m_curState; }
    uint32_t ImageLength() const { return m_imageLength; }
    uint32_t ImageCrc() const { return m_imageCrc; }
    const char* NewVersion() const { return m_newVersion; }
    int ExpectedLine() const { return m_nextLine; }

private:
    int32_t m_source;
    char m_fileName[UPGRADE_FILE_NAME_SIZE];
    char m_newVersion[EXTEND_BOX_VERSION_SIZE];
    uint32_t m_imageLength;
    uint32_t m_bytesSent;
    uint32_t m_imageCrc;
    int32_t m_curState;
    int64_t m_lastAnswerTime;
    int8_t m_percent;
    int m_nextLine;
    std::vector<unsigned char> m_image;
    ExtendUpgradeState_t m_records[EXTEND_BOX_STATE_RECORDS];
};

#endif
