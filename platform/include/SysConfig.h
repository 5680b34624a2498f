// System-configuration library of the recorder, desktop build.
#ifndef PLATFORM_SYS_CONFIG_H
#define PLATFORM_SYS_CONFIG_H

#include <string>

#include <json/json.h>

// Product type of the recorder (SYSTEM_CONFIG "PRODUCT_TYPE"). Plain int values; the
// service compares them with literal numbers.
typedef int eProductType;

// Defaults used when SYSTEM_CONFIG or one of its keys is missing.
enum : int {
    kDefaultProductType = 0,
    kDefaultViChnNum = 4,
    kDefaultDigitalChnNum = 0,
};

// Loads the JSON document `name`: its path is the value of the environment variable `name`,
// else "/usr/local/cfg/<name>". Returns 0 and fills `out`, or -1 when the file is missing or
// does not parse (logged with the path and the parser's message); `out` is then untouched.
int Q7R_GetJsonByEnv(const char* name, Json::Value& out);

// The document "SYSTEM_CONFIG", found like any other. Returns 0, or -1 when missing.
int Q7R_GetSpecInfo(Json::Value& out);

// Keys of SYSTEM_CONFIG; the defaults above when absent or not an int.
eProductType Q7R_GetProductType();
unsigned int Q7R_GetVichnNum();
unsigned int Q7R_GetDigitalchnNum();

namespace Common {
// Every absolute path the platform reads is looked up below RECORDER_ROOT when that
// variable is set, so that a folder can stand in for the recorder's file system.
std::string RecorderPath(const std::string& absolutePath);
}  // namespace Common

#endif
