#include "EthernetBase.h"

#include "CommonLog.h"

namespace {
constexpr const char kLogTag[] = "E_BASE: ";
}  // namespace

CEthernetBase::CEthernetBase(CPeripheralManage* manage, CMsgClientManage* client,
                             unsigned int mainId, unsigned int subId)
    : CPeripheralBase(manage, client, PERIPHERAL_TYPE_ETHERNET, mainId, subId) {}

CEthernetBase::~CEthernetBase() {
    // An independent instance's thread must not step a half-destroyed object.
    if (!m_bSharedThread) {
        Stop();
    }
}

int CEthernetBase::PeripheralThreadCycle(long long) {
    return 0;
}

int CEthernetBase::ProcessPeripheralData() {
    return 0;
}

int CEthernetBase::SendDataToPeripheral(const char*, unsigned int) {
    return 0;
}

int CEthernetBase::PreProcessPeripheralData(const char*, unsigned int length) {
    PM_LOG(3, kLogTag, "Data receive, mainId = %d, subId = %d, rev_length = %d\n", m_nMainId,
           m_nSubId, length);
    ProcessPeripheralData();
    return 0;
}

int CEthernetBase::EthernetPortMessageRegister() {
    return 0;
}

int CEthernetBase::EthernetPortMessageUnRegister() {
    return 0;
}

int CEthernetBase::OnReceiveDataFromEthernetPort(const char*, int) {
    return 0;
}
