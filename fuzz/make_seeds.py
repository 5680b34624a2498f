#!/usr/bin/env python3
"""Writes the fuzz targets' seed corpora into fuzz/corpus/<target>/: the messages, documents
and frames the tests use, so that fuzzing starts from inputs that reach deep. Run it again
after a change to the message layouts; the files it writes are committed."""
import json
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)

def message(event, payload, length=None):
    """An input of fuzz_bus_handlers: the event id (4 bytes, little-endian), then the message."""
    head = struct.pack("<IIII", event, 50, 1, len(payload) if length is None else length)
    return struct.pack("<I", event) + head + payload


def serial_setting(ports):
    record = bytearray(992)
    for port, (main, baud, sub, extend) in ports.items():
        record[72 * port:72 * port + 3] = bytes([main, baud, sub])
        for k, (emain, ebaud, esub) in extend.items():
            at = 72 * port + 8 + 8 * k
            record[at:at + 3] = bytes([emain, ebaud, esub])
    return bytes(record)


def can_frames(main, sub, items):
    out = struct.pack("<HHBBH", main, sub, 0, 0, len(items))
    for can_id, data in items:
        out += struct.pack("<IB3x", can_id, len(data)) + data.ljust(8, b"\0")
    return out


def crc32_register(data):
    """The box firmware's image check: reflected CRC-32 register, start 0, no inversion."""
    crc = 0
    for b in data:
        crc ^= b
        for _ in range(8):
            crc = (crc >> 1) ^ 0xEDB88320 if crc & 1 else crc >> 1
    return crc


def box_frame(address, device, body):
    check = 0
    for b in body:
        check ^= b
    inner = bytes([address, device, check]) + bytes(body)
    out = bytearray(b"\x7e")
    for b in inner:
        out += bytes([0x7D, b ^ 0x20]) if b in (0x7D, 0x7E, 0x7F) else bytes([b])
    return bytes(out) + b"\x7f"


def write(target, name, data):
    folder = os.path.join(HERE, "corpus", target)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data)


def bus_handlers():
    t = "fuzz_bus_handlers"
    write(t, "serial-plain", message(316, serial_setting({0: (7, 1, 0, {}), 5: (34, 6, 0, {})})))
    write(t, "serial-box", message(316, serial_setting(
        {4: (1, 5, 0, {0: (34, 5, 0), 1: (36, 1, 0)}), 0: (7, 3, 1, {})})))
    write(t, "serial-hub", message(33083, serial_setting({6: (149, 6, 0, {2: (8, 1, 0)})})))
    can = bytearray(208)
    can[0:3] = bytes([12, 0, 2])
    write(t, "can-setting", message(360, bytes(can)))
    eth = bytearray(336)
    eth[0:2] = bytes([20, 0])
    eth[4:4 + 8] = b"10.0.0.1"
    eth[20:22] = struct.pack("<H", 5000)
    write(t, "ethernet-setting", message(362, bytes(eth)))
    write(t, "can-frames", message(1089, can_frames(12, 0, [
        (0x0CF00400, bytes.fromhex("f07d7d00000000ff")), (0x18FEF100, b"\x01\x02\x03")])))
    write(t, "can-bad-length", message(1089, can_frames(12, 0, [(0x123, b"")])[:-16] +
                                       struct.pack("<IB3x", 0x123, 9) + b"\0" * 8))
    write(t, "can-filter", message(1136, bytes([0, 3])))
    mcu = struct.pack("<HHI", 7, 0, 12) + b"$GPGGA,12\r\n"
    write(t, "mcu-data", message(1090, mcu))
    write(t, "mcu-lying-length", message(1090, struct.pack("<HHI", 7, 0, 5000) + b"abc"))
    write(t, "debug-level", message(10, struct.pack("<HHI", 0x1A00, 4, 0)))
    write(t, "device-ready", message(1150, b"\x01"))
    write(t, "led", message(1122, bytes(range(16))))
    write(t, "storage", message(2053, bytes(24) + bytes([2, 0, 1, 1, 5, 0, 1, 1]) + bytes(8)))
    write(t, "vehicle", message(1081, struct.pack("<I", 8) + bytes(44) + struct.pack("<I", 8) +
                                b"\x08" + bytes(3)))
    write(t, "udisk", message(33887, bytes(48) + b"/mnt/usb1".ljust(40, b"\0") +
                              struct.pack("<Q", 20000000) + bytes(32)))
    write(t, "usb-state", message(1060, b"\x01" + bytes(71)))
    write(t, "short-head", message(316, b"", length=992))
    # The box on port 4 (main id 1): an upgrade trigger, a file, the state and version queries.
    write(t, "box-trigger", message(6704, bytes([0, 1, 0, 4, 0, 0, 0, 0, 0, 1])))
    image = bytes(range(200))
    head = bytearray(100)
    head[96:100] = struct.pack("<I", 1)
    entry = bytearray(80)
    entry[64:68] = struct.pack("<I", crc32_register(image))
    entry[76:80] = struct.pack("<I", len(image))
    name = b"BOX-MCU-V2.00.CRC".ljust(64, b"\0")
    upgrade = bytes([1, 3, 0, 0]) + name + struct.pack("<I", 180 + len(image)) + bytes(32)
    write(t, "box-file", message(39473, upgrade + bytes(head) + bytes(entry) + image))
    write(t, "box-file-lies", message(39473, upgrade + bytes(head[:96]) + struct.pack("<I", 9999)))
    write(t, "box-state", message(6708, bytes([1, 0, 1, 0])))
    write(t, "box-version", message(6711, bytes([0, 1, 0, 0, 0, 0, 0, 0, 0, 2])))
    write(t, "hub-io", message(6904, bytes(4)))


