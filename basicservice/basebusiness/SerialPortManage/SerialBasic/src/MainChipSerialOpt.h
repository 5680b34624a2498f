// Link of a serial peripheral on a tty of the main chip, through the serial device layer.
#ifndef SERIALBASIC_MAIN_CHIP_SERIAL_OPT_H
#define SERIALBASIC_MAIN_CHIP_SERIAL_OPT_H

#include <atomic>
#include <string>

#include "BasicServiceExport.h"
#include "SerialDefine.h"

class CSerialBase;
class CSerialDevOperate;

// How a main-chip tty is opened: O_RDWR | O_NOCTTY | O_NONBLOCK, as the recorder writes it.
constexpr int kMainChipOpenFlags = 2306;

class BASICSERVICE_API CMainChipSerialOpt {
public:
    explicit CMainChipSerialOpt(CSerialBase* owner);
    virtual ~CMainChipSerialOpt();

    int OpenMainChipSerial(std::string path, bool retry, int flags);
    int SetMainChipSerialProperty(unsigned char mask, unsigned int speed, SerialDataBitMode dataBit,
                                  SerialStopBitMode stopBit, SerialParityMode parity,
                                  SerialFlowControlMode flow);
    int SendDataToPeripheral(const char* data, unsigned int length);
    int CloseMainChipSerial();

    // The open thread: waits until the recorder's device-management module no longer holds
    // the port, then opens it. Whoever starts it (CreateNormalThread(SerialOpenThreadEntry,
    // link, ...)) sets the run flag and the path first; clearing the flag ends the wait.
    static void* SerialOpenThreadEntry(void* arg);
    int SerialOpenThreadBody();
    void SetOpenThreadRun(bool run) { m_bOpenThreadRun.store(run); }
    void SetSerialName(const std::string& path) { m_strSerialName = path; }
    int GetSerialFd() const { return m_nSerialFd.load(); }
    // Sets the path and the run flag and starts the open thread: 0, or -1 when it runs
    // already or cannot start. Prefer it to a bare CreateNormalThread: the link then knows a
    // thread is on its way and its destructor waits for it.
    int StartOpenThread(const std::string& path);
    // Ends the wait of the open thread and returns once the thread no longer touches the
    // link (within about 10 ms). Harmless without a thread.
    void StopOpenThread();
    bool IsOpenThreadActive() const { return m_bOpenThreadActive.load(); }

private:
    // Stores an open's result unless it failed while a port is held; returns the result.
    int KeepOpenPort(int result);

    CSerialDevOperate* m_pSerialDevOperate;  // not owned
    std::atomic<bool> m_bOpenThreadRun;
    std::atomic<int> m_nSerialFd;
    std::string m_strSerialName;
    CSerialBase* m_pSerialBase;             // not owned
    std::atomic<bool> m_bOpenThreadActive;  // an open thread runs or is about to run
};

#endif
