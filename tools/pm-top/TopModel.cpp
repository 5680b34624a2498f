#include "TopModel.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "BusWire.h"
#include "ExtendBoxRecords.h"
#include "MessageText.h"
#include "Messages.h"
#include "PeripheralEvents.h"

namespace pmtop {

namespace {

constexpr int64_t kRateWindowMs = 2000;

// Fills a record from a payload that may be short: the bus's handlers read zeros past the end
// as well, so a short record is shown as what the service itself would make of it.
template <typename Record>
Record Copy(const uint8_t* p, size_t n) {
    Record r;
    memset(&r, 0, sizeof r);
    memcpy(&r, p, std::min(n, sizeof r));
    return r;
}

std::string Text(const char* field, size_t size) {
    return std::string(field, strnlen(field, size));
}

std::string FilterEntryText(const pmrecorder::CanFilterEntry& e) {
    char text[32];
    if (e.masked) {
        snprintf(text, sizeof text, "%06X/%08X", e.id, e.mask);
    } else {
        snprintf(text, sizeof text, e.id > 0x7FF ? "%08X" : "%03X", e.id);
    }
    return text;
}

bool IsBoxId(uint8_t mainId, uint8_t subId) {
    return subId == 0 &&
           (mainId == PERIPHERAL_MAINID_EXTEND_BOX || mainId == PERIPHERAL_MAINID_EXTEND_HUB_BOX);
}

// Status words of 6820 that say something about the box's line.
constexpr uint8_t kStatusLineLost = 5;
constexpr uint8_t kStatusReleased = 6;
constexpr uint8_t kStatusLineAlive = 7;

}  // namespace

void RateMeter::Add(int64_t nowMs, uint64_t amount) {
    m_events.emplace_back(nowMs, amount);
    m_total += amount;
    Prune(nowMs);
}

double RateMeter::PerSecond(int64_t nowMs) const {
    Prune(nowMs);
    uint64_t sum = 0;
    for (const auto& e : m_events) {
        sum += e.second;
    }
    return static_cast<double>(sum) * 1000.0 / kRateWindowMs;
}

void RateMeter::Prune(int64_t nowMs) const {
    while (!m_events.empty() && nowMs - m_events.front().first >= kRateWindowMs) {
        m_events.pop_front();
    }
}

void TopModel::OnMessage(const uint8_t* frame, size_t size, int64_t nowMs,
                         const struct timeval& when) {
    pmtools::HeadFields head;
    if (!pmtools::ReadHead(frame, size, head)) {
        return;
    }
    ++m_count;
    const uint32_t id = head.eventId;
    const uint8_t* p = frame + Common::kMsgHeadSize;
    const size_t n = size - Common::kMsgHeadSize;
    if (!OnSettingOrBox(id, p, n, head.senderId, nowMs) && !OnTraffic(id, p, n, nowMs)) {
        OnRecorderState(id, p, n, head.senderId, nowMs);
    }
    Remember(frame, size, id, when);
}

bool TopModel::OnSettingOrBox(uint32_t id, const uint8_t* p, size_t n, uint32_t sender,
                              int64_t nowMs) {
    switch (id) {
        case EVENT_SERIAL_PARAM_CHANGED:
        case EventAnswerOf(EVENT_GET_SERIAL_PARAM):
            OnSerialSetting(p, n, sender, nowMs);
            break;
        case EVENT_CAN_PARAM_CHANGED:
        case EventAnswerOf(EVENT_GET_CAN_PARAM):
            m_can = Copy<paramCanSetting_t>(p, n);
            break;
        case EVENT_ETHERNET_PARAM_CHANGED:
        case EventAnswerOf(EVENT_GET_ETHERNET_PARAM):
            m_ethernet = Copy<paramPeripheralEtherNet_t>(p, n);
            break;
        case EVENT_SERIAL_CONFIG_STATUS:
            OnStatusReport(p, n, nowMs);
            break;
        case EVENT_EXTEND_VERSION:
        case EventAnswerOf(EVENT_GET_EXTEND_VERSION):
            OnVersion(p, n, id == EVENT_EXTEND_VERSION ? nowMs : -1);
            break;
        case EVENT_EXTEND_UPGRADE_STATE:
        case EventAnswerOf(EVENT_GET_EXTEND_UPGRADE_STATE):
            OnUpgradeState(p, n, nowMs);
            break;
        case EVENT_EXTEND_IO_STATE:
            OnIoState(p, n);
            break;
        default:
            return false;
    }
    return true;
}

bool TopModel::OnTraffic(uint32_t id, const uint8_t* p, size_t n, int64_t nowMs) {
    switch (id) {
        case EVENT_MCU_SERIAL_SEND:
        case EVENT_MCU_SERIAL_RECV:
            OnMcuData(p, n, id == EVENT_MCU_SERIAL_SEND, nowMs);
            break;
        case EVENT_MCU_SERIAL_SETTINGS:
            if (n >= 2) {
                m_mcuSettings[{p[0], p[1]}] = true;
            }
            break;
        case EVENT_CAN_SET_FILTER:
            OnCanFilter(p, n, nowMs);
            break;
        case EVENT_CAN_FILTER_STATE:
            if (n >= 2) {
                m_canFilters[p[0]].acknowledged = p[1];
            }
            break;
        case EVENT_CAN_RECV:
            OnCanFrames(p, n, nowMs);
            break;
        case EVENT_CAN_SEND:
            OnCanSend(p, n, nowMs);
            break;
        default:
            return false;
    }
    return true;
}

void TopModel::OnSerialSetting(const uint8_t* p, size_t n, uint32_t sender, int64_t nowMs) {
    m_serial = Copy<paramSerialSetting_t>(p, n);
    // The recorder sends this setting; the service sends it itself only for the factory
    // self-test, whose test ports it publishes this way.
    if (sender == kServiceModuleId && !m_recorder.selfTest) {
        m_recorder.selfTest = true;
        m_recorder.selfTestSinceMs = nowMs;
    }
}

void TopModel::OnStatusReport(const uint8_t* p, size_t n, int64_t nowMs) {
    if (n < 6) {
        return;
    }
    const IdPair ids{p[1], p[3]};
    const uint8_t status = p[5];
    m_status[ids] = PortStatus{status, nowMs};
    if (!IsBoxId(ids.first, ids.second)) {
        return;
    }
    BoxView& box = m_boxes[ids];
    if (status == kStatusLineAlive) {
        SetLink(box, BoxLink::Online, nowMs);
    } else if (status == kStatusLineLost) {
        SetLink(box, BoxLink::Offline, nowMs);
    } else if (status == kStatusReleased) {
        SetLink(box, BoxLink::Unknown, nowMs);
    }
}

void TopModel::OnVersion(const uint8_t* p, size_t n, int64_t broadcastAtMs) {
    if (n == 0) {
        return;
    }
    const auto record = Copy<ExtendVersionRecord_t>(p, n);
    BoxView& box = m_boxes[{record.mainId, record.subId}];
    const bool known = record.count > 0;
    box.version = known ? Text(record.version, sizeof record.version) : "";
    // A broadcast with a version follows an answer of the box; an empty one is what a hub
    // that fell silent publishes.
    if (broadcastAtMs >= 0) {
        SetLink(box, known ? BoxLink::Online : BoxLink::Offline, broadcastAtMs);
    }
    box.versionKnown = known;
}

void TopModel::OnUpgradeState(const uint8_t* p, size_t n, int64_t nowMs) {
    if (n == 0) {
        return;
    }
    const auto record = Copy<ExtendUpgradeState_t>(p, n);
    if (record.source == 0xFF) {
        return;  // a record that no upgrade has used yet
    }
    BoxView& box = m_boxes[{record.mainId, record.subId}];
    const bool same =
        box.upgrade && box.upgrade->state == record.state && box.upgrade->percent == record.percent;
    if (!same) {
        box.upgrade = UpgradeView{record.source, record.state, record.percent, nowMs};
    }
    if (record.state == PERIPHERAL_UPGRADE_OFFLINE) {
        SetLink(box, BoxLink::Offline, nowMs);
    }
}

void TopModel::OnIoState(const uint8_t* p, size_t n) {
    if (n < 4) {
        return;
    }
    m_boxes[{p[0], p[1]}].ioState = static_cast<uint16_t>(Common::GetLe16(p + 2));
}

void TopModel::OnMcuData(const uint8_t* p, size_t n, bool toPort, int64_t nowMs) {
    pmrecorder::McuData data;
    std::string error;
    if (!pmrecorder::DecodeMcuSend(p, n, data, error)) {
        return;
    }
    const IdPair ids{static_cast<uint8_t>(data.mainId), static_cast<uint8_t>(data.subId)};
    (toPort ? m_mcuTo : m_mcuFrom)[ids].Add(nowMs, data.data.size());
}

void TopModel::OnCanFilter(const uint8_t* p, size_t n, int64_t nowMs) {
    pmrecorder::CanFilterList list;
    std::string error;
    if (!pmrecorder::DecodeCanFilter(p, n, list, error)) {
        return;
    }
    CanFilterView& view = m_canFilters[list.port];
    view.entries.clear();
    for (const auto& e : list.entries) {
        view.entries.push_back(FilterEntryText(e));
    }
    view.atMs = nowMs;
    view.acknowledged.reset();
}

void TopModel::OnCanFrames(const uint8_t* p, size_t n, int64_t nowMs) {
    if (n < sizeof(CanRecvHead_t)) {
        return;
    }
    const auto head = Copy<CanRecvHead_t>(p, n);
    const size_t fit = (n - sizeof head) / sizeof(CanRecvItem_t);
    m_canIn[head.ucCanPort].Add(nowMs, std::min<size_t>(head.usItemNum, fit));
}

void TopModel::OnCanSend(const uint8_t* p, size_t n, int64_t nowMs) {
    if (n < sizeof(CanSendFrame_t)) {
        return;
    }
    const auto frame = Copy<CanSendFrame_t>(p, n);
    m_canOut[{static_cast<uint8_t>(frame.usMainId), static_cast<uint8_t>(frame.usSubId)}].Add(nowMs,
                                                                                              1);
}

bool TopModel::OnRecorderState(uint32_t id, const uint8_t* p, size_t n, uint32_t sender,
                               int64_t nowMs) {
    RecorderView& r = m_recorder;
    switch (id) {
        case EVENT_DEVICE_MODULE_STATE:
        case EventAnswerOf(EVENT_GET_DEVICE_MODULE_STATE):
            if (n >= 1) {
                r.deviceModuleReady = (p[0] & 1) != 0;
            }
            return true;
        case EVENT_VIDEO_LOSS:
        case EventAnswerOf(EVENT_GET_VIDEO_LOSS):
            if (n == 4) {
                r.videoLoss = Common::GetLe32(p);
            }
            return true;
        case EVENT_DIGITAL_VIDEO_LOSS:
        case EventAnswerOf(EVENT_GET_DIGITAL_VIDEO_LOSS):
            if (n == 6) {
                r.digitalVideoLoss.assign(p, p + 6);
            }
            return true;
        case EVENT_LED_STATE:
        case EventAnswerOf(EVENT_GET_LED_STATE):
            if (n == 16) {
                r.led.assign(p, p + 10);
            }
            return true;
        case EVENT_STORAGE_STATE:
            r.storage.assign(p, p + std::min<size_t>(n, STORAGE_STATE_SIZE));
            r.storage.resize(STORAGE_STATE_SIZE, 0);
            return true;
        case EVENT_USB_STATE:
        case EventAnswerOf(EVENT_GET_USB_STATE):
            if (n == 72) {
                r.usbPlugged = p[0] == 1;
            }
            return true;
        case EventAnswerOf(EVENT_GET_UDISK_INFO):
            OnUDiskInfo(p, n);
            return true;
        case EVENT_GET_SERIAL_PARAM:
            // The service asks for the real setting again when the self-test ends.
            if (sender == kServiceModuleId && r.selfTest) {
                r.selfTest = false;
                r.selfTestSinceMs = nowMs;
            }
            return true;
        default:
            return false;
    }
}

void TopModel::OnUDiskInfo(const uint8_t* p, size_t n) {
    RecorderView& r = m_recorder;
    r.usbMount.clear();
    constexpr size_t kFirst = 48, kEntry = 80, kMount = 40;
    for (size_t k = 0; k < 4 && kFirst + kEntry * k + kMount <= n; ++k) {
        const char* mount = reinterpret_cast<const char*>(p + kFirst + kEntry * k);
        if (mount[0] != '\0') {
            r.usbMount = Text(mount, kMount);
            break;
        }
    }
}

void TopModel::SetLink(BoxView& box, BoxLink link, int64_t nowMs) {
    if (box.link != link) {
        box.link = link;
        box.linkSinceMs = nowMs;
    }
}

void TopModel::Remember(const uint8_t* frame, size_t size, uint32_t id,
                        const struct timeval& when) {
    // The bus's own traffic (watchdog, probes) would push everything else out of the pane.
    if (id == Common::kMsgWatchdogEvent || id == Common::kMsgProbeEvent) {
        return;
    }
    m_messages.push_back(MessageLine{id, pmtools::FormatMessage(frame, size, when, false, 12)});
    while (m_messages.size() > kKeptMessages) {
        m_messages.pop_front();
    }
}

double TopModel::McuToPort(const IdPair& ids, int64_t nowMs) const {
    auto it = m_mcuTo.find(ids);
    return it == m_mcuTo.end() ? 0.0 : it->second.PerSecond(nowMs);
}

double TopModel::McuFromPort(const IdPair& ids, int64_t nowMs) const {
    auto it = m_mcuFrom.find(ids);
    return it == m_mcuFrom.end() ? 0.0 : it->second.PerSecond(nowMs);
}

double TopModel::CanReceived(uint8_t port, int64_t nowMs) const {
    auto it = m_canIn.find(port);
    return it == m_canIn.end() ? 0.0 : it->second.PerSecond(nowMs);
}

double TopModel::CanSent(const IdPair& ids, int64_t nowMs) const {
    auto it = m_canOut.find(ids);
    return it == m_canOut.end() ? 0.0 : it->second.PerSecond(nowMs);
}

std::vector<IdPair> TopModel::ConfiguredBoxes() const {
    std::vector<IdPair> boxes;
    if (!m_serial) {
        return boxes;
    }
    for (const SerialPortEntry_t& port : m_serial->port) {
        if (IsBoxId(port.mainFun, port.subFun)) {
            boxes.emplace_back(port.mainFun, port.subFun);
        }
    }
    return boxes;
}

}  // namespace pmtop
