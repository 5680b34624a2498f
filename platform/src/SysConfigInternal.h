// Shared inside the platform library only.
#ifndef PLATFORM_SYS_CONFIG_INTERNAL_H
#define PLATFORM_SYS_CONFIG_INTERNAL_H

#include <string>

#include <json/json.h>

namespace Common {
// Parses the JSON file at a path of the recorder (RECORDER_ROOT applied). 0, or -1 (logged).
int LoadJsonFile(const std::string& recorderPath, Json::Value& out);
// The recorder path of the document `name`, as Q7R_GetJsonByEnv finds it.
std::string DocumentPath(const char* name);
}  // namespace Common

#endif
