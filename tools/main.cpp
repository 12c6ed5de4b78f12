// ntfskit: work with NTFS volume images without mounting them.
//
//   ntfskit info IMAGE
//   ntfskit ls [-l] [-R] [-a] [--json] IMAGE [PATH]
//   ntfskit stat IMAGE PATH...
//   ntfskit cat IMAGE PATH...
//   ntfskit get [-R] [-p] IMAGE SRC... DEST
//   ntfskit write [-a] IMAGE PATH [SOURCE]
//   ntfskit put [-R] IMAGE SRC... DEST
//   ntfskit mkdir [-p] IMAGE PATH...
//   ntfskit rm [-r] IMAGE PATH...
//   ntfskit rmdir IMAGE PATH...
//   ntfskit mv IMAGE PATH NEWNAME
//   ntfskit mount [-o ro] [-f] [-d] IMAGE MOUNTPOINT   (built with libfuse3)
//
// Read commands open the image read-only. The library's log lines are shown
// only with -v (on standard error). Errors name the failing image or path and
// what is wrong; exit status 0 success, 1 the operation failed, 2 usage.
//
// The parser is one CLI11 application with a subcommand per command; each
// subcommand fills its options struct (cli.h) and names the function that
// runs it. mount keeps its own option parsing
// (libfuse's options pass through it) and is handed its arguments as they are.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <functional>
#include <string>

#include "cli.h"

#ifndef NTFSKIT_VERSION
#define NTFSKIT_VERSION "unknown"
#endif

namespace {

using namespace ntfs::cli;

// Every option struct lives here for the life of the parse.
struct Parsed {
    GlobalOptions global;
    InfoOptions info;
    ListOptions list;
    StatOptions stat;
    CatOptions cat;
    GetOptions get;
    WriteOptions write;
    PutOptions put;
    MkdirOptions mkdir;
    RemoveOptions remove;
    RemoveOptions rmdir;
    MoveOptions move;
    std::function<int()> run;
};

CLI::App* AddCommand(CLI::App& app, Parsed& parsed, const char* name, const char* description,
                     std::function<int()> run) {
    CLI::App* command = app.add_subcommand(name, description);
    command->callback([&parsed, run] { parsed.run = run; });
    return command;
}

void Build(CLI::App& app, Parsed& p) {
    app.set_version_flag("--version", std::string("ntfskit ") + NTFSKIT_VERSION);
    app.add_flag("-v,--verbose", p.global.verbose, "Show the library's log lines on standard error");
    app.require_subcommand(1);
    app.footer(
#ifdef NTFSKIT_HAVE_FUSE
        "mount [-o ro] [-f] [-d] IMAGE MOUNTPOINT: serve the volume through FUSE (see 'ntfskit mount --help').\n"
#endif
        "Exit status: 0 success, 1 the operation failed, 2 usage.\n"
        "Run 'ntfskit COMMAND --help' for the options of a command.");

    CLI::App* info = AddCommand(app, p, "info", "Geometry, version, free clusters and records of a volume",
                                [&p] { return CommandInfo(p.global, p.info); });
    info->add_option("IMAGE", p.info.image, "Volume image or device")->required();

    CLI::App* ls =
        AddCommand(app, p, "ls", "List a directory (or name one file)", [&p] { return CommandList(p.global, p.list); });
    ls->add_flag("-l,--long", p.list.longFormat, "Type, size, modification time (UTC) and record number");
    ls->add_flag("-R,--recursive", p.list.recursive, "List subdirectories too");
    ls->add_flag("-a,--all", p.list.all, "Also the system files of the root ($MFT, $Bitmap, ...)");
    ls->add_flag("--json", p.list.json, "One JSON array of entries");
    ls->add_option("IMAGE", p.list.image, "Volume image or device")->required();
    ls->add_option("PATH", p.list.path, "Directory or file on the volume (default /)");

    CLI::App* stat = AddCommand(app, p, "stat", "Everything the records say about a file or directory",
                                [&p] { return CommandStat(p.global, p.stat); });
    stat->add_option("IMAGE", p.stat.image, "Volume image or device")->required();
    stat->add_option("PATH", p.stat.paths, "Paths on the volume")->required();

    CLI::App* cat = AddCommand(app, p, "cat", "Write files of the volume to standard output",
                               [&p] { return CommandCat(p.global, p.cat); });
    cat->add_option("IMAGE", p.cat.image, "Volume image or device")->required();
    cat->add_option("PATH", p.cat.paths, "Files on the volume")->required();

    CLI::App* get = AddCommand(app, p, "get", "Copy files or trees from the volume to the host",
                               [&p] { return CommandGet(p.global, p.get); });
    get->add_flag("-R,--recursive", p.get.recursive, "Copy directories with everything below them");
    get->add_flag("-p,--preserve", p.get.keepTimes, "Give the copies the modification times of the originals");
    get->add_option("IMAGE", p.get.image, "Volume image or device")->required();
    get->add_option("SRC", p.get.sources, "Paths on the volume, then the host DEST ('-' is standard output)")
        ->required()
        ->expected(2, -1);

    CLI::App* write = AddCommand(app, p, "write", "Overwrite (or with -a extend) an existing file of the volume",
                                 [&p] { return CommandWrite(p.global, p.write); });
    write->add_flag("-a,--append", p.write.append, "Append instead of replacing the content");
    write->add_option("IMAGE", p.write.image, "Volume image or device")->required();
    write->add_option("PATH", p.write.path, "Existing file on the volume")->required();
    write->add_option("SOURCE", p.write.source, "Host file to copy in (default '-': standard input)");

    CLI::App* put = AddCommand(app, p, "put", "Copy host files or trees onto the volume (create or overwrite)",
                               [&p] { return CommandPut(p.global, p.put); });
    put->add_flag("-R,--recursive", p.put.recursive, "Copy directories with everything below them");
    put->add_option("IMAGE", p.put.image, "Volume image or device")->required();
    put->add_option("SRC", p.put.sources, "Host paths, then the DEST path on the volume")->required()->expected(2, -1);

    CLI::App* mkdir =
        AddCommand(app, p, "mkdir", "Make directories on the volume", [&p] { return CommandMkdir(p.global, p.mkdir); });
    mkdir->add_flag("-p,--parents", p.mkdir.parents, "Make missing parents too; an existing directory is fine");
    mkdir->add_option("IMAGE", p.mkdir.image, "Volume image or device")->required();
    mkdir->add_option("PATH", p.mkdir.paths, "Directories to make")->required();

    CLI::App* rm = AddCommand(app, p, "rm", "Delete files (with -r also directories and what they hold)",
                              [&p] { return CommandRemove(p.global, p.remove); });
    rm->add_flag("-r,-R,--recursive", p.remove.recursive, "Delete directories with everything below them");
    rm->add_option("IMAGE", p.remove.image, "Volume image or device")->required();
    rm->add_option("PATH", p.remove.paths, "Paths on the volume")->required();

    CLI::App* rmdir =
        AddCommand(app, p, "rmdir", "Remove empty directories", [&p] { return CommandRmdir(p.global, p.rmdir); });
    rmdir->add_option("IMAGE", p.rmdir.image, "Volume image or device")->required();
    rmdir->add_option("PATH", p.rmdir.paths, "Directories on the volume")->required();

    CLI::App* mv =
        AddCommand(app, p, "mv", "Rename a file inside its directory", [&p] { return CommandMove(p.global, p.move); });
    mv->add_option("IMAGE", p.move.image, "Volume image or device")->required();
    mv->add_option("PATH", p.move.path, "The file on the volume")->required();
    mv->add_option("NEWNAME", p.move.newName, "Its new name (a name, not a path)")->required();
}

#ifdef NTFSKIT_HAVE_FUSE
#define kMountWord ", mount"
#else
#define kMountWord ""
#endif

}  // namespace

