// The shared pieces of the ntfskit command: the options of each command,
// opening an image (with clear words for what is not a usable volume), the
// output stream that stays clean of the library's log lines, and error
// reporting that names what failed and what the code means.
//
// Exit status of every command: kExitSuccess, kExitFailed when the operation
// failed (the reason is on standard error, once), kExitUsage for a command
// line that does not parse.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "file_layout.h"
#include "file_storage.h"
#include "mapped_storage.h"
#include "ntfskit.h"
#include "recording_storage.h"
#include "volume_path.h"

namespace ntfs::cli {

constexpr int kExitSuccess = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

// The bytes one ReadFile call of a copy asks for (a multiple of every
// compression unit).
constexpr int kCopyChunk = 1 << 20;

// Options of each command, filled by the parser in main.cpp. A command that
// changes the image (write, and the creating and removing commands to come)
// gets its own struct and a Command... function beside these.
struct GlobalOptions {
    bool verbose = false;  // -v: the library's log lines go to standard error
};
struct InfoOptions {
    std::string image;
};
struct ListOptions {
    std::string image;
    std::string path = "/";
    bool longFormat = false;  // -l
    bool recursive = false;   // -R
    bool all = false;         // -a: also the system files of the root
    bool json = false;        // --json
};
struct StatOptions {
    std::string image;
    std::vector<std::string> paths;
};
struct CatOptions {
    std::string image;
    std::vector<std::string> paths;
};
struct GetOptions {
    std::string image;
    std::vector<std::string> sources;  // volume paths
    std::string destination;           // host path, or "-" for standard output
    bool recursive = false;            // -R
    bool keepTimes = false;            // -p
};
struct WriteOptions {
    std::string image;
    std::string path;
    std::string source = "-";  // host file, or "-" for standard input
    bool append = false;       // -a
};
struct PutOptions {
    std::string image;
    std::vector<std::string> sources;  // host paths, then the volume DEST
    bool recursive = false;            // -R
};
struct MkdirOptions {
    std::string image;
    std::vector<std::string> paths;
    bool parents = false;  // -p
};
struct RemoveOptions {
    std::string image;
    std::vector<std::string> paths;
    bool recursive = false;  // -r (rm only)
};
struct MoveOptions {
    std::string image;
    std::string path;
    std::string newName;
};

// Where the command's own output goes. The library prints its log lines on
// standard output; the command moves them away (to /dev/null, or with -v to
// standard error) and writes its results here.
std::FILE* Out();
// Sets up Out() and the library's log destination. Call once, first.
void RedirectLibraryLog(bool verbose);

// What a failure code means, in words.
const char* CodeMeaning(unsigned int code);
// Prints "ntfskit: WHAT: meaning (code N)" on standard error; returns 1.
int Fail(const std::string& what, unsigned int code);
// Prints "ntfskit: message" on standard error; returns 1.
int FailText(const std::string& message);

// An image opened and mounted. Read-only opens refuse every write at the
// storage, so they never change the image. Every transfer passes a
// RecordingStorage, so a device failure that the volume drops is still seen.
class MountedImage {
public:
    // Checks the image (present, a file or device, large enough, an NTFS
    // boot sector of the supported geometry, not cut short), opens and
    // mounts it. 0 on success; else the failure was reported on stderr and
    // its code is returned.
    unsigned int Open(const std::string& path, bool writable);
    ~MountedImage();
    CNTFSVolume* Volume() { return volume_.get(); }
    CStorage* Storage() { return recorder_.get(); }
    const std::string& Path() const { return path_; }
    // Device failures so far (for a check around one file's copy).
    uint64_t DeviceFailures() const { return recorder_ ? recorder_->Failures() : 0; }
    // Reports the first device failure as "IMAGE: device error: ..."; 1.
    int ReportDeviceFailure(const std::string& during);
    // Unmounts; reports a failed write-back (the volume's last error after
    // Umount) and any device failure. 0, or the code reported.
    unsigned int Close();

private:
    // Read-only work goes through a map of the image when it can be mapped.
    FileStorage storage_;
    MappedStorage mapped_;
    std::unique_ptr<RecordingStorage> recorder_;
    std::unique_ptr<CNTFSVolume> volume_;
    std::string path_;
    bool mounted_ = false;
    bool writable_ = false;
    uint64_t reported_ = 0;  // device failures already reported
};

// Checks that `path` can be an image for a command that writes (when
// `writable`): present, not a directory, writable. Reports and returns 1 on
// failure, 0 when it may be opened.
int CheckImageAccess(const std::string& path, bool writable);

// UTF-8 to UTF-16 and back, for paths typed by people and names printed.
std::u16string FromUtf8(const std::string& text);
std::string ToUtf8(const char16_t* text);
std::string Utf8(const std::u16string& text);
// A volume path from what was typed: '/' becomes '\', a leading '\' added.
std::u16string VolumePath(const std::string& typed);

int CommandInfo(const GlobalOptions& global, const InfoOptions& options);
int CommandList(const GlobalOptions& global, const ListOptions& options);
int CommandStat(const GlobalOptions& global, const StatOptions& options);
int CommandCat(const GlobalOptions& global, const CatOptions& options);
int CommandGet(const GlobalOptions& global, const GetOptions& options);
int CommandWrite(const GlobalOptions& global, const WriteOptions& options);
int CommandPut(const GlobalOptions& global, const PutOptions& options);
int CommandMkdir(const GlobalOptions& global, const MkdirOptions& options);
int CommandRemove(const GlobalOptions& global, const RemoveOptions& options);
int CommandRmdir(const GlobalOptions& global, const RemoveOptions& options);
int CommandMove(const GlobalOptions& global, const MoveOptions& options);

// What the commands that change the image share with the others (defined in
// command_files.cpp).
struct VolumeEntry {
    std::u16string name;
    bool directory = false;
    uint64_t size = 0;
    int64_t record = 0;
};
// Looks a volume path up: 0, or the volume's code (2 when absent).
unsigned int LookUp(CNTFSVolume* volume, const std::u16string& path, VolumeEntry* entry);
// The entries of a directory in index order.
unsigned int ListEntries(CNTFSVolume* volume, const std::u16string& directory, std::vector<VolumeEntry>* entries);
// Reports a failed look-up of `path` in words (the case-table reason where
// it applies); returns 1.
int ReportLookup(CNTFSVolume* volume, const std::u16string& path, unsigned int code);

// ntfskit mount ARGS...: its own options (built with libfuse3 only).
int CommandMount(int argc, char** argv);

}  // namespace ntfs::cli
