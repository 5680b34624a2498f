#include "GuiToolkit.h"

#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include <json/json.h>

#include "CommonLog.h"
#include "SysConfig.h"
#include "SysConfigInternal.h"

namespace {

constexpr const char kLogTag[] = "GUI_TK: ";

struct TextTable {
    std::mutex lock;
    // Never shrinks: every pointer handed out points into it. Node-based, so elements
    // do not move when it grows.
    std::unordered_set<std::string> interned;
    std::unordered_map<std::string, const char*> texts;  // id -> interned text
    bool loaded = false;
};

TextTable& Table() {
    static TextTable* table = new TextTable();  // never destroyed: texts outlive static teardown
    return *table;
}

const char* Intern(TextTable& table, const std::string& text) {
    return table.interned.insert(text).first->c_str();
}

// The language name becomes part of a path; anything that could leave lang/ is refused.
bool IsPlainName(const std::string& name) {
    return !name.empty() && name.find('/') == std::string::npos && name != "." && name != "..";
}

std::string CurrentLanguage() {
    Json::Value systemConfig;
    if (Q7R_GetSpecInfo(systemConfig) == 0 && systemConfig.isObject()) {
        const Json::Value language = systemConfig.get("LANGUAGE", Json::Value());
        if (language.isString() && IsPlainName(language.asString())) {
            return language.asString();
        }
    }
    return "en";
}

// A missing or damaged table is remembered as empty until the next reload, so that every
// lookup does not read the disk again.
void Load(TextTable& table) {
    table.texts.clear();
    table.loaded = true;
    const std::string language = CurrentLanguage();
    Json::Value doc;
    if (Common::LoadJsonFile("/usr/local/cfg/lang/" + language + ".json", doc) != 0) {
        return;
    }
    if (!doc.isObject()) {
        PM_LOG(0, kLogTag, "language table %s is not an object\n", language.c_str());
        return;
    }
    for (const std::string& id : doc.getMemberNames()) {
        const Json::Value& text = doc[id];
        if (text.isString()) {
            table.texts[id] = Intern(table, text.asString());
        }
    }
    PM_LOG(1, kLogTag, "language %s loaded, %zu texts\n", language.c_str(), table.texts.size());
}

}  // namespace

const char* GuiTKGetText(const void* /*context*/, const void* /*widget*/, const char* id) {
    if (id == nullptr) {
        return "";
    }
    TextTable& table = Table();
    std::lock_guard<std::mutex> guard(table.lock);
    if (!table.loaded) {
        Load(table);
    }
    auto found = table.texts.find(id);
    if (found != table.texts.end()) {
        return found->second;
    }
    // The caller's id may be a temporary; the answer must outlive it.
    return Intern(table, id);
}

void GuiTKReloadLanguage() {
    TextTable& table = Table();
    std::lock_guard<std::mutex> guard(table.lock);
    table.texts.clear();
    table.loaded = false;
}
