#include "J1939.h"

namespace j1939 {

namespace {

constexpr uint32_t kIdMask = 0x1FFFFFFFu;
constexpr uint8_t kPduBoundary = 240;  // PF below: PDU1 (addressed), from here: PDU2

// The largest valid raw value of an n-byte parameter, and where its error range begins.
struct Range {
    uint32_t validMax;
    uint32_t errorMin;
    uint32_t notAvailableMin;
};
constexpr Range kRange16 = {0xFAFFu, 0xFE00u, 0xFF00u};
constexpr Range kRange32 = {0xFAFFFFFFu, 0xFE000000u, 0xFF000000u};

Value Scale(uint32_t raw, const Range& range, double resolution) {
    if (raw <= range.validMax) {
        return {Status::kValid, raw * resolution};
    }
    // The indicator block between valid and error is reserved; a sender using it is faulty.
    if (raw < range.notAvailableMin) {
        return {Status::kError, 0.0};
    }
    return {Status::kNotAvailable, 0.0};
}

// A 16-bit parameter at 1-based byte `first`.
Value Decode16(const uint8_t* data, size_t length, size_t first, double resolution) {
    if (data == nullptr || length < first + 1) {
        return {Status::kShortFrame, 0.0};
    }
    uint32_t raw = data[first - 1] | (static_cast<uint32_t>(data[first]) << 8);
    return Scale(raw, kRange16, resolution);
}

Value Decode32(const uint8_t* data, size_t length, size_t first, double resolution) {
    if (data == nullptr || length < first + 3) {
        return {Status::kShortFrame, 0.0};
    }
    uint32_t raw = 0;
    for (size_t i = 0; i < 4; ++i) {
        raw |= static_cast<uint32_t>(data[first - 1 + i]) << (8 * i);
    }
    return Scale(raw, kRange32, resolution);
}

}  // namespace

Id ParseId(uint32_t canId) {
    canId &= kIdMask;
    const uint8_t pf = static_cast<uint8_t>(canId >> 16);
    const uint8_t ps = static_cast<uint8_t>(canId >> 8);
    const uint32_t dataPages = (canId >> 24) & 0x3u;  // extended data page and data page
    Id id;
    id.priority = static_cast<uint8_t>((canId >> 26) & 0x7u);
    id.source = static_cast<uint8_t>(canId);
    if (pf < kPduBoundary) {
        id.pgn = (dataPages << 16) | (static_cast<uint32_t>(pf) << 8);
        id.destination = ps;
    } else {
        id.pgn = (dataPages << 16) | (static_cast<uint32_t>(pf) << 8) | ps;
        id.destination = kGlobalAddress;
    }
    return id;
}

uint32_t MakeId(uint8_t priority, uint32_t pgn, uint8_t source, uint8_t destination) {
    uint32_t id = (static_cast<uint32_t>(priority & 0x7u) << 26) | ((pgn & 0x3FFFFu) << 8) | source;
    const uint8_t pf = static_cast<uint8_t>(pgn >> 8);
    if (pf < kPduBoundary) {
        id = (id & ~0xFF00u) | (static_cast<uint32_t>(destination) << 8);
    }
    return id;
}

const char* StatusText(Status status) {
    switch (status) {
        case Status::kValid:
            return "valid";
        case Status::kError:
            return "error";
        case Status::kNotAvailable:
            return "not available";
        case Status::kShortFrame:
            return "short frame";
    }
    return "unknown";
}

Value DecodeEngineSpeed(const uint8_t* data, size_t length) {
    return Decode16(data, length, 4, 0.125);
}

Value DecodeWheelBasedSpeed(const uint8_t* data, size_t length) {
    return Decode16(data, length, 2, 1.0 / 256.0);
}

Value DecodeTotalVehicleDistance(const uint8_t* data, size_t length) {
    return Decode32(data, length, 5, 0.125);
}

Value DecodeEngineTotalHours(const uint8_t* data, size_t length) {
    return Decode32(data, length, 1, 0.05);
}

Parameter Apply(Latest& latest, uint32_t canId, const uint8_t* data, size_t length) {
    switch (ParseId(canId).pgn) {
        case kPgnEec1:
            latest.engineSpeedRpm = DecodeEngineSpeed(data, length);
            return Parameter::kEngineSpeed;
        case kPgnCcvs:
            latest.wheelSpeedKmh = DecodeWheelBasedSpeed(data, length);
            return Parameter::kWheelSpeed;
        case kPgnVehicleDistance:
            latest.totalDistanceKm = DecodeTotalVehicleDistance(data, length);
            return Parameter::kTotalDistance;
        case kPgnEngineHours:
            latest.engineHours = DecodeEngineTotalHours(data, length);
            return Parameter::kEngineHours;
        default:
            return Parameter::kNone;
    }
}

const Value& Get(const Latest& latest, Parameter parameter) {
    switch (parameter) {
        case Parameter::kWheelSpeed:
            return latest.wheelSpeedKmh;
        case Parameter::kTotalDistance:
            return latest.totalDistanceKm;
        case Parameter::kEngineHours:
            return latest.engineHours;
        default:
            return latest.engineSpeedRpm;
    }
}

const char* ParameterName(Parameter parameter) {
    switch (parameter) {
        case Parameter::kEngineSpeed:
            return "engine speed";
        case Parameter::kWheelSpeed:
            return "wheel-based speed";
        case Parameter::kTotalDistance:
            return "total distance";
        case Parameter::kEngineHours:
            return "engine hours";
        case Parameter::kNone:
            break;
    }
    return "none";
}

const char* ParameterUnit(Parameter parameter) {
    switch (parameter) {
        case Parameter::kEngineSpeed:
            return "rpm";
        case Parameter::kWheelSpeed:
            return "km/h";
        case Parameter::kTotalDistance:
            return "km";
        case Parameter::kEngineHours:
            return "h";
        case Parameter::kNone:
            break;
    }
    return "";
}

Frame BuildRequest(uint32_t pgn, uint8_t source, uint8_t destination) {
    Frame frame{};
    frame.canId = MakeId(6, kPgnRequest, source, destination);
    frame.length = 3;
    frame.data[0] = static_cast<uint8_t>(pgn);
    frame.data[1] = static_cast<uint8_t>(pgn >> 8);
    frame.data[2] = static_cast<uint8_t>(pgn >> 16);
    return frame;
}

}  // namespace j1939
