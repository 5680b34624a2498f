// The service's world for the fuzz targets, built once per process: a recorder root in a
// temporary folder, a broker of its own, a manager with its events registered (its thread is
// never started: the fuzzer runs the handlers on its own thread) and the serial and CAN
// settings that place the peripherals the targets feed.
#ifndef FUZZ_FUZZ_SERVICE_H
#define FUZZ_FUZZ_SERVICE_H

#include <string>

#include "PeripheralManage.h"

namespace fuzzsupport {

// Main ids the settings place: a serial peripheral on MCU port 0, an extension box on
// main-chip port 4, a CAN peripheral on CAN port 0.
constexpr unsigned kSerialMainId = 7;
constexpr unsigned kCanMainId = 12;

// The manager, made on first use. Logging is off and standard output goes to /dev/null.
CPeripheralManage& Manager();
// Where the peripheral configuration document lives (rewritten by the configuration target).
const std::string& PeripheralConfigPath();

}  // namespace fuzzsupport

#endif
