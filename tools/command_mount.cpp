// ntfskit mount [-o ro] [-f] [-d] IMAGE MOUNTPOINT
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "cli.h"
#include "mount/fuse_mount.h"

namespace ntfs::cli {

namespace {

const char kMountUsage[] =
    "usage: ntfskit mount [-o ro] [-f] [-d] IMAGE MOUNTPOINT\n"
    "  serve the volume in IMAGE at MOUNTPOINT through FUSE, read and write;\n"
    "  unmount with fusermount3 -u MOUNTPOINT (or SIGINT/SIGTERM in the foreground)\n"
    "  -o ro   read-only: the image is opened for reading only\n"
    "  -f      stay in the foreground\n"
    "  -d      trace every request (implies -f)\n";

}  // namespace

int CommandMount(int argc, char** argv) {
    mount::MountSettings settings;
    std::vector<std::string> positional;
    for (int i = 0; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "-h" || argument == "--help") {
            std::fputs(kMountUsage, stdout);
            return 0;
        }
        if (argument == "-o" && i + 1 < argc) {
            const std::string value = argv[++i];
            if (value != "ro" && value != "rw") {
                std::fprintf(stderr, "ntfskit mount: unknown option -o %s\n%s", value.c_str(), kMountUsage);
                return 2;
            }
            settings.readOnly = value == "ro";
        } else if (argument == "-f") {
            settings.foreground = true;
        } else if (argument == "-d") {
            settings.debug = true;
        } else if (!argument.empty() && argument[0] == '-') {
            std::fprintf(stderr, "ntfskit mount: unknown option %s\n%s", argument.c_str(), kMountUsage);
            return 2;
        } else {
            positional.push_back(argument);
        }
    }
    if (positional.size() != 2) {
        std::fputs(kMountUsage, stderr);
        return 2;
    }
    settings.image = positional[0];
    settings.mountpoint = positional[1];
    return mount::RunMount(settings);
}

}  // namespace ntfs::cli