def config():
    t = "fuzz_config"
    with open(os.path.join(ROOT, "examples/root/usr/local/cfg/DEVICE_SERIAL_EXTEND_CFG"), "rb") as f:
        write(t, "example-root", f.read())
    write(t, "sub-functions", json.dumps({"DEVICE_SERIAL_SETTING": [
        {"DEV_SERIAL_FUNCID": 7, "DEV_SERIAL_LIB_NAME": "libgps", "DEV_SERIAL_BAUD_RATE": "B9600",
         "DEV_SERIAL_PROTOCOL_TYPE": 1, "DEV_SERIAL_SUB_FUNCTION": [
             {"DEV_SERIAL_SUB_FUNCID": 2, "DEV_SERIAL_BAUD_RATE": "B115200"},
             {"DEV_SERIAL_SUB_FUNCID": 3}]}],
        "DEVICE_PERIPHERAL_PARAM_SETTING": {"SERIAL_PARAM": [
            {"NAME": "232", "POSITION": 0, "PATH": "/dev/ttyAMA2"},
            {"NAME": "485-2", "POSITION": 12}]}}).encode())
    write(t, "wrong-types", b'{"DEVICE_SERIAL_SETTING": [{"DEV_SERIAL_FUNCID": "7"}, 3],'
                            b' "DEVICE_CANPORT_SETTING": "none"}')


