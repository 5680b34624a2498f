// J1939 helpers of the sample CAN plug-in: identifier fields, the few parameters the plug-in
// reads, and the request frame. Pure functions over bytes; nothing here touches the bus.
#ifndef PLUGINS_CAN_J1939_H
#define PLUGINS_CAN_J1939_H

#include <cstddef>
#include <cstdint>

namespace j1939 {

constexpr uint32_t kPgnRequest = 59904;          // 0xEA00, PDU1: carries a destination
constexpr uint32_t kPgnEec1 = 61444;             // 0xF004, electronic engine controller 1
constexpr uint32_t kPgnVehicleDistance = 65248;  // 0xFEE0
constexpr uint32_t kPgnEngineHours = 65253;      // 0xFEE5
constexpr uint32_t kPgnCcvs = 65265;             // 0xFEF1, cruise control / vehicle speed
constexpr uint8_t kGlobalAddress = 0xFF;

// Fields of a 29-bit identifier. Bits above 28 (flags some CAN stacks keep there) are ignored.
struct Id {
    uint32_t pgn;
    uint8_t priority;     // 0 highest .. 7
    uint8_t source;       // source address
    uint8_t destination;  // PDU1 (PF < 240): the PS byte; PDU2: global (0xFF)
};
Id ParseId(uint32_t canId);
// The identifier that carries `pgn` from `source` to `destination` (ignored for PDU2 PGNs).
uint32_t MakeId(uint8_t priority, uint32_t pgn, uint8_t source, uint8_t destination);

// A decoded parameter. J1939 reserves the top of every range: 0xFExx.. means the sender has
// an error, 0xFFxx.. that it does not have the value.
enum class Status { kValid, kError, kNotAvailable, kShortFrame };
struct Value {
    Status status;
    double value;  // in the parameter's unit; 0 unless kValid
};
const char* StatusText(Status status);

// Byte positions below are J1939's 1-based ones; all multi-byte values are little-endian.
// EEC1 bytes 4-5: engine speed, 0.125 rpm/bit.
Value DecodeEngineSpeed(const uint8_t* data, size_t length);
// CCVS bytes 2-3: wheel-based vehicle speed, 1/256 km/h per bit.
Value DecodeWheelBasedSpeed(const uint8_t* data, size_t length);
// Vehicle distance bytes 5-8: total vehicle distance, 0.125 km/bit.
Value DecodeTotalVehicleDistance(const uint8_t* data, size_t length);
// Engine hours bytes 1-4: total engine hours, 0.05 h/bit.
Value DecodeEngineTotalHours(const uint8_t* data, size_t length);

// The parameters the sample follows, and the latest value of each (kShortFrame until a frame
// carrying it has been seen).
enum class Parameter { kNone, kEngineSpeed, kWheelSpeed, kTotalDistance, kEngineHours };
struct Latest {
    Value engineSpeedRpm{Status::kShortFrame, 0.0};
    Value wheelSpeedKmh{Status::kShortFrame, 0.0};
    Value totalDistanceKm{Status::kShortFrame, 0.0};
    Value engineHours{Status::kShortFrame, 0.0};
};
// Decodes one received frame into `latest`. Returns the parameter it updated, kNone for a PGN
// the sample does not follow.
Parameter Apply(Latest& latest, uint32_t canId, const uint8_t* data, size_t length);
const Value& Get(const Latest& latest, Parameter parameter);  // parameter must not be kNone
const char* ParameterName(Parameter parameter);
const char* ParameterUnit(Parameter parameter);

// A request for `pgn` (PGN 59904, priority 6): three data bytes, the PGN little-endian.
struct Frame {
    uint32_t canId;
    uint8_t length;
    uint8_t data[8];
};
Frame BuildRequest(uint32_t pgn, uint8_t source, uint8_t destination);

}  // namespace j1939

#endif
