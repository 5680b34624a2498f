#include "MainChipSerialOpt.h"

#include <stdio.h>
#include <unistd.h>

#include "CommonLog.h"
#include "ConsoleOutput.h"
#include "CommonThread.h"
#include "PeripheralManage.h"
#include "SerialBase.h"
#include "SerialDevOperate.h"

namespace {

constexpr const char kLogTag[] = "MainChip_Opt: ";

constexpr unsigned int kOccupiedRetryMs = 1000;
// The 1 s wait is sliced so that clearing the run flag ends the thread promptly.
constexpr unsigned int kWaitSliceMs = 10;

std::string SendTitle(unsigned int mainId, unsigned int subId, unsigned int length) {
    char text[128];
    snprintf(text, sizeof(text),
             "MainChip_Opt: Send to device, mainId = %d, subId = %d, length = %d", mainId, subId,
             length);
    return text;
}

}  // namespace

CMainChipSerialOpt::CMainChipSerialOpt(CSerialBase* owner)
    : m_pSerialDevOperate(nullptr),
      m_bOpenThreadRun(false),
      m_nSerialFd(-1),
      m_pSerialBase(owner),
      m_bOpenThreadActive(false) {
    if (owner == nullptr) {
        PM_LOG(0, kLogTag, "Serial instance ptr is NULL\n");
        return;
    }
    if (owner->GetPeripheralManage() != nullptr) {
        m_pSerialDevOperate = owner->GetPeripheralManage()->GetSerialDevOperatePtr();
    }
}

CMainChipSerialOpt::~CMainChipSerialOpt() {
    StopOpenThread();
    m_pSerialDevOperate = nullptr;
    m_pSerialBase = nullptr;
}

int CMainChipSerialOpt::OpenMainChipSerial(std::string path, bool retry, int flags) {
    if (m_pSerialDevOperate == nullptr || m_pSerialBase == nullptr) {
        return m_nSerialFd.load();
    }
    m_strSerialName = path;
    const int result = KeepOpenPort(m_pSerialDevOperate->serial_open(m_pSerialBase, path, flags));
    PM_LOG(0, kLogTag, "Open serial result, m_nSerialFd = %d\n", result);
    if (result < 0 && !retry) {
        return result;
    }
    m_pSerialBase->SetCurPeripOpenStatus(m_nSerialFd >= 0);
    return result;
}

// A failed open must not overwrite the port this link already holds: closing it later needs
// the number, and the table would otherwise keep delivering to an owner that is gone.
int CMainChipSerialOpt::KeepOpenPort(int result) {
    const int held = m_nSerialFd.load();
    if (result < 0 && held >= 0) {
        PM_LOG(0, kLogTag, "Open failed (%d), keep the open m_nSerialFd = %d\n", result, held);
        return result;
    }
    m_nSerialFd = result;
    return result;
}

int CMainChipSerialOpt::SetMainChipSerialProperty(unsigned char mask, unsigned int speed,
                                                  SerialDataBitMode dataBit,
                                                  SerialStopBitMode stopBit,
                                                  SerialParityMode parity,
                                                  SerialFlowControlMode flow) {
    if (mask == 0) {
        return 0;
    }
    if (m_pSerialDevOperate == nullptr) {
        return -1;
    }
    PM_LOG(3, kLogTag,
           "Set MainChip serial property, baud = %d, dataBit = %d, "
           "stopBit = %d, parity = %d, flowMode = %d\n",
           speed, dataBit, stopBit, parity, flow);
    return m_pSerialDevOperate->serial_set_property(m_nSerialFd, mask, speed, dataBit, stopBit,
                                                    parity, flow);
}

