#include "BoxSim.h"

#include <cctype>
#include <cstdio>

#include "BusWire.h"
#include "ByteStuffing.h"
#include "Checksum.h"

namespace boxsim {

namespace {

constexpr uint8_t kStart = Common::kFrameStartMark;
constexpr uint8_t kEnd = Common::kFrameEndMark;
// The box's command codes are the service's (ExtendBoxRecords.h); these two it has not.
constexpr uint8_t kCmdIoReport = 0x33;
constexpr uint8_t kCmdMcuTest = 0x41;     // asked as 0x41, answered as EXTEND_BOX_CMD_MCU_TEST
constexpr uint8_t kSubDataDevice = 0xFF;  // device byte of the data a sub-port device sent

void AppendBe32(std::vector<uint8_t>& out, uint32_t v) {
    const size_t at = out.size();
    out.resize(at + 4);
    Common::PutBe32(out.data() + at, v);
}

}  // namespace

std::vector<uint8_t> Encode(const Frame& frame) {
    std::vector<uint8_t> plain = {kStart, frame.address, frame.device, 0};
    uint8_t check = 0;
    for (uint8_t b : frame.body) {
        check ^= b;
        plain.push_back(b);
    }
    plain[3] = frame.badCheck ? static_cast<uint8_t>(check ^ 0x5A) : check;
    plain.push_back(kEnd);
    std::vector<uint8_t> out(2 * plain.size());
    const int n = serial_transfrom_7e7f(plain.data(), out.data(), static_cast<int>(plain.size()));
    out.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return out;
}

Frame Answer(uint8_t device, uint8_t cmd, const std::vector<uint8_t>& payload) {
    Frame frame;
    frame.device = device;
    frame.body = {cmd, static_cast<uint8_t>(payload.size())};
    frame.body.insert(frame.body.end(), payload.begin(), payload.end());
    return frame;
}

void Decoder::Feed(const uint8_t* data, size_t length) {
    m_pending.insert(m_pending.end(), data, data + length);
}

bool Decoder::Next(Frame& out) {
    for (;;) {
        size_t start = m_pending.size();
        size_t end = m_pending.size();
        for (size_t i = 0; i < m_pending.size(); ++i) {
            if (m_pending[i] == kStart) {
                start = i;
            } else if (m_pending[i] == kEnd && start < m_pending.size()) {
                end = i;
                break;
            }
        }
        if (end == m_pending.size()) {
            // No complete frame: what lies before the last start mark can never become one,
            // nor can a start mark followed by more than a frame's worth without an end.
            if (start == m_pending.size() || m_pending.size() - start > 2 * kMaxFrame) {
                m_droppedBytes += m_pending.size();
                m_dropped += start == m_pending.size() ? 0 : 1;
                m_pending.clear();
            } else {
                m_droppedBytes += start;
                m_pending.erase(m_pending.begin(), m_pending.begin() + static_cast<long>(start));
            }
            return false;
        }
        m_droppedBytes += start;  // bytes before the frame's start mark
        std::vector<uint8_t> plain(end - start + 1);
        int state = SERIAL_UNSTUFF_START;
        const int n = serial_retransfrom_7e7f(m_pending.data() + start, plain.data(),
                                              static_cast<int>(plain.size()), &state);
        m_pending.erase(m_pending.begin(), m_pending.begin() + static_cast<long>(end + 1));
        if (n < 5) {
            ++m_dropped;
            continue;
        }
        uint8_t check = 0;
        for (int i = 4; i < n - 1; ++i) {
            check ^= plain[static_cast<size_t>(i)];
        }
        if (check != plain[3]) {
            ++m_dropped;
            continue;
        }
        out.address = plain[1];
        out.device = plain[2];
        out.body.assign(plain.begin() + 4, plain.begin() + (n - 1));
        out.badCheck = false;
        return true;
    }
}

Frame BoxModel::Own(uint8_t cmd, const std::vector<uint8_t>& payload) const {
    Frame frame = Answer(m_options.device, cmd, payload);
    return frame;
}

int BoxModel::Commands(uint8_t cmd) const {
    auto it = m_counts.find(cmd);
    return it == m_counts.end() ? 0 : it->second;
}

BoxModel::Output BoxModel::OnFrame(const Frame& in) {
    Output out;
    if (in.device != m_options.device) {
        // A sub-port's data: the whole body goes to that port's device.
        if (in.SubId() >= 1 && in.SubId() <= 4) {
            out.toSub.emplace_back(in.SubId(), in.body);
        }
        return out;
    }
    if (in.body.size() < 2) {
        return out;
    }
    const uint8_t cmd = in.body[0];
    ++m_counts[cmd];
    const std::vector<uint8_t> payload(in.body.begin() + 2, in.body.end());
    if (faults.silent) {
        return out;
    }
    auto scripted = script.find(cmd);
    if (scripted == script.end()) {
        FirmwareAnswer(cmd, payload, in, out);
    } else if (!scripted->second.empty()) {
        Frame frame;
        frame.device = m_options.device;
        frame.body = scripted->second;
        out.toLine.push_back(frame);
    }
    ApplyLineFaults(out);
    return out;
}

void BoxModel::FirmwareAnswer(uint8_t cmd, const std::vector<uint8_t>& payload, const Frame& in,
                              Output& out) {
    switch (cmd) {
        case EXTEND_BOX_CMD_SET_TRANSFORM_TYPE:
            m_linkMode = payload.empty() ? 0 : payload[0];
            out.toLine.push_back(Own(EXTEND_BOX_CMD_SET_TRANSFORM_TYPE, {1}));
            break;
        case EXTEND_BOX_CMD_GET_VERSION:
            out.toLine.push_back(
                Own(EXTEND_BOX_CMD_GET_VERSION,
                    std::vector<uint8_t>(m_options.version.begin(), m_options.version.end())));
            break;
        case EXTEND_BOX_CMD_HEARTBEAT:
            out.toLine.push_back(Own(EXTEND_BOX_CMD_HEARTBEAT, {1}));
            break;
        case EXTEND_BOX_CMD_SET_SUB_SERIAL:
            if (payload.size() >= 6) {
                m_settings[payload[0]] = std::vector<uint8_t>(payload.begin(), payload.begin() + 6);
            }
            out.toLine.push_back(Own(EXTEND_BOX_CMD_SET_SUB_SERIAL,
                                     {faults.refuseSettings ? uint8_t(0) : uint8_t(1)}));
            break;
        case kCmdMcuTest:
            out.toLine.push_back(Own(EXTEND_BOX_CMD_MCU_TEST, {1}));
            break;
        case EXTEND_BOX_CMD_HUB_IO_STATUS:
            out.toLine.push_back(IoReport(0));
            break;
        case EXTEND_BOX_CMD_UPGRADE_START:
        case EXTEND_BOX_CMD_UPGRADE_DATA:
        case EXTEND_BOX_CMD_UPGRADE_END:
            Upgrade(in, out);
            break;
        default:
            break;  // the firmware ignores what it does not know
    }
}

void BoxModel::ApplyLineFaults(Output& out) {
    for (Frame& frame : out.toLine) {
        if (faults.wrongLength && frame.body.size() >= 2) {
            ++frame.body[1];
        }
        if (faults.corruptChecks > 0) {
            --faults.corruptChecks;
            frame.badCheck = true;
        }
    }
}

void BoxModel::Upgrade(const Frame& in, Output& out) {
    const uint8_t cmd = in.body[0];
    const std::vector<uint8_t> payload(in.body.begin() + 2, in.body.end());
    if (cmd == EXTEND_BOX_CMD_UPGRADE_START) {
        if (payload.size() < 9 || faults.refuseStart) {
            out.toLine.push_back(Own(EXTEND_BOX_CMD_UPGRADE_START, {'B', 'U', 'S', 'Y', '!', 0}));
            return;
        }
        m_imageLength = Common::GetBe32(payload.data() + 5);
        m_image.clear();
        m_lineSizes.clear();
        m_nextLine = 1;
        out.toLine.push_back(Own(EXTEND_BOX_CMD_UPGRADE_START, {'R', 'E', 'A', 'D', 'Y', 0}));
        return;
    }
    if (cmd == EXTEND_BOX_CMD_UPGRADE_DATA) {
        if (payload.size() < 4) {
            return;
        }
        const uint32_t line = Common::GetBe32(payload.data());
        if (faults.stopAfterLine > 0 && line >= static_cast<uint32_t>(faults.stopAfterLine)) {
            return;
        }
        std::vector<uint8_t> answer;
        AppendBe32(answer, line);
        // A line past the length START announced is refused, as the firmware's flash
        // would have no room for it.
        const bool fits = m_image.size() + (payload.size() - 4) <= m_imageLength;
        const bool good =
            line == m_nextLine && fits && line != static_cast<uint32_t>(faults.failLine);
        if (good) {
            m_image.insert(m_image.end(), payload.begin() + 4, payload.end());
            m_lineSizes.push_back(payload.size() - 4);
            ++m_nextLine;
        }
        answer.push_back(good ? 1 : 0);
        out.toLine.push_back(Own(EXTEND_BOX_CMD_UPGRADE_DATA, answer));
        return;
    }
    const bool good = payload.size() >= 7 && m_image.size() == m_imageLength &&
                      Common::GetBe32(payload.data() + 3) == ImageCrc(m_image);
    if (good) {
        m_done = m_image;
        ++m_upgrades;
        if (!m_options.newVersion.empty()) {
            m_options.version = m_options.newVersion;
        }
    }
    out.toLine.push_back(Own(EXTEND_BOX_CMD_UPGRADE_END, {good ? uint8_t(1) : uint8_t(0)}));
}

Frame BoxModel::FromSubPort(int subId, const std::vector<uint8_t>& bytes) const {
    Frame frame;
    frame.address = static_cast<uint8_t>(0x80 | (subId & 0x07));
    frame.device = kSubDataDevice;
    frame.body = bytes;
    return frame;
}

Frame BoxModel::IoReport(uint8_t state) const {
    return Own(kCmdIoReport, {1, state});
}

uint32_t ImageCrc(const std::vector<uint8_t>& image) {
    return Common::Crc32Register(0, image.data(), image.size());
}

std::string ToHex(const std::vector<uint8_t>& bytes) {
    std::string out;
    char byte[4];
    for (uint8_t b : bytes) {
        snprintf(byte, sizeof(byte), "%s%02X", out.empty() ? "" : " ", b);
        out += byte;
    }
    return out;
}

}  // namespace boxsim
