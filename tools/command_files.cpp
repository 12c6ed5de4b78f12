// Commands that work through the volume's file interface: ls, stat, cat, get
// and write. Paths on the volume are typed with '/' or '\'; they are
// resolved from the root.
//
// What the volume's read would hand out differently from the file on disk
// (FindReadDifferences), a device failure the volume dropped, and a listed
// name that cannot be looked up are each reported with the file's path and
// make the command exit 1: nothing comes out wrong in silence.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "cli.h"
#include "ntfs_time.h"
#include "ntfskit.h"
#include "progress.h"
#include "volume_path.h"

namespace ntfs::cli {

namespace {

// Copies longer than this show a progress line on a terminal.
// Blocks of zeros this long become holes in a host file.
constexpr size_t kHoleBlock = 4096;
constexpr int64_t kRootRecord = 5;
// Records below this are the system files, which enumeration passes over.
constexpr int64_t kFirstUserRecord = 12;
// NTFS time of the Unix epoch, and its units per second.

struct Entry {
    std::u16string name;
    bool directory = false;
    uint64_t size = 0;
    int64_t record = 0;
    int64_t writeTime = 0;
};

Entry FromFindData(const _FIND_FILE_DATA& data) {
    Entry entry;
    entry.name = data.FileName;
    entry.directory = (data.FileAttributes & kFileAttributeDirectory) != 0;
    entry.size = (static_cast<uint64_t>(data.FileSizeHigh) << 32) | data.FileSizeLow;
    entry.record = data.FileRecordNumber;
    entry.writeTime =
        static_cast<int64_t>((static_cast<uint64_t>(data.LastWriteTime[1]) << 32) | data.LastWriteTime[0]);
    return entry;
}

bool FoldedLess(const std::u16string& a, const std::u16string& b) {
    return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                        [](char16_t x, char16_t y) { return FoldNameUnit(x) < FoldNameUnit(y); });
}

// "YYYY-MM-DD hh:mm:ss" (UTC) of an NTFS time; with `fraction` the seven
// digits of 100 ns behind a dot.
std::string FormatTime(int64_t ntfsTime, bool fraction, char between = ' ') {
    const timespec epoch = UnixTime(ntfsTime);
    const int64_t seconds = epoch.tv_sec;
    const int64_t ticks = epoch.tv_nsec / 100;
    const std::time_t when = static_cast<std::time_t>(seconds);
    std::tm calendar{};
    gmtime_r(&when, &calendar);
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d%c%02d:%02d:%02d", calendar.tm_year + 1900, calendar.tm_mon + 1,
                  calendar.tm_mday, between, calendar.tm_hour, calendar.tm_min, calendar.tm_sec);
    std::string out = text;
    if (fraction) {
        std::snprintf(text, sizeof text, ".%07lld", static_cast<long long>(ticks));
        out += text;
    }
    return out;
}

std::string NotFoundText(CNTFSVolume* volume, const std::u16string& path);

// Looks a path up. The root has no entry of its own and is reported as a
// directory.
unsigned int Stat(CNTFSVolume* volume, const std::u16string& path, Entry* entry) {
    if (path == u"\\") {
        entry->name.assign(1, u'\\');
        entry->directory = true;
        entry->record = kRootRecord;
        return ERROR_SUCCESS;
    }
    _FIND_FILE_DATA data{};
    void* find = volume->FindFirstFileA(path.c_str(), &data);
    if (find == nullptr) return volume->GetLastError();
    *entry = FromFindData(data);
    volume->CloseFindHandle(find);
    return ERROR_SUCCESS;
}

// Reports a failed look-up of `path`: a name the directory lists but the
// look-up cannot find is told apart from a name that is not there.
int FailLookup(CNTFSVolume* volume, const std::u16string& path, unsigned int code) {
    if (code == ERROR_FILE_NOT_FOUND) return FailText(Utf8(path) + ": " + NotFoundText(volume, path));
    return Fail(Utf8(path), code);
}

// Looks up a path as typed; a failure is reported and sets `*status`.
bool Resolve(CNTFSVolume* volume, const std::string& typed, std::u16string* path, Entry* entry, int* status) {
    *path = VolumePath(typed);
    const unsigned int code = Stat(volume, *path, entry);
    if (code == ERROR_SUCCESS) return true;
    *status |= FailLookup(volume, *path, code);
    return false;
}

// Every entry of `directory` (record `record`) in the order of the index. A
// file with several names in the directory is delivered by the volume under
// one name made from them all; its entries get the file's real names here,
// read from its record.
// Hands every entry of `directory` to `visit` in the order of the index, as
// the volume delivers them. 0, ERROR_FILE_NOT_FOUND when the directory has
// no entry and its path cannot be resolved, or the enumeration's code.
template <typename Visit>
unsigned int VisitEntries(CNTFSVolume* volume, const std::u16string& directory, Visit visit) {
    _FIND_FILE_DATA data{};
    void* find = volume->FindFirstFileA(JoinPath(directory, u"*").c_str(), &data);
    unsigned int code = ERROR_SUCCESS;
    bool any = false;
    if (find == nullptr) {
        code = volume->GetLastError();
    } else {
        do {
            any = true;
            visit(FromFindData(data));
        } while (volume->FindNextFileA(find, &data));
        code = volume->GetLastError();
        volume->CloseFindHandle(find);
    }
    if (code != ERROR_FILE_NOT_FOUND && code != ERROR_SUCCESS) return code;
    // No entry at all: an empty directory, or one whose path the look-up
    // cannot resolve.
    Entry self;
    if (!any && directory != u"\\" && Stat(volume, directory, &self) != ERROR_SUCCESS) return ERROR_FILE_NOT_FOUND;
    return ERROR_SUCCESS;
}

