#include "RecorderRoot.h"

#include <errno.h>
#include <string.h>

#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <system_error>

#include <json/json.h>

namespace pmrecorder {

namespace fs = std::filesystem;

namespace {

bool ReadJson(const std::string& path, Json::Value& out, std::string& error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = path + ": " + strerror(errno);
        return false;
    }
    Json::CharReaderBuilder builder;
    std::string why;
    bool parsed = false;
    try {
        parsed = Json::parseFromStream(builder, in, &out, &why);
    } catch (const std::exception& e) {
        why = e.what();
    }
    if (!parsed) {
        error = path + ": not JSON: " + why;
    }
    return parsed;
}

bool WriteJson(const std::string& path, const Json::Value& doc, std::string& error) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (out) {
        std::unique_ptr<Json::StreamWriter> writer(builder.newStreamWriter());
        writer->write(doc, &out);
        out << "\n";
    }
    if (!out) {
        error = "cannot write " + path + ": " + strerror(errno);
        return false;
    }
    return true;
}

std::string Trimmed(std::string dir) {
    while (dir.size() > 1 && dir.back() == '/') {
        dir.pop_back();
    }
    return dir;
}

Json::Value* SerialParams(Json::Value& doc) {
    if (!doc.isObject() || !doc.isMember("DEVICE_PERIPHERAL_PARAM_SETTING")) {
        return nullptr;
    }
    Json::Value& setting = doc["DEVICE_PERIPHERAL_PARAM_SETTING"];
    if (!setting.isObject() || !setting.isMember("SERIAL_PARAM")) {
        return nullptr;
    }
    Json::Value& list = setting["SERIAL_PARAM"];
    return list.isArray() ? &list : nullptr;
}

bool HasPath(const Json::Value& entry) {
    return entry.isObject() && entry.isMember("PATH") && entry["PATH"].isString();
}

}  // namespace

std::string ResolveInRoot(const std::string& root, const std::string& path) {
    if (root.empty() || path.empty() || path[0] == '/') {
        return path;
    }
    return Trimmed(root) + "/" + path;
}

bool MakeRecorderRoot(const std::string& templateDir, const std::string& dir,
                      std::optional<int> productType, std::string& error) {
    std::error_code ec;
    if (!fs::is_directory(templateDir, ec)) {
        error = "template " + templateDir + " is not a folder";
        return false;
    }
    fs::create_directories(dir, ec);
    fs::copy(templateDir, dir, fs::copy_options::recursive | fs::copy_options::overwrite_existing,
             ec);
    if (ec) {
        error = "cannot copy " + templateDir + " to " + dir + ": " + ec.message();
        return false;
    }
    std::string root = Trimmed(fs::absolute(dir, ec).lexically_normal().string());
    std::string config = root + kPeripheralConfig;
    Json::Value doc;
    if (!ReadJson(config, doc, error)) {
        return false;
    }
    if (Json::Value* params = SerialParams(doc)) {
        for (Json::Value& entry : *params) {
            if (HasPath(entry) && entry["PATH"].asString().rfind('/', 0) == 0) {
                entry["PATH"] = root + entry["PATH"].asString();
            }
        }
    }
    if (!WriteJson(config, doc, error)) {
        return false;
    }
    if (!productType) {
        return true;
    }
    Json::Value system(Json::objectValue);
    std::string systemPath = root + kSystemConfig;
    if (fs::exists(systemPath, ec) && !ReadJson(systemPath, system, error)) {
        return false;
    }
    if (!system.isObject()) {
        error = systemPath + ": not a JSON object";
        return false;
    }
    system["PRODUCT_TYPE"] = *productType;
    return WriteJson(systemPath, system, error);
}

bool MainChipTtysInRoot(const std::string& rootDir, std::vector<std::string>& paths,
                        std::string& error) {
    paths.clear();
    std::error_code ec;
    std::string root = Trimmed(fs::absolute(rootDir, ec).lexically_normal().string());
    Json::Value doc;
    if (!ReadJson(root + kPeripheralConfig, doc, error)) {
        return false;
    }
    if (Json::Value* params = SerialParams(doc)) {
        for (const Json::Value& entry : *params) {
            if (HasPath(entry) && entry["PATH"].asString().rfind(root + "/", 0) == 0) {
                paths.push_back(entry["PATH"].asString());
            }
        }
    }
    return true;
}

}  // namespace pmrecorder
