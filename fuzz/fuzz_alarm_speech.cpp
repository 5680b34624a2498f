// The alarm speech document: any bytes as the file the manager reads, then the look-ups a
// plug-in makes, then the release of the manager's teardown.
#include <stddef.h>
#include <stdint.h>

#include <fstream>
#include <string>

#include "FuzzService.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CPeripheralManage& manage = fuzzsupport::Manager();
    static const std::string path = [] {
        const std::string& config = fuzzsupport::PeripheralConfigPath();
        return config.substr(0, config.rfind('/') + 1) + "ALARM_TTS_CFG";
    }();
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    if (manage.AnalyseAlarmTtsConfig() == 1) {
        for (unsigned int mainId : {0u, 1u, 3u, 255u}) {
            if (const LinkSpeech_t* record = manage.GetTtsAlarmSpeechConfig(mainId, 0)) {
                volatile char last = record->szText[record->usTextLength - 1];
                (void)last;
            }
        }
    }
    manage.ReleaseAlarmTtsSpeech();
    return 0;
}