unsigned int ListDirectory(CNTFSVolume* volume, CStorage* storage, const std::u16string& directory, int64_t record,
                           std::vector<Entry>* entries) {
    entries->clear();
    const unsigned int code =
        VisitEntries(volume, directory, [entries](Entry&& entry) { entries->push_back(std::move(entry)); });
    if (code != ERROR_SUCCESS) return code;
    std::map<int64_t, std::vector<size_t>> byRecord;
    for (size_t i = 0; i < entries->size(); ++i) byRecord[(*entries)[i].record].push_back(i);
    for (const auto& [number, positions] : byRecord) {
        if (positions.size() < 2) continue;
        FileLayout layout;
        if (LoadFileLayout(volume, storage, number, &layout) != ERROR_SUCCESS) continue;
        std::vector<std::u16string> names;
        for (const LayoutName& name : layout.Names) {
            if (name.Parent == record && name.Namespace != 2) names.push_back(name.Name);
        }
        std::sort(names.begin(), names.end(), FoldedLess);
        for (size_t k = 0; k < positions.size() && k < names.size(); ++k) (*entries)[positions[k]].name = names[k];
    }
    return ERROR_SUCCESS;
}

// Whether the directory `parent` lists `leaf` (exactly as typed), and
// whether any name it lists has units beyond ASCII, which another writer's
// case table may order differently from this library's a-to-z folding.
bool Listed(CNTFSVolume* volume, const std::u16string& parent, const std::u16string& leaf, bool* beyondAscii) {
    *beyondAscii = false;
    _FIND_FILE_DATA data{};
    void* find = volume->FindFirstFileA(JoinPath(parent, u"*").c_str(), &data);
    bool listed = false;
    if (find != nullptr) {
        do {
            const std::u16string name = data.FileName;
            listed = listed || name == leaf;
            *beyondAscii = *beyondAscii || std::any_of(name.begin(), name.end(), [](char16_t u) { return u >= 0x80; });
        } while (volume->FindNextFileA(find, &data));
        volume->CloseFindHandle(find);
    }
    return listed;
}

std::string NotFoundText(CNTFSVolume* volume, const std::u16string& path) {
    // The first component on the way that cannot be looked up. When its
    // directory lists it all the same, the look-up (a descent of the index
    // that folds only a to z) missed it: the directory was ordered otherwise,
    // by another writer's case table when it has names beyond ASCII.
    std::u16string prefix;
    size_t at = 1;
    for (;;) {
        const size_t slash = path.find(u'\\', at);
        prefix = path.substr(0, slash);
        Entry entry;
        if (slash == std::u16string::npos || Stat(volume, prefix, &entry) != ERROR_SUCCESS) break;
        at = slash + 1;
    }
    bool beyondAscii = false;
    if (!Listed(volume, ParentPath(prefix), LeafOf(prefix), &beyondAscii)) return "no such file or directory";
    const std::string why =
        beyondAscii ? " but not found by name: the directory was ordered by another writer's case table (letters "
                      "beyond a to z compare differently there), which ntfskit does not read"
                    : " but not found by name: the directory's index is out of order (damaged)";
    return prefix == path ? "listed in its directory" + why
                          : "its directory " + Utf8(prefix) + " is listed in its parent" + why;
}

// JSON string of UTF-8 text.
std::string JsonString(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out.push_back('\\');
            out.push_back(c);
        } else if (byte < 0x20) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", byte);
            out += escape;
        } else {
            out.push_back(c);
        }
    }
    out.push_back('"');
    return out;
}

// The directories on the way down a tree walk. A damaged volume can list a
// directory inside itself, which would be walked for ever: such an entry is
// reported and passed over.
class Ancestry {
public:
    // False, reported, when `record` is already on the way down.
    bool Enter(const std::u16string& path, int64_t record) {
        if (std::find(records_.begin(), records_.end(), record) != records_.end()) {
            FailText(Utf8(path) + ": directory record " + std::to_string(record) +
                     " is listed inside itself (a damaged index); not walked again");
            return false;
        }
        records_.push_back(record);
        return true;
    }
    void Leave() { records_.pop_back(); }

private:
    std::vector<int64_t> records_;
};

