#include "GuiToolkit.h"

#include <sys/stat.h>

#include <exception>
#include <fstream>
#include <iterator>
#include <memory>
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
constexpr size_t kSystemConfigMaxSize = 1 << 20;

// What a language table file looked like when it was loaded.
struct FileStamp {
    bool present = false;
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    long long modifiedNs = 0;

    bool operator==(const FileStamp& other) const {
        return present == other.present && device == other.device && inode == other.inode &&
               size == other.size && modifiedNs == other.modifiedNs;
    }
};

FileStamp StampOf(const std::string& path) {
    FileStamp stamp;
    struct stat st;
    if (stat(path.c_str(), &st) == 0) {
        stamp.present = true;
        stamp.device = st.st_dev;
        stamp.inode = st.st_ino;
        stamp.size = st.st_size;
        stamp.modifiedNs = st.st_mtim.tv_sec * 1000000000LL + st.st_mtim.tv_nsec;
    }
    return stamp;
}

struct TextTable {
    std::mutex lock;
    // Never shrinks: every pointer handed out points into it. Node-based, so elements
    // do not move when it grows.
    std::unordered_set<std::string> interned;
    std::unordered_map<std::string, const char*> texts;  // id -> interned text
    bool loaded = false;
    // What the texts were loaded from: SYSTEM_CONFIG as it read (it names the language), and
    // the table's path and stamp. A lookup that finds either changed loads the texts again.
    std::string systemConfig;
    std::string tablePath;
    FileStamp tableStamp;
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

// SYSTEM_CONFIG's bytes, read on every lookup: a small file, and the only sure sign that the
// user switched the language (a rewrite within one clock tick keeps its time stamp).
std::string ReadSystemConfig() {
    const std::string path = Common::RecorderPath(Common::DocumentPath("SYSTEM_CONFIG"));
    std::string bytes;
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode) ||
        static_cast<size_t>(st.st_size) > kSystemConfigMaxSize) {
        return bytes;
    }
    std::ifstream in(path, std::ios::binary);
    bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return bytes;
}

std::string LanguageOf(const std::string& systemConfig) {
    Json::Value doc;
    Json::CharReaderBuilder builder;
    std::string errors;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    bool parsed = false;
    try {
        parsed = reader->parse(systemConfig.data(), systemConfig.data() + systemConfig.size(), &doc,
                               &errors);
    } catch (const std::exception&) {  // nesting beyond jsoncpp's stack limit
        parsed = false;
    }
    if (parsed && doc.isObject()) {
        const Json::Value language = doc.get("LANGUAGE", Json::Value());
        if (language.isString() && IsPlainName(language.asString())) {
            return language.asString();
        }
    }
    return "en";
}

// A missing or damaged table is remembered as empty until the language or the table
// changes, so that every lookup does not read the disk again.
void Load(TextTable& table, const std::string& systemConfig) {
    table.texts.clear();
    table.loaded = true;
    table.systemConfig = systemConfig;
    const std::string language = LanguageOf(systemConfig);
    const std::string recorderPath = "/usr/local/cfg/lang/" + language + ".json";
    table.tablePath = Common::RecorderPath(recorderPath);
    table.tableStamp = StampOf(table.tablePath);
    Json::Value doc;
    if (Common::LoadJsonFile(recorderPath, doc) != 0) {
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
    const std::string systemConfig = ReadSystemConfig();
    std::lock_guard<std::mutex> guard(table.lock);
    if (!table.loaded || systemConfig != table.systemConfig ||
        !(StampOf(table.tablePath) == table.tableStamp)) {
        Load(table, systemConfig);
    }
    auto found = table.texts.find(id);
    if (found != table.texts.end()) {
        return found->second;
    }
    // The caller's id may be a temporary; the answer must outlive it.
    return Intern(table, id);
}

void GuiTKResetForTest() {
    TextTable& table = Table();
    std::lock_guard<std::mutex> guard(table.lock);
    table.texts.clear();
    table.loaded = false;
}
