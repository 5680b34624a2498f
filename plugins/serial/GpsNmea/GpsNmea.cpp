#include "GpsNmea.h"

#include <vector>

#include "CommonLog.h"
#include "CommonTime.h"

namespace {

constexpr const char kLogTag[] = "GPS_NMEA: ";
}  // namespace

CGpsNmea::CGpsNmea(CPeripheralManage* manage, CMsgClientManage* client, unsigned int mainId,
                   unsigned int subId)
    : CSerialBase(manage, client, mainId, subId),
      m_bSeenRmc(false),
      m_bWasValid(false),
      m_bHaveFix(false),
      m_nRejected(0),
      m_llLastSentenceTime(Common::Q7R_TMGetSystemMicroSecond()),
      m_bSilenceWarned(false) {
    PM_LOG(1, kLogTag, "created, mainId = %d, subId = %d, link = %d, port = %s\n", mainId, subId,
           GetSerialType(), GetSerialName().c_str());
}

CGpsNmea::~CGpsNmea() = default;

int CGpsNmea::PeripheralInitialize() {
    const int result = SetBaudKeepingLine(SERIAL_BAUD_9600);
    PM_LOG(2, kLogTag, "line set to 9600 baud, mainId = %d, subId = %d, result = %d\n", m_nMainId,
           m_nSubId, result);
    return 0;  // a port that is not open yet is no reason to give up the instance
}

int CGpsNmea::PeripheralThreadCycle(long long now) {
    long long silent = now - m_llLastSentenceTime.load();
    if (silent < kSilenceWarnMs) {
        m_bSilenceWarned = false;
    } else if (!m_bSilenceWarned) {
        m_bSilenceWarned = true;
        PM_LOG(1, kLogTag, "no sentence for %lld ms, mainId = %d, subId = %d, port = %s\n", silent,
               m_nMainId, m_nSubId, GetSerialName().c_str());
    }
    return 0;
}

int CGpsNmea::ProcessPeripheralData() {
    char bytes[SERIAL_DELIVERY_SIZE];
    unsigned int length = 0;
    GetSerialBufferData(bytes, length);
    ClearSerialBufferValue();

    std::vector<std::string> sentences;
    m_splitter.Feed(bytes, length, sentences);
    for (const std::string& sentence : sentences) {
        HandleSentence(sentence);
    }
    return 0;
}

void CGpsNmea::HandleSentence(const std::string& sentence) {
    m_llLastSentenceTime = Common::Q7R_TMGetSystemMicroSecond();
    nmea::FixTracker::Result result = m_tracker.Apply(sentence);
    switch (result) {
        case nmea::FixTracker::kIgnored:
            return;
        case nmea::FixTracker::kBadChecksum:
        case nmea::FixTracker::kMalformed:
            ++m_nRejected;
            PM_LOG(2, kLogTag, "sentence refused (%s), mainId = %d: %s\n",
                   result == nmea::FixTracker::kBadChecksum ? "checksum" : "fields", m_nMainId,
                   sentence.c_str());
            return;
        case nmea::FixTracker::kRmc:
        case nmea::FixTracker::kGga:
            break;
    }
    const nmea::GpsFix& fix = m_tracker.Fix();
    {
        std::lock_guard<std::mutex> lock(m_fixLock);
        m_latestFix = fix;
        m_bHaveFix = true;
    }
    if (result == nmea::FixTracker::kRmc) {
        m_bSeenRmc = true;
    }
    // One line per receiver cycle: on RMC, or on GGA for receivers that send no RMC.
    if (result == nmea::FixTracker::kRmc || !m_bSeenRmc) {
        LogFix(fix);
    }
}

void CGpsNmea::LogFix(const nmea::GpsFix& fix) {
    if (fix.valid) {
        std::string time = nmea::FormatIsoTime(fix);
        PM_LOG(1, kLogTag,
               "fix, mainId = %d, subId = %d, time = %s, lat = %.6f, lon = %.6f, "
               "speed = %.1f km/h, quality = %d, satellites = %d\n",
               m_nMainId, m_nSubId, time.empty() ? "-" : time.c_str(), fix.latitude, fix.longitude,
               nmea::SpeedKmh(fix.speedKnots), fix.quality, fix.satellites);
    } else if (m_bWasValid) {
        PM_LOG(1, kLogTag, "fix lost, mainId = %d, subId = %d\n", m_nMainId, m_nSubId);
    }
    m_bWasValid = fix.valid;
}

bool CGpsNmea::GetLatestFix(nmea::GpsFix& out) const {
    std::lock_guard<std::mutex> lock(m_fixLock);
    if (m_bHaveFix) {
        out = m_latestFix;
    }
    return m_bHaveFix;
}
