// A folder that stands in for the recorder's file system (RECORDER_ROOT). The service opens
// the main-chip ttys named in its peripheral configuration as they are written there, not
// below the root, so a demo root names them by their full path inside the folder.
#ifndef TOOLS_PM_RECORDER_RECORDER_ROOT_H
#define TOOLS_PM_RECORDER_RECORDER_ROOT_H

#include <optional>
#include <string>
#include <vector>

namespace pmrecorder {

constexpr const char* kPeripheralConfig = "/usr/local/cfg/DEVICE_SERIAL_EXTEND_CFG";
constexpr const char* kSystemConfig = "/usr/local/cfg/SYSTEM_CONFIG";
constexpr const char* kPeerSuffix = ".peer";

// `path` itself when absolute or when there is no root, else root/path.
std::string ResolveInRoot(const std::string& root, const std::string& path);

// Copies `templateDir` into `dir` (created, files overwritten) and rewrites every absolute
// "PATH" of the peripheral configuration's "SERIAL_PARAM" to lie below `dir`
// ("/dev/ttyAMA2" -> "<dir>/dev/ttyAMA2", which still names a ttyAMA port). With a product
// type, SYSTEM_CONFIG's "PRODUCT_TYPE" is set to it. False with the reason on failure.
bool MakeRecorderRoot(const std::string& templateDir, const std::string& dir,
                      std::optional<int> productType, std::string& error);

// The main-chip tty paths of the root's peripheral configuration that lie below the root:
// the ones the simulator stands in for.
bool MainChipTtysInRoot(const std::string& root, std::vector<std::string>& paths,
                        std::string& error);

}  // namespace pmrecorder

#endif