int CMainChipSerialOpt::SendDataToPeripheral(const char* data, unsigned int length) {
    if (m_pSerialDevOperate == nullptr || m_pSerialBase == nullptr) {
        return -1;
    }
    CPeripheralManage* manage = m_pSerialBase->GetPeripheralManage();
    if (manage != nullptr && manage->DumpsAt(2)) {
        manage->hex_dump(SendTitle(m_pSerialBase->GetMainId(), m_pSerialBase->GetSubId(), length),
                         data, data != nullptr ? length : 0, 2);
    }
    if (data == nullptr || length == 0) {
        PM_LOG(0, kLogTag, "send data length error\n");
        return -1;
    }
    return m_pSerialDevOperate->serial_write(m_nSerialFd, data, length);
}

int CMainChipSerialOpt::CloseMainChipSerial() {
    if (m_pSerialDevOperate == nullptr) {
        return -1;
    }
    PM_LOG(1, kLogTag, "Close MainChip serial, m_nSerialFd = %d\n", m_nSerialFd.load());
    int result = m_pSerialDevOperate->serial_close(m_nSerialFd);
    if (result == 1) {
        // The number may be handed to another port next; never close it a second time.
        m_nSerialFd = -1;
    }
    return result;
}

// ---- open thread ----

void* CMainChipSerialOpt::SerialOpenThreadEntry(void* arg) {
    if (arg == nullptr) {
        PM_LOG(0, kLogTag, "CMainChipSerialOpt ptr is null, create thread failed\n");
        return nullptr;
    }
    CMainChipSerialOpt* link = static_cast<CMainChipSerialOpt*>(arg);
    link->m_bOpenThreadActive.store(true);
    ConsolePrintf("MainChip_Opt: SerialOpenThreadEntry pid = %d\n", static_cast<int>(getpid()));
    link->SerialOpenThreadBody();
    // Last touch of the link: its destructor may free it from here on.
    link->m_bOpenThreadActive.store(false);
    return nullptr;
}

int CMainChipSerialOpt::SerialOpenThreadBody() {
    while (m_bOpenThreadRun.load()) {
        CPeripheralManage* manage =
            m_pSerialBase != nullptr ? m_pSerialBase->GetPeripheralManage() : nullptr;
        if (m_pSerialDevOperate != nullptr && manage != nullptr &&
            manage->CheckCpxOccupancySerial(m_strSerialName) == 0) {
            break;
        }
        PM_LOG(1, kLogTag, "Serial[%s] is occupy, please wait device release......\n",
               m_strSerialName.c_str());
        for (unsigned int waited = 0; waited < kOccupiedRetryMs && m_bOpenThreadRun.load();
             waited += kWaitSliceMs) {
            usleep(kWaitSliceMs * 1000);
        }
    }
    if (!m_bOpenThreadRun.load()) {
        return 0;
    }
    const int result = KeepOpenPort(
        m_pSerialDevOperate->serial_open(m_pSerialBase, m_strSerialName, kMainChipOpenFlags));
    PM_LOG(1, kLogTag, "DeviceManage relsease Serial[%s], open result,  m_nSerialFd = %d\n",
           m_strSerialName.c_str(), result);
    m_bOpenThreadRun = false;
    // Open even when the open failed: the plug-in's cycle then runs and may retry itself.
    m_pSerialBase->SetCurPeripOpenStatus(true);
    return 0;
}

int CMainChipSerialOpt::StartOpenThread(const std::string& path) {
    if (m_bOpenThreadActive.exchange(true)) {
        PM_LOG(0, kLogTag, "Open thread of Serial[%s] runs already\n", m_strSerialName.c_str());
        return -1;
    }
    m_strSerialName = path;
    m_bOpenThreadRun = true;
    if (CreateNormalThread(SerialOpenThreadEntry, this, nullptr) != 0) {
        m_bOpenThreadRun = false;
        m_bOpenThreadActive = false;
        return -1;
    }
    return 0;
}

void CMainChipSerialOpt::StopOpenThread() {
    m_bOpenThreadRun = false;
    while (m_bOpenThreadActive.load()) {
        usleep(1000);
    }
}