int main(int argc, char** argv) {
    // Options in front of the command are the program's own; the parser
    // would report a missing command before an unknown option.
    for (int i = 1; i < argc && argv[i][0] == '-'; ++i) {
        const std::string option = argv[i];
        if (option != "-v" && option != "--verbose" && option != "-h" && option != "--help" && option != "--help-all" &&
            option != "--version") {
            std::fprintf(stderr, "ntfskit: unknown option %s\nRun 'ntfskit --help' for usage.\n", option.c_str());
            return kExitUsage;
        }
    }
    Parsed parsed;
    CLI::App app("ntfskit: read and change NTFS volume images without mounting them", "ntfskit");
    Build(app, parsed);
    // The command word is the first argument that is not an option: an
    // unknown one is named as such (the parser would call it an extra
    // argument).
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "-v" || word == "--verbose") continue;
        if (!word.empty() && word[0] == '-') break;  // help, version, or the parser's to judge
#ifdef NTFSKIT_HAVE_FUSE
        if (word == "mount") {
            RedirectLibraryLog(false);
            return CommandMount(argc - i - 1, argv + i + 1);
        }
#endif
        if (app.get_subcommands([&word](CLI::App* command) { return command->get_name() == word; }).empty()) {
            std::fprintf(stderr,
                         "ntfskit: unknown command '%s' (commands: info, ls, stat, cat, get, write, put, mkdir, rm, "
                         "rmdir, mv" kMountWord
                         ")\n"
                         "Run 'ntfskit --help' for usage.\n",
                         word.c_str());
            return kExitUsage;
        }
        break;
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        std::fprintf(stderr, "ntfskit: %s\nRun 'ntfskit --help' or 'ntfskit COMMAND --help' for usage.\n", e.what());
        return kExitUsage;
    }
    // get's last positional is the destination.
    if (!parsed.get.sources.empty()) {
        parsed.get.destination = parsed.get.sources.back();
        parsed.get.sources.pop_back();
    }
    RedirectLibraryLog(parsed.global.verbose);
    const int status = parsed.run ? parsed.run() : kExitUsage;
    std::fflush(Out());
    return status;
}