def frames():
    t = "fuzz_frame_cutter"
    # Pieces: a size byte (size = 1 + 8 * byte), then the bytes.
    def piece(data):
        size = max(0, (len(data) - 1 + 7) // 8)
        return bytes([size]) + data.ljust(1 + 8 * size, b"\0")
    write(t, "two-frames", piece(b"\x11\x7e\xaa\x7f\x7e\xbb") + piece(b"\xcc\x7f"))
    write(t, "box-answer", piece(bytes.fromhex("7e8004050704010102037f")))
    write(t, "stuffed", piece(bytes.fromhex("7e810400") + b"\x7d\x5e\x7d\x5f\x7d\x5d" + b"\x7f"))
    write(t, "never-ends", piece(b"\x7e" + b"x" * 1500) + piece(b"y" * 1000 + b"\x7e\x01"))


def extend_box():
    t = "fuzz_extend_box"
    # Byte 0 picks the path: 0 raw line bytes, 1 checked frames built from the input, 2 one
    # answer as the box's parser takes it, 3 the unframed answers of an MCU-relayed box.
    write(t, "raw-answers", b"\x00" + box_frame(0x80, 4, [0xA0, 1, 1]) +
          box_frame(0x80, 4, [4, 9]) + b"BOX-MCU-1" + b"\x7f")
    write(t, "framed-version", b"\x01" + bytes([0x80, 4, 11, 4, 9]) + b"BOX-MCU-1")
    write(t, "framed-sub-data", b"\x01" + bytes([0x81, 0x33, 3, 0x7e, 0x7f, 0x7d]))
    write(t, "upgrade-answers", b"\x02" + bytes([1, 6]) + b"READY\x00")
    write(t, "line-answer", b"\x02" + bytes([2, 5, 0, 0, 0, 1, 1]))
    write(t, "unframed", b"\x03" + bytes([4, 7, 1, 0x31]))
    image = bytes(range(100))
    record = bytearray(284)
    record[0:3] = bytes([1, 3, 0])
    record[4:10] = b"V2.CRC"
    record[68:72] = struct.pack("<I", 180 + len(image))
    record[200:204] = struct.pack("<I", 1)
    record[268:272] = struct.pack("<I", crc32_register(image))
    record[280:284] = struct.pack("<I", len(image))
    write(t, "upgrade-file", b"\x04" + bytes(record) + image)
    # READY, then lines 1 and 2 acknowledged, then END answered.
    answers = [bytes([1, 6]) + b"READY\x00", bytes([2, 5, 0, 0, 0, 1, 1]),
               bytes([2, 5, 0, 0, 0, 2, 1]), bytes([3, 1, 1])]
    write(t, "upgrade-running", b"\x05" + b"".join(bytes([len(a)]) + a for a in answers))


def alarm_speech():
    t = "fuzz_alarm_speech"
    with open(os.path.join(ROOT, "examples/root/usr/local/cfg/ALARM_TTS_CFG"), "rb") as f:
        write(t, "example-root", f.read())
    entry = {"CONTENT": "x" * 300, "PLAY_TIMES": 1, "INTERVAL": 2, "HANDLE_TYPE": 3,
             "AO_CHN": 4, "LABABIT": 5, "MAIN_ID": 3, "SUB_ID": 0}
    write(t, "long-and-bad", json.dumps({"ALARM_TTS_PARAM": [
        entry, dict(entry, SUB_ID="0"), dict(entry, CONTENT=7), 5, [],
        dict(entry, MAIN_ID=-1)]}).encode())


def stuffing():
    t = "fuzz_stuffing"
    write(t, "marks", b"\x00\x7e\x7f\x7d\x01")
    write(t, "escapes", b"\x7d\x5e\x7d\x5f\x7d\x5d\x7d")
    write(t, "plain", b"hello, box")


def upgrade_file():
    t = "fuzz_upgrade_file"
    image = bytes(range(200))
    head = bytearray(100)
    head[0:4] = b"PMFW"
    head[4:14] = b"BOX-MCU-V2"
    head[96:100] = struct.pack("<I", 1)
    entry = bytearray(80)
    entry[64:68] = struct.pack("<I", crc32_register(image))
    entry[76:80] = struct.pack("<I", len(image))
    write(t, "good", bytes(head) + bytes(entry) + image)
    lies = bytearray(head)
    lies[96:100] = struct.pack("<I", 0xFFFFFFFF)
    write(t, "entries-lie", bytes(lies) + bytes(entry) + image)
    write(t, "no-entries", bytes(head[:96]) + struct.pack("<I", 0) + bytes(entry) + image)


def scenario():
    t = "fuzz_scenario"
    for name in ("scenario.json", "scenario-changed.json", "scenario-selftest.json"):
        with open(os.path.join(ROOT, "examples", name), "rb") as f:
            write(t, name, f.read())
    write(t, "udisk-long-mount", json.dumps({"udisk": {"mount": "/" + "m" * 60}}).encode())


def nmea():
    t = "fuzz_nmea"
    for name in ("bt-q818.log", "GPSmap-76S.log"):
        with open(os.path.join(ROOT, "tests/data/nmea", name), "rb") as f:
            write(t, name, b"\x10" + f.read(3000))
    write(t, "bad-checksums", b"\x05$GPRMC,1,A,x*00\r\n$GPGGA,,,,,,,,,*ZZ\r\n" + b"$" * 300)


if __name__ == "__main__":
    bus_handlers()
    config()
    frames()
    extend_box()
    alarm_speech()
    stuffing()
    upgrade_file()
    scenario()
    nmea()
