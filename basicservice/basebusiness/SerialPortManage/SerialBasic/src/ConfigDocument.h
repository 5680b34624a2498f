// Reading the recorder's configuration documents without trusting their shape.
#ifndef SERIALBASIC_CONFIG_DOCUMENT_H
#define SERIALBASIC_CONFIG_DOCUMENT_H

#include <string>

#include <json/json.h>

namespace doc {

// jsoncpp throws when a non-object is indexed by key or a non-array by number; a damaged
// document must read as an empty one instead.
const Json::Value& Member(const Json::Value& object, const char* key);
const Json::Value& Array(const Json::Value& object, const char* key);
std::string Text(const Json::Value& object, const char* key);
int Int(const Json::Value& object, const char* key);  // 0 unless an int is there

}  // namespace doc

#endif
