#include "SysConfig.h"
#include "SysConfigInternal.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <exception>
#include <fstream>

#include "CommonLog.h"

namespace {

constexpr const char kLogTag[] = "SYS_CONFIG: ";

}  // namespace

namespace Common {

std::string RecorderPath(const std::string& absolutePath) {
    const char* root = getenv("RECORDER_ROOT");
    if (root == nullptr || *root == '\0' || absolutePath.empty() || absolutePath[0] != '/') {
        return absolutePath;
    }
    std::string rooted(root);
    while (!rooted.empty() && rooted.back() == '/') {
        rooted.pop_back();
    }
    return rooted + absolutePath;
}

// Shared with the toolkit's language tables. `recorderPath` is the path on the recorder;
// RECORDER_ROOT is applied here.
int LoadJsonFile(const std::string& recorderPath, Json::Value& out) {
    const std::string path = RecorderPath(recorderPath);
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        PM_LOG(0, kLogTag, "cannot read %s: %s\n", path.c_str(), strerror(errno));
        return -1;
    }
    // A fifo or a device would block or never end.
    if (!S_ISREG(st.st_mode)) {
        PM_LOG(0, kLogTag, "cannot read %s: not a regular file\n", path.c_str());
        return -1;
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        PM_LOG(0, kLogTag, "cannot open %s: %s\n", path.c_str(), strerror(errno));
        return -1;
    }

    Json::CharReaderBuilder builder;
    builder["failIfExtra"] = true;  // a document with trailing garbage is a damaged document
    Json::Value doc;
    std::string errors;
    bool parsed = false;
    try {
        parsed = Json::parseFromStream(builder, in, &doc, &errors);
    } catch (const std::exception& e) {  // jsoncpp throws on nesting beyond its stack limit
        errors = e.what();
    }
    if (!parsed) {
        while (!errors.empty() && (errors.back() == '\n' || errors.back() == ' ')) {
            errors.pop_back();
        }
        PM_LOG(0, kLogTag, "cannot parse %s: %s\n", path.c_str(), errors.c_str());
        return -1;
    }
    out.swap(doc);
    return 0;
}

}  // namespace Common

namespace {

// SYSTEM_CONFIG is read afresh on every call: these run a few times at start-up, and a
// cache would hide a document that changes under a test.
int SystemConfigInt(const char* key, int fallback, int minimum) {
    Json::Value doc;
    if (Q7R_GetSpecInfo(doc) != 0 || !doc.isObject()) {
        return fallback;
    }
    const Json::Value value = doc.get(key, Json::Value());
    if (value.isNull()) {
        return fallback;
    }
    if (!value.isInt() || value.asInt() < minimum) {
        PM_LOG(1, kLogTag, "SYSTEM_CONFIG %s is not a valid number, using %d\n", key, fallback);
        return fallback;
    }
    return value.asInt();
}

}  // namespace

int Q7R_GetJsonByEnv(const char* name, Json::Value& out) {
    if (name == nullptr || *name == '\0') {
        PM_LOG(0, kLogTag, "no document name\n");
        return -1;
    }
    return Common::LoadJsonFile(Common::DocumentPath(name), out);
}

std::string Common::DocumentPath(const char* name) {
    const char* fromEnv = getenv(name);
    return (fromEnv != nullptr && *fromEnv != '\0') ? std::string(fromEnv)
                                                    : std::string("/usr/local/cfg/") + name;
}

int Q7R_GetSpecInfo(Json::Value& out) {
    return Q7R_GetJsonByEnv("SYSTEM_CONFIG", out);
}

eProductType Q7R_GetProductType() {
    return SystemConfigInt("PRODUCT_TYPE", kDefaultProductType, INT_MIN);
}

unsigned int Q7R_GetVichnNum() {
    return static_cast<unsigned int>(SystemConfigInt("VI_CHN_NUM", kDefaultViChnNum, 0));
}

unsigned int Q7R_GetDigitalchnNum() {
    return static_cast<unsigned int>(SystemConfigInt("DIGITAL_CHN_NUM", kDefaultDigitalChnNum, 0));
}
