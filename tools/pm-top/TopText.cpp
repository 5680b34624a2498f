#include "TopText.h"

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "BusWire.h"
#include "EventNames.h"
#include "ExtendBoxRecords.h"
#include "Scenario.h"

namespace pmtop {

namespace {

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return text;
}

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::string Ago(int64_t sinceMs, int64_t nowMs) {
    const int64_t s = std::max<int64_t>(0, nowMs - sinceMs) / 1000;
    return s < 120 ? Format("%llds ago", static_cast<long long>(s))
                   : Format("%lldm ago", static_cast<long long>(s / 60));
}

std::string SerialProtocol(const View& v, uint8_t mainId, uint8_t subId) {
    std::string name;
    if (mainId == PERIPHERAL_MAINID_EXTEND_BOX) {
        name = "extension box";
    } else if (mainId == PERIPHERAL_MAINID_EXTEND_HUB_BOX) {
        name = "hub box";
    } else {
        auto it = v.names.serial.find(mainId);
        name = it == v.names.serial.end() ? "" : it->second;
    }
    return Format("%u:%u %s", mainId, subId, name.c_str());
}

std::string PortLink(const View& v, int index) {
    if (index < static_cast<int>(SERIAL_MCU_PORT_END)) {
        return Format("MCU %d", index);
    }
    auto path = v.names.portPath.find(index);
    std::string text = path == v.names.portPath.end()
                           ? Format("main chip %d", index)
                           : path->second.substr(path->second.rfind('/') + 1);
    auto name = v.names.portName.find(index);
    if (name != v.names.portName.end()) {
        text += " (" + name->second + ")";
    }
    return text;
}

std::string LinkText(BoxLink link) {
    switch (link) {
        case BoxLink::Online:
            return "online";
        case BoxLink::Offline:
            return "OFFLINE";
        default:
            return "unknown";
    }
}

// What the service last said about an instance, or what its traffic shows.
std::string InstanceStatus(const View& v, const IdPair& ids, bool mcu) {
    auto box = v.model.Boxes().find(ids);
    if (box != v.model.Boxes().end() && box->second.link != BoxLink::Unknown) {
        return LinkText(box->second.link);
    }
    auto it = v.model.Statuses().find(ids);
    if (it != v.model.Statuses().end()) {
        switch (it->second.status) {
            case 5:
                return "line lost";
            case 6:
                return "released";
            case 7:
                return "alive";
            default:
                return Format("status %u", it->second.status);
        }
    }
    if (mcu && v.model.McuFromPort(ids, v.nowMs) + v.model.McuToPort(ids, v.nowMs) > 0) {
        return "traffic";
    }
    if (mcu && v.model.McuSettingsSeen(ids)) {
        return "set up";
    }
    return "-";
}

std::string SerialRow(const View& v, const std::string& port, const std::string& link,
                      const SerialExtendEntry_t& e, bool mcu) {
    const IdPair ids{e.mainFun, e.subFun};
    std::string row =
        Format("%-6s %-20s %-24s %-7u %-10s", port.c_str(), link.c_str(),
               SerialProtocol(v, e.mainFun, e.subFun).c_str(),
               pmrecorder::BaudSpeedOfCode(e.baudrate), InstanceStatus(v, ids, mcu).c_str());
    if (mcu) {
        row += Format(" %8.0f %8.0f", v.model.McuToPort(ids, v.nowMs),
                      v.model.McuFromPort(ids, v.nowMs));
    }
    while (!row.empty() && row.back() == ' ') {
        row.pop_back();
    }
    return row;
}

void AddSerial(const View& v, Lines& lines) {
    lines.push_back("Serial ports");
    if (!v.model.Serial()) {
        lines.push_back("  (no serial setting seen yet)");
        return;
    }
    lines.push_back(Format("  %-6s %-20s %-24s %-7s %-10s %8s %8s", "port", "link", "protocol",
                           "baud", "status", "to B/s", "from B/s"));
    for (int i = 0; i < static_cast<int>(SERIAL_PORT_COUNT); ++i) {
        const SerialPortEntry_t& port = v.model.Serial()->port[i];
        if (port.mainFun == PERIPHERAL_MAINID_NONE) {
            continue;
        }
        const bool mcu = i < static_cast<int>(SERIAL_MCU_PORT_END);
        const SerialExtendEntry_t head{port.mainFun, port.baudrate, port.subFun, {}};
        lines.push_back("  " + SerialRow(v, std::to_string(i), PortLink(v, i), head, mcu));
        const bool box = port.mainFun == PERIPHERAL_MAINID_EXTEND_BOX ||
                         port.mainFun == PERIPHERAL_MAINID_EXTEND_HUB_BOX;
        for (int k = 0; box && k < static_cast<int>(SERIAL_EXTEND_PORT_COUNT); ++k) {
            const SerialExtendEntry_t& sub = port.extend[k];
            if (sub.mainFun != PERIPHERAL_MAINID_NONE) {
                lines.push_back("  " + SerialRow(v, Format("%d.%d", i, k),
                                                 Format("  sub-port %d", k), sub, mcu));
            }
        }
    }
}

void AddCan(const View& v, Lines& lines) {
    lines.push_back("CAN ports");
    if (!v.model.Can()) {
        lines.push_back("  (no CAN setting seen yet)");
        return;
    }
    for (int i = 0; i < static_cast<int>(CAN_PORT_COUNT); ++i) {
        const CanPortEntry_t& port = v.model.Can()->port[i];
        if (port.mainFun == PERIPHERAL_MAINID_NONE) {
            continue;
        }
        auto name = v.names.can.find(port.mainFun);
        std::string row =
            Format("  can%d  %u:%u %-16s baud %-7u in %6.1f fr/s  out %6.1f fr/s", i, port.mainFun,
                   port.subFun, name == v.names.can.end() ? "" : name->second.c_str(),
                   pmrecorder::BaudSpeedOfCode(port.baudrate),
                   v.model.CanReceived(static_cast<uint8_t>(i), v.nowMs),
                   v.model.CanSent({port.mainFun, port.subFun}, v.nowMs));
        auto filter = v.model.CanFilters().find(static_cast<uint8_t>(i));
        if (filter == v.model.CanFilters().end()) {
            row += "  filter: none seen";
        } else {
            row += Format("  filter %zu:", filter->second.entries.size());
            for (const std::string& e : filter->second.entries) {
                row += " " + e;
            }
        }
        lines.push_back(row);
    }
}

void AddEthernet(const View& v, Lines& lines) {
    lines.push_back("Ethernet");
    if (!v.model.Ethernet()) {
        lines.push_back("  (no Ethernet setting seen yet)");
        return;
    }
    for (int i = 0; i < static_cast<int>(ETHERNET_ENTRY_COUNT); ++i) {
        const EthernetEntry_t& e = v.model.Ethernet()->entry[i];
        if (e.mainFun == PERIPHERAL_MAINID_NONE) {
            continue;
        }
        auto name = v.names.ethernet.find(e.mainFun);
        const std::string ip(e.ip, strnlen(e.ip, sizeof e.ip));
        lines.push_back(Format("  eth%d  %u:%u %-16s peer %s:%u", i, e.mainFun, e.subFun,
                               name == v.names.ethernet.end() ? "" : name->second.c_str(),
                               ip.c_str(), static_cast<unsigned>(Common::GetLe16(&e.port))));
    }
}

std::string UpgradeLine(const View& v, const UpgradeView& u) {
    const bool done = u.state == PERIPHERAL_UPGRADE_SUCCESS;
    const int percent = done ? 100 : std::clamp<int>(u.percent, 0, 100);
    return Format("    upgrade %s %3d %%  %s (state %u, source %u, %s)",
                  ProgressBar(percent, 30).c_str(), percent, UpgradeStateText(u.state).c_str(),
                  u.state, u.source, Ago(u.sinceMs, v.nowMs).c_str());
}

}  // namespace

