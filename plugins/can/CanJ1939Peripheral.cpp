#include "CanJ1939Peripheral.h"

#include "BasicServiceExport.h"
#include "CommonLog.h"

namespace {

constexpr const char kLogTag[] = "J1939: ";

// The CAN module marks a masked filter entry with 0xFF in the id's top byte, so a mask cannot
// select the priority and data-page bits: match PF and PS, take any source address.
constexpr unsigned int kPgnMask = 0x00FFFF00u;

constexpr uint32_t kSubscribed[] = {
    0x0CF00400u,  // EEC1
    0x18FEF100u,  // CCVS
    0x18FEE000u,  // vehicle distance
    0x18FEE500u,  // engine hours
};

constexpr uint32_t kRequested[] = {j1939::kPgnVehicleDistance, j1939::kPgnEngineHours};

}  // namespace

CCanJ1939Peripheral::CCanJ1939Peripheral(CPeripheralManage* manage, CMsgClientManage* client,
                                         unsigned int mainId, unsigned int subId)
    : CCanPortBase(manage, client, mainId, subId), m_stuLatest(), m_nRequestIndex(0) {
    SetThreadCircleTime(kRequestPeriodMs);
}

CCanJ1939Peripheral::~CCanJ1939Peripheral() {
    if (!IsSharedThread()) {
        Stop();
    }
}

int CCanJ1939Peripheral::PeripheralInitialize() {
    for (uint32_t id : kSubscribed) {
        AddOneRecvCanId(id, kPgnMask);
    }
    SetCanPortFilter();
    PM_LOG(1, kLogTag, "[%u-%u] listening on CAN port %u\n", m_nMainId, m_nSubId,
           static_cast<unsigned int>(m_ucCanPortId));
    return 0;
}

int CCanJ1939Peripheral::PeripheralThreadCycle(long long) {
    const uint32_t pgn = kRequested[m_nRequestIndex];
    m_nRequestIndex = (m_nRequestIndex + 1) % (sizeof(kRequested) / sizeof(kRequested[0]));
    const j1939::Frame frame = j1939::BuildRequest(pgn, kSourceAddress, j1939::kGlobalAddress);
    PM_LOG(3, kLogTag, "[%u-%u] request PGN %u, id 0x%08X\n", m_nMainId, m_nSubId, pgn,
           frame.canId);
    SendCanDataToPeripheral(reinterpret_cast<const char*>(frame.data), frame.length, frame.canId);
    return 0;
}

int CCanJ1939Peripheral::ProcessPeripheralData(const char* data, unsigned int length,
                                               unsigned int canId) {
    const j1939::Id id = j1939::ParseId(canId);
    const j1939::Parameter parameter =
        j1939::Apply(m_stuLatest, canId, reinterpret_cast<const uint8_t*>(data), length);
    if (parameter == j1939::Parameter::kNone) {
        // The filter matches PF and PS only, so another data page may come through.
        PM_LOG(3, kLogTag, "[%u-%u] PGN %u from 0x%02X not decoded\n", m_nMainId, m_nSubId, id.pgn,
               id.source);
        return 0;
    }
    const j1939::Value& value = j1939::Get(m_stuLatest, parameter);
    if (value.status == j1939::Status::kValid) {
        PM_LOG(2, kLogTag, "[%u-%u] %s %.3f %s (source 0x%02X)\n", m_nMainId, m_nSubId,
               j1939::ParameterName(parameter), value.value, j1939::ParameterUnit(parameter),
               id.source);
    } else {
        PM_LOG(2, kLogTag, "[%u-%u] %s %s (source 0x%02X)\n", m_nMainId, m_nSubId,
               j1939::ParameterName(parameter), j1939::StatusText(value.status), id.source);
    }
    return 0;
}

BASICSERVICE_PLUGIN(CCanJ1939Peripheral)
