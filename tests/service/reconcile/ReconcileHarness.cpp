#include "ReconcileHarness.h"

#include <dirent.h>
#include <dlfcn.h>
#include <limits.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

namespace rectest {

// Main ids 1 and 149 name a library too, as recorders' configurations do: the built-in boxes
// must not be looked for in the plug-in folder all the same.
const char* const kConfig = R"({
  "DEVICE_SERIAL_SETTING": [
    {"DEV_SERIAL_FUNCID": 7, "DEV_SERIAL_LIB_NAME": "libTestSerialProbe",
     "DEV_SERIAL_BAUD_RATE": "B9600",
     "DEV_SERIAL_SUB_FUNCTION": [{"DEV_SERIAL_SUB_FUNCID": 1}, {"DEV_SERIAL_SUB_FUNCID": 2}]},
    {"DEV_SERIAL_FUNCID": 8, "DEV_SERIAL_LIB_NAME": "libTestSerialProbe"},
    {"DEV_SERIAL_FUNCID": 40, "DEV_SERIAL_LIB_NAME": "libTestNullCreate"},
    {"DEV_SERIAL_FUNCID": 41, "DEV_SERIAL_LIB_NAME": "libTestNoRelease"},
    {"DEV_SERIAL_FUNCID": 42, "DEV_SERIAL_LIB_NAME": "libTestNoCreate"},
    {"DEV_SERIAL_FUNCID": 43, "DEV_SERIAL_LIB_NAME": "libTestDup"},
    {"DEV_SERIAL_FUNCID": 44, "DEV_SERIAL_LIB_NAME": "libTestUnloadable"},
    {"DEV_SERIAL_FUNCID": 45, "DEV_SERIAL_LIB_NAME": "libTestMissingFile"},
    {"DEV_SERIAL_FUNCID": 1, "DEV_SERIAL_LIB_NAME": "libTestSerialProbe"},
    {"DEV_SERIAL_FUNCID": 149, "DEV_SERIAL_LIB_NAME": "libTestSerialProbe"}
  ],
  "DEVICE_CANPORT_SETTING": [
    {"DEV_CANPORT_FUNCID": 12, "DEV_CANPORT_LIB_NAME": "libTestCanProbe",
     "DEV_CANPORT_SUPPORT_ENABLE": "true"}
  ],
  "DEVICE_ETHERNET_SETTING": [
    {"DEV_ETHERNET_FUNCID": 20, "DEV_ETHERNET_LIB_NAME": "libTestEthProbe",
     "DEV_ETHERNET_SUPPORT_ENABLE": "true"}
  ],
  "DEVICE_PERIPHERAL_PARAM_SETTING": {"SERIAL_PARAM": [
    {"NAME": "232-1", "POSITION": 4},
    {"NAME": "232-2", "POSITION": 5},
    {"NAME": "485-1", "POSITION": 6},
    {"NAME": "COM", "POSITION": 7},
    {"NAME": "485-2", "POSITION": 7},
    {"NAME": 485, "POSITION": 8},
    {"NAME": "485-2", "POSITION": 8},
    {"NAME": "232", "POSITION": 9},
    {"NAME": "85-1", "POSITION": 10},
    {"NAME": "", "POSITION": 11}
  ]}
})";

namespace {

const char* const kConfigPath = "/cfg/peripheral.json";  // below RECORDER_ROOT

// Test binaries live in build/tests/; the service runs in build/bin/.
std::string BinDirectory() {
    std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe");
    std::filesystem::path bin = exe.parent_path().parent_path() / "bin";
    std::filesystem::create_directories(bin);
    return bin.string();
}

}  // namespace

ReconcileEnv::ReconcileEnv()
    : m_rootEnv("RECORDER_ROOT", m_root.Path()), m_cfgEnv("DEVICE_SERIAL_EXTEND_CFG", kConfigPath) {
    m_root.Write(std::string(kConfigPath).substr(1), kConfig);
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof(cwd)) != nullptr) {
        m_oldCwd = cwd;
    }
    if (chdir(BinDirectory().c_str()) != 0) {
        throw std::runtime_error("cannot enter the bin folder");
    }
}

ReconcileEnv::~ReconcileEnv() {
    if (!m_oldCwd.empty() && chdir(m_oldCwd.c_str()) != 0) {
        perror("chdir");
    }
}

std::vector<std::string> TestManage::LiveIds() const {
    std::vector<std::string> ids;
    for (const PeripheralProperty_t& record : m_listPeripheralPlugin) {
        if (record.pInstance == nullptr) {
            ids.push_back("none");
            continue;
        }
        ids.push_back(std::to_string(record.pInstance->GetPeripheralType()) + ":" +
                      std::to_string(record.pInstance->GetMainId()) + ":" +
                      std::to_string(record.pInstance->GetSubId()));
    }
    return ids;
}

paramSerialSetting_t SerialRecord(const std::vector<PortSpec>& ports,
                                  const std::vector<ChildSpec>& children) {
    paramSerialSetting_t record{};
    for (const PortSpec& p : ports) {
        record.port[p.port].mainFun = p.mainFun;
        record.port[p.port].subFun = p.subFun;
        record.port[p.port].baudrate = p.baudrate;
    }
    for (const ChildSpec& c : children) {
        SerialExtendEntry_t& entry = record.port[c.port].extend[c.index];
        entry.mainFun = c.mainFun;
        entry.subFun = c.subFun;
        entry.baudrate = c.baudrate;
    }
    return record;
}

std::vector<uint8_t> Bytes(const void* record, size_t size) {
    const auto* bytes = static_cast<const uint8_t*>(record);
    return std::vector<uint8_t>(bytes, bytes + size);
}

std::string Journal(const char* event, const char* library, int type, unsigned int mainId,
                    unsigned int subId) {
    return std::string("TEST_PLUGIN: ") + event + " " + library + " type=" + std::to_string(type) +
           " main=" + std::to_string(mainId) + " sub=" + std::to_string(subId);
}

std::vector<std::string> Texts(const pmtest::LogCapture& logs) {
    std::vector<std::string> texts;
    for (const Common::LogRecord& record : logs.Records()) {
        texts.push_back(record.text);
    }
    return texts;
}

std::string MissingInOrder(const std::vector<std::string>& texts,
                           const std::vector<std::string>& prefixes) {
    size_t at = 0;
    for (const std::string& prefix : prefixes) {
        while (at < texts.size() && texts[at].compare(0, prefix.size(), prefix) != 0) {
            ++at;
        }
        if (at == texts.size()) {
            return "\"" + prefix + "\" (in this order)";
        }
        ++at;
    }
    return std::string();
}

size_t CountPrefix(const std::vector<std::string>& texts, const std::string& prefix) {
    size_t n = 0;
    for (const std::string& text : texts) {
        n += text.compare(0, prefix.size(), prefix) == 0 ? 1 : 0;
    }
    return n;
}

std::string PluginPath(const char* kind, const std::string& file) {
    return std::string("../plugin/") + kind + "/" + file;
}

void* LoadedHandle(const std::string& path) {
    void* handle = dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    if (handle != nullptr) {
        dlclose(handle);  // NOLOAD took a reference of its own
    }
    return handle;
}

std::string FirstEntryContaining(const std::string& folder, const std::string& needle) {
    DIR* dir = opendir(folder.c_str());
    if (dir == nullptr) {
        return std::string();
    }
    std::string found;
    while (struct dirent* entry = readdir(dir)) {
        if (strstr(entry->d_name, needle.c_str()) != nullptr) {
            found = entry->d_name;
            break;
        }
    }
    closedir(dir);
    return found;
}

}  // namespace rectest
