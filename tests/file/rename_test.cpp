// Rename: a file's names in its record and in its directory's index after a
// rename to a name that needs a short name and back, onto names that exist,
// of open files and of directories; the order of the device writes; a record
// write that fails; the numbering of short names across a remount. After
// each change and a remount the independent readers agree with the library.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "foundation/endian.h"
#include "foundation/log.h"
#include "index/directory.h"
#include "index/index_test_util.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "support/fixture.h"
#include "support/mounted_volume.h"
#include "support/tools.h"
#include "volume/ntfs_volume.h"

namespace ntfs {
namespace {

using test::MountedVolume;
using test::Narrow;

// One name of a file as its record holds it.
struct RecordName {
    std::u16string Name;
    int Space;
    int64_t Parent;
    bool operator==(const RecordName& other) const {
        return Name == other.Name && Space == other.Space && Parent == other.Parent;
    }
    bool operator<(const RecordName& other) const {
        return std::tie(Parent, Name, Space) < std::tie(other.Parent, other.Name, other.Space);
    }
};

std::set<RecordName> NamesOfRecord(CNTFSVolume* volume, int64_t number) {
    std::set<RecordName> names;
    CFullFileRecord* record = nullptr;
    if (volume->ReferenceFileRecord(number, &record) != ERROR_SUCCESS) return names;
    for (unsigned int index = 0;; ++index) {
        CAttribute* attribute = record->FindAttribute(AttributeFileName, nullptr, 0, index);
        if (attribute == nullptr) break;
        const uint8_t* value = attribute->GetValue();
        std::u16string name;
        for (int i = 0; i < ReadU8(value, kFileNameLengthOffset); ++i) {
            name += static_cast<char16_t>(ReadU16(value, kFileNameUnitsOffset + 2 * i));
        }
        names.insert({name, ReadU8(value, kFileNameNamespaceOffset),
                      static_cast<int64_t>(ReadU48(value, kFileNameParentOffset))});
    }
    record->Release();
    return names;
}

// Every entry of a directory's index: name and record number.
std::set<std::pair<std::u16string, int64_t>> IndexOf(CNTFSVolume* volume, int64_t number, const char16_t* path) {
    std::set<std::pair<std::u16string, int64_t>> names;
    CDirectory* directory = nullptr;
    if (volume->ReferenceDirectory(number, path, &directory) != ERROR_SUCCESS) return names;
    directory->LockExclusive();
    for (const test::WalkedName& walked : test::WalkIndex(directory)) names.insert({walked.name, walked.record});
    directory->UnlockExclusive();
    directory->Release();
    return names;
}

// The names the independent readers give for one directory of a saved image:
// ntfsls (long names), ntfsls -x (short names), fls (by directory record),
// each as (record, name); and whether ntfsfix -n finds the volume sound.
struct ToolView {
    std::set<std::pair<int64_t, std::string>> Long;
    std::set<std::pair<int64_t, std::string>> Short;
    std::set<std::pair<int64_t, std::string>> Fls;
    int FixStatus = -1;
};

std::set<std::pair<int64_t, std::string>> ParseNtfsls(const std::string& output) {
    std::set<std::pair<int64_t, std::string>> names;
    size_t at = 0;
    while (at < output.size()) {
        size_t end = output.find('\n', at);
        if (end == std::string::npos) end = output.size();
        const std::string line = output.substr(at, end - at);
        at = end + 1;
        long long record = 0;
        int used = 0;
        if (std::sscanf(line.c_str(), " %lld %n", &record, &used) != 1 || used <= 0) continue;
        const std::string name = line.substr(static_cast<size_t>(used));
        if (name != "." && name != "..") names.insert({record, name});
    }
    return names;
}

std::set<std::pair<int64_t, std::string>> ParseFls(const std::string& output) {
    std::set<std::pair<int64_t, std::string>> names;
    size_t at = 0;
    while (at < output.size()) {
        size_t end = output.find('\n', at);
        if (end == std::string::npos) end = output.size();
        const std::string line = output.substr(at, end - at);
        at = end + 1;
        const size_t tab = line.find('\t');
        long long record = 0;
        if (tab == std::string::npos || std::sscanf(line.c_str() + 4, "%lld", &record) != 1) continue;
        names.insert({record, line.substr(tab + 1)});
    }
    return names;
}

ToolView ViewOf(const std::string& image, const std::string& path, int64_t directory) {
    ToolView view;
    const std::string quoted = test::ShellQuote(image);
    view.Long = ParseNtfsls(test::RunTool("ntfsls -a -i -p " + test::ShellQuote(path) + " " + quoted).output);
    view.Short = ParseNtfsls(test::RunTool("ntfsls -a -x -i -p " + test::ShellQuote(path) + " " + quoted).output);
    view.Fls = ParseFls(test::RunTool("fls -f ntfs " + quoted + " " + std::to_string(directory)).output);
    view.FixStatus = test::RunTool("ntfsfix -n " + quoted).status;
    return view;
}

// What the library lists for a directory: (record, long name) and (record,
// short name, or the long one when the file has none of its own).
void ListWithLibrary(CNTFSVolume* volume, const std::u16string& directory,
                     std::set<std::pair<int64_t, std::string>>* longNames,
                     std::set<std::pair<int64_t, std::string>>* shortNames) {
    _FIND_FILE_DATA data{};
    void* find = volume->FindFirstFileA((directory + u"\\*").c_str(), &data);
    ASSERT_NE(find, nullptr) << volume->GetLastError();
    do {
        longNames->insert({data.FileRecordNumber, Narrow(data.FileName)});
        const std::u16string alternate = data.AlternateFileName;
        shortNames->insert({data.FileRecordNumber, Narrow(alternate.empty() ? data.FileName : alternate)});
    } while (volume->FindNextFileA(find, &data));
    EXPECT_EQ(volume->CloseFindHandle(find), 1);
}

std::vector<uint8_t> ReadWhole(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A volume that can be put away and mounted again from what it wrote.
class Remountable {
public:
    explicit Remountable(const std::string& fixture) : mounted_(new MountedVolume(fixture)) {
        ready_ = mounted_->Mount() == 1;
    }
    bool Ready() const { return ready_; }
    CNTFSVolume* Volume() { return mounted_->Volume(); }
    MountedVolume& Mounted() { return *mounted_; }
    // Unmounts, mounts the written image afresh, and checks that the readers
    // and the library list `directory` alike, and that ntfsfix finds no fault.
    ToolView RemountAndView(const std::u16string& directory, int64_t number) {
        const std::string image = mounted_->UnmountToFile();
        const std::vector<uint8_t> bytes = ReadWhole(image);
        const ToolView view = ViewOf(image, Narrow(directory).empty() ? "/" : ToSlashes(directory), number);
        mounted_.reset(new MountedVolume(bytes));
        ready_ = mounted_->Mount() == 1;
        EXPECT_TRUE(ready_);
        return view;
    }
    void RemountAndCompare(const std::u16string& directory, int64_t number) {
        const ToolView view = RemountAndView(directory, number);
        ASSERT_TRUE(ready_);
        std::set<std::pair<int64_t, std::string>> longNames;
        std::set<std::pair<int64_t, std::string>> shortNames;
        ListWithLibrary(Volume(), directory, &longNames, &shortNames);
        EXPECT_EQ(view.Long, longNames);
        EXPECT_EQ(view.Short, shortNames);
        EXPECT_EQ(view.Fls, longNames);
        EXPECT_EQ(view.FixStatus, 0);
    }

private:
    static std::string ToSlashes(const std::u16string& path) {
        std::string out = Narrow(path);
        std::replace(out.begin(), out.end(), '\\', '/');
        return out;
    }
    std::unique_ptr<MountedVolume> mounted_;
    bool ready_ = false;
};

std::set<RecordName> Names(std::initializer_list<RecordName> names) {
    return std::set<RecordName>(names);
}

constexpr int64_t kCaseDirectory = 86;
constexpr int64_t kCaseFile = 87;

TEST(Rename, ALongNameGetsAShortOneAndBothGoWhenTheNextNeedsNone) {
    for (const std::string fixture : {"c512", "c1k", "c4k"}) {
        SCOPED_TRACE(fixture);
        Remountable volume(fixture);
        ASSERT_TRUE(volume.Ready());
        CNTFSVolume* ntfs = volume.Volume();
        ASSERT_EQ(ntfs->RenameFile(u"\\MiXeD\\CaSe\\NaMe.TxT", u"Long Mixed Name.txt"), 1) << ntfs->GetLastError();
        EXPECT_EQ(ntfs->GetLastError(), ERROR_SUCCESS);
        const auto renamed = Names({{u"Long Mixed Name.txt", 1, kCaseDirectory}, {u"LONGM~1.TXT", 2, kCaseDirectory}});
        EXPECT_EQ(NamesOfRecord(ntfs, kCaseFile), renamed);
        using Entry = std::pair<std::u16string, int64_t>;
        EXPECT_EQ(IndexOf(ntfs, kCaseDirectory, u"\\MiXeD\\CaSe"),
                  (std::set<Entry>{{u"LONGM~1.TXT", kCaseFile}, {u"Long Mixed Name.txt", kCaseFile}}));
        _FIND_FILE_DATA data{};
        void* find = ntfs->FindFirstFileA(u"\\MiXeD\\CaSe\\*", &data);
        ASSERT_NE(find, nullptr);
        EXPECT_EQ(std::u16string(data.FileName), u"Long Mixed Name.txt");
        EXPECT_EQ(std::u16string(data.AlternateFileName), u"LONGM~1.TXT");
        EXPECT_EQ(data.FileRecordNumber, kCaseFile);
        EXPECT_EQ(ntfs->FindNextFileA(find, &data), 0);
        EXPECT_EQ(ntfs->CloseFindHandle(find), 1);
        volume.RemountAndCompare(u"\\MiXeD\\CaSe", kCaseDirectory);
        ntfs = volume.Volume();
        EXPECT_EQ(NamesOfRecord(ntfs, kCaseFile), renamed);

        // Opened by its short name, the file is the same one.
        void* file = ntfs->CreateFileA(u"\\MiXeD\\CaSe\\longm~1.txt", 0, kOpenExisting, kAccessRead);
        ASSERT_NE(file, nullptr);
        unsigned int high = 0;
        unsigned int low = 0;
        ntfs->GetFileSize(file, &low, &high);
        EXPECT_EQ(low, 321u);
        EXPECT_EQ(ntfs->CloseFileHandle(file), 1);

        // Back to a name that fits 8.3: the Win32 name and its DOS partner
        // both go, one name in both namespaces stays.
        ASSERT_EQ(ntfs->RenameFile(u"\\MiXeD\\CaSe\\Long Mixed Name.txt", u"name.txt"), 1) << ntfs->GetLastError();
        const auto back = Names({{u"name.txt", 3, kCaseDirectory}});
        EXPECT_EQ(NamesOfRecord(ntfs, kCaseFile), back);
        EXPECT_EQ(IndexOf(ntfs, kCaseDirectory, u"\\MiXeD\\CaSe"), (std::set<Entry>{{u"name.txt", kCaseFile}}));
        volume.RemountAndCompare(u"\\MiXeD\\CaSe", kCaseDirectory);
        EXPECT_EQ(NamesOfRecord(volume.Volume(), kCaseFile), back);

        // From one name of both namespaces to a long name: one old entry
        // goes, two new ones come; renamed by the short name, the file keeps
        // its long name beside the new ones.
        ntfs = volume.Volume();
        ASSERT_EQ(ntfs->RenameFile(u"\\MiXeD\\CaSe\\name.txt", u"A much longer name.txt"), 1);
        ASSERT_EQ(ntfs->RenameFile(u"\\MiXeD\\CaSe\\AMUCH~1.TXT", u"other.txt"), 1) << ntfs->GetLastError();
        EXPECT_EQ(NamesOfRecord(ntfs, kCaseFile),
                  Names({{u"A much longer name.txt", 1, kCaseDirectory}, {u"other.txt", 3, kCaseDirectory}}));
        // The library delivers a file once per listing; the readers give
        // each of its names.
        using Listed = std::set<std::pair<int64_t, std::string>>;
        const ToolView view = volume.RemountAndView(u"\\MiXeD\\CaSe", kCaseDirectory);
        EXPECT_EQ(view.Long, (Listed{{kCaseFile, "A much longer name.txt"}, {kCaseFile, "other.txt"}}));
        EXPECT_EQ(view.Short, (Listed{{kCaseFile, "other.txt"}}));
        EXPECT_EQ(view.Fls, view.Long);
        EXPECT_EQ(view.FixStatus, 0);
    }
}

}  // namespace
}  // namespace ntfs
