#include "SerialReconcile.h"

namespace {

using Step = SerialPortStep;

void Push(std::vector<Step>& plan, Step::Kind kind, PeripheralPair logged, PeripheralPair target,
          unsigned int index = 0) {
    plan.push_back(Step{kind, index, logged, target});
}

PeripheralPair Ids(const SerialPortEntry_t& port) {
    return {port.mainFun, port.subFun};
}

PeripheralPair Ids(const SerialExtendEntry_t& child) {
    if (IsRefusedSubPort(child)) {
        return {PERIPHERAL_MAINID_NONE, 0};
    }
    return {child.mainFun, child.subFun};
}

// The same peripheral stays: a box re-checks its children, a changed baud rate is reported.
void PlanKept(const SerialPortEntry_t& oldPort, const SerialPortEntry_t& newPort,
              std::vector<Step>& plan) {
    if (oldPort.mainFun == PERIPHERAL_MAINID_NONE) {
        return;
    }
    if (IsExtendBoxMainId(oldPort.mainFun)) {
        // Told while the changed list is still empty.
        Push(plan, Step::kNotifyBox, {oldPort.mainFun, 0}, {oldPort.mainFun, 0});
        for (unsigned int k = 0; k < SERIAL_EXTEND_PORT_COUNT; ++k) {
            const SerialExtendEntry_t& oldChild = oldPort.extend[k];
            const SerialExtendEntry_t& newChild = newPort.extend[k];
            const PeripheralPair oldIds = Ids(oldChild);
            const PeripheralPair newIds = Ids(newChild);
            if (oldIds.mainId != newIds.mainId || oldIds.subId != newIds.subId) {
                Push(plan, Step::kRemoveChild, oldIds, oldIds, k);
                Push(plan, Step::kCreate, newIds, newIds);
            } else if (oldIds.mainId != PERIPHERAL_MAINID_NONE &&
                       oldChild.baudrate != newChild.baudrate) {
                Push(plan, Step::kChanged, oldIds, oldIds);
            }
        }
    }
    if (oldPort.baudrate != newPort.baudrate) {
        Push(plan, Step::kChanged, Ids(newPort), Ids(newPort));
    }
}

// Another peripheral takes the port. A box arriving in place of a box gets no entries for its
// children; one arriving in place of a plain peripheral is queued with all eight.
void PlanReplaced(const SerialPortEntry_t& oldPort, const SerialPortEntry_t& newPort,
                  std::vector<Step>& plan) {
    if (IsExtendBoxMainId(oldPort.mainFun)) {
        Push(plan, Step::kNotifyLeavingBox, {oldPort.mainFun, 0}, {oldPort.mainFun, 0});
        for (unsigned int k = 0; k < SERIAL_EXTEND_PORT_COUNT; ++k) {
            Push(plan, Step::kRemoveChild, Ids(oldPort.extend[k]), Ids(oldPort.extend[k]), k);
        }
        Push(plan, Step::kRemoveBox, Ids(oldPort), {oldPort.mainFun, 0});
        Push(plan, Step::kCreate, Ids(newPort), Ids(newPort));
        return;
    }
    if (IsExtendBoxMainId(newPort.mainFun)) {
        Push(plan, Step::kRemoveForBox, Ids(oldPort), Ids(oldPort));
        Push(plan, Step::kCreate, {newPort.mainFun, 0}, {newPort.mainFun, 0});
        for (const SerialExtendEntry_t& child : newPort.extend) {
            Push(plan, Step::kCreate, Ids(child), Ids(child));
        }
        return;
    }
    Push(plan, Step::kRemove, Ids(oldPort), Ids(oldPort));
    Push(plan, Step::kCreate, Ids(newPort), Ids(newPort));
}

}  // namespace

bool IsExtendBoxMainId(unsigned int mainId) {
    return mainId == PERIPHERAL_MAINID_EXTEND_BOX || mainId == PERIPHERAL_MAINID_EXTEND_HUB_BOX;
}

bool IsRefusedSubPort(const SerialExtendEntry_t& entry) {
    return IsExtendBoxMainId(entry.mainFun);
}

std::vector<SerialPortStep> PlanSerialPort(const SerialPortEntry_t& oldPort,
                                           const SerialPortEntry_t& newPort) {
    std::vector<Step> plan;
    if (oldPort.mainFun == newPort.mainFun && oldPort.subFun == newPort.subFun) {
        PlanKept(oldPort, newPort, plan);
    } else {
        PlanReplaced(oldPort, newPort, plan);
    }
    return plan;
}
