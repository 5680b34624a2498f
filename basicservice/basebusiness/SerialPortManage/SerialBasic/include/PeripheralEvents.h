// The recorder's bus events that the service and its plug-ins use, in one table: the service
// registers and sends by these names, the tools name what they see from it (`pm-bus names`)
// and the recorder simulator plays the other side with the same ids.
#ifndef SERIALBASIC_PERIPHERAL_EVENTS_H
#define SERIALBASIC_PERIPHERAL_EVENTS_H

#include <cstdint>

#include "MsgClientManage.h"

// A request N is answered as event EventAnswerOf(N) (N | 0x8000, the bus's answer bit).
enum ePeripheralEvent : uint32_t {
    EVENT_POWER_DOWN_8 = 8,
    EVENT_POWER_DOWN_9 = 9,
    EVENT_DEBUG_LEVEL = 10,
    EVENT_GET_FTP_PARAM = 283,
    EVENT_FTP_PARAM_CHANGED = 284,
    EVENT_GET_SERIAL_PARAM = 315,
    EVENT_SERIAL_PARAM_CHANGED = 316,
    EVENT_GET_IPC_SETTING = 319,
    EVENT_IPC_SETTING_CHANGED = 320,
    EVENT_GET_CAN_PARAM = 359,
    EVENT_CAN_PARAM_CHANGED = 360,
    EVENT_GET_ETHERNET_PARAM = 361,
    EVENT_ETHERNET_PARAM_CHANGED = 362,
    EVENT_POWER_DOWN_1035 = 1035,
    EVENT_GET_VIDEO_LOSS = 1051,
    EVENT_VIDEO_LOSS = 1052,
    EVENT_GET_USB_STATE = 1059,
    EVENT_USB_STATE = 1060,
    EVENT_VEHICLE_INFO = 1081,
    EVENT_CAN_SEND = 1087,
    EVENT_MCU_SERIAL_SEND = 1088,
    EVENT_CAN_RECV = 1089,
    EVENT_MCU_SERIAL_RECV = 1090,
    EVENT_GET_UDISK_INFO = 1119,
    EVENT_GET_LED_STATE = 1121,
    EVENT_LED_STATE = 1122,
    EVENT_CAN_FILTER_STATE = 1136,
    EVENT_CAN_SET_FILTER = 1137,
    EVENT_GET_DEVICE_MODULE_STATE = 1149,
    EVENT_DEVICE_MODULE_STATE = 1150,
    EVENT_DEVICE_MODULE_RELEASE_SERIAL = 1151,
    EVENT_DIGITAL_VIDEO_LOSS = 1284,
    EVENT_GET_DIGITAL_VIDEO_LOSS = 1285,
    EVENT_STORAGE_STATE = 2053,
    EVENT_EXTEND_UPGRADE_TRIGGER = 6704,
    EVENT_GET_EXTEND_UPGRADE_FILE = 6705,
    EVENT_EXTEND_UPGRADE_STATE = 6707,
    EVENT_GET_EXTEND_UPGRADE_STATE = 6708,
    EVENT_EXTEND_VERSION = 6710,
    EVENT_GET_EXTEND_VERSION = 6711,
    EVENT_CPX_SERIAL_RELEASE = 6724,
    EVENT_MCU_SERIAL_SETTINGS = 6735,
    EVENT_LANGUAGE_SWITCHED = 6739,
    EVENT_SERIAL_CONFIG_STATUS = 6820,
    EVENT_GET_EXTEND_IO_STATE = 6904,
    EVENT_EXTEND_IO_STATE = 6905,
};

constexpr uint32_t EventAnswerOf(uint32_t request) {
    return request | Common::kMsgAnswerBit;
}

// Which way an event travels, seen from the service. For a request: the service asks
// (FROM_SERVICE, the answer comes back) or is asked (TO_SERVICE, it answers).
enum ePeripheralEventFlow {
    EVENT_TO_SERVICE = 0,
    EVENT_FROM_SERVICE = 1,
};

struct PeripheralEventInfo {
    uint32_t id;
    const char* name;  // what the tools call it; an answer is "<name>.answer"
    ePeripheralEventFlow flow;
    const char* what;
};

