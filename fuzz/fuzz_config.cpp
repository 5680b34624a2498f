// The peripheral configuration document: any bytes as the file the manager reads, then the
// look-ups that walk the document afterwards.
#include <stddef.h>
#include <stdint.h>

#include <fstream>
#include <vector>

#include "FuzzService.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CPeripheralManage& manage = fuzzsupport::Manager();
    {
        std::ofstream out(fuzzsupport::PeripheralConfigPath(), std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    if (manage.AnalysePeripheralConfig() == 1) {
        std::vector<PeripheralProperty> configured;
        manage.GetPeripheralConfig(PERIPHERAL_TYPE_SERIAL, configured);
        for (const PeripheralProperty& p : configured) {
            manage.GetPeripheralUiId(PERIPHERAL_TYPE_SERIAL, p.mainId, p.subId);
        }
        manage.GetPeripheralUiId(PERIPHERAL_TYPE_SERIAL, fuzzsupport::kSerialMainId, 0);
    }
    return 0;
}
