// Names of the bus events that the recorder and this service use, for the desktop tools.
#ifndef TOOLS_COMMON_EVENT_NAMES_H
#define TOOLS_COMMON_EVENT_NAMES_H

#include <cstdint>
#include <string>
#include <vector>

namespace pmtools {

struct EventName {
    uint32_t id;
    const char* name;
    const char* what;  // one line for `pm-bus names`
};

// Every named event, in ascending id order. Answers (id | 0x8000) are not listed: their name
// is the request's name followed by ".answer".
const std::vector<EventName>& EventTable();

// The name of `id` ("get-serial-param", "get-serial-param.answer"), or "" when unknown.
std::string NameOfEvent(uint32_t id);

// Reads an event id given as decimal, 0x hex, or a name of the table (with or without
// ".answer"). Returns false for anything else, including values beyond 32 bits.
bool ParseEventId(const std::string& text, uint32_t& id);

// Reads a comma-separated list of ids as ParseEventId does; false on the first bad entry,
// whose text is stored in `bad`.
bool ParseEventIdList(const std::string& text, std::vector<uint32_t>& ids, std::string& bad);

// Reads an unsigned decimal or 0x hex number up to `max`.
bool ParseNumber(const std::string& text, uint64_t max, uint64_t& value);

}  // namespace pmtools

#endif
