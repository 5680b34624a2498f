// Byte work of the serial base: frame cutting and the protocol-0 frame.
#include <string>

#include <gtest/gtest.h>

#include "SerialFrame.h"
#include "SerialHarness.h"

namespace sertest {
namespace {

struct ScanCase {
    const char* what;
    std::string bytes;
    eExtendFrameScan scan;
    unsigned int start;
    unsigned int end;
};

std::ostream& operator<<(std::ostream& out, const ScanCase& c) {
    return out << c.what;
}

const ScanCase kScanCases[] = {
    {"leading garbage", std::string("\x11\x7E\xAA\x7F\x7E\xBB"), EXTEND_SCAN_FRAME, 1, 3},
    {"latest start mark wins", std::string("\x7E\x01\x7E\x02\x7F"), EXTEND_SCAN_FRAME, 2, 4},
    {"end mark before any start", std::string("\x7F\x7E\x05\x7F"), EXTEND_SCAN_FRAME, 1, 3},
    {"empty frame", std::string("\x7E\x7F"), EXTEND_SCAN_FRAME, 0, 1},
    {"start without end", std::string("\x01\x7E\x02"), EXTEND_SCAN_PARTIAL, 1, 0},
    {"no start mark", std::string("\x01\x02\x7F"), EXTEND_SCAN_NONE, 0, 0},
    {"nothing", std::string(), EXTEND_SCAN_NONE, 0, 0},
};

class FrameScan : public ::testing::TestWithParam<ScanCase> {};

TEST_P(FrameScan, FindsTheFirstCompleteFrame) {
    const ScanCase& c = GetParam();
    unsigned int start = 0;
    unsigned int end = 0;
    EXPECT_EQ(ScanExtendFrame(reinterpret_cast<const unsigned char*>(c.bytes.data()),
                              static_cast<unsigned int>(c.bytes.size()), start, end),
              c.scan)
        << c.what;
    if (c.scan != EXTEND_SCAN_NONE) {
        EXPECT_EQ(start, c.start) << c.what;
    }
    if (c.scan == EXTEND_SCAN_FRAME) {
        EXPECT_EQ(end, c.end) << c.what;
    }
}

INSTANTIATE_TEST_SUITE_P(Streams, FrameScan, ::testing::ValuesIn(kScanCases));

struct BuildCase {
    const char* what;
    unsigned char extendId;
    std::string data;
    const char* frame;  // hex, stuffed
};

std::ostream& operator<<(std::ostream& out, const BuildCase& c) {
    return out << c.what;
}

const BuildCase kBuildCases[] = {
    {"device byte only", 0, std::string("\x05", 1), "7E 80 05 00 7F"},
    {"nothing to stuff", 0, std::string("\x05\x01\x02", 3), "7E 80 05 03 01 02 7F"},
    {"marks and escape in the body", 0, std::string("\x05\x7E\x01\x7D", 4),
     "7E 80 05 02 7D 5E 01 7D 5D 7F"},
    {"check value that needs stuffing", 0, std::string("\x09\x7F", 2), "7E 80 09 7D 5F 7D 5F 7F"},
    {"sub-port number in the address", 3, std::string("\x05\x10", 2), "7E 83 05 10 10 7F"},
    {"address keeps seven bits", 0x85, std::string("\x05\x10", 2), "7E 85 05 10 10 7F"},
};

class FrameBuild : public ::testing::TestWithParam<BuildCase> {};

TEST_P(FrameBuild, WrapsAndStuffs) {
    const BuildCase& c = GetParam();
    unsigned char out[64];
    int n = BuildExtendDataFrame(c.extendId, reinterpret_cast<const unsigned char*>(c.data.data()),
                                 static_cast<unsigned int>(c.data.size()), out, sizeof(out));
    ASSERT_GT(n, 0) << c.what;
    EXPECT_EQ(Hex(std::string(reinterpret_cast<char*>(out), n)), c.frame) << c.what;
}

INSTANTIATE_TEST_SUITE_P(Frames, FrameBuild, ::testing::ValuesIn(kBuildCases));

TEST(FrameBuild, RefusesWhatDoesNotFit) {
    unsigned char out[8];
    EXPECT_EQ(BuildExtendDataFrame(0, reinterpret_cast<const unsigned char*>("\x05"), 0, out,
                                   sizeof(out)),
              -1);
    std::string data(5, '\x7E');  // a 10-byte frame that stuffs to 14
    EXPECT_EQ(BuildExtendDataFrame(0, reinterpret_cast<const unsigned char*>(data.data()), 5, out,
                                   sizeof(out)),
              -1);
}

}  // namespace
}  // namespace sertest
