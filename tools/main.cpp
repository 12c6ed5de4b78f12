// ntfskit: work with NTFS volume images without mounting them.
//
//   ntfskit info IMAGE
//   ntfskit ls [-l] [-R] IMAGE [PATH]
//   ntfskit cat IMAGE PATH
//   ntfskit get [-R] IMAGE PATH [DEST]
//   ntfskit write IMAGE PATH [SOURCE]
//
// Read commands open the image read-only. The library's log lines are shown
// only with -v (on standard error). Errors name the failing path and what the
// code means, and the exit status is non-zero.
#include <cstring>
#include <string>

#include "cli.h"

namespace {

const char kUsage[] =
    "usage: ntfskit [-v] COMMAND [OPTIONS] IMAGE [ARGS]\n"
    "  info IMAGE                     geometry, version, free clusters and records\n"
    "  ls [-l] [-R] IMAGE [PATH]      list a directory\n"
    "  cat IMAGE PATH                 print a file\n"
    "  get [-R] IMAGE PATH [DEST]     copy a file or a tree out to the host\n"
    "  write [-a] IMAGE PATH [SOURCE] overwrite (or with -a append to) a file\n"
    "                                 from SOURCE or standard input\n"
    "  mount [-o ro] IMAGE MOUNTPOINT serve the volume through FUSE (see mount --help)\n"
    "  -v                             show the library's log on standard error\n";

}  // namespace

int main(int argc, char** argv) {
    using namespace ntfs::cli;
#ifdef NTFSKIT_HAVE_FUSE
    if (argc > 1 && std::strcmp(argv[1], "mount") == 0) {
        RedirectLibraryLog(false);
        return CommandMount(argc - 2, argv + 2);
    }
#endif
    Options options;
    std::string command;
    bool append = false;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "-h" || argument == "--help") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (argument.size() > 1 && argument[0] == '-' && argument != "-") {
            for (size_t k = 1; k < argument.size(); ++k) {
                switch (argument[k]) {
                    case 'v':
                        options.verbose = true;
                        break;
                    case 'l':
                        options.longFormat = true;
                        break;
                    case 'R':
                        options.recursive = true;
                        break;
                    case 'a':
                        append = true;
                        break;
                    default:
                        std::fprintf(stderr, "ntfskit: unknown option -%c\n%s", argument[k], kUsage);
                        return 2;
                }
            }
        } else if (command.empty()) {
            command = argument;
        } else {
            options.arguments.push_back(argument);
        }
    }
    if (append) options.arguments.insert(options.arguments.begin(), "-a");
    RedirectLibraryLog(options.verbose);
    int status;
    if (command == "info")
        status = CommandInfo(options);
    else if (command == "ls")
        status = CommandList(options);
    else if (command == "cat")
        status = CommandCat(options);
    else if (command == "get")
        status = CommandGet(options);
    else if (command == "write")
        status = CommandWrite(options);
    else {
        std::fputs(kUsage, stderr);
        return 2;
    }
    std::fflush(Out());
    return status;
}
