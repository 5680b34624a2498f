#include "SerialDevOperate.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <vector>

#include <json/json.h>

#include "CommonLog.h"
#include "ConsoleOutput.h"
#include "CommonThread.h"
#include "MsgView.h"
#include "MutexGuard.h"
#include "SerialBase.h"
#include "SysConfig.h"

// The device layer's line settings: the configuration's words, the speeds, termios, and the
// USB adapters' registers.

namespace {

constexpr const char kLogTag[] = "SERIAL_OPERATE: ";

struct WordValue {
    const char* word;
    int value;
};

constexpr WordValue kBaudWords[] = {
    {"B4800", SERIAL_BAUD_4800},     {"B9600", SERIAL_BAUD_9600},   {"B19200", SERIAL_BAUD_19200},
    {"B38400", SERIAL_BAUD_38400},   {"B56000", SERIAL_BAUD_56000}, {"B57600", SERIAL_BAUD_57600},
    {"B115200", SERIAL_BAUD_115200}, {"B2400", SERIAL_BAUD_2400},   {"B28800", SERIAL_BAUD_28800},
};
constexpr WordValue kDataBitWords[] = {
    {"CS8", SERIAL_DATA_BIT_8},
    {"CS7", SERIAL_DATA_BIT_7},
    {"CS6", SERIAL_DATA_BIT_6},
    {"CS5", SERIAL_DATA_BIT_5},
};
constexpr WordValue kStopBitWords[] = {
    {"1bit", SERIAL_STOP_BIT_1},
    {"2bit", SERIAL_STOP_BIT_2},
};
constexpr WordValue kParityWords[] = {
    {"NONE", SERIAL_PARITY_NONE},
    {"ODD", SERIAL_PARITY_ODD},
    {"EVEN", SERIAL_PARITY_EVEN},
};

// Indexed by SerialBaudRate.
constexpr unsigned int kBaudSpeeds[] = {4800,  9600,   19200, 38400, 56000,
                                        57600, 115200, 2400,  28800};

struct SpeedConstant {
    unsigned int baud;
    speed_t constant;
};
// 28800 and 56000 have no termios constant: a main-chip port refuses them.
constexpr SpeedConstant kSpeedConstants[] = {
    {2400, B2400},   {4800, B4800},   {9600, B9600},     {19200, B19200},
    {38400, B38400}, {57600, B57600}, {115200, B115200},
};

template <size_t N>
int LookUpWord(const WordValue (&table)[N], const std::string& word, int fallback) {
    for (const WordValue& entry : table) {
        if (word == entry.word) {
            return entry.value;
        }
    }
    return fallback;
}

}  // namespace

SerialBaudRate serial_baud_switch(const std::string& word) {
    return static_cast<SerialBaudRate>(LookUpWord(kBaudWords, word, SERIAL_BAUD_4800));
}

SerialDataBitMode serial_data_bit_switch(const std::string& word) {
    return static_cast<SerialDataBitMode>(LookUpWord(kDataBitWords, word, SERIAL_DATA_BIT_8));
}

SerialStopBitMode serial_stop_bit_switch(const std::string& word) {
    return static_cast<SerialStopBitMode>(LookUpWord(kStopBitWords, word, SERIAL_STOP_BIT_1));
}

SerialParityMode serial_parity_switch(const std::string& word) {
    return static_cast<SerialParityMode>(LookUpWord(kParityWords, word, SERIAL_PARITY_NONE));
}

SerialFlowControlMode serial_flow_control_switch(const std::string& /*word*/) {
    return SERIAL_FLOW_NONE;  // flow control is never applied to a port
}

unsigned int serial_baud_rate_speed(SerialBaudRate baud) {
    int index = static_cast<int>(baud);
    if (index < 1 || index > SERIAL_BAUD_28800) {
        return 4800;
    }
    return kBaudSpeeds[index];
}

int serial_get_baud_speed(unsigned int baud, unsigned int& speed) {
    for (const SpeedConstant& entry : kSpeedConstants) {
        if (entry.baud == baud) {
            speed = static_cast<unsigned int>(entry.constant);
            return 1;
        }
    }
    return 0;
}

