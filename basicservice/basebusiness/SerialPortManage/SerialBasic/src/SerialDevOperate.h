// Serial device layer for the ports of the main chip: the table of open ttys, their termios
// settings, one reader thread for all of them, and writes.
#ifndef SERIALBASIC_SERIAL_DEV_OPERATE_H
#define SERIALBASIC_SERIAL_DEV_OPERATE_H

#include <pthread.h>

#include <map>
#include <string>

#include "SerialDefine.h"

class CSerialBase;

// Text tables of the configuration words.
SerialBaudRate serial_baud_switch(const std::string& word);
SerialDataBitMode serial_data_bit_switch(const std::string& word);
SerialStopBitMode serial_stop_bit_switch(const std::string& word);
SerialParityMode serial_parity_switch(const std::string& word);
SerialFlowControlMode serial_flow_control_switch(const std::string& word);
// Line speed in bit/s of a baud rate code; 4800 for any value outside 1-8.
unsigned int serial_baud_rate_speed(SerialBaudRate baud);
// termios speed constant of a line speed: 1 and `speed` set for 2400 ... 115200, else 0.
int serial_get_baud_speed(unsigned int baud, unsigned int& speed);

struct SerialDevInfo {
    int fd;
    char name[64];
    CSerialBase* owner;  // not owned
    int portId;          // digit after "/dev/ttyAMA" or "/dev/ttyACM", else -1
};

class CSerialDevOperate {
public:
    CSerialDevOperate();
    ~CSerialDevOperate();

    // Starts the reader thread (once, from the manager's Initialize).
    int serial_init();
    // fd, or -1 path already open, -2 open failed, -3 no owner or owner has a port already.
    int serial_open(CSerialBase* owner, std::string path, int flags);
    int serial_close(int fd);
    void serial_close_all();
    bool serial_is_open(int fd);
    int serial_check_open_same(std::string path);
    int serial_check_perip_open(unsigned int mainId, unsigned int subId);
    int serial_set_property(int fd, unsigned char mask, unsigned int speed,
                            SerialDataBitMode dataBit, SerialStopBitMode stopBit,
                            SerialParityMode parity, SerialFlowControlMode flow);
    int serial_set_usb_extern_property(int fd);
    int serial_set_exar_reg(int fd, int block, int reg, int value);
    int serial_write(int fd, const char* data, unsigned int length);
    int serial_cache_data(int fd, const char* data, int length);
    void serial_read();  // the reader loop; never returns
    static void* SerialReadThreadEntry(void* arg);

private:
    std::map<int, SerialDevInfo*> m_mapSerialDev;  // ascending fd order
    pthread_mutex_t m_TableLock;
    int m_nMaxFd;
};

#endif
