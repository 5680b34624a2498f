#include "PeripheralManage.h"

#include <stdlib.h>
#include <string.h>

#include "AlarmSpeech.h"
#include "MsgView.h"
#include "CommonLog.h"
#include "MutexGuard.h"
#include "PeripheralManageInternal.h"

using manage::kLogTag;

// ---------------------------------------------------------------------------------------------
// Alarm speech

int CPeripheralManage::AnalyseAlarmTtsConfig() {
    setenv(speech::kDocument, speech::kDocumentPath, 1);
    if (Q7R_GetJsonByEnv(speech::kDocument, m_jsonAlarmTtsCfg) != 0) {
        PM_LOG(0, "", "S_MAMAGE:: Q7R_GetJsonByEnv ALARM_TTS_CFG faild!\n");
        return 0;
    }
    for (const speech::Entry& entry : speech::RecordsFrom(m_jsonAlarmTtsCfg)) {
        LinkSpeech_t* record = entry.record;
        {
            MutexGuard guard(m_TtsLock);
            const auto* bytes = reinterpret_cast<const char*>(record);
            auto made = m_mapTtsRecords.emplace(
                std::make_tuple(entry.mainId, entry.subId,
                                std::string(bytes, speech::RecordSize(record))),
                record);
            if (!made.second) {
                free(record);  // this pair's record with the same bytes serves
                record = made.first->second;
            }
            // The record this replaces stays where it is: a plug-in may still hold it.
            m_mapAlarmTtsSpeech[entry.mainId][entry.subId] = record;
        }
        PM_LOG(2, kLogTag,
               "Analy TTS alarm config, mainId = %d, subId = %d, times = %d, volumn = %d, "
               "len = %d, content = %s, %s\n",
               entry.mainId, entry.subId, record->ucPlayTimes, record->ucVolumn,
               Common::GetLe16(&record->usTextLength), record->szText, entry.text);
    }
    return 1;
}

LinkSpeech_t* CPeripheralManage::GetTtsAlarmSpeechConfig(unsigned int mainId, unsigned int subId) {
    MutexGuard guard(m_TtsLock);
    auto byMain = m_mapAlarmTtsSpeech.find(mainId);
    if (byMain == m_mapAlarmTtsSpeech.end()) {
        return nullptr;
    }
    auto bySub = byMain->second.find(subId);
    return bySub == byMain->second.end() ? nullptr : bySub->second;
}

void CPeripheralManage::ReleaseAlarmTtsSpeech() {
    MutexGuard guard(m_TtsLock);
    for (auto& byMain : m_mapAlarmTtsSpeech) {
        for (auto& bySub : byMain.second) {
            bySub.second = nullptr;
        }
    }
    m_mapAlarmTtsSpeech.clear();
    for (auto& made : m_mapTtsRecords) {
        free(made.second);
    }
    m_mapTtsRecords.clear();
}

int CPeripheralManage::OnSwitchLanguageFinished(const char* data, int length) {
    if (MsgView(data, length).TooShort()) {
        PM_LOG(0, kLogTag, "OnSwitchLanguageFinished param error\n");
        return -1;
    }
    // GuiTKGetText follows the recorder's language by itself.
    PM_LOG(1, kLogTag, "Language changed, and reload alarm TTS config\n");
    if (AnalyseAlarmTtsConfig() != 0) {
        // Logged when the reload worked: the recorder's tools expect this line so.
        PM_LOG(0, kLogTag, "Reload TTS alarm config failed\n");
    }
    return 0;
}
