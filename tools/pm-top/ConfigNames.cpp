#include "ConfigNames.h"

#include <cstdlib>

#include "SysConfig.h"

namespace pmtop {

namespace {

void ReadFamilies(const Json::Value& list, const char* idKey, const char* libKey,
                  const char* enableKey, std::map<uint32_t, std::string>& out) {
    if (!list.isArray()) {
        return;
    }
    for (const Json::Value& entry : list) {
        if (!entry.isObject() || !entry[idKey].isInt() || !entry[libKey].isString()) {
            continue;
        }
        if (enableKey != nullptr &&
            !(entry[enableKey].isString() && entry[enableKey].asString() == "true")) {
            continue;
        }
        out[static_cast<uint32_t>(entry[idKey].asInt())] = NameOfLibrary(entry[libKey].asString());
    }
}

}  // namespace

std::string NameOfLibrary(const std::string& library) {
    std::string name = library;
    if (name.rfind("lib", 0) == 0 && name.size() > 3) {
        name.erase(0, 3);
    }
    const size_t so = name.rfind(".so");
    if (so != std::string::npos && so > 0) {
        name.erase(so);
    }
    return name;
}

ConfigNames NamesFromDocument(const Json::Value& doc) {
    ConfigNames names;
    if (!doc.isObject()) {
        return names;
    }
    ReadFamilies(doc["DEVICE_SERIAL_SETTING"], "DEV_SERIAL_FUNCID", "DEV_SERIAL_LIB_NAME", nullptr,
                 names.serial);
    ReadFamilies(doc["DEVICE_CANPORT_SETTING"], "DEV_CANPORT_FUNCID", "DEV_CANPORT_LIB_NAME",
                 "DEV_CANPORT_SUPPORT_ENABLE", names.can);
    ReadFamilies(doc["DEVICE_ETHERNET_SETTING"], "DEV_ETHERNET_FUNCID", "DEV_ETHERNET_LIB_NAME",
                 "DEV_ETHERNET_SUPPORT_ENABLE", names.ethernet);
    const Json::Value& settings = doc["DEVICE_PERIPHERAL_PARAM_SETTING"];
    const Json::Value& ports = settings.isObject() ? settings["SERIAL_PARAM"] : Json::Value();
    if (ports.isArray()) {
        for (const Json::Value& port : ports) {
            if (!port.isObject() || !port["PATH"].isString() || !port["POSITION"].isInt()) {
                continue;
            }
            const int position = port["POSITION"].asInt();
            names.portPath[position] = port["PATH"].asString();
            if (port["NAME"].isString()) {
                names.portName[position] = port["NAME"].asString();
            }
        }
    }
    return names;
}

bool LoadConfigNames(const std::string& root, ConfigNames& out, std::string& error) {
    // The platform finds every document below RECORDER_ROOT; pm-top reads nothing else from
    // the root, so pointing it there is all that --root has to do.
    if (setenv("RECORDER_ROOT", root.c_str(), 1) != 0) {
        error = "cannot use the recorder root " + root;
        return false;
    }
    Json::Value doc;
    if (Q7R_GetJsonByEnv("DEVICE_SERIAL_EXTEND_CFG", doc) != 0) {
        error = "no readable DEVICE_SERIAL_EXTEND_CFG below " + root;
        return false;
    }
    out = NamesFromDocument(doc);
    return true;
}

}  // namespace pmtop
