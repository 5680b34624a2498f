#include "PeripheralManage.h"

#include <stdio.h>
#include <string.h>

#include "MsgView.h"
#include "CommonLog.h"
#include "PeripheralEvents.h"
#include "PeripheralManageInternal.h"
#include "UDiskSelfTest.h"

using manage::kLogTag;

// ---------------------------------------------------------------------------------------------
// USB disk and the factory self-test

int CPeripheralManage::OnGetUsbState(const char* data, int length) {
    MsgView msg(data, length);
    if (msg.TooShort()) {
        PM_LOG(0, "", "adjust speed param length error \n");
        return -1;
    }
    if (msg.HeadLength() != selftest::kUsbStateLength) {
        PM_LOG(0, "", "phead->length =%d\n", msg.HeadLength());
        return -1;
    }
    const uint8_t plugIn = msg.Payload().Byte(0);
    // "U-disk in, read the file", in the recorder's own encoding (GBK).
    PM_LOG(3, "", "U\xc5\xcc\xb2\xe5\xc8\xeb \xb6\xc1\xce\xc4\xbc\xfe usbInfo->ucisPlugIn=%d\n",
           plugIn);
    if (plugIn == 1) {
        m_ucisPlugIn = 1;
        PM_LOG(1, "", "Usb plugin  usbInfo->ucisPlugIn=%d\n", plugIn);
    } else if (m_ucTestEnable == 1) {
        PM_LOG(0, "", " Usb plug out  usbInfo->ucisPlugIn=%d\n", plugIn);
        // The recorder answers with its real serial setting, which ends the test layout.
        m_pMsgClient->MSGSendMessage(0, EVENT_GET_SERIAL_PARAM, 1, nullptr, 0, m_nMsgId);
    }
    return 0;
}

int CPeripheralManage::OnGetUDiskInfo(const char* data, int length) {
    MsgView msg(data, length);
    if (msg.TooShort()) {
        PM_LOG(0, "", "ipc param length error \n");
        return -1;
    }
    if (msg.HeadLength() < selftest::kUDiskInfoMinLength) {
        PM_LOG(0, "", "safety warning failed msgerror=%d\n", msg.HeadLength());
        return -1;
    }
    char path[selftest::kPathSize] = {};
    char file[selftest::kFileReadSize + 1] = {};  // the text always ends within it
    m_ucisPlugIn = 0;
    PM_LOG(1, "", "m_ucisPlugIn = %d\n", m_ucisPlugIn);
    const selftest::Mount mount = selftest::FirstMount(msg.Payload());
    if (mount.directory.empty()) {
        return 0;
    }
    snprintf(path, sizeof(path), "%s%s", mount.directory.c_str(), selftest::kFile);
    {
        std::lock_guard<std::mutex> guard(m_UdiskLock);
        snprintf(m_szUdiskPath, sizeof(m_szUdiskPath), "%s", mount.directory.c_str());
    }
    PM_LOG(3, "", "U disk dir = %s\n", path);
    if (mount.recordSize != 0 && mount.recordSize < selftest::kMinRecordSize) {
        PM_LOG(3, "", "Udisk total record size less than 10M!!!\n");
        return 0;
    }
    ssize_t got = 0;
    if (!selftest::ReadFile(path, file, selftest::kFileReadSize, got)) {
        PM_LOG(0, "", " open parafd file failed !\n");
        return -1;
    }
    PM_LOG(1, kLogTag, "Auto test file opened, path = %s, read = %d\n", path,
           static_cast<int>(got));
    if (got == 0) {
        PM_LOG(0, "", "****mbeko,test, Read buf file fail,length = %d\n", static_cast<int>(got));
    }
    AnlysConfigFile(static_cast<int>(got), file);
    return 0;
}

void CPeripheralManage::GetUdiskPath(char* out) {
    if (out != nullptr) {
        std::lock_guard<std::mutex> guard(m_UdiskLock);
        memcpy(out, m_szUdiskPath, sizeof(m_szUdiskPath));
    }
}

void CPeripheralManage::OnSetAutoTest(unsigned char enable) {
    m_ucTestEnable = enable;
    PM_LOG(0, "", " m_ucTestEnable=%d\n", enable);
}

int CPeripheralManage::AnlysConfigFile(int, char* text) {
    if (text == nullptr) {
        return 0;
    }
    PM_LOG(0, "", "%s \n", text);
    if (strstr(text, "TEST_ENABLE") != nullptr) {
        // Loose on purpose: "true" anywhere in the text enables the test.
        if (strstr(text, "true") != nullptr) {
            m_ucTestEnable = 1;
        } else {
            PM_LOG(0, "", "%s \n", text);
            return 0;
        }
    }
    OnSetAutoTestSerialParam();
    return 1;
}

void CPeripheralManage::OnSetAutoTestSerialParam() {
    paramSerialSetting_t setting = m_stuSystemSerialParam.stuSerialSetting;
    selftest::ApplyLayout(setting, Q7R_GetProductType());
    m_pMsgClient->MSGSendMessage(0, EVENT_SERIAL_PARAM_CHANGED, 0,
                                 reinterpret_cast<const char*>(&setting), sizeof(setting),
                                 m_nMsgId);
}
