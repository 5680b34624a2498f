// pm-fwpack: makes an extension box's upgrade file from a firmware image, or inspects one.
//   pm-fwpack IMAGE VERSION [-o FILE]      writes FILE (default VERSION.CRC)
//   pm-fwpack --inspect FILE               prints its fields; exit 1 when its check is wrong
// Exit status: 0 done, 1 the file inspected is not usable or the output could not be
// written, 2 usage or an input that cannot be read.
#include <cstdio>
#include <string>
#include <vector>

#include "UpgradeFile.h"

namespace {

constexpr const char kCrcSuffix[] = ".CRC";
constexpr size_t kVersionMax = 31;  // what the service keeps of it

int Usage() {
    fprintf(stderr,
            "usage: pm-fwpack IMAGE VERSION [-o FILE]   make an upgrade file (default "
            "VERSION.CRC)\n"
            "       pm-fwpack --inspect FILE            show one and check its check value\n"
            "The box takes its new version from the file's name up to \".CRC\": keep the "
            "name.\n"
            "Files up to %zu bytes (what one bus message carries); exit status 0 done, 1 not\n"
            "usable or not written, 2 usage or unreadable input.\n",
            pmtools::kMaxUpgradeFileSize);
    return 2;
}

// The version the service gives the box: the file's name up to its first ".CRC".
std::string VersionFromName(const std::string& path) {
    const std::string base = path.substr(path.find_last_of('/') + 1);
    const size_t cut = base.find(kCrcSuffix);
    return (cut == std::string::npos ? base : base.substr(0, cut)).substr(0, kVersionMax);
}

int Inspect(const std::string& path) {
    std::vector<uint8_t> file;
    std::string error;
    if (!pmtools::ReadWholeFile(path, file, pmtools::kMaxUpgradeFileSize, error)) {
        fprintf(stderr, "pm-fwpack: cannot read %s: %s\n", path.c_str(), error.c_str());
        return 2;
    }
    pmtools::UpgradeFileInfo info;
    if (!pmtools::InspectUpgradeFile(file, info, error)) {
        printf("%s: not an upgrade file: %s\n", path.c_str(), error.c_str());
        return 1;
    }
    const bool good = info.crc == info.computedCrc;
    printf(
        "%s\n  entries       %u\n  image         %u bytes\n  check value   0x%08x (%s, "
        "computed 0x%08x)\n  version       %s (the box gets this one: the file's name up to "
        "\".CRC\")\n  head's text   %s\n",
        path.c_str(), info.entries, info.imageLength, info.crc, good ? "right" : "WRONG",
        info.computedCrc, VersionFromName(path).c_str(),
        info.version.empty() ? "(none)" : info.version.c_str());
    return good ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.size() == 2 && args[0] == "--inspect") {
        return Inspect(args[1]);
    }
    std::string out;
    if (args.size() == 4 && args[2] == "-o") {
        out = args[3];
    } else if (args.size() != 2) {
        return Usage();
    }
    const std::string& version = args[1];
    if (version.empty() || version.size() >= 32) {
        fprintf(stderr, "pm-fwpack: the version must have 1 to 31 characters\n");
        return 2;
    }
    if (out.empty()) {
        out = version + kCrcSuffix;
    }
    std::vector<uint8_t> image;
    std::string error;
    const size_t imageLimit =
        pmtools::kMaxUpgradeFileSize - pmtools::kUpgradeHeadSize - pmtools::kUpgradeEntrySize;
    if (!pmtools::ReadWholeFile(args[0], image, imageLimit, error)) {
        fprintf(stderr, "pm-fwpack: cannot read %s: %s\n", args[0].c_str(), error.c_str());
        return 2;
    }
    if (image.empty()) {
        fprintf(stderr, "pm-fwpack: %s is empty\n", args[0].c_str());
        return 2;
    }
    const std::vector<uint8_t> file = pmtools::MakeUpgradeFile(image, version);
    if (!pmtools::WriteWholeFile(out, file, error)) {
        fprintf(stderr, "pm-fwpack: cannot write %s: %s\n", out.c_str(), error.c_str());
        return 1;
    }
    if (VersionFromName(out) != version) {
        fprintf(stderr,
                "pm-fwpack: note: the box will get the version \"%s\" from this file's name, "
                "not \"%s\"\n",
                VersionFromName(out).c_str(), version.c_str());
    }
    printf("%s: %zu bytes, image %zu bytes, check value 0x%08x, version %s\n", out.c_str(),
           file.size(), image.size(), pmtools::UpgradeCrc(image.data(), image.size()),
           version.c_str());
    return 0;
}