std::string UpgradeStateText(uint8_t state) {
    switch (state) {
        case PERIPHERAL_UPGRADE_DOING:
            return "transfer in progress";
        case PERIPHERAL_UPGRADE_OFFLINE:
            return "box offline, not started";
        case PERIPHERAL_UPGRADE_FILE_ERROR:
            return "upgrade file check failed";
        case PERIPHERAL_UPGRADE_FILE_NOT_FOUND:
            return "upgrade file not found";
        case PERIPHERAL_UPGRADE_BUSY:
            return "an upgrade is already running";
        case PERIPHERAL_UPGRADE_SAME_VERSION:
            return "same version, nothing done";
        case PERIPHERAL_UPGRADE_FAILED:
            return "failed";
        case PERIPHERAL_UPGRADE_SUCCESS:
            return "finished successfully";
        default:
            return "unknown state";
    }
}

std::string ProgressBar(int percent, int width) {
    const int filled = std::clamp(percent, 0, 100) * width / 100;
    return "[" + std::string(filled, '#') + std::string(width - filled, '-') + "]";
}

Lines PortLines(const View& v) {
    Lines lines;
    AddSerial(v, lines);
    AddCan(v, lines);
    AddEthernet(v, lines);
    return lines;
}

Lines BoxLines(const View& v) {
    std::map<IdPair, BoxView> boxes = v.model.Boxes();
    for (const IdPair& ids : v.model.ConfiguredBoxes()) {
        boxes.emplace(ids, BoxView{});
    }
    Lines lines;
    if (boxes.empty()) {
        lines.push_back("  (no extension box configured or heard)");
    }
    for (const auto& [ids, box] : boxes) {
        const std::string io = box.ioState ? Format("0x%04X", *box.ioState) : "-";
        std::string link = LinkText(box.link);
        if (box.link != BoxLink::Unknown) {
            link += " since " + Ago(box.linkSinceMs, v.nowMs);
        }
        lines.push_back(Format(
            "  %-22s version %-16s %-24s I/O %s", SerialProtocol(v, ids.first, ids.second).c_str(),
            box.versionKnown ? box.version.c_str() : "?", link.c_str(), io.c_str()));
        if (box.upgrade) {
            lines.push_back(UpgradeLine(v, *box.upgrade));
        }
    }
    return lines;
}

