// What the test plug-ins have in common: a journal of what the manager did to them, written
// as log lines tagged "TEST_PLUGIN: " into the log the manager writes to, so that a test reads
// the manager's lines and the plug-ins' lines in one order.
//
//   TEST_PLUGIN: <event> <library> type=<kind> main=<main id> sub=<sub id>[ <details>]
//
// Events: create, null-create, init (a serial probe adds "link=<kind>"), param (details:
// "changed=<0|1> pairs=[m:s,...]", what CheckPeripPropertyChanged and GetChangedPeripPair
// report at that moment) and release.
#ifndef TESTS_PLUGINS_TEST_PROBE_H
#define TESTS_PLUGINS_TEST_PROBE_H

#include <stdio.h>

#include <string>
#include <type_traits>
#include <vector>

#include "BasicServiceExport.h"
#include "CommonLog.h"
#include "PeripheralBase.h"
#include "PeripheralManage.h"
#include "SerialBase.h"

#ifndef TEST_PLUGIN_NAME
#error "each test plug-in names itself with TEST_PLUGIN_NAME"
#endif

namespace testplugin {

inline void Journal(const char* event, ePeripheralType type, unsigned int mainId,
                    unsigned int subId, const std::string& details = std::string()) {
    PM_LOG(1, "TEST_PLUGIN: ", "%s %s type=%d main=%u sub=%u%s%s\n", event, TEST_PLUGIN_NAME,
           static_cast<int>(type), mainId, subId, details.empty() ? "" : " ", details.c_str());
}

inline void Journal(const char* event, const CPeripheralBase* instance) {
    Journal(event, instance->GetPeripheralType(), instance->GetMainId(), instance->GetSubId());
}

// The serial changed list as the instance sees it from inside HandlePeripParamChange.
inline std::string ChangedDetails(const CPeripheralBase* instance) {
    CPeripheralManage* manage = instance->GetPeripheralManage();
    std::vector<PeripheralPair> pairs;
    manage->GetChangedPeripPair(PERIPHERAL_TYPE_SERIAL, pairs);
    const int changed = manage->CheckPeripPropertyChanged(
        PERIPHERAL_TYPE_SERIAL, instance->GetMainId(), instance->GetSubId());
    char item[32];
    snprintf(item, sizeof(item), "changed=%d pairs=[", changed);
    std::string text = item;
    for (size_t i = 0; i < pairs.size(); ++i) {
        snprintf(item, sizeof(item), "%s%u:%u", i > 0 ? "," : "", pairs[i].mainId, pairs[i].subId);
        text += item;
    }
    return text + "]";
}

// A peripheral of any of the three bases that journals its initialisation and every
// parameter-change notification, then lets its base do what it always does.
template <class Base>
class CTestProbe : public Base {
public:
    CTestProbe(CPeripheralManage* manage, CMsgClientManage* client, unsigned int mainId,
               unsigned int subId)
        : Base(manage, client, mainId, subId) {}

    // A serial probe adds the link its base chose from the serial record ("link=<kind>").
    int PeripheralInitialize() override {
        std::string details;
        if constexpr (std::is_base_of_v<CSerialBase, Base>) {
            details = "link=" + std::string(1, static_cast<char>('0' + this->GetSerialType()));
        }
        Journal("init", this->GetPeripheralType(), this->GetMainId(), this->GetSubId(), details);
        return Base::PeripheralInitialize();
    }

    int HandlePeripParamChange() override {
        Journal("param", this->GetPeripheralType(), this->GetMainId(), this->GetSubId(),
                ChangedDetails(this));
        return Base::HandlePeripParamChange();
    }
};

template <class Base>
CPeripheralBase* CreateProbe(CPeripheralManage* manage, CMsgClientManage* client,
                             unsigned int mainId, unsigned int subId) {
    CPeripheralBase* instance = new CTestProbe<Base>(manage, client, mainId, subId);
    Journal("create", instance);
    return instance;
}

inline void ReleaseProbe(CPeripheralBase* instance) {
    if (instance == nullptr) {
        return;
    }
    Journal("release", instance);
    instance->StopPeripheralThread();
    delete instance;
}

}  // namespace testplugin

#endif
