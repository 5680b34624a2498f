// A received bus message, read field by field without ever leaving it.
#ifndef SERIALBASIC_MSG_VIEW_H
#define SERIALBASIC_MSG_VIEW_H

#include <string.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "BusWire.h"

// A message as a handler receives it (the head, then the payload), or any byte range. Bytes
// past what was received read as zeros, which is what the bus's own zero padding gives a
// handler, so that no offset or count taken from a message can lead a read outside it.
// Little-endian fields.
class MsgView {
public:
    MsgView(const char* data, int length)
        : m_data(data), m_size(data != nullptr && length > 0 ? static_cast<size_t>(length) : 0) {}
    MsgView(const void* data, size_t size)
        : m_data(static_cast<const char*>(data)), m_size(data != nullptr ? size : 0) {}

    // The handlers' check: no message, or not even a whole head.
    bool TooShort() const { return m_size < Common::kMsgHeadSize; }
    size_t Size() const { return m_size; }
    // The head's length field.
    uint32_t HeadLength() const { return U32(12) & Common::kMsgLengthMask; }
    // What follows the head; payload offsets count from its first byte.
    MsgView Payload() const {
        return m_size > Common::kMsgHeadSize
                   ? MsgView(static_cast<const void*>(m_data + Common::kMsgHeadSize),
                             m_size - Common::kMsgHeadSize)
                   : MsgView(static_cast<const void*>(nullptr), size_t{0});
    }

    uint8_t Byte(size_t offset) const {
        return offset < m_size ? static_cast<uint8_t>(m_data[offset]) : 0;
    }
    uint16_t U16(size_t offset) const {
        return static_cast<uint16_t>(Byte(offset) | (Byte(offset + 1) << 8));
    }
    uint32_t U32(size_t offset) const {
        return static_cast<uint32_t>(U16(offset)) | (static_cast<uint32_t>(U16(offset + 2)) << 16);
    }
    void Copy(size_t offset, void* out, size_t size) const {
        memset(out, 0, size);
        if (offset < m_size) {
            memcpy(out, m_data + offset, std::min(size, m_size - offset));
        }
    }
    // NUL-terminated text at `offset`, cut at the end of the message.
    std::string Text(size_t offset) const {
        if (offset >= m_size) {
            return std::string();
        }
        const char* start = m_data + offset;
        return std::string(start, strnlen(start, m_size - offset));
    }

private:
    const char* m_data;
    size_t m_size;
};

#endif