int serial_port_id(const std::string& path) {
    static const char* const kPrefixes[] = {"/dev/ttyAMA", "/dev/ttyACM"};
    for (const char* prefix : kPrefixes) {
        size_t pos = path.find(prefix);
        if (pos == std::string::npos) {
            continue;
        }
        size_t digit = pos + strlen(prefix);
        // Only one character counts: "/dev/ttyACM12" is port 1.
        if (digit < path.size() && path[digit] >= '0' && path[digit] <= '9') {
            return path[digit] - '0';
        }
        return -1;
    }
    return -1;
}

void serial_termios_make_raw(struct termios& tio) {
    tio.c_cflag &= ~CSIZE;
    tio.c_cflag |= CLOCAL | CREAD;
    tio.c_lflag &= ~(ICANON | ECHO | ECHOE | ISIG);
    tio.c_iflag &= ~(IXON | IXOFF | IXANY | ISTRIP | INLCR | IGNCR | ICRNL);
    tio.c_oflag &= ~(OPOST | ONLCR | OCRNL);
}

void serial_termios_set_line(struct termios& tio, unsigned char mask, SerialDataBitMode dataBit,
                             SerialStopBitMode stopBit, SerialParityMode parity) {
    if ((mask & SERIAL_PROPERTY_DATA_BIT) && dataBit != SERIAL_DATA_BIT_5) {
        tio.c_cflag &= ~CSIZE;
        if (dataBit == SERIAL_DATA_BIT_6) {
            tio.c_cflag |= CS6;
        } else if (dataBit == SERIAL_DATA_BIT_7) {
            tio.c_cflag |= CS7;
        } else {
            tio.c_cflag |= CS8;
        }
    }
    if (mask & SERIAL_PROPERTY_STOP_BIT) {
        if (stopBit == SERIAL_STOP_BIT_2) {
            tio.c_cflag |= CSTOPB;
        } else {
            tio.c_cflag &= ~CSTOPB;
        }
    }
    if (mask & SERIAL_PROPERTY_PARITY) {
        // EVEN gives odd parity as well: the recorder's peripherals expect it that way.
        if (parity == SERIAL_PARITY_ODD || parity == SERIAL_PARITY_EVEN) {
            tio.c_cflag |= PARENB | PARODD;
            tio.c_iflag |= INPCK;
        } else {
            tio.c_cflag &= ~PARENB;
            tio.c_iflag &= ~INPCK;
        }
    }
    tio.c_cc[VTIME] = 10;
    tio.c_cc[VMIN] = 0;
}

int CSerialDevOperate::serial_set_property(int fd, unsigned char mask, unsigned int speed,
                                           SerialDataBitMode dataBit, SerialStopBitMode stopBit,
                                           SerialParityMode parity, SerialFlowControlMode flow) {
    if (!serial_is_open(fd)) {
        PM_LOG(0, kLogTag,
               "[SET] serial baud failed, serial is not open, fd = %d, baud = "
               "%d\n",
               fd, speed);
        return -1;
    }
    struct termios tio;
    if (tcgetattr(fd, &tio) != 0) {
        PM_LOG(0, kLogTag, "[SET] tcgetattr failed, fd = %d: %s\n", fd, strerror(errno));
        return -1;
    }
    tcflush(fd, TCIOFLUSH);
    serial_termios_make_raw(tio);
    if (mask & SERIAL_PROPERTY_SPEED) {
        unsigned int constant = 0;
        if (serial_get_baud_speed(speed, constant) == 0) {
            PM_LOG(0, kLogTag,
                   "[SET] serial baud failed, baud is not legal, fd = %d, baud "
                   "= %d\n",
                   fd, speed);
            return -1;
        }
        cfsetispeed(&tio, static_cast<speed_t>(constant));
        cfsetospeed(&tio, static_cast<speed_t>(constant));
        if (tcsetattr(fd, TCSANOW, &tio) != 0) {
            PM_LOG(0, kLogTag, "[SET] tcsetattr failed, fd = %d: %s\n", fd, strerror(errno));
            return -1;
        }
    }
    // Read back: without the speed bit the raw-mode changes above are dropped here.
    tcflush(fd, TCIOFLUSH);
    if (tcgetattr(fd, &tio) != 0) {
        PM_LOG(0, kLogTag, "[SET] tcgetattr failed, fd = %d: %s\n", fd, strerror(errno));
        return -1;
    }
    tcflush(fd, TCIOFLUSH);
    serial_termios_set_line(tio, mask, dataBit, stopBit, parity);
    tcflush(fd, TCIFLUSH);
    if (tcsetattr(fd, TCSANOW, &tio) != 0) {
        PM_LOG(0, kLogTag, "[SET] tcsetattr failed, fd = %d: %s\n", fd, strerror(errno));
        return -1;
    }
    if (mask & SERIAL_PROPERTY_SPEED) {
        if (std::shared_ptr<CSerialPortWriter> writer = WriterOf(fd)) {
            writer->SetSpeed(speed);
        }
    }
    if (serial_set_usb_extern_property(fd) < 0) {
        PM_LOG(1, kLogTag, "Set USB extend mainchip serial failed\n");
    }
    PM_LOG(1, kLogTag,
           "Set serial property success, baud = %d, dataBit = %d, stopBit = %d, "
           "parity = %d, flow = %d\n",
           speed, dataBit, stopBit, parity, flow);
    return 1;
}