// Decimal `value` right-aligned in `width` characters (%*llu).
void AppendDecimal(std::string* line, uint64_t value, int width) {
    char digits[24];
    int length = 0;
    do {
        digits[length++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    if (width > length) line->append(static_cast<size_t>(width - length), ' ');
    while (length > 0) line->push_back(digits[--length]);
}

// %*lld.
void AppendSigned(std::string* line, int64_t value, int width) {
    if (value >= 0) {
        AppendDecimal(line, static_cast<uint64_t>(value), width);
        return;
    }
    std::string magnitude;
    AppendDecimal(&magnitude, 0 - static_cast<uint64_t>(value), 0);
    if (width > static_cast<int>(magnitude.size()) + 1) {
        line->append(static_cast<size_t>(width) - magnitude.size() - 1, ' ');
    }
    line->push_back('-');
    *line += magnitude;
}

// FormatTime of the listing's times: the entries of a directory often share
// their second, and then the text is the one made before.
class ListingTime {
public:
    const std::string& Format(int64_t ntfsTime) {
        const int64_t second = UnixTime(ntfsTime).tv_sec;
        if (!valid_ || second != second_) {
            text_ = FormatTime(ntfsTime, false);
            second_ = second;
            valid_ = true;
        }
        return text_;
    }

private:
    bool valid_ = false;
    int64_t second_ = 0;
    std::string text_;
};

// Whether a name read from the volume can be a name on the host: not empty,
// not "." or "..", no '/'. Others would place a copy outside its target.
bool HostSafeName(const std::u16string& name) {
    return !name.empty() && name != u"." && name != u".." && name.find(u'/') == std::u16string::npos;
}

// The names of the files a directory delivers more than once. The volume
// delivers a file with several names in one directory once per name, each
// time under the same one of them. The first delivery is shown under that
// name (the listing streams, and nothing yet tells that more will come); the
// later ones get the file's other names, read from its record, in the
// directory's order. Which records were delivered is kept as one bit per
// record number (a hash set for numbers beyond what a bitmap should cover),
// so a directory of any size costs little.
class RepeatedNames {
public:
    RepeatedNames(CNTFSVolume* volume, CStorage* storage, int64_t directory)
        : volume_(volume), storage_(storage), directory_(directory) {}

    // The name to show for `entry`.
    const std::u16string& NameOf(const Entry& entry) {
        if (!FirstTime(entry.record)) {
            std::vector<std::u16string>& others = others_[entry.record];
            if (others.empty()) others = OtherNames(entry);
            if (!others.empty()) {
                name_ = others.front();
                others.erase(others.begin());
                return name_;
            }
        }
        return entry.name;
    }

private:
    static constexpr int64_t kBitmapRecords = int64_t{1} << 26;

    bool FirstTime(int64_t record) {
        if (record >= 0 && record < kBitmapRecords) {
            const auto at = static_cast<size_t>(record);
            if (at >= seen_.size()) seen_.resize(std::max(at + 1, seen_.size() * 2));
            const bool first = !seen_[at];
            seen_[at] = true;
            return first;
        }
        return far_.insert(record).second;
    }

    // The file's names in this directory but the one the volume delivers, in
    // the directory's order.
    std::vector<std::u16string> OtherNames(const Entry& entry) {
        std::vector<std::u16string> names;
        FileLayout layout;
        if (LoadFileLayout(volume_, storage_, entry.record, &layout) != ERROR_SUCCESS) return names;
        for (const LayoutName& name : layout.Names) {
            if (name.Parent == directory_ && name.Namespace != 2) names.push_back(name.Name);
        }
        std::sort(names.begin(), names.end(), FoldedLess);
        const auto delivered = std::find(names.begin(), names.end(), entry.name);
        if (delivered != names.end()) names.erase(delivered);
        return names;
    }

    CNTFSVolume* volume_;
    CStorage* storage_;
    int64_t directory_;
    std::vector<bool> seen_;
    std::unordered_set<int64_t> far_;
    std::map<int64_t, std::vector<std::u16string>> others_;
    std::u16string name_;
};

class Lister {
public:
    Lister(MountedImage* image, const ListOptions& options) : image_(image), options_(options) {}

    void Print(const std::u16string& path, const Entry& entry) {
        std::string line;
        if (options_.json) {
            line = first_ ? "[\n  " : ",\n  ";
            first_ = false;
            line += "{\"path\": " + JsonString(Utf8(path)) + ", \"name\": " + JsonString(Utf8(entry.name)) +
                    ", \"type\": \"" + (entry.directory ? "dir" : "file") +
                    "\", \"size\": " + std::to_string(entry.size) + ", \"record\": " + std::to_string(entry.record) +
                    ", \"modified\": \"" + FormatTime(entry.writeTime, false, 'T') + "Z\"}";
        } else if (options_.longFormat) {
            // Put together by hand: a listing prints many lines, and one
            // snprintf per field would cost more than finding the entry.
            line.push_back(entry.directory ? 'd' : '-');
            line.push_back(' ');
            AppendDecimal(&line, entry.size, 12);
            line.push_back(' ');
            line += time_.Format(entry.writeTime);
            line.push_back(' ');
            AppendSigned(&line, entry.record, 8);
            line += "  ";
            line += Utf8(entry.name);
            line.push_back('\n');
        } else {
            line = Utf8(entry.name) + (entry.directory ? "/" : "") + "\n";
        }
        std::fwrite(line.data(), 1, line.size(), Out());
    }

    // The system files of the root, which enumeration passes over.
    void PrintSystemFiles() {
        for (int64_t number = 0; number < kFirstUserRecord; ++number) {
            FileLayout layout;
            if (LoadFileLayout(image_->Volume(), image_->Storage(), number, &layout) != ERROR_SUCCESS) continue;
            Entry entry;
            entry.record = number;
            entry.directory = (layout.RecordFlags & 0x02) != 0;
            entry.writeTime = layout.Modified;
            for (const LayoutName& name : layout.Names) {
                if (name.Parent == kRootRecord && name.Namespace != 2) entry.name = name.Name;
            }
            if (entry.name.empty() || entry.name == u".") continue;
            const auto pieces = layout.DataPieces();
            if (!pieces.empty()) {
                entry.size = pieces.front()->NonResident ? static_cast<uint64_t>(pieces.front()->DataSize)
                                                         : pieces.front()->ValueLength;
            }
            Print(JoinPath(u"\\", entry.name), entry);
        }
    }

    int Tree(const std::u16string& directory, int64_t record, bool header) {
        if (!ancestry_.Enter(directory, record)) return kExitFailed;
        const int status = Walk(directory, record, header);
        ancestry_.Leave();
        return status;
    }

    void Finish() {
        if (options_.json) std::fputs(first_ ? "[]\n" : "\n]\n", Out());
    }

private:
    // Entries are printed as the volume delivers them, so a listing of any
    // size holds one entry at a time; only subdirectories are kept, for -R.
    int Walk(const std::u16string& directory, int64_t record, bool header) {
        std::vector<Entry> subdirectories;
        RepeatedNames repeated(image_->Volume(), image_->Storage(), record);
        bool headed = false;
        const auto head = [&] {
            if (header && !headed && !options_.json) std::fprintf(Out(), "%s:\n", Utf8(directory).c_str());
            if (!headed && options_.all && record == kRootRecord) PrintSystemFiles();
            headed = true;
        };
        const unsigned int code = VisitEntries(image_->Volume(), directory, [&](Entry&& entry) {
            head();
            entry.name = repeated.NameOf(entry);
            Print(JoinPath(directory, entry.name), entry);
            if (options_.recursive && entry.directory) subdirectories.push_back(std::move(entry));
        });
        if (code != ERROR_SUCCESS) return FailLookup(image_->Volume(), directory, code);
        head();
        int status = 0;
        for (const Entry& entry : subdirectories) {
            if (!options_.json) std::fputc('\n', Out());
            status |= Tree(JoinPath(directory, entry.name), entry.record, true);
        }
        return status;
    }

    MountedImage* image_;
    const ListOptions& options_;
    ListingTime time_;
    Ancestry ancestry_;
    bool first_ = true;
};

// Where a copy's bytes go: a host file, written with holes where the data
// is zeros, or a stream.
class Sink {
public:
    virtual ~Sink() = default;
    // False on failure, with errno set.
    virtual bool Write(const char* bytes, size_t count) = 0;
    virtual bool Finish(uint64_t total) = 0;
    virtual std::string Name() const = 0;
};

class StreamSink : public Sink {
public:
    explicit StreamSink(std::FILE* stream) : stream_(stream) {}
    bool Write(const char* bytes, size_t count) override { return std::fwrite(bytes, 1, count, stream_) == count; }
    bool Finish(uint64_t) override { return std::fflush(stream_) == 0; }
    std::string Name() const override { return "standard output"; }

private:
    std::FILE* stream_;
};

class HostFileSink : public Sink {
public:
    HostFileSink(int descriptor, std::string name) : fd_(descriptor), name_(std::move(name)) {}
    ~HostFileSink() override {
        if (fd_ >= 0) ::close(fd_);
    }
    bool Write(const char* bytes, size_t count) override {
        for (size_t at = 0; at < count;) {
            const size_t block = std::min(kHoleBlock, count - at);
            if (std::all_of(bytes + at, bytes + at + block, [](char c) { return c == 0; })) {
                if (::lseek(fd_, static_cast<off_t>(block), SEEK_CUR) < 0) return false;
            } else {
                for (size_t done = 0; done < block;) {
                    const ssize_t step = ::write(fd_, bytes + at + done, block - done);
                    if (step < 0 && errno == EINTR) continue;
                    if (step < 0) return false;
                    done += static_cast<size_t>(step);
                }
            }
            at += block;
        }
        return true;
    }
    bool Finish(uint64_t total) override {
        const bool ok = ::ftruncate(fd_, static_cast<off_t>(total)) == 0;
        const int closed = ::close(fd_);
        fd_ = -1;
        return ok && closed == 0;
    }
    std::string Name() const override { return name_; }

private:
    int fd_;
    std::string name_;
};

char* CopyBuffer() {
    static const std::unique_ptr<char[]> buffer(new char[kCopyChunk]);
    return buffer.get();
}

std::string ByteRange(const ReadDifference& difference) {
    return "bytes " + std::to_string(difference.Offset) + " to " +
           std::to_string(difference.Offset + difference.Length - 1);
}

// Copies one volume file into `sink`. Before the copy the file's run lists
// say where the volume's read would hand out other bytes than the file
// holds; each such place is reported with the reason, and so is a device
// failure during the copy. 0, or 1 when anything was reported.
int CopyOut(MountedImage* image, const std::u16string& path, int64_t record, Sink* sink, bool progressAllowed,
            FileLayout* layout) {
    CNTFSVolume* volume = image->Volume();
    const std::string name = Utf8(path);
    void* file = volume->CreateFileA(path.c_str(), 0, kOpenExisting, kAccessRead | kAccessShareMask);
    if (file == nullptr) return FailLookup(volume, path, volume->GetLastError());
    unsigned int code = LoadFileLayout(volume, image->Storage(), record, layout);
    std::vector<ReadDifference> differences;
    if (code == ERROR_SUCCESS) {
        differences = FindReadDifferences(*layout, volume->GetClusterSize(), kCopyChunk);
    }
    int status = 0;
    if (code != ERROR_SUCCESS) status = Fail(name + ": its records could not be examined", code);
    // Stale bytes behind the initialized size show only in the data.
    uint64_t staleFrom = UINT64_MAX;
    for (const ReadDifference& difference : differences) {
        if (difference.Kind == ReadDifferenceKind::BeyondInitializedSize) {
            staleFrom = difference.Offset;
        } else if (difference.Kind == ReadDifferenceKind::HoleFromEarlierUnit) {
            status = FailText(name + ": " + ByteRange(difference) +
                              " as read differ from the file on disk: " + ReadDifferenceReason(difference.Kind));
        }
    }
    unsigned int sizeHigh = 0;
    unsigned int sizeLow = 0;
    volume->GetFileSize(file, &sizeLow, &sizeHigh);
    const uint64_t total = (static_cast<uint64_t>(sizeHigh) << 32) | sizeLow;
    Progress progress(name, total, progressAllowed);
    const uint64_t failuresBefore = image->DeviceFailures();
    char* buffer = CopyBuffer();
    uint64_t copied = 0;
    bool stale = false;
    for (;;) {
        int done = 0;
        const int ok = volume->ReadFile(file, buffer, kCopyChunk, &done);
        const unsigned int readCode = ok ? ERROR_SUCCESS : volume->GetLastError();
        if (staleFrom < copied + static_cast<uint64_t>(done)) {
            const uint64_t from = std::max(staleFrom, copied) - copied;
            stale = stale || !std::all_of(buffer + from, buffer + done, [](char c) { return c == 0; });
        }
        if (done > 0 && !sink->Write(buffer, static_cast<size_t>(done))) {
            status = FailText(sink->Name() + ": " + std::strerror(errno));
            break;
        }
        copied += static_cast<uint64_t>(done);
        progress.Update(copied);
        if (readCode != ERROR_SUCCESS) {
            bool explained = false;
            for (const ReadDifference& difference : differences) {
                if (difference.Kind != ReadDifferenceKind::UnitPastLastRun) continue;
                status = FailText(name + ": the read stops at byte " + std::to_string(copied) + " of " +
                                  std::to_string(total) + ": " + ReadDifferenceReason(difference.Kind));
                explained = true;
            }
            // A device failure behind it is reported below, as the cause.
            if (!explained && image->DeviceFailures() == failuresBefore) status = Fail(name, readCode);
            if (!explained) status = 1;
            break;
        }
        if (done == 0) break;
    }
    volume->CloseFileHandle(file);
    if (stale) {
        status = FailText(name + ": bytes " + std::to_string(staleFrom) + " to " + std::to_string(total - 1) +
                          " as read differ from the file on disk: " +
                          ReadDifferenceReason(ReadDifferenceKind::BeyondInitializedSize));
    }
    if (image->DeviceFailures() != failuresBefore) status = image->ReportDeviceFailure("the read of " + name);
    if (!sink->Finish(copied) && status == 0) status = FailText(sink->Name() + ": " + std::strerror(errno));
    return status;
}

// Gives a host file or directory the times of a volume file.
int KeepTimes(const std::string& target, const FileLayout& layout) {
    const timespec times[2] = {UnixTime(layout.Accessed), UnixTime(layout.Modified)};
    if (::utimensat(AT_FDCWD, target.c_str(), times, 0) != 0) {
        return FailText(target + ": cannot set its times: " + std::strerror(errno));
    }
    return 0;
}

class Getter {
public:
    Getter(MountedImage* image, const GetOptions& options) : image_(image), options_(options) {}

    int File(const std::u16string& path, int64_t record, const std::string& target) {
        const int descriptor = ::open(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
        if (descriptor < 0) return FailText(target + ": " + std::strerror(errno));
        HostFileSink sink(descriptor, target);
        FileLayout layout;
        int status = CopyOut(image_, path, record, &sink, true, &layout);
        if (options_.keepTimes && layout.Record == record) status |= KeepTimes(target, layout);
        return status;
    }

    int Tree(const std::u16string& path, int64_t record, const std::string& target) {
        if (!ancestry_.Enter(path, record)) return kExitFailed;
        const int status = Walk(path, record, target);
        ancestry_.Leave();
        return status;
    }

private:
    int Walk(const std::u16string& path, int64_t record, const std::string& target) {
        if (::mkdir(target.c_str(), 0777) != 0 && errno != EEXIST) {
            return FailText(target + ": " + std::strerror(errno));
        }
        std::vector<Entry> entries;
        const unsigned int code = ListDirectory(image_->Volume(), image_->Storage(), path, record, &entries);
        if (code != ERROR_SUCCESS) return FailLookup(image_->Volume(), path, code);
        int status = 0;
        for (const Entry& entry : entries) {
            const std::u16string child = JoinPath(path, entry.name);
            if (!HostSafeName(entry.name)) {
                status |= FailText(Utf8(child) +
                                   ": a name the host cannot take (empty, '.', '..' or with '/'); "
                                   "not copied");
                continue;
            }
            const std::string childTarget = target + "/" + Utf8(entry.name);
            status |= entry.directory ? Tree(child, entry.record, childTarget) : File(child, entry.record, childTarget);
        }
        if (options_.keepTimes) {
            FileLayout layout;
            if (LoadFileLayout(image_->Volume(), image_->Storage(), record, &layout) == ERROR_SUCCESS) {
                status |= KeepTimes(target, layout);
            }
        }
        return status;
    }

    MountedImage* image_;
    const GetOptions& options_;
    Ancestry ancestry_;
};

bool IsHostDirectory(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// Words for the file attribute bits of $STANDARD_INFORMATION.
std::string AttributeWords(uint32_t bits) {
    static const struct {
        uint32_t bit;
        const char* word;
    } kWords[] = {{0x1, "read-only"},       {0x2, "hidden"},       {0x4, "system"},      {0x20, "archive"},
                  {0x40, "device"},         {0x80, "normal"},      {0x100, "temporary"}, {0x200, "sparse"},
                  {0x400, "reparse-point"}, {0x800, "compressed"}, {0x1000, "offline"},  {0x2000, "not-indexed"},
                  {0x4000, "encrypted"}};
    std::string words;
    for (const auto& word : kWords) {
        if ((bits & word.bit) == 0) continue;
        if (!words.empty()) words += ",";
        words += word.word;
    }
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%X", bits);
    return words.empty() ? std::string(hex) + " (none)" : std::string(hex) + " (" + words + ")";
}

const char* NamespaceWord(uint8_t space) {
    switch (space) {
        case 0:
            return "POSIX";
        case 1:
            return "Win32";
        case 2:
            return "DOS";
        case 3:
            return "Win32+DOS";
        default:
            return "unknown";
    }
}

std::string TypeName(uint32_t type) {
    switch (type) {
        case 0x10:
            return "$STANDARD_INFORMATION";
        case 0x20:
            return "$ATTRIBUTE_LIST";
        case 0x30:
            return "$FILE_NAME";
        case 0x40:
            return "$OBJECT_ID";
        case 0x50:
            return "$SECURITY_DESCRIPTOR";
        case 0x60:
            return "$VOLUME_NAME";
        case 0x70:
            return "$VOLUME_INFORMATION";
        case 0x80:
            return "$DATA";
        case 0x90:
            return "$INDEX_ROOT";
        case 0xA0:
            return "$INDEX_ALLOCATION";
        case 0xB0:
            return "$BITMAP";
        case 0xC0:
            return "$REPARSE_POINT";
        case 0x100:
            return "$LOGGED_UTILITY_STREAM";
        default: {
            char text[16];
            std::snprintf(text, sizeof text, "0x%X", type);
            return text;
        }
    }
}

void PrintStat(std::FILE* out, const std::u16string& path, const FileLayout& layout, int clusterSize) {
    std::fprintf(out, "path:              %s\n", Utf8(path).c_str());
    std::fprintf(out, "record:            %lld (sequence %u)\n", static_cast<long long>(layout.Record),
                 layout.Sequence);
    std::fprintf(out, "type:              %s\n", (layout.RecordFlags & 0x02) != 0 ? "directory" : "file");
    std::fprintf(out, "links:             %u\n", layout.LinkCount);
    std::fprintf(out, "names:\n");
    std::string shortName;
    for (const LayoutName& name : layout.Names) {
        std::fprintf(out, "  %-10s parent %lld: %s\n", NamespaceWord(name.Namespace),
                     static_cast<long long>(name.Parent), Utf8(name.Name).c_str());
        if ((name.Namespace & 0x02) != 0) shortName = Utf8(name.Name);
    }
    std::fprintf(out, "short name:        %s\n", shortName.empty() ? "(none)" : shortName.c_str());
    std::fprintf(out, "attributes:        %s\n", AttributeWords(layout.FileAttributes).c_str());
    const auto pieces = layout.DataPieces();
    if (!pieces.empty()) {
        const LayoutAttribute& data = *pieces.front();
        if (data.NonResident) {
            std::fprintf(out, "size:              %lld\n", static_cast<long long>(data.DataSize));
            std::fprintf(out, "allocated size:    %lld\n", static_cast<long long>(data.AllocatedSize));
            std::fprintf(out, "initialized size:  %lld\n", static_cast<long long>(data.InitializedSize));
        } else {
            std::fprintf(out, "size:              %u (resident)\n", data.ValueLength);
        }
        std::fprintf(out, "sparse:            %s\n", (data.Flags & 0x8000) != 0 ? "yes" : "no");
        std::fprintf(out, "compressed:        %s\n", (data.Flags & 0x00FF) != 0 ? "yes" : "no");
        if (data.NonResident && (data.Flags & 0x80FF) != 0) {
            std::fprintf(out, "compression unit:  %lld bytes\n",
                         static_cast<long long>(clusterSize) << data.UnitExponent);
        }
    }
    std::fprintf(out, "created:           %s\n", FormatTime(layout.Created, true).c_str());
    std::fprintf(out, "modified:          %s\n", FormatTime(layout.Modified, true).c_str());
    std::fprintf(out, "record changed:    %s\n", FormatTime(layout.RecordChanged, true).c_str());
    std::fprintf(out, "accessed:          %s\n", FormatTime(layout.Accessed, true).c_str());
    std::string extensions;
    for (const int64_t extension : layout.Extensions) {
        extensions += (extensions.empty() ? "" : ", ") + std::to_string(extension);
    }
    std::fprintf(out, "extension records: %s\n", extensions.empty() ? "none" : extensions.c_str());
    std::fprintf(out, "record attributes:\n");
    for (const LayoutAttribute& attribute : layout.Attributes) {
        std::string line = "  " + TypeName(attribute.Type);
        if (!attribute.Name.empty()) line += ":" + Utf8(attribute.Name);
        line += " in record " + std::to_string(attribute.Record);
        if (attribute.NonResident) {
            line += ", non-resident, VCN " + std::to_string(attribute.LowestVcn) + " to " +
                    std::to_string(attribute.HighestVcn) + ", " + std::to_string(attribute.Runs.size()) + " runs";
            if (attribute.RunsDamaged) line += " (run list damaged)";
        } else {
            line += ", resident, " + std::to_string(attribute.ValueLength) + " bytes";
        }
        std::fprintf(out, "%s\n", line.c_str());
    }
    const auto differences = FindReadDifferences(layout, clusterSize, kCopyChunk);
    std::fprintf(out, "read differences:%s\n", differences.empty() ? "  none" : "");
    for (const ReadDifference& difference : differences) {
        std::fprintf(out, "  %s: %s\n", ByteRange(difference).c_str(), ReadDifferenceReason(difference.Kind));
    }
}

}  // namespace

unsigned int LookUp(CNTFSVolume* volume, const std::u16string& path, VolumeEntry* found) {
    Entry entry;
    const unsigned int code = Stat(volume, path, &entry);
    if (code != ERROR_SUCCESS) return code;
    *found = {entry.name, entry.directory, entry.size, entry.record};
    return ERROR_SUCCESS;
}

unsigned int ListEntries(CNTFSVolume* volume, const std::u16string& directory, std::vector<VolumeEntry>* entries) {
    entries->clear();
    return VisitEntries(volume, directory, [entries](Entry&& entry) {
        entries->push_back({std::move(entry.name), entry.directory, entry.size, entry.record});
    });
}

int ReportLookup(CNTFSVolume* volume, const std::u16string& path, unsigned int code) {
    return FailLookup(volume, path, code);
}

int CommandList(const GlobalOptions&, const ListOptions& options) {
    MountedImage image;
    if (image.Open(options.image, false) != ERROR_SUCCESS) return kExitFailed;
    const std::u16string path = VolumePath(options.path);
    Entry entry;
    const unsigned int code = Stat(image.Volume(), path, &entry);
    if (code != ERROR_SUCCESS) return FailLookup(image.Volume(), path, code);
    Lister lister(&image, options);
    int status = 0;
    if (!entry.directory) {
        entry.name = LeafOf(path);
        lister.Print(path, entry);
    } else {
        status = lister.Tree(path, entry.record, options.recursive && !options.json);
    }
    lister.Finish();
    std::fflush(Out());
    if (image.Close() != ERROR_SUCCESS) status = kExitFailed;
    return status;
}

int CommandStat(const GlobalOptions&, const StatOptions& options) {
    MountedImage image;
    if (image.Open(options.image, false) != ERROR_SUCCESS) return kExitFailed;
    int status = 0;
    for (size_t i = 0; i < options.paths.size(); ++i) {
        std::u16string path;
        Entry entry;
        if (!Resolve(image.Volume(), options.paths[i], &path, &entry, &status)) continue;
        FileLayout layout;
        const unsigned int code = LoadFileLayout(image.Volume(), image.Storage(), entry.record, &layout);
        if (code != ERROR_SUCCESS) {
            status |= Fail(Utf8(path) + ": record " + std::to_string(entry.record), code);
            continue;
        }
        if (i > 0) std::fputc('\n', Out());
        PrintStat(Out(), path, layout, image.Volume()->GetClusterSize());
    }
    std::fflush(Out());
    if (image.Close() != ERROR_SUCCESS) status = kExitFailed;
    return status;
}

int CommandCat(const GlobalOptions&, const CatOptions& options) {
    MountedImage image;
    if (image.Open(options.image, false) != ERROR_SUCCESS) return kExitFailed;
    int status = 0;
    // The progress line would run into the data on one terminal.
    const bool progress = !isatty(STDOUT_FILENO);
    for (const std::string& typed : options.paths) {
        std::u16string path;
        Entry entry;
        if (!Resolve(image.Volume(), typed, &path, &entry, &status)) continue;
        if (entry.directory) {
            status |= FailText(Utf8(path) + ": is a directory");
            continue;
        }
        StreamSink sink(Out());
        FileLayout layout;
        status |= CopyOut(&image, path, entry.record, &sink, progress, &layout);
    }
    if (image.Close() != ERROR_SUCCESS) status = kExitFailed;
    return status;
}

int CommandGet(const GlobalOptions&, const GetOptions& options) {
    const std::string& destination = options.destination;
    const bool toStream = destination == "-";
    const bool intoDirectory = !toStream && IsHostDirectory(destination);
    if (options.sources.size() > 1 && !toStream && !intoDirectory) {
        return FailText(destination + ": not a directory (several sources are copied into one)");
    }
    MountedImage image;
    if (image.Open(options.image, false) != ERROR_SUCCESS) return kExitFailed;
    Getter getter(&image, options);
    int status = 0;
    for (const std::string& typed : options.sources) {
        std::u16string path;
        Entry entry;
        if (!Resolve(image.Volume(), typed, &path, &entry, &status)) continue;
        if (entry.directory && toStream) {
            status |= FailText(Utf8(path) + ": is a directory ('-' takes files only)");
            continue;
        }
        if (entry.directory && !options.recursive) {
            status |= FailText(Utf8(path) + ": is a directory (use get -R)");
            continue;
        }
        if (toStream) {
            StreamSink sink(Out());
            FileLayout layout;
            status |= CopyOut(&image, path, entry.record, &sink, !isatty(STDOUT_FILENO), &layout);
            continue;
        }
        // Into an existing directory under the file's own name (the root's
        // content goes into it directly); else to DEST itself.
        std::string target = destination;
        if (intoDirectory && path != u"\\") target += "/" + Utf8(LeafOf(path));
        status |= entry.directory ? getter.Tree(path, entry.record, target) : getter.File(path, entry.record, target);
    }
    if (image.Close() != ERROR_SUCCESS) status = kExitFailed;
    return status;
}

int CommandWrite(const GlobalOptions&, const WriteOptions& options) {
    // The source first: nothing on the image is touched for a source that
    // cannot be read.
    std::FILE* source = stdin;
    std::string sourceName = "standard input";
    int64_t sourceSize = -1;  // unknown for a stream
    if (options.source != "-") {
        sourceName = options.source;
        struct stat info {};
        if (::stat(sourceName.c_str(), &info) != 0) return FailText(sourceName + ": " + std::strerror(errno));
        if (S_ISDIR(info.st_mode)) return FailText(sourceName + ": is a directory; write takes a file");
        source = std::fopen(sourceName.c_str(), "rb");
        if (source == nullptr) return FailText(sourceName + ": " + std::strerror(errno));
        if (S_ISREG(info.st_mode)) sourceSize = info.st_size;
    }
    const auto closeSource = [&] {
        if (source != stdin) std::fclose(source);
    };
    const std::u16string path = VolumePath(options.path);
    // Every precondition on a read-only mount: the image is opened for
    // writing only when the change can be made.
    {
        if (CheckImageAccess(options.image, true) != 0) {
            closeSource();
            return kExitFailed;
        }
        MountedImage probe;
        if (probe.Open(options.image, false) != ERROR_SUCCESS) {
            closeSource();
            return kExitFailed;
        }
        Entry entry;
        const unsigned int code = Stat(probe.Volume(), path, &entry);
        int status = 0;
        if (code == ERROR_FILE_NOT_FOUND) {
            status = FailText(Utf8(path) + ": " + NotFoundText(probe.Volume(), path) +
                              " (write changes an existing file; nothing was changed)");
        } else if (code != ERROR_SUCCESS) {
            status = Fail(Utf8(path), code);
        } else if (entry.directory) {
            status = FailText(Utf8(path) + ": is a directory; nothing was changed");
        } else if (sourceSize >= 0) {
            const int64_t cluster = probe.Volume()->GetClusterSize();
            const int64_t end = static_cast<int64_t>(options.append ? entry.size : 0) + sourceSize;
            const int64_t wanted =
                (end + cluster - 1) / cluster - (static_cast<int64_t>(entry.size) + cluster - 1) / cluster;
            _VOLUME_SPACE space{};
            if (wanted > 0 && probe.Volume()->GetVolumeSpace(&space) == ERROR_SUCCESS && wanted > space.FreeClusters) {
                status = FailText(Utf8(path) + ": not enough free space: " + std::to_string(wanted) +
                                  " more clusters wanted, " + std::to_string(space.FreeClusters) +
                                  " free; nothing was changed");
            }
        }
        if (probe.Close() != ERROR_SUCCESS) status = kExitFailed;
        if (status != 0) {
            closeSource();
            return status;
        }
    }
    MountedImage image;
    int status = kExitFailed;
    if (image.Open(options.image, true) == ERROR_SUCCESS) {
        CNTFSVolume* volume = image.Volume();
        void* file = volume->CreateFileA(path.c_str(), 0, options.append ? kOpenExisting : kTruncateExisting,
                                         kAccessRead | kAccessWrite | kAccessShareMask);
        if (file == nullptr) {
            status = Fail(Utf8(path), volume->GetLastError());
        } else {
            status = 0;
            unsigned int low = 0;
            if (options.append) volume->SetFilePointer(file, &low, nullptr, kFileEnd);
            char* buffer = CopyBuffer();
            size_t got;
            while (status == 0 && (got = std::fread(buffer, 1, kCopyChunk, source)) > 0) {
                int done = 0;
                // WriteFile answers 1 also when the transfer failed: the count
                // tells, and the last error says why.
                if (!volume->WriteFile(file, buffer, static_cast<int>(got), &done) || done != static_cast<int>(got)) {
                    status = Fail(Utf8(path), volume->GetLastError() ? volume->GetLastError() : ERROR_HANDLE_DISK_FULL);
                }
            }
            if (std::ferror(source)) status = FailText(sourceName + ": read error");
            if (!volume->CloseFileHandle(file) && status == 0) {
                status = Fail(Utf8(path) + ": close", volume->GetLastError());
            }
        }
        if (image.Close() != ERROR_SUCCESS) status = kExitFailed;
    }
    closeSource();
    return status;
}

}  // namespace ntfs::cli
