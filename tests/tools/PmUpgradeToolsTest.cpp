// pm-fwpack and pm-upgrade on the inputs a careful user and a hostile one give them: real
// binaries, real files, folders, FIFOs and devices.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "ToolProcess.h"
#include "UpgradeFile.h"

namespace {

using pmtest::RunTool;

bool Has(const std::string& text, const std::string& needle) {
    return text.find(needle) != std::string::npos;
}

// Inputs no tool may abort or hang on: each is refused with its reason, exit status 2.
TEST(UpgradeTools, InputsThatAreNoFileAreRefusedWithTheirReason) {
    pmtest::TempDir dir;
    const std::string fifo = dir.File("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string sparse = dir.File("sparse");
    {
        const int fd = open(sparse.c_str(), O_WRONLY | O_CREAT, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(ftruncate(fd, 3LL << 30), 0);  // 3 GiB, no blocks
        close(fd);
    }
    const struct {
        std::string path;
        std::string why;
    } inputs[] = {{dir.Path(), "it is a folder"},
                  {fifo, "it is not a regular file"},
                  {"/dev/zero", "it is not a regular file"},
                  {sparse, "that one bus message can carry"}};
    for (const auto& input : inputs) {
        SCOPED_TRACE(input.path);
        for (const std::vector<std::string>& args :
             {std::vector<std::string>{"pm-fwpack", input.path, "V1", "-o", dir.File("x.CRC")},
              std::vector<std::string>{"pm-fwpack", "--inspect", input.path},
              std::vector<std::string>{"pm-upgrade", "--file", input.path}}) {
            const pmtest::ToolResult r =
                RunTool(args[0], std::vector<std::string>(args.begin() + 1, args.end()));
            EXPECT_EQ(r.status, 2) << args[0] << ": " << r.err;
            EXPECT_TRUE(Has(r.err, input.why)) << args[0] << ": " << r.err;
        }
    }
}

// Nothing written is never reported as written.
TEST(UpgradeTools, AnOutputThatCannotBeWrittenFailsTheRun) {
    pmtest::TempDir dir;
    const std::string image = dir.Write("image.bin", std::string(100, 'i'));
    for (const std::string& out :
         {dir.File("missing/V1.CRC"), std::string("/dev/full"), dir.Path()}) {
        SCOPED_TRACE(out);
        const pmtest::ToolResult r = RunTool("pm-fwpack", {image, "V1", "-o", out});
        EXPECT_EQ(r.status, 1) << r.err;
        EXPECT_TRUE(Has(r.err, "pm-fwpack: cannot write " + out)) << r.err;
        EXPECT_EQ(r.out, "") << "no success line";
    }
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.Path()),
                            std::filesystem::directory_iterator()),
              1)
        << "nothing left behind";
    const pmtest::ToolResult good = RunTool("pm-fwpack", {image, "V1", "-o", dir.File("V1.CRC")});
    EXPECT_EQ(good.status, 0) << good.err;
    EXPECT_EQ(pmtest::ReadFile(dir.File("V1.CRC")).size(), 100u + 100u + 80u);
}

// --inspect shows the version the box will get (the file's name) beside the head's text, and
// takes a file without entries as the service does.
TEST(UpgradeTools, InspectShowsWhichVersionTheBoxGets) {
    pmtest::TempDir dir;
    const std::vector<uint8_t> image(50, 7);
    std::vector<uint8_t> file = pmtools::MakeUpgradeFile(image, "HEAD-TEXT");
    const std::string named = dir.Write("BOX-MCU-V3.CRC", std::string(file.begin(), file.end()));
    pmtest::ToolResult r = RunTool("pm-fwpack", {"--inspect", named});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(Has(r.out, "version       BOX-MCU-V3 (the box gets this one")) << r.out;
    EXPECT_TRUE(Has(r.out, "head's text   HEAD-TEXT")) << r.out;

    // No entries: the image starts where entry 0 would, and entry 0 is read from it.
    std::vector<uint8_t> bare(100, 0);
    std::vector<uint8_t> entry(80, 0);
    entry[76] = 80;  // the image is these 80 bytes themselves
    const uint32_t crc = pmtools::UpgradeCrc(entry.data(), 80);
    for (int i = 0; i < 4; ++i) {
        entry[64 + i] = static_cast<uint8_t>(crc >> (8 * i));
    }
    const uint32_t crc2 = pmtools::UpgradeCrc(entry.data(), 80);  // the check changed it
    for (int i = 0; i < 4; ++i) {
        entry[64 + i] = static_cast<uint8_t>(crc2 >> (8 * i));
    }
    bare.insert(bare.end(), entry.begin(), entry.end());
    dir.Write("N0.CRC", std::string(bare.begin(), bare.end()));
    r = RunTool("pm-fwpack", {"--inspect", dir.File("N0.CRC")});
    EXPECT_TRUE(Has(r.out, "entries       0")) << r.out << r.err;
    EXPECT_FALSE(Has(r.out, "not an upgrade file")) << r.out;
}

TEST(UpgradeTools, PmUpgradeSaysWhatItsExitStatusesAndRefusalsMean) {
    pmtest::ToolResult r = RunTool("pm-upgrade", {"--source", "x"});
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(Has(r.err, "--source takes a number (0-2; the service refuses the others): x"))
        << r.err;
    EXPECT_TRUE(Has(r.err, "1 a state it does not know")) << r.err;
    EXPECT_TRUE(Has(r.err, "2 usage or an unusable --file")) << r.err;
    // Nobody answers for these ids.
    pmtest::PrivateBus bus;
    r = RunTool("pm-upgrade", {"--box", "77:0", "--timeout", "8"});
    EXPECT_EQ(r.status, 3) << r.out << r.err;
    EXPECT_TRUE(Has(r.out, "no box answered for 77:0")) << r.out;
}

}  // namespace
