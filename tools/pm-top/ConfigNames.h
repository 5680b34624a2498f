// Names for what the bus carries as numbers, from the recorder's peripheral configuration
// document: protocol families by main id, main-chip ports by position.
#ifndef TOOLS_PM_TOP_CONFIG_NAMES_H
#define TOOLS_PM_TOP_CONFIG_NAMES_H

#include <cstdint>
#include <map>
#include <string>

#include <json/json.h>

namespace pmtop {

struct ConfigNames {
    std::map<uint32_t, std::string> serial;    // main id -> "GpsNmea"
    std::map<uint32_t, std::string> can;       // main id -> "can_j1939"
    std::map<uint32_t, std::string> ethernet;  // main id -> "eth_tcp_client"
    std::map<int, std::string> portPath;       // position -> "/dev/ttyAMA2"
    std::map<int, std::string> portName;       // position -> "232-1"
};

// Reads the document as the service does; entries it would skip are skipped here too.
ConfigNames NamesFromDocument(const Json::Value& doc);

// The document "DEVICE_SERIAL_EXTEND_CFG" below the recorder root `root`. False with the
// reason in `error` when it is missing or unreadable; `out` is then left empty.
bool LoadConfigNames(const std::string& root, ConfigNames& out, std::string& error);

// "libGpsNmea.so" -> "GpsNmea": the library names are what people call the protocols.
std::string NameOfLibrary(const std::string& library);

}  // namespace pmtop

#endif