namespace {

// Register 12 <- reg12, 16 <- 1, 3 <- 3, 16 <- 3 on block `port`.
void WriteExarSequence(CSerialDevOperate& layer, int fd, int port, int reg12) {
    layer.serial_set_exar_reg(fd, port, 12, reg12);
    layer.serial_set_exar_reg(fd, port, 16, 1);
    layer.serial_set_exar_reg(fd, port, 3, 3);
    layer.serial_set_exar_reg(fd, port, 16, 3);
}

std::string ProductGroup(const Json::Value& specInfo) {
    if (!specInfo.isObject()) {
        return std::string();
    }
    const Json::Value& group = specInfo["PRODUCT_GROUP"];
    return group.isString() ? group.asString() : std::string();
}

}  // namespace

int CSerialDevOperate::serial_set_usb_extern_property(int fd) {
    Json::Value specInfo;
    if (Q7R_GetSpecInfo(specInfo) == -1) {
        PM_LOG(0, "", "ACC_ALARM:: Q7R_GetSpecInfo SYSTEM_CONFIG faild!\n");
        specInfo = Json::Value();
    }
    unsigned int chipType = 0;
    int portId = -1;
    {
        std::shared_lock<std::shared_mutex> view(m_TableView);
        auto it = m_mapSerialDev.find(fd);
        if (it == m_mapSerialDev.end() || it->second->owner == nullptr) {
            return -1;
        }
        chipType = it->second->owner->GetMainChipType();
        portId = it->second->portId;
    }
    ConsolePrintf("----------- %d \n", chipType);
    const bool usbSerial = (chipType == 2);
    if (ProductGroup(specInfo) == "QOR") {
        ConsolePrintf("######## %d  \n", chipType);
        if (usbSerial && portId == 0) {
            serial_set_exar_reg(fd, portId, 3, 0);
            WriteExarSequence(*this, fd, portId, 0);
        }
        if (!usbSerial || portId != 1) {
            return 0;
        }
        serial_set_exar_reg(fd, portId, 26, 11);
        serial_set_exar_reg(fd, portId, 3, 0);
        WriteExarSequence(*this, fd, portId, 8);
        return 0;
    }
    if (!usbSerial || portId > 1) {
        return 0;
    }
    serial_set_exar_reg(fd, portId, 3, 0);
    WriteExarSequence(*this, fd, portId, 0);
    return 0;
}

int CSerialDevOperate::serial_set_exar_reg(int fd, int block, int reg, int value) {
    int32_t request[32] = {};
    request[0] = block;
    request[1] = reg;
    request[2] = value;
    // Request code 0 is what the adapter's driver answers; anything else (a pty) refuses it,
    // which is harmless.
    ioctl(fd, 0, request);
    PM_LOG(1, kLogTag, "uart_set_exar_reg, block=%d, reg=%d, value=%d\n", block, reg, value);
    return 0;
}
