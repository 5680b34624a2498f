// Reading and writing the fields of bus payloads, shared by the service's classes. Fields are
// little-endian on the bus (big-endian where a layout says so), whatever the host's order.
#ifndef SERIALBASIC_BUS_MESSAGE_H
#define SERIALBASIC_BUS_MESSAGE_H

#include <pthread.h>
#include <string.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

// A received bus message: the 16-byte head, then the data. Bytes past what was received read
// as zeros, which is what the bus's own zero padding gives a handler, so that no offset or
// count taken from a message can lead a read outside it.
class MsgView {
public:
    MsgView(const char* data, int length)
        : m_data(data), m_size(data != nullptr && length > 0 ? static_cast<size_t>(length) : 0) {}

    // The standard check: no message, or not even a whole head.
    bool TooShort() const { return m_size <= 15; }
    size_t Size() const { return m_size; }

    uint8_t Byte(size_t offset) const {
        return offset < m_size ? static_cast<uint8_t>(m_data[offset]) : 0;
    }
    uint16_t U16(size_t offset) const {
        return static_cast<uint16_t>(Byte(offset) | (Byte(offset + 1) << 8));
    }
    uint32_t U32(size_t offset) const {
        return static_cast<uint32_t>(U16(offset)) | (static_cast<uint32_t>(U16(offset + 2)) << 16);
    }
    // The head's length field: the low 23 bits of its fourth word.
    uint32_t HeadLength() const { return U32(12) & 0x007FFFFF; }

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

inline void PutLe16(void* out, uint32_t v) {
    auto* p = static_cast<unsigned char*>(out);
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
}

inline void PutLe32(void* out, uint32_t v) {
    auto* p = static_cast<unsigned char*>(out);
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<unsigned char>(v >> (8 * i));
    }
}

inline void PutBe32(void* out, uint32_t v) {
    auto* p = static_cast<unsigned char*>(out);
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<unsigned char>(v >> (8 * (3 - i)));
    }
}

// Holds a pthread mutex for a scope.
class MutexGuard {
public:
    explicit MutexGuard(pthread_mutex_t& mutex) : m_mutex(mutex) { pthread_mutex_lock(&m_mutex); }
    ~MutexGuard() { pthread_mutex_unlock(&m_mutex); }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

private:
    pthread_mutex_t& m_mutex;
};

#endif
