#include "ConfigDocument.h"

namespace doc {

const Json::Value& Member(const Json::Value& object, const char* key) {
    static const Json::Value kNull;
    return object.isObject() ? object[key] : kNull;
}

const Json::Value& Array(const Json::Value& object, const char* key) {
    static const Json::Value kEmpty(Json::arrayValue);
    const Json::Value& member = Member(object, key);
    return member.isArray() ? member : kEmpty;
}

std::string Text(const Json::Value& object, const char* key) {
    const Json::Value& member = Member(object, key);
    return member.isString() ? member.asString() : std::string();
}

int Int(const Json::Value& object, const char* key) {
    const Json::Value& member = Member(object, key);
    return member.isInt() ? member.asInt() : 0;
}

}  // namespace doc
