// Commands that work through the volume's file interface: ls, cat, get and
// write. Paths on the volume are typed with '/' or '\'; they are resolved
// from the root.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "cli.h"
#include "ntfskit.h"

namespace ntfs::cli {

namespace {

constexpr int kChunk = 1 << 20;
// Copies longer than this show a progress line on a terminal.
constexpr uint64_t kProgressThreshold = 4u << 20;

struct Entry {
    std::u16string name;
    bool directory = false;
    uint64_t size = 0;
    int64_t record = 0;
    uint64_t writeTime = 0;
};

Entry FromFindData(const _FIND_FILE_DATA& data) {
    Entry entry;
    entry.name = data.FileName;
    entry.directory = (data.FileAttributes & kFileAttributeDirectory) != 0;
    entry.size = (static_cast<uint64_t>(data.FileSizeHigh) << 32) | data.FileSizeLow;
    entry.record = data.FileRecordNumber;
    entry.writeTime = (static_cast<uint64_t>(data.LastWriteTime[1]) << 32) | data.LastWriteTime[0];
    return entry;
}

std::string Utf8(const std::u16string& text) {
    return ToUtf8(text.c_str());
}

std::u16string Join(const std::u16string& directory, const std::u16string& name) {
    return directory == u"\\" ? u"\\" + name : directory + u"\\" + name;
}

// Looks a path up. The root has no entry of its own and is reported as a
// directory.
unsigned int Stat(CNTFSVolume* volume, const std::u16string& path, Entry* entry) {
    if (path == u"\\") {
        entry->name.assign(1, u'\\');
        entry->directory = true;
        entry->record = 5;
        return ERROR_SUCCESS;
    }
    _FIND_FILE_DATA data{};
    void* find = volume->FindFirstFileA(path.c_str(), &data);
    if (find == nullptr) return volume->GetLastError();
    *entry = FromFindData(data);
    volume->CloseFindHandle(find);
    return ERROR_SUCCESS;
}

// Hands every entry of `directory` to `visit` in the order of the index.
template <typename Visit>
unsigned int VisitDirectory(CNTFSVolume* volume, const std::u16string& directory, Visit visit) {
    _FIND_FILE_DATA data{};
    void* find = volume->FindFirstFileA(Join(directory, u"*").c_str(), &data);
    if (find == nullptr) {
        const unsigned int code = volume->GetLastError();
        return code == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : code;  // an empty directory
    }
    do {
        visit(FromFindData(data));
    } while (volume->FindNextFileA(find, &data));
    const unsigned int code = volume->GetLastError();
    volume->CloseFindHandle(find);
    return code == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : code;
}

unsigned int ListDirectory(CNTFSVolume* volume, const std::u16string& directory, std::vector<Entry>* entries) {
    return VisitDirectory(volume, directory, [entries](Entry&& entry) { entries->push_back(std::move(entry)); });
}

// Decimal `magnitude` (with a minus sign when `negative`) filled to
// `width` characters with `fill` in front: %*lld with ' ', %0*u with '0'.
void AppendNumber(std::string* line, unsigned long long magnitude, bool negative, int width, char fill) {
    char digits[24];
    int length = 0;
    do {
        digits[length++] = static_cast<char>('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude != 0);
    if (negative) digits[length++] = '-';
    line->append(static_cast<size_t>(width > length ? width - length : 0), fill);
    while (length > 0) line->push_back(digits[--length]);
}

void AppendSigned(std::string* line, long long value, int width) {
    const bool negative = value < 0;
    AppendNumber(line,
                 negative ? 0ull - static_cast<unsigned long long>(value) : static_cast<unsigned long long>(value),
                 negative, width, ' ');
}

void AppendPadded(std::string* line, unsigned value, int width) {
    AppendNumber(line, value, false, width, '0');
}

// One line of a listing, put together by hand: a listing prints many.
void PrintEntry(CNTFSVolume* volume, const Entry& entry, bool longFormat) {
    static std::string line;
    line.clear();
    if (longFormat) {
        _LARGE_INTEGER time{};
        time.QuadPart = static_cast<int64_t>(entry.writeTime);
        _SYSTEMTIME calendar{};
        volume->FileTimeToSystemTime(&time, &calendar);
        line.push_back(entry.directory ? 'd' : '-');
        line.push_back(' ');
        AppendSigned(&line, static_cast<long long>(entry.size), 12);
        line.push_back(' ');
        // YYYY-MM-DD hh:mm:ss and a space.
        const struct {
            unsigned value;
            int width;
            char behind;
        } fields[] = {{calendar.wYear, 4, '-'}, {calendar.wMonth, 2, '-'},  {calendar.wDay, 2, ' '},
                      {calendar.wHour, 2, ':'}, {calendar.wMinute, 2, ':'}, {calendar.wSecond, 2, ' '}};
        for (const auto& field : fields) {
            AppendPadded(&line, field.value, field.width);
            line.push_back(field.behind);
        }
        AppendSigned(&line, static_cast<long long>(entry.record), 8);
        line.append("  ");
        line.append(Utf8(entry.name));
    } else {
        line.append(Utf8(entry.name));
        if (entry.directory) line.push_back('/');
    }
    line.push_back('\n');
    std::fwrite(line.data(), 1, line.size(), Out());
}

// Entries are printed as they are found; only the names of subdirectories
// are kept, for -R. A failure of the enumeration is reported before
// anything is printed only when it comes at the first entry.
int ListTree(CNTFSVolume* volume, const std::u16string& directory, const Options& options, bool header) {
    std::vector<std::u16string> subdirectories;
    bool headed = false;
    const unsigned int code = VisitDirectory(volume, directory, [&](Entry&& entry) {
        if (header && !headed) std::fprintf(Out(), "%s:\n", Utf8(directory).c_str());
        headed = true;
        PrintEntry(volume, entry, options.longFormat);
        if (options.recursive && entry.directory) subdirectories.push_back(std::move(entry.name));
    });
    if (code != ERROR_SUCCESS) return Fail(Utf8(directory), code);
    if (header && !headed) std::fprintf(Out(), "%s:\n", Utf8(directory).c_str());
    int status = 0;
    for (const std::u16string& name : subdirectories) {
        std::fputc('\n', Out());
        status |= ListTree(volume, Join(directory, name), options, true);
    }
    return status;
}

// Streams a volume file into `sink`; `report` names it in errors.
class Progress {
public:
    Progress(const std::string& name, uint64_t total)
        : name_(name), total_(total), shown_(total >= kProgressThreshold && isatty(STDERR_FILENO)) {}
    void Update(uint64_t done) {
        if (!shown_) return;
        std::fprintf(stderr, "\r%s: %llu of %llu bytes (%llu%%)", name_.c_str(), static_cast<unsigned long long>(done),
                     static_cast<unsigned long long>(total_),
                     static_cast<unsigned long long>(total_ ? done * 100 / total_ : 100));
    }
    ~Progress() {
        if (shown_) std::fputc('\n', stderr);
    }

private:
    std::string name_;
    uint64_t total_;
    bool shown_;
};

// One copy buffer for the whole command, not cleared: every byte written out
// of it was read into it first.
char* CopyBuffer() {
    static const std::unique_ptr<char[]> buffer(new char[kChunk]);
    return buffer.get();
}

int CopyOut(CNTFSVolume* volume, const std::u16string& path, std::FILE* sink, const std::string& sinkName) {
    void* file = volume->CreateFileA(path.c_str(), 0, kOpenExisting, kAccessRead | kAccessShareMask);
    if (file == nullptr) return Fail(Utf8(path), volume->GetLastError());
    unsigned int sizeHigh = 0;
    unsigned int sizeLow = 0;
    volume->GetFileSize(file, &sizeLow, &sizeHigh);
    const uint64_t total = (static_cast<uint64_t>(sizeHigh) << 32) | sizeLow;
    Progress progress(Utf8(path), total);
    char* buffer = CopyBuffer();
    uint64_t copied = 0;
    int status = 0;
    for (;;) {
        int done = 0;
        if (!volume->ReadFile(file, buffer, kChunk, &done)) {
            status = Fail(Utf8(path), volume->GetLastError());
            break;
        }
        if (done == 0) break;
        if (std::fwrite(buffer, 1, static_cast<size_t>(done), sink) != static_cast<size_t>(done)) {
            status = FailText(sinkName + ": " + std::strerror(errno));
            break;
        }
        copied += static_cast<uint64_t>(done);
        progress.Update(copied);
    }
    volume->CloseFileHandle(file);
    return status;
}

int GetFile(CNTFSVolume* volume, const std::u16string& path, const std::string& destination) {
    std::FILE* sink = std::fopen(destination.c_str(), "wb");
    if (sink == nullptr) return FailText(destination + ": " + std::strerror(errno));
    int status = CopyOut(volume, path, sink, destination);
    if (std::fclose(sink) != 0 && status == 0) status = FailText(destination + ": " + std::strerror(errno));
    return status;
}

int GetTree(CNTFSVolume* volume, const std::u16string& path, const std::string& destination) {
    if (mkdir(destination.c_str(), 0777) != 0 && errno != EEXIST) {
        return FailText(destination + ": " + std::strerror(errno));
    }
    std::vector<Entry> entries;
    const unsigned int code = ListDirectory(volume, path, &entries);
    if (code != ERROR_SUCCESS) return Fail(Utf8(path), code);
    int status = 0;
    for (const Entry& entry : entries) {
        const std::u16string child = Join(path, entry.name);
        const std::string target = destination + "/" + Utf8(entry.name);
        status |= entry.directory ? GetTree(volume, child, target) : GetFile(volume, child, target);
    }
    return status;
}

std::string BaseName(const std::u16string& path) {
    const size_t slash = path.rfind(u'\\');
    return Utf8(slash == std::u16string::npos ? path : path.substr(slash + 1));
}

}  // namespace

int CommandList(const Options& options) {
    if (options.arguments.empty() || options.arguments.size() > 2) {
        return FailText("usage: ntfskit ls [-l] [-R] IMAGE [PATH]");
    }
    MountedImage image;
    if (image.Open(options.arguments[0], false) != ERROR_SUCCESS) return 1;
    const std::u16string path = VolumePath(options.arguments.size() > 1 ? options.arguments[1] : "/");
    Entry entry;
    const unsigned int code = Stat(image.Volume(), path, &entry);
    if (code != ERROR_SUCCESS) return Fail(Utf8(path), code);
    if (!entry.directory) {
        PrintEntry(image.Volume(), entry, options.longFormat);
        return 0;
    }
    return ListTree(image.Volume(), path, options, options.recursive);
}

int CommandCat(const Options& options) {
    if (options.arguments.size() != 2) return FailText("usage: ntfskit cat IMAGE PATH");
    MountedImage image;
    if (image.Open(options.arguments[0], false) != ERROR_SUCCESS) return 1;
    return CopyOut(image.Volume(), VolumePath(options.arguments[1]), Out(), "standard output");
}

int CommandGet(const Options& options) {
    if (options.arguments.size() < 2 || options.arguments.size() > 3) {
        return FailText("usage: ntfskit get [-R] IMAGE PATH [DEST]");
    }
    MountedImage image;
    if (image.Open(options.arguments[0], false) != ERROR_SUCCESS) return 1;
    const std::u16string path = VolumePath(options.arguments[1]);
    Entry entry;
    const unsigned int code = Stat(image.Volume(), path, &entry);
    if (code != ERROR_SUCCESS) return Fail(Utf8(path), code);
    std::string destination = options.arguments.size() > 2 ? options.arguments[2] : BaseName(path);
    if (path == u"\\" && options.arguments.size() < 3) destination = "volume";
    if (entry.directory) {
        if (!options.recursive) return FailText(Utf8(path) + ": is a directory (use get -R)");
        return GetTree(image.Volume(), path, destination);
    }
    struct stat target {};
    if (stat(destination.c_str(), &target) == 0 && S_ISDIR(target.st_mode)) destination += "/" + BaseName(path);
    return GetFile(image.Volume(), path, destination);
}

int CommandWrite(const Options& options) {
    std::vector<std::string> arguments = options.arguments;
    bool append = false;
    if (!arguments.empty() && arguments[0] == "-a") {
        append = true;
        arguments.erase(arguments.begin());
    }
    if (arguments.size() < 2 || arguments.size() > 3) {
        return FailText("usage: ntfskit write [-a] IMAGE PATH [SOURCE]");
    }
    std::FILE* source = stdin;
    std::string sourceName = "standard input";
    if (arguments.size() == 3 && arguments[2] != "-") {
        sourceName = arguments[2];
        source = std::fopen(sourceName.c_str(), "rb");
        if (source == nullptr) return FailText(sourceName + ": " + std::strerror(errno));
    }
    MountedImage image;
    int status = 1;
    if (image.Open(arguments[0], true) == ERROR_SUCCESS) {
        CNTFSVolume* volume = image.Volume();
        const std::u16string path = VolumePath(arguments[1]);
        void* file = volume->CreateFileA(path.c_str(), 0, append ? kOpenExisting : kTruncateExisting,
                                         kAccessRead | kAccessWrite | kAccessShareMask);
        if (file == nullptr) {
            status = Fail(Utf8(path), volume->GetLastError());
        } else {
            status = 0;
            unsigned int low = 0;
            if (append) volume->SetFilePointer(file, &low, nullptr, kFileEnd);
            std::vector<char> buffer(kChunk);
            size_t got;
            while (status == 0 && (got = std::fread(buffer.data(), 1, buffer.size(), source)) > 0) {
                int done = 0;
                // WriteFile answers 1 also when the transfer failed: the count
                // tells, and the last error says why.
                if (!volume->WriteFile(file, buffer.data(), static_cast<int>(got), &done) ||
                    done != static_cast<int>(got)) {
                    status = Fail(Utf8(path), volume->GetLastError() ? volume->GetLastError() : ERROR_HANDLE_DISK_FULL);
                }
            }
            if (std::ferror(source)) status = FailText(sourceName + ": read error");
            if (!volume->CloseFileHandle(file) && status == 0) {
                status = Fail(Utf8(path) + ": close", volume->GetLastError());
            }
        }
        if (image.Close() != ERROR_SUCCESS) status = 1;
    }
    if (source != stdin) std::fclose(source);
    return status;
}

}  // namespace ntfs::cli
