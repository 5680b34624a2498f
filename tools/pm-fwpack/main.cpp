// pm-fwpack: makes an extension box's upgrade file from a firmware image, or inspects one.
//   pm-fwpack IMAGE VERSION [-o FILE]      writes FILE (default VERSION.CRC)
//   pm-fwpack --inspect FILE               prints its fields; exit 1 when its check is wrong
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "UpgradeFile.h"

namespace {

int Usage() {
    fprintf(stderr,
            "usage: pm-fwpack IMAGE VERSION [-o FILE]   make an upgrade file (default "
            "VERSION.CRC)\n"
            "       pm-fwpack --inspect FILE            show one and check its check value\n"
            "The box takes its new version from the file's name up to \".CRC\": keep the "
            "name.\n");
    return 2;
}

int Inspect(const std::string& path) {
    std::vector<uint8_t> file;
    if (!pmtools::ReadWholeFile(path, file)) {
        fprintf(stderr, "pm-fwpack: cannot read %s\n", path.c_str());
        return 2;
    }
    pmtools::UpgradeFileInfo info;
    std::string error;
    if (!pmtools::InspectUpgradeFile(file, info, error)) {
        printf("%s: not an upgrade file: %s\n", path.c_str(), error.c_str());
        return 1;
    }
    const bool good = info.crc == info.computedCrc;
    printf(
        "%s\n  entries       %u\n  image         %u bytes\n  check value   0x%08x (%s, "
        "computed 0x%08x)\n  version       %s\n",
        path.c_str(), info.entries, info.imageLength, info.crc, good ? "right" : "WRONG",
        info.computedCrc, info.version.empty() ? "(not in the head)" : info.version.c_str());
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
        out = version + ".CRC";
    }
    std::vector<uint8_t> image;
    if (!pmtools::ReadWholeFile(args[0], image) || image.empty()) {
        fprintf(stderr, "pm-fwpack: cannot read %s, or it is empty\n", args[0].c_str());
        return 2;
    }
    const std::vector<uint8_t> file = pmtools::MakeUpgradeFile(image, version);
    std::ofstream(out, std::ios::binary)
        .write(reinterpret_cast<const char*>(file.data()),
               static_cast<std::streamsize>(file.size()));
    printf("%s: %zu bytes, image %zu bytes, check value 0x%08x, version %s\n", out.c_str(),
           file.size(), image.size(), pmtools::UpgradeCrc(image.data(), image.size()),
           version.c_str());
    return 0;
}
