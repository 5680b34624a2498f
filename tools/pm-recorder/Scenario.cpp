#include "Scenario.h"

#include "MessageText.h"
#include "Records.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <fstream>
#include <set>
#include <sstream>

namespace pmrecorder {

namespace {

const char* const kBaudWords[] = {"B4800",  "B9600",   "B19200", "B38400", "B56000",
                                  "B57600", "B115200", "B2400",  "B28800"};
const unsigned kBaudSpeeds[] = {4800, 9600, 19200, 38400, 56000, 57600, 115200, 2400, 28800};

struct WordCode {
    const char* word;
    uint8_t code;
};
const WordCode kDataBitWords[] = {{"CS8", 0}, {"CS7", 1}, {"CS6", 2}, {"CS5", 3}};
const WordCode kStopBitWords[] = {{"1bit", 0}, {"2bit", 3}};
const WordCode kParityWords[] = {{"NONE", 0}, {"ODD", 1}, {"EVEN", 2}};
const WordCode kFlowWords[] = {{"NONE", 0}, {"HARDWARE", 1}, {"SOFTWARE", 2}, {"DTR_DSR", 3}};

// A JSON object being read, with the place it stands at for error messages.
class Reader {
public:
    Reader(const Json::Value& value, std::string where, std::string& error)
        : m_value(value), m_where(std::move(where)), m_error(error) {}

    const std::string& Where() const { return m_where; }
    std::string At(const std::string& key) const {
        if (key.empty() || m_where.empty()) {
            return m_where.empty() ? key : m_where;
        }
        return m_where + "." + key;
    }
    bool Fail(const std::string& key, const std::string& why) const {
        m_error = At(key) + ": " + why;
        return false;
    }
    bool Has(const char* key) const { return m_value.isMember(key); }
    const Json::Value& Get(const char* key) const { return m_value[key]; }

    // Typos should not pass silently; "comment" is free text anywhere.
    bool OnlyKeys(std::initializer_list<const char*> allowed) const {
        if (!m_value.isObject()) {
            m_error = (m_where.empty() ? std::string("scenario") : m_where) + ": must be an object";
            return false;
        }
        std::set<std::string> known(allowed.begin(), allowed.end());
        known.insert("comment");
        for (const std::string& key : m_value.getMemberNames()) {
            if (known.count(key) == 0) {
                return Fail(key, "unknown key");
            }
        }
        return true;
    }