Lines RecorderLines(const View& v) {
    const RecorderView& r = v.model.Recorder();
    Lines lines;
    const char* ready = !r.deviceModuleReady ? "?" : *r.deviceModuleReady ? "ready" : "not ready";
    lines.push_back(Format(
        "  device module %s   self-test %s", ready,
        r.selfTest ? ("RUNNING since " + Ago(r.selfTestSinceMs, v.nowMs)).c_str() : "not running"));
    std::string loss = r.videoLoss ? Format("analogue mask 0x%08X", *r.videoLoss) : "analogue ?";
    if (r.digitalVideoLoss.size() == 6) {
        loss += Format("   digital ch0 %s ch1 %s", r.digitalVideoLoss[4] == 1 ? "lost" : "ok",
                       r.digitalVideoLoss[5] == 1 ? "lost" : "ok");
    }
    lines.push_back("  video loss " + loss);
    if (r.led.size() == 10) {
        const uint8_t* l = r.led.data();
        lines.push_back(
            Format("  LED record %u net %u err %u gps %u alarm %u vloss %u hdd %u "
                   "sd %u sys %u",
                   l[0], l[1], l[2], l[3], l[4], l[5], l[6], l[7], l[8]));
    } else {
        lines.push_back("  LED ?");
    }
    std::string storage = "  storage";
    for (int i = 0; i < 2 && r.storage.size() == STORAGE_STATE_SIZE; ++i) {
        const uint8_t* d = r.storage.data() + 24 + 4 * i;
        storage += d[3] == 1 ? Format("  disk%d type %u state %u", i, d[2], d[0])
                             : Format("  disk%d -", i);
    }
    lines.push_back(r.storage.empty() ? storage + " ?" : storage);
    std::string usb = !r.usbPlugged ? "?" : *r.usbPlugged ? "plugged in" : "not plugged in";
    if (!r.usbMount.empty()) {
        usb += " at " + r.usbMount;
    }
    lines.push_back("  USB disk " + usb);
    return lines;
}

bool MessageMatches(uint32_t eventId, const std::string& filter) {
    if (filter.empty()) {
        return true;
    }
    uint64_t number = 0;
    if (pmtools::ParseNumber(filter, 0xFFFFFFFFu, number)) {
        return eventId == number;
    }
    return Lower(pmtools::NameOfEvent(eventId)).find(Lower(filter)) != std::string::npos;
}

Lines MessageLines(const TopModel& model, const std::string& filter, size_t count) {
    Lines lines;
    const auto& messages = model.Messages();
    for (auto it = messages.rbegin(); it != messages.rend() && lines.size() < count; ++it) {
        if (MessageMatches(it->eventId, filter)) {
            lines.push_back(it->text);
        }
    }
    std::reverse(lines.begin(), lines.end());
    return lines;
}

std::string Snapshot(const View& v, const std::string& busState, size_t messages) {
    std::string text =
        "pm-top snapshot   bus: " + busState +
        Format("   messages: %llu\n\n", static_cast<unsigned long long>(v.model.MessageCount()));
    auto add = [&](const Lines& lines) {
        for (const std::string& line : lines) {
            text += line + "\n";
        }
        text += "\n";
    };
    add(PortLines(v));
    text += "Extension boxes\n";
    add(BoxLines(v));
    text += "Recorder\n";
    add(RecorderLines(v));
    text += Format("Last messages (%zu)\n", messages);
    for (const std::string& line : MessageLines(v.model, "", messages)) {
        text += "  " + line + "\n";
    }
    return text;
}

}  // namespace pmtop
