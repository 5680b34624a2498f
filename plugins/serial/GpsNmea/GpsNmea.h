// GPS receiver on a serial port: reads NMEA 0183 sentences, keeps the latest fix.
#ifndef PLUGINS_SERIAL_GPS_NMEA_H
#define PLUGINS_SERIAL_GPS_NMEA_H

#include <atomic>
#include <mutex>
#include <string>

#include "NmeaParser.h"
#include "SerialBase.h"

// Receivers talk 9600 8N1 unless told otherwise; the recorder's serial setting of a main-chip
// port replaces the rate when it arrives or changes.
class CGpsNmea : public CSerialBase {
public:
    CGpsNmea(CPeripheralManage* manage, CMsgClientManage* client, unsigned int mainId,
             unsigned int subId);
    ~CGpsNmea() override;

    // Applies the receiver's line settings. Manager thread, once.
    int PeripheralInitialize() override;
    // Warns once when the receiver has been silent for kSilenceWarnMs. Manager thread
    // (shared) or the instance's thread (independent).
    int PeripheralThreadCycle(long long now) override;
    // Takes the received bytes, cuts sentences and updates the fix. Reader thread (main-chip
    // port) or bus thread (MCU port), buffer lock held.
    int ProcessPeripheralData() override;

    // Copy of the latest fix; false while no RMC or GGA has been decoded. Any thread.
    bool GetLatestFix(nmea::GpsFix& out) const;
    // Sentences refused for a bad checksum or bad fields. Any thread.
    uint32_t GetRejectedSentences() const { return m_nRejected.load(); }

    static constexpr long long kSilenceWarnMs = 5000;

private:
    void HandleSentence(const std::string& sentence);
    void LogFix(const nmea::GpsFix& fix);

    // Touched on the receiving thread only.
    nmea::LineSplitter m_splitter;
    nmea::FixTracker m_tracker;
    bool m_bSeenRmc;
    bool m_bWasValid;

    mutable std::mutex m_fixLock;  // guards m_latestFix and m_bHaveFix
    nmea::GpsFix m_latestFix;
    bool m_bHaveFix;

    std::atomic<uint32_t> m_nRejected;
    std::atomic<long long> m_llLastSentenceTime;  // platform clock, ms; 0 before the first
    bool m_bSilenceWarned;                        // cycle thread only
};

#endif