    template <class T>
    bool Int(const char* key, int64_t min, int64_t max, T& out) const {
        if (!Has(key)) {
            return true;
        }
        const Json::Value& v = Get(key);
        if (!v.isInt64() || v.asInt64() < min || v.asInt64() > max) {
            return Fail(key, "must be a whole number from " + std::to_string(min) + " to " +
                                 std::to_string(max));
        }
        out = static_cast<T>(v.asInt64());
        return true;
    }
    bool Bool(const char* key, bool& out) const {
        if (!Has(key)) {
            return true;
        }
        if (!Get(key).isBool()) {
            return Fail(key, "must be true or false");
        }
        out = Get(key).asBool();
        return true;
    }
    bool String(const char* key, std::string& out) const {
        if (!Has(key)) {
            return true;
        }
        if (!Get(key).isString()) {
            return Fail(key, "must be a string");
        }
        out = Get(key).asString();
        return true;
    }
    // A configuration word from `table`, or the code as a number.
    template <size_t N>
    bool Word(const char* key, const WordCode (&table)[N], uint8_t& out) const {
        if (!Has(key)) {
            return true;
        }
        if (Get(key).isInt()) {
            return Int(key, 0, 255, out);
        }
        std::string word;
        std::string names;
        if (!String(key, word)) {
            return false;
        }
        for (const WordCode& w : table) {
            if (word == w.word) {
                out = w.code;
                return true;
            }
            names += std::string(names.empty() ? "" : ", ") + w.word;
        }
        return Fail(key, "\"" + word + "\" is none of " + names);
    }
    bool Baud(const char* key, uint8_t& out) const {
        if (Has(key) && Get(key).isString()) {
            if (BaudCodeFromWord(Get(key).asString(), out)) {
                return true;
            }
            return Fail(key, "\"" + Get(key).asString() + "\" is no baud word (B2400 .. B115200)");
        }
        return Int(key, 0, 255, out);
    }
    bool Array(const char* key, const Json::Value*& out) const {
        out = nullptr;
        if (!Has(key) || Get(key).isNull()) {
            return true;
        }
        if (!Get(key).isArray()) {
            return Fail(key, "must be a list");
        }
        out = &Get(key);
        return true;
    }

private:
    const Json::Value& m_value;
    std::string m_where;
    std::string& m_error;
};

std::string Item(const std::string& where, Json::ArrayIndex i) {
    return where + "[" + std::to_string(i) + "]";
}

bool ReadLine(const Reader& r, LineSettings& line) {
    return r.Baud("baud", line.baud) && r.Word("dataBits", kDataBitWords, line.dataBits) &&
           r.Word("stopBits", kStopBitWords, line.stopBits) &&
           r.Word("parity", kParityWords, line.parity) && r.Word("flow", kFlowWords, line.flow);
}

// Index, main and sub of one slot; `indexMax` bounds the index.
bool ReadIds(const Reader& r, int indexMax, uint8_t& index, uint8_t& mainId, uint8_t& subId) {
    if (!r.Has("index")) {
        return r.Fail("index", "missing");
    }
    return r.Int("index", 0, indexMax, index) && r.Int("main", 0, 255, mainId) &&
           r.Int("sub", 0, 255, subId);
}

template <class Slot>
bool UniqueIndex(const std::vector<Slot>& slots, const Reader& r) {
    for (size_t i = 0; i + 1 < slots.size(); ++i) {
        if (slots[i].index == slots.back().index) {
            return r.Fail("index", "index " + std::to_string(slots.back().index) + " given twice");
        }
    }
    return true;
}

bool ReadSerialSlot(const Json::Value& v, const std::string& where, bool top, SerialSlot& slot,
                    std::string& error) {
    Reader r(v, where, error);
    if (!(top ? r.OnlyKeys({"index", "main", "sub", "baud", "dataBits", "stopBits", "parity",
                            "flow", "subPorts"})
              : r.OnlyKeys(
                    {"index", "main", "sub", "baud", "dataBits", "stopBits", "parity", "flow"}))) {
        return false;
    }
    if (!ReadIds(r, top ? 11 : 7, slot.index, slot.mainId, slot.subId) || !ReadLine(r, slot.line)) {
        return false;
    }
    const Json::Value* subs = nullptr;
    if (!top) {
        return true;
    }
    if (!r.Array("subPorts", subs)) {
        return false;
    }
    for (Json::ArrayIndex i = 0; subs != nullptr && i < subs->size(); ++i) {
        SerialSlot sub;
        std::string at = Item(r.At("subPorts"), i);
        if (!ReadSerialSlot((*subs)[i], at, false, sub, error)) {
            return false;
        }
        slot.subPorts.push_back(sub);
        if (!UniqueIndex(slot.subPorts, Reader((*subs)[i], at, error))) {
            return false;
        }
    }
    return true;
}

bool ReadSerial(const Reader& top, Scenario& s, std::string& error) {
    const Json::Value* list = nullptr;
    if (!top.Array("serial", list) || list == nullptr) {
        return error.empty();
    }
    for (Json::ArrayIndex i = 0; i < list->size(); ++i) {
        SerialSlot slot;
        if (!ReadSerialSlot((*list)[i], Item("serial", i), true, slot, error)) {
            return false;
        }
        s.serial.push_back(slot);
        if (!UniqueIndex(s.serial, Reader((*list)[i], Item("serial", i), error))) {
            return false;
        }
    }
    return true;
}

bool ReadCan(const Reader& top, Scenario& s, std::string& error) {
    const Json::Value* list = nullptr;
    if (!top.Array("can", list) || list == nullptr) {
        return error.empty();
    }
    for (Json::ArrayIndex i = 0; i < list->size(); ++i) {
        Reader r((*list)[i], Item("can", i), error);
        CanSlot slot;
        if (!r.OnlyKeys({"index", "main", "sub", "baud"}) ||
            !ReadIds(r, kCanPorts - 1, slot.index, slot.mainId, slot.subId) ||
            !r.Baud("baud", slot.baud)) {
            return false;
        }
        s.can.push_back(slot);
        if (!UniqueIndex(s.can, r)) {
            return false;
        }
    }
    return true;
}

bool ReadEthernet(const Reader& top, Scenario& s, std::string& error) {
    const Json::Value* list = nullptr;
    if (!top.Array("ethernet", list) || list == nullptr) {
        return error.empty();
    }
    for (Json::ArrayIndex i = 0; i < list->size(); ++i) {
        Reader r((*list)[i], Item("ethernet", i), error);
        EthernetSlot slot;
        if (!r.OnlyKeys({"index", "main", "sub", "ip", "port"}) ||
            !ReadIds(r, 3, slot.index, slot.mainId, slot.subId) || !r.String("ip", slot.ip) ||
            !r.Int("port", 0, 65535, slot.port)) {
            return false;
        }
        if (slot.ip.size() > 15) {
            return r.Fail("ip", "longer than the record's 15 characters");
        }
        s.ethernet.push_back(slot);
        if (!UniqueIndex(s.ethernet, r)) {
            return false;
        }
    }
    return true;
}

// "patch": {"<offset>": "hex bytes"}; offsets in decimal or 0x hex, bounded by the record.
bool ReadPatch(const Reader& r, size_t recordSize, std::vector<Patch>& out) {
    if (!r.Has("patch")) {
        return true;
    }
    const Json::Value& p = r.Get("patch");
    if (!p.isObject()) {
        return r.Fail("patch", "must be an object of offset: \"hex bytes\"");
    }
    for (const std::string& key : p.getMemberNames()) {
        Patch patch;
        char* end = nullptr;
        unsigned long offset = strtoul(key.c_str(), &end, 0);
        if (key.empty() || *end != '\0' || offset >= recordSize) {
            return r.Fail("patch", "offset \"" + key + "\" is not within the record's " +
                                       std::to_string(recordSize) + " bytes");
        }
        std::string error;
        if (!p[key].isString() || !pmtools::ParseHexBytes(p[key].asString(), patch.bytes, error)) {
            return r.Fail("patch", "bytes at " + key + " must be a string of hex pairs");
        }
        if (offset + patch.bytes.size() > recordSize) {
            return r.Fail("patch", "bytes at " + key + " run past the record's end");
        }
        patch.offset = offset;
        out.push_back(patch);
    }
    return true;
}

bool ReadReady(const Reader& top, Scenario& s) {
    if (!top.Has("ready")) {
        return true;
    }
    const Json::Value& v = top.Get("ready");
    if (v.isString() && (v.asString() == "now" || v.asString() == "never")) {
        s.ready.kind = v.asString() == "now" ? Readiness::kNow : Readiness::kNever;
        return true;
    }
    if (v.isBool()) {
        s.ready.kind = v.asBool() ? Readiness::kNow : Readiness::kNever;
        return true;
    }
    if (v.isInt() && v.asInt() >= 0) {
        s.ready.kind = Readiness::kAfter;
        s.ready.afterMs = static_cast<uint32_t>(v.asInt());
        return true;
    }
    return top.Fail("ready", "must be \"now\", \"never\" or a delay in milliseconds");
}

bool ReadIpc(const Reader& top, Scenario& s, std::string& error) {
    if (!top.Has("ipc")) {
        return true;
    }
    Reader r(top.Get("ipc"), "ipc", error);
    const Json::Value* channels = nullptr;
    if (!r.OnlyKeys({"channels", "patch"}) || !r.Array("channels", channels) ||
        !ReadPatch(r, 408, s.ipcPatch)) {
        return false;
    }
    for (Json::ArrayIndex i = 0; channels != nullptr && i < channels->size(); ++i) {
        Reader c((*channels)[i], Item("ipc.channels", i), error);
        IpcChannel ch;
        if (i >= 2) {
            return c.Fail("", "the IPC record has room for two channels");
        }
        if (!c.OnlyKeys({"digital", "protocol"}) || !c.Bool("digital", ch.digital) ||
            !c.Int("protocol", 0, 255, ch.protocol)) {
            return false;
        }
        s.ipcChannels.push_back(ch);
    }
    return true;
}

bool ReadVideoLoss(const Reader& top, Scenario& s, std::string& error) {
    const Json::Value* lost = nullptr;
    if (!top.Array("videoLoss", lost)) {
        return false;
    }
    for (Json::ArrayIndex i = 0; lost != nullptr && i < lost->size(); ++i) {
        if (!(*lost)[i].isInt() || (*lost)[i].asInt() < 0 || (*lost)[i].asInt() > 31) {
            return top.Fail(Item("videoLoss", i), "a channel number from 0 to 31");
        }
        s.videoLossMask |= 1u << (*lost)[i].asInt();
    }
    const Json::Value* digital = nullptr;
    if (!top.Array("digitalVideoLoss", digital)) {
        return false;
    }
    for (Json::ArrayIndex i = 0; digital != nullptr && i < digital->size(); ++i) {
        Reader c((*digital)[i], Item("digitalVideoLoss", i), error);
        DigitalChannel ch;
        if (i >= 4) {
            return c.Fail("", "the message has room for four channels");
        }
        if (!c.OnlyKeys({"protocol", "lost"}) || !c.Int("protocol", 0, 255, ch.protocol) ||
            !c.Bool("lost", ch.lost)) {
            return false;
        }
        s.digitalVideoLoss.push_back(ch);
    }
    return true;
}

bool ReadLed(const Reader& top, Scenario& s, std::string& error) {
    if (!top.Has("led")) {
        return true;
    }
    static const char* const names[] = {"record", "net", "err", "gps", "alarm",
                                        "vloss",  "hdd", "sd",  "sys", "byte9"};
    Reader r(top.Get("led"), "led", error);
    if (!r.OnlyKeys(
            {"record", "net", "err", "gps", "alarm", "vloss", "hdd", "sd", "sys", "byte9"})) {
        return false;
    }
    for (size_t i = 0; i < 10; ++i) {
        if (!r.Int(names[i], 0, 255, s.led[i])) {
            return false;
        }
    }
    return true;
}

bool ReadStorage(const Reader& top, Scenario& s, std::string& error) {
    if (!top.Has("storage")) {
        return true;
    }
    Reader r(top.Get("storage"), "storage", error);
    const Json::Value* disks = nullptr;
    if (!r.OnlyKeys({"disks", "patch"}) || !r.Array("disks", disks) ||
        !ReadPatch(r, 32, s.storagePatch)) {
        return false;
    }
    if (disks == nullptr) {
        return true;
    }
    s.disks.clear();
    for (Json::ArrayIndex i = 0; i < disks->size(); ++i) {
        Reader d((*disks)[i], Item("storage.disks", i), error);
        StorageDisk disk;
        if (i >= 2) {
            return d.Fail("", "the storage record has room for two disks");
        }
        if (!d.OnlyKeys({"state", "type", "valid"}) || !d.Int("state", 0, 255, disk.state) ||
            !d.Int("type", 0, 255, disk.type) || !d.Bool("valid", disk.valid)) {
            return false;
        }
        s.disks.push_back(disk);
    }
    return true;
}

bool ReadVehicleAndFtp(const Reader& top, Scenario& s, std::string& error) {
    if (top.Has("vehicle")) {
        Reader r(top.Get("vehicle"), "vehicle", error);
        if (!r.OnlyKeys({"word0", "word48", "byte52", "patch"}) ||
            !r.Int("word0", 0, UINT32_MAX, s.vehicleWord0) ||
            !r.Int("word48", 0, UINT32_MAX, s.vehicleWord48) ||
            !r.Int("byte52", 0, 255, s.vehicleByte52) || !ReadPatch(r, 56, s.vehiclePatch)) {
            return false;
        }
    }
    if (top.Has("ftp")) {
        Reader r(top.Get("ftp"), "ftp", error);
        if (!r.OnlyKeys({"patch"}) || !ReadPatch(r, 416, s.ftpPatch)) {
            return false;
        }
    }
    return true;
}

bool ReadCpxAndDisk(const Reader& top, Scenario& s, std::string& error) {
    if (top.Has("cpxRelease") && !top.Get("cpxRelease").isNull()) {
        const Json::Value& v = top.Get("cpxRelease");
        s.cpx.enabled = true;
        if (v.isString()) {
            s.cpx.path = v.asString();
        } else {
            Reader r(v, "cpxRelease", error);
            if (!r.OnlyKeys({"path", "afterMs"}) || !r.String("path", s.cpx.path) ||
                !r.Int("afterMs", 0, INT32_MAX, s.cpx.afterMs)) {
                return false;
            }
        }
        if (s.cpx.path.empty()) {
            return top.Fail("cpxRelease", "needs a path");
        }
    }
    if (top.Has("udisk") && !top.Get("udisk").isNull()) {
        Reader r(top.Get("udisk"), "udisk", error);
        s.udisk.present = true;
        if (!r.OnlyKeys({"mount", "recordSize"}) || !r.String("mount", s.udisk.mount) ||
            !r.Int("recordSize", 0, INT64_MAX, s.udisk.recordSize)) {
            return false;
        }
        if (s.udisk.mount.empty() || s.udisk.mount.size() > kMaxMountLength) {
            return r.Fail("mount", "needs a directory of 1 to " + std::to_string(kMaxMountLength) +
                                       " characters");
        }
    }
    return true;
}

bool ReadMcu(const Reader& top, Scenario& s, std::string& error) {
    const Json::Value* list = nullptr;
    if (!top.Array("mcuPorts", list) || list == nullptr) {
        return error.empty();
    }
    for (Json::ArrayIndex i = 0; i < list->size(); ++i) {
        Reader r((*list)[i], Item("mcuPorts", i), error);
        McuLink link;
        if (!r.OnlyKeys({"index", "link"}) || !r.Int("index", 0, 3, link.index) ||
            !r.String("link", link.link)) {
            return false;
        }
        if (!r.Has("index") || link.link.empty()) {
            return r.Fail(r.Has("index") ? "link" : "index", "missing");
        }
        s.mcu.push_back(link);
        if (!UniqueIndex(s.mcu, r)) {
            return false;
        }
    }
    return true;
}

// "[+DELAY ][IFACE ]ID#DATA", e.g. "+100 can1 18FEF131#F7FFFF07CCFFFFFF".
bool ReadFrameText(const std::string& text, ScriptedFrame& out, std::string& why) {
    std::istringstream words(text);
    std::vector<std::string> parts;
    for (std::string w; words >> w;) {
        parts.push_back(w);
    }
    size_t i = 0;
    if (i < parts.size() && parts[i][0] == '+') {
        char* end = nullptr;
        unsigned long delay = strtoul(parts[i].c_str() + 1, &end, 10);
        if (parts[i].size() < 2 || *end != '\0' || delay > INT32_MAX) {
            why = "bad delay \"" + parts[i] + "\"";
            return false;
        }
        out.delayMs = static_cast<uint32_t>(delay);
        ++i;
    }
    if (i + 2 == parts.size()) {
        if (!PortOfInterface(parts[i], out.port)) {
            why = "\"" + parts[i] + "\" is not can0 .. can3";
            return false;
        }
        ++i;
    }
    if (i + 1 != parts.size()) {
        why = "expected \"[+DELAY] [canN] ID#DATA\"";
        return false;
    }
    return ParseCansend(parts[i], out.frame, why);
}

bool ReadFrame(const Json::Value& v, const std::string& where, ScriptedFrame& out,
               std::string& error) {
    std::string why;
    if (v.isString()) {
        if (!ReadFrameText(v.asString(), out, why)) {
            error = where + ": " + why;
            return false;
        }
        return true;
    }
    Reader r(v, where, error);
    std::string frame;
    std::string iface = "can0";
    if (!r.OnlyKeys({"frame", "can", "delayMs"}) || !r.String("frame", frame) ||
        !r.String("can", iface) || !r.Int("delayMs", 0, INT32_MAX, out.delayMs)) {
        return false;
    }
    if (!PortOfInterface(iface, out.port)) {
        return r.Fail("can", "\"" + iface + "\" is not can0 .. can3");
    }
    if (!ParseCansend(frame, out.frame, why)) {
        return r.Fail("frame", why);
    }
    return true;
}

bool ReadCanFrames(const Reader& top, Scenario& s, std::string& error) {
    if (!top.Has("canFrames")) {
        return true;
    }
    const Json::Value* list = nullptr;
    const Json::Value& node = top.Get("canFrames");
    if (node.isArray()) {
        list = &node;
    } else {
        Reader r(node, "canFrames", error);
        std::string start = "filter";
        if (!r.OnlyKeys({"start", "repeat", "frames"}) || !r.String("start", start) ||
            !r.Bool("repeat", s.canScript.repeat) || !r.Array("frames", list)) {
            return false;
        }
        if (start != "filter" && start != "now") {
            return r.Fail("start", "must be \"filter\" or \"now\"");
        }
        s.canScript.startNow = start == "now";
    }
    uint64_t total = 0;
    for (Json::ArrayIndex i = 0; list != nullptr && i < list->size(); ++i) {
        ScriptedFrame f;
        if (!ReadFrame((*list)[i], Item("canFrames.frames", i), f, error)) {
            return false;
        }
        total += f.delayMs;
        s.canScript.frames.push_back(f);
    }
    if (s.canScript.repeat && total == 0) {
        return top.Fail("canFrames.repeat", "a repeated list needs a delay somewhere");
    }
    return true;
}

}  // namespace

bool BaudCodeFromWord(const std::string& word, uint8_t& code) {
    for (size_t i = 0; i < sizeof(kBaudWords) / sizeof(kBaudWords[0]); ++i) {
        if (word == kBaudWords[i]) {
            code = static_cast<uint8_t>(i);
            return true;
        }
    }
    return false;
}

unsigned BaudSpeedOfCode(uint8_t code) {
    return (code >= 1 && code <= 8) ? kBaudSpeeds[code] : 4800;
}

bool ParseScenario(const Json::Value& doc, Scenario& out, std::string& error) {
    error.clear();
    Scenario s;
    Reader top(doc, "", error);
    if (doc.isNull()) {
        out = s;
        return true;
    }
    bool ok = top.OnlyKeys({"productType", "ready", "serial", "can", "ethernet", "ipc", "videoLoss",
                            "digitalVideoLoss", "led", "storage", "vehicle", "ftp", "cpxRelease",
                            "udisk", "mcuPorts", "canFrames", "upgradeFile", "hubUpgradeFile"});
    ok = ok && top.String("upgradeFile", s.upgradeFile) &&
         top.String("hubUpgradeFile", s.hubUpgradeFile);
    if (ok && top.Has("productType")) {
        int type = 0;
        ok = top.Int("productType", INT32_MIN, INT32_MAX, type);
        s.productType = type;
    }
    ok = ok && ReadReady(top, s) && ReadSerial(top, s, error) && ReadCan(top, s, error) &&
         ReadEthernet(top, s, error) && ReadIpc(top, s, error) && ReadVideoLoss(top, s, error) &&
         ReadLed(top, s, error) && ReadStorage(top, s, error) && ReadVehicleAndFtp(top, s, error) &&
         ReadCpxAndDisk(top, s, error) && ReadMcu(top, s, error) && ReadCanFrames(top, s, error);
    if (ok) {
        out = std::move(s);
    }
    return ok;
}

bool ParseScenarioText(const std::string& text, Scenario& out, std::string& error) {
    Json::CharReaderBuilder builder;
    builder["failIfExtra"] = true;
    builder["allowComments"] = true;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value doc;
    std::string why;
    bool parsed = false;
    try {
        parsed = reader->parse(text.data(), text.data() + text.size(), &doc, &why);
    } catch (const std::exception& e) {  // jsoncpp throws past its nesting limit
        why = e.what();
    }
    if (!parsed) {
        while (!why.empty() && (why.back() == '\n' || why.back() == ' ')) {
            why.pop_back();
        }
        error = "not JSON: " + why;
        return false;
    }
    return ParseScenario(doc, out, error);
}

bool LoadScenarioFile(const std::string& path, Scenario& out, std::string& error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = path + ": " + strerror(errno);
        return false;
    }
    std::stringstream text;
    text << in.rdbuf();
    if (!ParseScenarioText(text.str(), out, error)) {
        error = path + ": " + error;
        return false;
    }
    return true;
}

bool SameScript(const CanScript& a, const CanScript& b) {
    if (a.startNow != b.startNow || a.repeat != b.repeat || a.frames.size() != b.frames.size()) {
        return false;
    }
    for (size_t i = 0; i < a.frames.size(); ++i) {
        const ScriptedFrame& x = a.frames[i];
        const ScriptedFrame& y = b.frames[i];
        if (x.delayMs != y.delayMs || x.port != y.port || !(x.frame == y.frame)) {
            return false;
        }
    }
    return true;
}

bool SameMcuLinks(const std::vector<McuLink>& a, const std::vector<McuLink>& b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i].index != b[i].index || a[i].link != b[i].link) {
            return false;
        }
    }
    return true;
}

}  // namespace pmrecorder
