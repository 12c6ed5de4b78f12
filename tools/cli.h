// The shared pieces of the ntfskit command: opening an image, the output
// stream that stays clean of the library's log lines, and error reporting
// that names what failed and what the code means.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "file_storage.h"
#include "mapped_storage.h"
#include "ntfskit.h"

namespace ntfs::cli {

// Options every command understands.
struct Options {
    bool verbose = false;                // -v: the library's log lines go to standard error
    bool longFormat = false;             // -l
    bool recursive = false;              // -R
    std::vector<std::string> arguments;  // what is left after the options
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
// storage, so they never change the image.
class MountedImage {
public:
    // Returns 0 on success, else the code (already reported on stderr).
    unsigned int Open(const std::string& path, bool writable);
    ~MountedImage();
    CNTFSVolume* Volume() { return volume_.get(); }
    // Unmounts, reporting a failure to write back; returns the code.
    unsigned int Close();

private:
    // Read-only work goes through a map of the image when it can be mapped.
    FileStorage storage_;
    MappedStorage mapped_;
    std::unique_ptr<CNTFSVolume> volume_;
    std::string path_;
    bool mounted_ = false;
    bool writable_ = false;
};

// UTF-8 to UTF-16 and back, for paths typed by people and names printed.
std::u16string FromUtf8(const std::string& text);
std::string ToUtf8(const char16_t* text);
// A volume path from what was typed: '/' becomes '\', a leading '\' added.
std::u16string VolumePath(const std::string& typed);

int CommandInfo(const Options& options);
int CommandList(const Options& options);
int CommandCat(const Options& options);
int CommandGet(const Options& options);
int CommandWrite(const Options& options);
// ntfskit mount ARGS...: its own options (built with libfuse3 only).
int CommandMount(int argc, char** argv);

}  // namespace ntfs::cli
