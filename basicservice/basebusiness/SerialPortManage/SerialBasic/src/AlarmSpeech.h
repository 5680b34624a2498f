// The alarm speech document turned into the records plug-ins play, without the bus or the
// manager: what each entry of "ALARM_TTS_PARAM" makes, and which entries make nothing.
#ifndef SERIALBASIC_ALARM_SPEECH_H
#define SERIALBASIC_ALARM_SPEECH_H

#include <cstddef>
#include <vector>

#include <json/json.h>

#include "PeripheralDefine.h"

namespace speech {

constexpr const char kDocument[] = "ALARM_TTS_CFG";
constexpr const char kDocumentPath[] = "/usr/local/cfg/ALARM_TTS_CFG";
constexpr size_t kTextSize = 128;
constexpr size_t kTailSize = 65;  // a record's bytes besides its text's characters

struct Entry {
    unsigned int mainId;
    unsigned int subId;
    char text[kTextSize];  // the translated content, with its line end
    LinkSpeech_t* record;  // malloc'd: whoever keeps it frees it
};

// One entry per complete entry of the document, in document order. The content is translated
// into the recorder's language on the way.
std::vector<Entry> RecordsFrom(const Json::Value& document);

// The record's bytes, for telling equal records apart.
size_t RecordSize(const LinkSpeech_t* record);

}  // namespace speech

#endif