// Every event of ePeripheralEvent, in ascending id order.
inline constexpr PeripheralEventInfo kPeripheralEvents[] = {
    {EVENT_POWER_DOWN_8, "power-down-8", EVENT_TO_SERVICE, "power-down notice"},
    {EVENT_POWER_DOWN_9, "power-down-9", EVENT_TO_SERVICE, "power-down notice"},
    {EVENT_DEBUG_LEVEL, "debug-level", EVENT_TO_SERVICE, "debug level change"},
    {EVENT_GET_FTP_PARAM, "get-ftp-param", EVENT_FROM_SERVICE, "request: FTP parameters"},
    {EVENT_FTP_PARAM_CHANGED, "ftp-param-changed", EVENT_TO_SERVICE, "FTP parameters changed"},
    {EVENT_GET_SERIAL_PARAM, "get-serial-param", EVENT_FROM_SERVICE,
     "request: serial parameter setting"},
    {EVENT_SERIAL_PARAM_CHANGED, "serial-param-changed", EVENT_TO_SERVICE,
     "serial parameter setting changed (the factory self-test sends it too)"},
    {EVENT_GET_IPC_SETTING, "get-ipc-setting", EVENT_FROM_SERVICE, "request: IPC setting"},
    {EVENT_IPC_SETTING_CHANGED, "ipc-setting-changed", EVENT_TO_SERVICE, "IPC setting changed"},
    {EVENT_GET_CAN_PARAM, "get-can-param", EVENT_FROM_SERVICE, "request: CAN parameter setting"},
    {EVENT_CAN_PARAM_CHANGED, "can-param-changed", EVENT_TO_SERVICE,
     "CAN parameter setting changed"},
    {EVENT_GET_ETHERNET_PARAM, "get-ethernet-param", EVENT_FROM_SERVICE,
     "request: Ethernet parameter setting"},
    {EVENT_ETHERNET_PARAM_CHANGED, "ethernet-param-changed", EVENT_TO_SERVICE,
     "Ethernet parameter setting changed"},
    {EVENT_POWER_DOWN_1035, "power-down-1035", EVENT_TO_SERVICE, "power-down notice"},
    {EVENT_GET_VIDEO_LOSS, "get-video-loss", EVENT_FROM_SERVICE, "request: analogue video loss"},
    {EVENT_VIDEO_LOSS, "video-loss", EVENT_TO_SERVICE, "analogue video loss notification"},
    {EVENT_GET_USB_STATE, "get-usb-state", EVENT_TO_SERVICE,
     "request: USB state (another module asks; the service hears the answer)"},
    {EVENT_USB_STATE, "usb-state", EVENT_TO_SERVICE, "USB state notification"},
    {EVENT_VEHICLE_INFO, "vehicle-info", EVENT_TO_SERVICE, "vehicle information"},
    {EVENT_CAN_SEND, "can-send", EVENT_FROM_SERVICE, "CAN frame to transmit"},
    {EVENT_MCU_SERIAL_SEND, "mcu-serial-send", EVENT_FROM_SERVICE, "data to an MCU serial port"},
    {EVENT_CAN_RECV, "can-recv", EVENT_TO_SERVICE, "received CAN frames"},
    {EVENT_MCU_SERIAL_RECV, "mcu-serial-recv", EVENT_TO_SERVICE, "data from an MCU serial port"},
    {EVENT_GET_UDISK_INFO, "get-udisk-info", EVENT_FROM_SERVICE, "request: USB disk details"},
    {EVENT_GET_LED_STATE, "get-led-state", EVENT_FROM_SERVICE, "request: LED panel state"},
    {EVENT_LED_STATE, "led-state", EVENT_TO_SERVICE, "LED panel state notification"},
    {EVENT_CAN_FILTER_STATE, "can-filter-state", EVENT_TO_SERVICE, "CAN filter state report"},
    {EVENT_CAN_SET_FILTER, "can-set-filter", EVENT_FROM_SERVICE, "CAN filter list"},
    {EVENT_GET_DEVICE_MODULE_STATE, "get-device-module-state", EVENT_FROM_SERVICE,
     "request: device-management module state"},
    {EVENT_DEVICE_MODULE_STATE, "device-module-state", EVENT_TO_SERVICE,
     "device-management module state notification"},
    {EVENT_DEVICE_MODULE_RELEASE_SERIAL, "device-module-release-serial", EVENT_TO_SERVICE,
     "device-management module released the shared tty"},
    {EVENT_DIGITAL_VIDEO_LOSS, "digital-video-loss", EVENT_TO_SERVICE,
     "digital channel video loss notification"},
    {EVENT_GET_DIGITAL_VIDEO_LOSS, "get-digital-video-loss", EVENT_FROM_SERVICE,
     "request: digital channel video loss"},
    {EVENT_STORAGE_STATE, "storage-state", EVENT_TO_SERVICE, "storage state notification"},
    {EVENT_EXTEND_UPGRADE_TRIGGER, "extend-upgrade-trigger", EVENT_TO_SERVICE,
     "start an extension box firmware upgrade"},
    {EVENT_GET_EXTEND_UPGRADE_FILE, "get-extend-upgrade-file", EVENT_FROM_SERVICE,
     "request: extension box upgrade file"},
    {EVENT_EXTEND_UPGRADE_STATE, "extend-upgrade-state", EVENT_FROM_SERVICE,
     "extension box upgrade state"},
    {EVENT_GET_EXTEND_UPGRADE_STATE, "get-extend-upgrade-state", EVENT_TO_SERVICE,
     "request: extension box upgrade state"},
    {EVENT_EXTEND_VERSION, "extend-version", EVENT_FROM_SERVICE, "extension box version"},
    {EVENT_GET_EXTEND_VERSION, "get-extend-version", EVENT_TO_SERVICE,
     "request: extension box version"},
    {EVENT_CPX_SERIAL_RELEASE, "cpx-serial-release", EVENT_FROM_SERVICE,
     "shared tty released to the co-processor"},
    {EVENT_MCU_SERIAL_SETTINGS, "mcu-serial-settings", EVENT_FROM_SERVICE,
     "line settings of an MCU serial port"},
    {EVENT_LANGUAGE_SWITCHED, "language-switched", EVENT_TO_SERVICE,
     "user interface language changed"},
    {EVENT_SERIAL_CONFIG_STATUS, "serial-config-status", EVENT_FROM_SERVICE,
     "serial port configuration status"},
    {EVENT_GET_EXTEND_IO_STATE, "get-extend-io-state", EVENT_TO_SERVICE,
     "request: extension hub I/O state"},
    {EVENT_EXTEND_IO_STATE, "extend-io-state", EVENT_FROM_SERVICE, "extension hub I/O state"},
};

#endif
