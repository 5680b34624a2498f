#include "AlarmSpeech.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "BusWire.h"
#include "CommonLog.h"
#include "ConfigDocument.h"
#include "GuiToolkit.h"

namespace speech {
namespace {

constexpr const char kLogTag[] = "S_MANAGE: ";
const char* const kIntKeys[] = {"PLAY_TIMES", "INTERVAL", "HANDLE_TYPE", "AO_CHN",
                                "LABABIT",    "MAIN_ID",  "SUB_ID"};

// "EXCUTE_TYPE" and "VOLUMN" are taken as whatever number they hold (80.5 reads 80, true 1,
// absent 0), as the recorder has always read them. What no int can hold reads as 0, logged.
int Number(const Json::Value& object, const char* key) {
    const Json::Value& member = doc::Member(object, key);
    if (member.isConvertibleTo(Json::intValue)) {
        return member.asInt();
    }
    PM_LOG(0, kLogTag, "Analy TTS alarm config, %s is no number, read as 0\n", key);
    return 0;
}

bool Complete(const Json::Value& entry) {
    if (!doc::Member(entry, "CONTENT").isString()) {
        return false;
    }
    for (const char* key : kIntKeys) {
        if (!doc::Member(entry, key).isInt()) {
            return false;
        }
    }
    return true;
}

// The record of one checked entry; null when there is no memory.
LinkSpeech_t* MakeRecord(const Json::Value& entry, const char* text) {
    const size_t length = strlen(text);
    auto* bytes = static_cast<uint8_t*>(calloc(1, length + kTailSize));
    if (bytes == nullptr) {
        return nullptr;
    }
    const int aoChn = doc::Int(entry, "AO_CHN");
    const int volume = Number(entry, "VOLUMN");
    const int lababit = doc::Int(entry, "LABABIT");
    bytes[0] = static_cast<uint8_t>(doc::Int(entry, "PLAY_TIMES"));
    bytes[1] = static_cast<uint8_t>(doc::Int(entry, "INTERVAL"));
    Common::PutLe16(bytes + 2, static_cast<uint32_t>(length + 57));
    Common::PutLe32(bytes + 8, 4);
    bytes[12] = static_cast<uint8_t>(doc::Int(entry, "HANDLE_TYPE"));
    bytes[13] = static_cast<uint8_t>(Number(entry, "EXCUTE_TYPE"));
    Common::PutLe32(bytes + 32, 552);
    Common::PutLe32(bytes + 36, 553);
    Common::PutLe32(bytes + 40, static_cast<uint32_t>(length + 9));
    Common::PutLe32(bytes + 44, 8);
    bytes[48] = static_cast<uint8_t>(aoChn);
    bytes[49] = static_cast<uint8_t>(volume);
    Common::PutLe16(bytes + 50, static_cast<uint32_t>(length + 1));
    bytes[52] = static_cast<uint8_t>(lababit);
    memcpy(bytes + 56, text, length + 1);
    bytes[57 + length] = static_cast<uint8_t>(aoChn);
    bytes[58 + length] = static_cast<uint8_t>(volume);
    bytes[61 + length] = static_cast<uint8_t>(lababit);
    return reinterpret_cast<LinkSpeech_t*>(bytes);
}

}  // namespace

std::vector<Entry> RecordsFrom(const Json::Value& document) {
    std::vector<Entry> out;
    const Json::Value& entries = doc::Array(document, "ALARM_TTS_PARAM");
    for (Json::ArrayIndex i = 0; i < entries.size(); ++i) {
        const Json::Value& entry = entries[i];
        if (!Complete(entry)) {
            continue;
        }
        Entry made{};
        snprintf(made.text, sizeof(made.text), "%s\n",
                 GuiTKGetText(nullptr, nullptr, doc::Member(entry, "CONTENT").asCString()));
        made.record = MakeRecord(entry, made.text);
        if (made.record == nullptr) {
            continue;
        }
        made.mainId = static_cast<unsigned int>(doc::Int(entry, "MAIN_ID"));
        made.subId = static_cast<unsigned int>(doc::Int(entry, "SUB_ID"));
        out.push_back(made);
    }
    return out;
}

size_t RecordSize(const LinkSpeech_t* record) {
    return strlen(record->szText) + kTailSize;
}

}  // namespace speech
