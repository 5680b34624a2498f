// Serial line enumerations shared by the service, its plug-ins and the parameter records.
// The values are the recorder's codes: they appear in configuration words and on the bus.
#ifndef SERIALBASIC_SERIAL_DEFINE_H
#define SERIALBASIC_SERIAL_DEFINE_H

// The codes arrive as bytes of the recorder's records and may hold any value; a fixed
// underlying type makes every value a valid one (an unknown code is handled, not undefined).
//
// Baud rate codes. The order is historical: 4800 first, 2400 and 28800 appended last.
// Configuration words: "B4800" ... "B28800"; an unknown word means 4800.
enum SerialBaudRate : int {
    SERIAL_BAUD_4800 = 0,
    SERIAL_BAUD_9600 = 1,
    SERIAL_BAUD_19200 = 2,
    SERIAL_BAUD_38400 = 3,
    SERIAL_BAUD_56000 = 4,
    SERIAL_BAUD_57600 = 5,
    SERIAL_BAUD_115200 = 6,
    SERIAL_BAUD_2400 = 7,
    SERIAL_BAUD_28800 = 8,
};

// Words "CS8", "CS7", "CS6", "CS5".
enum SerialDataBitMode : int {
    SERIAL_DATA_BIT_8 = 0,
    SERIAL_DATA_BIT_7 = 1,
    SERIAL_DATA_BIT_6 = 2,
    SERIAL_DATA_BIT_5 = 3,
};

// Words "1bit" and "2bit". The two middle values have no word; a main-chip port treats them
// as one stop bit, the MCU and the extension boxes have codes of their own for them.
enum SerialStopBitMode : int {
    SERIAL_STOP_BIT_1 = 0,
    SERIAL_STOP_BIT_0_5 = 1,
    SERIAL_STOP_BIT_1_5 = 2,
    SERIAL_STOP_BIT_2 = 3,
};

// Words "NONE", "ODD", "EVEN". A main-chip port gives odd parity for both ODD and EVEN.
enum SerialParityMode : int {
    SERIAL_PARITY_NONE = 0,
    SERIAL_PARITY_ODD = 1,
    SERIAL_PARITY_EVEN = 2,
};

// Every configuration word gives NONE; flow control is never applied to a main-chip port.
// The other values are understood by the extension boxes only.
enum SerialFlowControlMode : int {
    SERIAL_FLOW_NONE = 0,
    SERIAL_FLOW_HARDWARE = 1,
    SERIAL_FLOW_SOFTWARE = 2,
    SERIAL_FLOW_DTR_DSR = 3,
};

// How a serial peripheral's bytes are shaped on the line ("DEV_SERIAL_PROTOCOL_TYPE").
enum eSerialProtocolType : int {
    SERIAL_PROTOCOL_EXTEND_FRAME = 0,  // bytes are wrapped in the extension box frame
    SERIAL_PROTOCOL_FRAME = 1,         // bytes are already a complete frame of that protocol
    SERIAL_PROTOCOL_TRANSPARENT = 2,   // plain bytes (the default)
};

// Property mask bits of the serial settings calls.
enum : unsigned char {
    SERIAL_PROPERTY_SPEED = 0x01,
    SERIAL_PROPERTY_DATA_BIT = 0x02,
    SERIAL_PROPERTY_STOP_BIT = 0x04,
    SERIAL_PROPERTY_PARITY = 0x08,
    SERIAL_PROPERTY_FLOW = 0x10,
    SERIAL_PROPERTY_ALL = 0x1F,
};

// What one GetSerialBufferData hands out at most, and what one delivery may leave in the
// receive buffer before older bytes are dropped: size a plug-in's read buffer by it. It is
// also the most one read of a tty, one MCU message and one box frame carry.
enum : unsigned int { SERIAL_DELIVERY_SIZE = 1024 };

#endif
