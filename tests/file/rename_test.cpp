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
#include <ostream>
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
#include "support/cluster_audit.h"
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

void PrintTo(const RecordName& name, std::ostream* out) {
    *out << Narrow(name.Name) << " (namespace " << name.Space << ", in " << name.Parent << ")";
}

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

std::vector<std::string> SplitLines(const std::string& output) {
    std::vector<std::string> lines;
    size_t at = 0;
    while (at < output.size()) {
        size_t end = output.find('\n', at);
        if (end == std::string::npos) end = output.size();
        lines.push_back(output.substr(at, end - at));
        at = end + 1;
    }
    return lines;
}

// ntfsls -i: "   87 name" lines, with . and .. left out.
std::set<std::pair<int64_t, std::string>> ParseNtfsls(const std::string& output) {
    std::set<std::pair<int64_t, std::string>> names;
    for (const std::string& line : SplitLines(output)) {
        long long record = 0;
        int used = 0;
        if (std::sscanf(line.c_str(), " %lld %n", &record, &used) != 1 || used <= 0) continue;
        const std::string name = line.substr(static_cast<size_t>(used));
        if (name != "." && name != "..") names.insert({record, name});
    }
    return names;
}

// fls: "r/r 87-128-2:<tab>name" lines.
std::set<std::pair<int64_t, std::string>> ParseFls(const std::string& output) {
    std::set<std::pair<int64_t, std::string>> names;
    for (const std::string& line : SplitLines(output)) {
        const size_t tab = line.find('\t');
        long long record = 0;
        if (tab == std::string::npos || line.size() < 4 || std::sscanf(line.c_str() + 4, "%lld", &record) != 1) {
            continue;
        }
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
    // Unmounts, mounts the written image afresh, and gives what the readers
    // list of `directory` and what ntfsfix says.
    ToolView RemountAndView(const std::u16string& directory, int64_t number) {
        const std::string image = mounted_->UnmountToFile();
        const std::vector<uint8_t> bytes = ReadWhole(image);
        const ToolView view = ViewOf(image, Narrow(directory).empty() ? "/" : ToSlashes(directory), number);
        mounted_.reset(new MountedVolume(bytes));
        ready_ = mounted_->Mount() == 1;
        EXPECT_TRUE(ready_);
        return view;
    }
    // The readers list what the index holds: the long listing every name
    // but the DOS-only ones, the short listing every name but the
    // Win32-only ones (system files left out). The library lists each file
    // under one of its long names, with its short name.
    void RemountAndCompare(const std::u16string& directory, int64_t number) {
        const ToolView view = RemountAndView(directory, number);
        ASSERT_TRUE(ready_);
        std::set<std::pair<int64_t, std::string>> longNames;
        std::set<std::pair<int64_t, std::string>> shortNames;
        const std::u16string path = directory.empty() ? u"\\." : directory;
        for (const auto& [name, record] : IndexOf(Volume(), number, path.c_str())) {
            if (name[0] == u'$' || name == u".") continue;
            int space = -1;
            for (const RecordName& held : NamesOfRecord(Volume(), record)) {
                if (held.Name == name && held.Parent == number) space = held.Space;
            }
            EXPECT_NE(space, -1) << "the index names a record without that name: " << Narrow(name);
            if (space != kNamespaceDos) longNames.insert({record, Narrow(name)});
            if (space != 1) shortNames.insert({record, Narrow(name)});
        }
        std::set<std::pair<int64_t, std::string>> fls;
        for (const auto& item : view.Fls) {
            if (item.second[0] != '$') fls.insert(item);
        }
        EXPECT_EQ(view.Long, longNames);
        EXPECT_EQ(view.Short, shortNames);
        EXPECT_EQ(fls, longNames);
        EXPECT_EQ(view.FixStatus, 0);
        const test::ClusterAudit audit = test::AuditClusters(Volume());
        EXPECT_TRUE(audit.Clean()) << audit.First;
        std::set<std::pair<int64_t, std::string>> listed;
        std::set<std::pair<int64_t, std::string>> listedShort;
        ListWithLibrary(Volume(), directory, &listed, &listedShort);
        for (const auto& item : listed) EXPECT_EQ(longNames.count(item), 1u) << item.second;
        for (const auto& item : listedShort) EXPECT_EQ(shortNames.count(item), 1u) << item.second;
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

TEST(Rename, RefusalsLeaveEveryNameAsItWas) {
    Remountable volume("c4k");
    ASSERT_TRUE(volume.Ready());
    CNTFSVolume* ntfs = volume.Volume();
    const auto linked = NamesOfRecord(ntfs, 98);
    const auto readme = NamesOfRecord(ntfs, 64);
    const auto oneByte = NamesOfRecord(ntfs, 83);
    ASSERT_EQ(linked.size(), 3u);

    struct Refusal {
        const char16_t* From;
        std::u16string To;
        unsigned int Code;
    };
    const std::vector<Refusal> refusals = {
        {u"\\readme.txt", u"a:b", ERROR_INVALID_PARAMETER},
        {u"\\readme.txt", u"a|b", ERROR_INVALID_PARAMETER},
        {u"\\readme.txt", u"", ERROR_INVALID_PARAMETER},
        {u"\\readme.txt", std::u16string(256, u'x'), ERROR_INVALID_PARAMETER},
        // A directory is refused by the open.
        {u"\\docs", u"papers", ERROR_INVALID_PARAMETER},
        {u"\\no such file.txt", u"x.txt", ERROR_FILE_NOT_FOUND},
        {u"\\no dir\\file.txt", u"x.txt", ERROR_FILE_NOT_FOUND},
        // The name of another file, and another name of the same file.
        {u"\\readme.txt", u"Empty.dat", ERROR_FILE_CORRUPT},
        {u"\\links\\original.txt", u"same-dir-link.txt", ERROR_FILE_CORRUPT},
        // A change of case alone meets the old entry.
        {u"\\readme.txt", u"README.TXT", ERROR_FILE_CORRUPT},
        // A long name whose short name is free, onto an existing long name.
        {u"\\data\\one-byte.bin", u"Large Text File.log", ERROR_FILE_CORRUPT},
    };
    for (const Refusal& refusal : refusals) {
        SCOPED_TRACE(Narrow(refusal.From) + " -> " + Narrow(refusal.To.substr(0, 20)));
        EXPECT_EQ(ntfs->RenameFile(refusal.From, refusal.To.c_str()), 0);
        EXPECT_EQ(ntfs->GetLastError(), refusal.Code);
    }
    EXPECT_EQ(NamesOfRecord(ntfs, 98), linked);
    EXPECT_EQ(NamesOfRecord(ntfs, 64), readme);
    EXPECT_EQ(NamesOfRecord(ntfs, 83), oneByte);

    // An open file: by its path in any case, 5; the open handle still works.
    void* open = ntfs->CreateFileA(u"\\readme.txt", 0, kOpenExisting, kAccessRead | kAccessShareRead);
    ASSERT_NE(open, nullptr);
    EXPECT_EQ(ntfs->RenameFile(u"\\readme.txt", u"other.txt"), 0);
    EXPECT_EQ(ntfs->GetLastError(), ERROR_ACCESS_DENIED);
    EXPECT_EQ(ntfs->RenameFile(u"\\README.TXT", u"other.txt"), 0);
    EXPECT_EQ(ntfs->GetLastError(), ERROR_ACCESS_DENIED);
    char buffer[200] = {};
    int done = 0;
    EXPECT_EQ(ntfs->ReadFile(open, buffer, sizeof(buffer), &done), 1);
    EXPECT_EQ(done, 180);
    EXPECT_EQ(ntfs->CloseFileHandle(open), 1);
    EXPECT_EQ(NamesOfRecord(ntfs, 64), readme);

    volume.RemountAndCompare(u"", 5);
    volume.RemountAndCompare(u"\\links", 97);
    volume.RemountAndCompare(u"\\data", 78);
    EXPECT_EQ(NamesOfRecord(volume.Volume(), 98), linked);
}

// The FILE records a stretch of the write log wrote, by number, in order;
// -1 for a write of anything else.
std::vector<int64_t> RecordsWritten(const std::vector<test::FaultStorage::WriteEntry>& log, size_t from) {
    std::vector<int64_t> records;
    for (size_t i = from; i < log.size(); ++i) {
        const std::vector<uint8_t>& bytes = log[i].bytes;
        const bool file = bytes.size() == 1024 && ReadU32(bytes.data(), kFileMagicOffset) == kFileRecordMagic;
        records.push_back(file ? static_cast<int64_t>(ReadU32(bytes.data(), kFileRecordNumberLowOffset)) : -1);
    }
    return records;
}

using IndexNames = std::set<std::pair<std::u16string, int64_t>>;

TEST(Rename, NewNamesThenTheRecordThenTheOldNamesLeave) {
    MountedVolume mounted("c4k");
    ASSERT_EQ(mounted.Mount(), 1);
    CNTFSVolume* ntfs = mounted.Volume();
    const std::vector<uint8_t> before = mounted.Memory().Bytes();
    const size_t start = mounted.Faults().WriteLog().size();
    ASSERT_EQ(ntfs->RenameFile(u"\\MiXeD\\CaSe\\NaMe.TxT", u"Long Mixed Name.txt"), 1);
    const std::vector<int64_t> written = RecordsWritten(mounted.Faults().WriteLog(), start);
    // The long name's entry, the short name's entry, the file's record, the
    // old entry's removal.
    EXPECT_EQ(written, (std::vector<int64_t>{kCaseDirectory, kCaseDirectory, kCaseFile, kCaseDirectory}));

    const auto oldNames = Names({{u"NaMe.TxT", 0, kCaseDirectory}});
    const auto newNames = Names({{u"Long Mixed Name.txt", 1, kCaseDirectory}, {u"LONGM~1.TXT", 2, kCaseDirectory}});
    const std::vector<IndexNames> indexAfter = {
        {{u"NaMe.TxT", kCaseFile}},
        {{u"NaMe.TxT", kCaseFile}, {u"Long Mixed Name.txt", kCaseFile}},
        {{u"NaMe.TxT", kCaseFile}, {u"Long Mixed Name.txt", kCaseFile}, {u"LONGM~1.TXT", kCaseFile}},
        {{u"NaMe.TxT", kCaseFile}, {u"Long Mixed Name.txt", kCaseFile}, {u"LONGM~1.TXT", kCaseFile}},
        {{u"Long Mixed Name.txt", kCaseFile}, {u"LONGM~1.TXT", kCaseFile}},
    };
    // Power cut after k writes: the record holds all old names or all new
    // ones, and the index holds every name the record holds.
    for (size_t k = 0; k <= written.size(); ++k) {
        SCOPED_TRACE("cut after write " + std::to_string(k));
        std::vector<uint8_t> image = before;
        test::FaultStorage::Replay(mounted.Faults().WriteLog(), start + k, &image);
        MountedVolume survivor(std::move(image));
        ASSERT_EQ(survivor.Mount(), 1);
        EXPECT_EQ(NamesOfRecord(survivor.Volume(), kCaseFile), k < 3 ? oldNames : newNames);
        EXPECT_EQ(IndexOf(survivor.Volume(), kCaseDirectory, u"\\MiXeD\\CaSe"), indexAfter[k]);
        survivor.Volume()->Umount();
    }

    // Back to a name that needs no short one: its entry, the record, then
    // the old long name and its partner.
    const size_t second = mounted.Faults().WriteLog().size();
    ASSERT_EQ(ntfs->RenameFile(u"\\MiXeD\\CaSe\\Long Mixed Name.txt", u"name.txt"), 1);
    EXPECT_EQ(RecordsWritten(mounted.Faults().WriteLog(), second),
              (std::vector<int64_t>{kCaseDirectory, kCaseFile, kCaseDirectory, kCaseDirectory}));
    ntfs->Umount();
}

TEST(Rename, AFailedRecordWriteKeepsTheOldNames) {
    Remountable volume("c4k");
    ASSERT_TRUE(volume.Ready());
    CNTFSVolume* ntfs = volume.Volume();
    test::FaultStorage& faults = volume.Mounted().Faults();
    const size_t start = faults.WriteLog().size();
    // The third write of the rename is the file's record.
    faults.FailNthWrite(faults.Writes() + 3, ERROR_IO_DEVICE);
    EXPECT_EQ(ntfs->RenameFile(u"\\MiXeD\\CaSe\\NaMe.TxT", u"Long Mixed Name.txt"), 0);
    EXPECT_EQ(ntfs->GetLastError(), ERROR_IO_DEVICE);
    faults.Heal();
    const std::vector<int64_t> written = RecordsWritten(faults.WriteLog(), start);
    ASSERT_GE(written.size(), 2u);
    EXPECT_EQ(written.back(), kCaseFile);  // the restored record, written again
    const auto oldNames = Names({{u"NaMe.TxT", 0, kCaseDirectory}});
    EXPECT_EQ(NamesOfRecord(ntfs, kCaseFile), oldNames);
    EXPECT_EQ(IndexOf(ntfs, kCaseDirectory, u"\\MiXeD\\CaSe"), (IndexNames{{u"NaMe.TxT", kCaseFile}}));
    volume.RemountAndCompare(u"\\MiXeD\\CaSe", kCaseDirectory);
    ntfs = volume.Volume();
    EXPECT_EQ(NamesOfRecord(ntfs, kCaseFile), oldNames);

    // The file is whole and can be renamed after all.
    void* file = ntfs->CreateFileA(u"\\MiXeD\\CaSe\\NaMe.TxT", 0, kOpenExisting, kAccessRead);
    ASSERT_NE(file, nullptr);
    char buffer[400] = {};
    int done = 0;
    EXPECT_EQ(ntfs->ReadFile(file, buffer, sizeof(buffer), &done), 1);
    EXPECT_EQ(done, 321);
    EXPECT_EQ(ntfs->CloseFileHandle(file), 1);
    ASSERT_EQ(ntfs->RenameFile(u"\\MiXeD\\CaSe\\NaMe.TxT", u"Long Mixed Name.txt"), 1);
    volume.RemountAndCompare(u"\\MiXeD\\CaSe", kCaseDirectory);
}

TEST(Rename, ShortNameTailsAreCountedPerMountAndSkipNamesOnTheVolume) {
    Remountable volume("c4k");
    ASSERT_TRUE(volume.Ready());
    const auto shortNameOf = [&](int64_t record) {
        for (const RecordName& name : NamesOfRecord(volume.Volume(), record)) {
            if (name.Space == kNamespaceDos) return name.Name;
        }
        return std::u16string(u"(none)");
    };
    const auto rename = [&](const char16_t* from, const char16_t* to) {
        EXPECT_EQ(volume.Volume()->RenameFile(from, to), 1) << Narrow(from) << " -> " << Narrow(to);
    };
    rename(u"\\data\\one-byte.bin", u"Long File Name.txt");
    EXPECT_EQ(shortNameOf(83), u"LONGF~1.TXT");
    rename(u"\\data\\small-600.bin", u"Long File Name 2.txt");
    EXPECT_EQ(shortNameOf(84), u"LONGF~2.TXT");
    rename(u"\\data\\Long File Name.txt", u"plain.bin");  // LONGF~1.TXT is free again
    rename(u"\\data\\exact-cluster.bin", u"Long File Name 3.txt");
    EXPECT_EQ(shortNameOf(81), u"LONGF~3.TXT");  // the counter goes on
    volume.RemountAndCompare(u"\\data", 78);

    // A new mount forgets the counters: the search starts at ~1 again.
    rename(u"\\data\\cluster-plus-one.bin", u"Long File Name 4.txt");
    EXPECT_EQ(shortNameOf(82), u"LONGF~1.TXT");
    rename(u"\\data\\plain.bin", u"Long File Name 5.txt");
    EXPECT_EQ(shortNameOf(83), u"LONGF~4.TXT");  // ~2 and ~3 are taken
    // A name that is itself 8.3 blocks the candidate it equals.
    rename(u"\\data\\Large Text File.log", u"longf~5.txt");
    EXPECT_EQ(NamesOfRecord(volume.Volume(), 80), Names({{u"longf~5.txt", 3, 78}}));
    rename(u"\\data\\large-random.bin", u"Long File Name 6.txt");
    EXPECT_EQ(shortNameOf(79), u"LONGF~6.TXT");
    volume.RemountAndCompare(u"\\data", 78);
}

TEST(Rename, OpenEnumerationsGoOnAfterARename) {
    MountedVolume mounted("c4k");
    ASSERT_EQ(mounted.Mount(), 1);
    CNTFSVolume* ntfs = mounted.Volume();
    _FIND_FILE_DATA data{};
    void* find = ntfs->FindFirstFileA(u"\\data\\*", &data);
    ASSERT_NE(find, nullptr);
    std::vector<std::u16string> seen = {data.FileName};
    ASSERT_EQ(ntfs->FindNextFileA(find, &data), 1);
    seen.push_back(data.FileName);
    ASSERT_EQ(seen, (std::vector<std::u16string>{u"big-alias.txt", u"cluster-plus-one.bin"}));
    // The name last delivered moves on (its file was delivered: not again),
    // one not yet delivered moves to the end, one moves in front.
    ASSERT_EQ(ntfs->RenameFile(u"\\data\\cluster-plus-one.bin", u"cpo.bin"), 1);
    ASSERT_EQ(ntfs->RenameFile(u"\\data\\exact-cluster.bin", u"zzz.bin"), 1);
    ASSERT_EQ(ntfs->RenameFile(u"\\data\\small-600.bin", u"aaa.bin"), 1);
    std::vector<std::u16string> rest;
    while (ntfs->FindNextFileA(find, &data)) rest.push_back(data.FileName);
    EXPECT_EQ(ntfs->GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(rest,
              (std::vector<std::u16string>{u"Large Text File.log", u"large-random.bin", u"one-byte.bin", u"zzz.bin"}));
    EXPECT_EQ(ntfs->CloseFindHandle(find), 1);
}

TEST(Rename, FilesWithSeveralRecordsAndNamesInLargeDirectories) {
    Remountable volume("c4k");
    ASSERT_TRUE(volume.Ready());
    CNTFSVolume* ntfs = volume.Volume();
    // Record 98 keeps its names in an extension record behind an attribute
    // list, two in \links and one in \docs; only the renamed one changes.
    ASSERT_EQ(ntfs->RenameFile(u"\\links\\original.txt", u"The Original Text.txt"), 1) << ntfs->GetLastError();
    EXPECT_EQ(NamesOfRecord(ntfs, 98), Names({{u"The Original Text.txt", 1, 97},
                                              {u"THEOR~1.TXT", 2, 97},
                                              {u"same-dir-link.txt", 0, 97},
                                              {u"cross-dir-link.txt", 0, 67}}));
    // The root's index lives in index records.
    ASSERT_EQ(ntfs->RenameFile(u"\\readme.txt", u"Read Me First.txt"), 1) << ntfs->GetLastError();
    EXPECT_EQ(NamesOfRecord(ntfs, 64), Names({{u"Read Me First.txt", 1, 5}, {u"READM~1.TXT", 2, 5}}));
    // The longest name there is, in and out.
    const std::u16string longest(255, u'n');
    ASSERT_EQ(ntfs->RenameFile(u"\\long\\A file name that is quite long but well below the limit, with spaces and "
                               u"MixedCase.Text",
                               longest.c_str()),
              1)
        << ntfs->GetLastError();
    EXPECT_EQ(NamesOfRecord(ntfs, 103), Names({{longest, 1, 101}, {u"NNNNNN~1", 2, 101}}));
    volume.RemountAndCompare(u"\\links", 97);
    volume.RemountAndCompare(u"", 5);
    volume.RemountAndCompare(u"\\long", 101);
    ntfs = volume.Volume();
    ASSERT_EQ(ntfs->RenameFile((u"\\long\\" + longest).c_str(), u"short.txt"), 1) << ntfs->GetLastError();
    ASSERT_EQ(ntfs->RenameFile(u"\\links\\THEOR~1.TXT", u"again.txt"), 1) << ntfs->GetLastError();
    EXPECT_EQ(NamesOfRecord(ntfs, 98), Names({{u"The Original Text.txt", 1, 97},
                                              {u"again.txt", 3, 97},
                                              {u"same-dir-link.txt", 0, 97},
                                              {u"cross-dir-link.txt", 0, 67}}));
    volume.RemountAndCompare(u"\\long", 101);
    volume.RemountAndCompare(u"\\links", 97);
    volume.RemountAndCompare(u"\\docs", 67);
}

// A long name that no longer fits the record beside resident data goes into
// an extension record, and the file keeps its data.
TEST(Rename, ANameThatDoesNotFitTheRecordGoesToAnExtensionRecord) {
    for (const std::string fixture : {"c512", "c4k"}) {
        SCOPED_TRACE(fixture);
        Remountable volume(fixture);
        ASSERT_TRUE(volume.Ready());
        CNTFSVolume* ntfs = volume.Volume();
        const std::u16string longest = u"A long name " + std::u16string(243, u'x');
        ASSERT_EQ(ntfs->RenameFile(u"\\data\\small-600.bin", longest.c_str()), 1) << ntfs->GetLastError();
        EXPECT_EQ(NamesOfRecord(ntfs, 84), Names({{longest, 1, 78}, {u"ALONG~1", 2, 78}}));
        volume.RemountAndCompare(u"\\data", 78);
        ntfs = volume.Volume();
        EXPECT_EQ(NamesOfRecord(ntfs, 84), Names({{longest, 1, 78}, {u"ALONG~1", 2, 78}}));
        void* file = ntfs->CreateFileA((u"\\data\\" + longest).c_str(), 0, kOpenExisting, kAccessRead);
        ASSERT_NE(file, nullptr) << ntfs->GetLastError();
        std::vector<uint8_t> bytes(700);
        int done = 0;
        EXPECT_EQ(ntfs->ReadFile(file, bytes.data(), static_cast<int>(bytes.size()), &done), 1);
        ASSERT_EQ(done, 600);
        std::string sha;
        for (const test::ManifestEntry& entry : test::LoadManifest(fixture)) {
            if (entry.record == 84) sha = entry.sha256;
        }
        EXPECT_EQ(test::Sha256Hex(bytes.data(), 600), sha);
        EXPECT_EQ(ntfs->CloseFileHandle(file), 1);
        // Renamed by its short name, in the base record, to a name that fits
        // neither there nor beside the long name (whose record the placement
        // finds with room and then leaves the name unplaced): a record of
        // its own takes it.
        const std::u16string second = u"Second " + std::u16string(150, u'y');
        ASSERT_EQ(ntfs->RenameFile(u"\\data\\ALONG~1", second.c_str()), 1) << ntfs->GetLastError();
        EXPECT_EQ(NamesOfRecord(ntfs, 84), Names({{longest, 1, 78}, {second, 1, 78}, {u"SECOND~1", 2, 78}}));
        volume.RemountAndCompare(u"\\data", 78);
        ntfs = volume.Volume();
        EXPECT_EQ(NamesOfRecord(ntfs, 84), Names({{longest, 1, 78}, {second, 1, 78}, {u"SECOND~1", 2, 78}}));
        ASSERT_EQ(ntfs->RenameFile((u"\\data\\" + longest).c_str(), u"small.bin"), 1) << ntfs->GetLastError();
        ASSERT_EQ(ntfs->RenameFile((u"\\data\\" + second).c_str(), u"other.bin"), 1) << ntfs->GetLastError();
        volume.RemountAndCompare(u"\\data", 78);
        EXPECT_EQ(NamesOfRecord(volume.Volume(), 84), Names({{u"small.bin", 3, 78}, {u"other.bin", 3, 78}}));
    }
}

}  // namespace
}  // namespace ntfs
