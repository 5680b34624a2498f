// What a change of one serial port entry asks of the registry, decided from the old and the new
// entry alone: the manager's reconciliation only carries the steps out, in order.
#ifndef SERIALBASIC_SERIAL_RECONCILE_H
#define SERIALBASIC_SERIAL_RECONCILE_H

#include <vector>

#include "PeripheralDefine.h"

struct SerialPortStep {
    enum Kind {
        kNotifyBox,         // a kept box hears of the change before anything else happens
        kNotifyLeavingBox,  // a box about to go hears of it too (logged at level 0)
        kRemoveChild,       // a sub-port instance goes ("index" is its place on the box)
        kRemoveBox,         // the box goes, always under sub id 0
        kRemoveForBox,      // a plain peripheral makes room for a box
        kRemove,            // a plain peripheral goes
        kCreate,            // queued: created after every port has been looked at
        kChanged,           // reported as changed to HandlePeripParamChange
    };
    Kind kind;
    unsigned int index;     // kRemoveChild only
    PeripheralPair logged;  // the ids the log line names
    PeripheralPair target;  // the instance removed or notified, the pair queued or reported
};

bool IsExtendBoxMainId(unsigned int mainId);
// A box or hub among the sub-ports of a box would have the reader hand a box's frames to a
// box inside its own delivery: such an entry counts as empty wherever sub-ports are read.
bool IsRefusedSubPort(const SerialExtendEntry_t& entry);

// The steps for port entry `oldPort` becoming `newPort`, in the order they are to be taken.
std::vector<SerialPortStep> PlanSerialPort(const SerialPortEntry_t& oldPort,
                                           const SerialPortEntry_t& newPort);

#endif
