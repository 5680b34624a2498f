#include "Messages.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "BusWire.h"
#include "PeripheralDefine.h"

namespace pmrecorder {

namespace {

using Common::GetBe32;
using Common::GetLe16;
using Common::GetLe32;
using Common::PutLe16;
using Common::PutLe32;

constexpr uint8_t kMaskedMark = 0xFF;
constexpr size_t kFilterHead = 4;

bool LooksMasked(const uint8_t* item) {
    return item[3] == kMaskedMark;
}

// reach[i][k]: items i.. can be read from byte k to the end exactly. Filled from the back,
// so the forward walk can prefer the masked reading whenever both fit.
std::vector<std::vector<char>> Reachability(const uint8_t* items, size_t bytes, size_t count) {
    std::vector<std::vector<char>> reach(count + 1, std::vector<char>(bytes + 1, 0));
    reach[count][bytes] = 1;
    for (size_t i = count; i-- > 0;) {
        for (size_t k = 0; k + 4 <= bytes; ++k) {
            bool plain = reach[i + 1][k + 4] != 0;
            bool masked = k + 8 <= bytes && LooksMasked(items + k) && reach[i + 1][k + 8] != 0;
            reach[i][k] = plain || masked;
        }
    }
    return reach;
}

}  // namespace

bool DecodeMcuSend(const uint8_t* payload, size_t size, McuData& out, std::string& error) {
    if (payload == nullptr || size < 8) {
        error = "MCU data shorter than its 8-byte head (" + std::to_string(size) + " bytes)";
        return false;
    }
    out.mainId = static_cast<uint16_t>(GetLe16(payload));
    out.subId = static_cast<uint16_t>(GetLe16(payload + 2));
    size_t length = GetLe32(payload + 4);
    if (length > size - 8) {
        error = "MCU data says " + std::to_string(length) + " bytes, carries " +
                std::to_string(size - 8);
        length = size - 8;
    }
    out.data.assign(payload + 8, payload + 8 + length);
    return true;
}

Bytes EncodeMcuReceive(uint16_t mainId, uint16_t subId, const uint8_t* data, size_t size) {
    Bytes b(8 + size, 0);
    PutLe16(b.data(), mainId);
    PutLe16(b.data() + 2, subId);
    PutLe32(b.data() + 4, static_cast<uint32_t>(size));
    if (size > 0) {
        memcpy(b.data() + 8, data, size);
    }
    return b;
}

bool DecodeMcuSettings(const uint8_t* payload, size_t size, McuSettings& out, std::string& error) {
    if (payload == nullptr || size < 8) {
        error = "MCU settings shorter than 8 bytes (" + std::to_string(size) + ")";
        return false;
    }
    out.mainId = payload[0];
    out.subId = payload[1];
    out.mask = payload[2];
    out.baud = payload[3];
    out.dataBits = payload[4];
    out.stopBits = payload[5];
    out.parity = payload[6];
    out.flow = payload[7];
    return true;
}

bool operator==(const CanFilterEntry& a, const CanFilterEntry& b) {
    return a.id == b.id && a.mask == b.mask && a.masked == b.masked;
}

bool DecodeCanFilter(const uint8_t* payload, size_t size, CanFilterList& out, std::string& error) {
    if (payload == nullptr || size < kFilterHead) {
        error = "CAN filter shorter than its 4-byte head (" + std::to_string(size) + " bytes)";
        return false;
    }
    CanFilterList list;
    list.port = payload[0];
    size_t count = payload[1];
    list.minPeriod = static_cast<uint16_t>(GetLe16(payload + 2));
    const uint8_t* items = payload + kFilterHead;
    size_t bytes = size - kFilterHead;
    if (bytes < count * 4 || bytes > count * 8) {
        error = "CAN filter of " + std::to_string(count) + " entries cannot have " +
                std::to_string(bytes) + " item bytes";
        return false;
    }
    auto reach = Reachability(items, bytes, count);
    if (!reach[0][0]) {
        error = "CAN filter of " + std::to_string(count) + " entries does not fit its " +
                std::to_string(bytes) + " item bytes";
        return false;
    }
    size_t k = 0;
    for (size_t i = 0; i < count; ++i) {
        CanFilterEntry e;
        if (k + 8 <= bytes && LooksMasked(items + k) && reach[i + 1][k + 8]) {
            e.masked = true;
            e.id = GetLe32(items + k) & 0x00FFFFFF;
            e.mask = GetLe32(items + k + 4);
            k += 8;
        } else {
            e.id = GetBe32(items + k);
            k += 4;
        }
        list.entries.push_back(e);
    }
    out = list;
    return true;
}

Bytes EncodeCanFilter(const CanFilterList& list) {
    Bytes b(kFilterHead, 0);
    b[0] = list.port;
    b[1] = static_cast<uint8_t>(list.entries.size());
    PutLe16(b.data() + 2, list.minPeriod);
    for (const CanFilterEntry& e : list.entries) {
        size_t at = b.size();
        if (e.masked) {
            b.resize(at + 8);
            PutLe32(b.data() + at, (e.id & 0x00FFFFFF) | 0xFF000000u);
            PutLe32(b.data() + at + 4, e.mask);
        } else {
            b.resize(at + 4);
            b[at] = static_cast<uint8_t>(e.id >> 24);
            b[at + 1] = static_cast<uint8_t>(e.id >> 16);
            b[at + 2] = static_cast<uint8_t>(e.id >> 8);
            b[at + 3] = static_cast<uint8_t>(e.id);
        }
    }
    return b;
}

bool FilterTakes(const CanFilterEntry& entry, uint32_t canId) {
    if (!entry.masked) {
        return entry.id == canId;
    }
    return ((canId ^ entry.id) & entry.mask & 0x00FFFFFF) == 0;
}

bool FiltersTake(const std::vector<CanFilterEntry>& entries, uint32_t canId) {
    return std::any_of(entries.begin(), entries.end(),
                       [canId](const CanFilterEntry& e) { return FilterTakes(e, canId); });
}

Bytes EncodeCanFilterState(uint8_t port, uint8_t count) {
    return Bytes{port, count};
}

std::vector<Bytes> EncodeCanReceive(uint16_t mainId, uint16_t subId, uint8_t port,
                                    const std::vector<CanFrame>& frames, size_t maxItems) {
    constexpr size_t kHead = sizeof(CanRecvHead_t);
    constexpr size_t kItem = sizeof(CanRecvItem_t);
    std::vector<Bytes> events;
    maxItems = std::max<size_t>(maxItems, 1);
    for (size_t first = 0; first < frames.size(); first += maxItems) {
        size_t n = std::min(maxItems, frames.size() - first);
        Bytes b(kHead + n * kItem, 0);
        PutLe16(b.data() + offsetof(CanRecvHead_t, usFuncId), mainId);
        PutLe16(b.data() + offsetof(CanRecvHead_t, usSubId), subId);
        b[offsetof(CanRecvHead_t, ucCanPort)] = port;
        PutLe16(b.data() + offsetof(CanRecvHead_t, usItemNum), static_cast<uint32_t>(n));
        for (size_t i = 0; i < n; ++i) {
            const CanFrame& f = frames[first + i];
            uint8_t* item = b.data() + kHead + i * kItem;
            PutLe32(item + offsetof(CanRecvItem_t, uiCanId), f.id);
            uint8_t& length = item[offsetof(CanRecvItem_t, ucDataLen)];
            length = std::min<uint8_t>(f.length, 8);
            memcpy(item + offsetof(CanRecvItem_t, data), f.data, length);
        }
        events.push_back(std::move(b));
    }
    return events;
}

bool DecodeCanSend(const uint8_t* payload, size_t size, CanSendRequest& out, std::string& error) {
    constexpr size_t kSize = sizeof(CanSendFrame_t);
    if (payload == nullptr || size < kSize) {
        error = "CAN send request shorter than 24 bytes (" + std::to_string(size) + ")";
        return false;
    }
    out.mainId = static_cast<uint16_t>(GetLe16(payload + offsetof(CanSendFrame_t, usMainId)));
    out.subId = static_cast<uint16_t>(GetLe16(payload + offsetof(CanSendFrame_t, usSubId)));
    out.frame = CanFrame();
    out.frame.id = GetLe32(payload + offsetof(CanSendFrame_t, uiCanId));
    out.frame.extended = out.frame.id > kCanStandardMax;
    out.frame.length = payload[offsetof(CanSendFrame_t, ucDataLen)];
    if (out.frame.length > 8) {
        error = "CAN send request says " + std::to_string(out.frame.length) + " data bytes; sent 8";
        out.frame.length = 8;
    }
    memcpy(out.frame.data, payload + offsetof(CanSendFrame_t, data), out.frame.length);
    return true;
}

}  // namespace pmrecorder
