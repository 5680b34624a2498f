// libTestNoCreate.so: exports PeripheralRelease only.
#include "TestProbe.h"

PERIPHERAL_PLUGIN_EXPORT void PeripheralRelease(CPeripheralBase* instance) {
    testplugin::ReleaseProbe(instance);
}
