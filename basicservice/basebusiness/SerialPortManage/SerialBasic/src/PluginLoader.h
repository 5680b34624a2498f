// Finding a protocol plug-in's file and calling its factory: the part of loading that needs
// neither the registry nor the bus.
#ifndef SERIALBASIC_PLUGIN_LOADER_H
#define SERIALBASIC_PLUGIN_LOADER_H

#include <string>

#include "PeripheralBase.h"
#include "PeripheralDefine.h"

namespace plugin {

// Relative to the service's working directory: a service in build/bin finds build/plugin/.
const char* Directory(ePeripheralType type);

struct Found {
    bool listed;       // the directory could be read
    int result;        // when no path: what the loader answers (0 nothing there, -1 an error)
    std::string path;  // the file to load, empty when none
};
// The first entry of `directory` (listing order, unsorted) whose name contains `name` and that
// is a regular file; `registered` only goes to the log.
Found FindFile(const char* directory, const std::string& name, unsigned int mainId,
               unsigned int subId, size_t registered);

// A plug-in's factory is foreign code: whatever it throws must not cross into the service,
// where nothing expects it and the process would end without naming the library.
CPeripheralBase* CallCreator(PeripheralCreateFn create, CPeripheralManage* manage,
                             CMsgClientManage* client, const std::string& name,
                             ePeripheralType type, unsigned int mainId, unsigned int subId);

}  // namespace plugin

#endif
