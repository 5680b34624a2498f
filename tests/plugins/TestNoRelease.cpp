// libTestNoRelease.so: creates instances but exports no PeripheralRelease. The loader leaves
// such an instance running unregistered; nobody will ever delete it.
#include "TestProbe.h"

namespace {

class CNoReleaseProbe : public CPeripheralBase {
public:
    CNoReleaseProbe(CPeripheralManage* manage, CMsgClientManage* client, unsigned int mainId,
                    unsigned int subId)
        : CPeripheralBase(manage, client, PERIPHERAL_TYPE_SERIAL, mainId, subId) {}

    int PeripheralInitialize() override {
        testplugin::Journal("init", this);
        return 0;
    }
};

// Keeps the latest orphan reachable (it is abandoned by design, not lost); a plain pointer,
// so that no destructor at exit lets go of it before the leak check looks.
CPeripheralBase* g_orphan = nullptr;

}  // namespace

PERIPHERAL_PLUGIN_EXPORT CPeripheralBase* PeripheralCreate(CPeripheralManage* manage,
                                                           CMsgClientManage* client,
                                                           unsigned int mainId,
                                                           unsigned int subId) {
    g_orphan = new CNoReleaseProbe(manage, client, mainId, subId);
    testplugin::Journal("create", g_orphan);
    return g_orphan;
}
