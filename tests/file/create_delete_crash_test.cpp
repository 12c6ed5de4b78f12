// Crash safety of the operations that change a directory's names: create
// (a file with data, an 8.3 name and a long one with its short name), delete
// at close, mkdir, rmdir and rename. Each runs once in a directory small
// enough to keep its index in the root and once in one where the operation's
// insertion splits the index. The device writes of the operation are
// recorded; then for every write k a power cut is simulated (the first k
// writes landed, and the next one torn after its first sector when it spans
// more than a record), and what survived is mounted and checked: the index
// walks in key order and every entry points at a record in use whose bit is
// set in the MFT bitmap, no cluster is mapped twice or mapped and free, and
// every name is in its old or its new state (present before, present after,
// or the names the operation adds and takes away, each by itself).
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "data/bitmap_data.h"
#include "foundation/log.h"
#include "index/directory.h"
#include "index/index_test_util.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "support/cluster_audit.h"
#include "support/fixture.h"
#include "support/mounted_volume.h"
#include "volume/ntfs_volume.h"

namespace ntfs {
namespace {

using test::MountedVolume;

constexpr unsigned int kShared = kAccessShareRead | kAccessShareWrite;
const char16_t kWork[] = u"\\crash";

using Operation = std::function<bool(CNTFSVolume*)>;

std::u16string Filler(int i) {
    // 8.3 names: one entry each, so that the count finds the exact point
    // at which the root overflows.
    const std::string digits = std::to_string(1000 + i);
    return u"f" + std::u16string(digits.begin(), digits.end()) + u".txt";
}

bool MakeFile(CNTFSVolume* volume, const std::u16string& path, int bytes) {
    void* handle = volume->CreateFileA(path.c_str(), 0, kCreateNew, kAccessWrite | kShared);
    if (handle == nullptr) return false;
    const std::string text(static_cast<size_t>(bytes), 'x');
    int done = 0;
    const bool wrote = bytes == 0 || volume->WriteFile(handle, text.data(), bytes, &done) == 1;
    return volume->CloseFileHandle(handle) == 1 && wrote;
}

std::set<std::u16string> NamesIn(CNTFSVolume* volume, std::string* problem) {
    _FIND_FILE_DATA data{};
    std::set<std::u16string> names;
    void* find = volume->FindFirstFileA(kWork, &data);
    if (find == nullptr) {
        *problem += "no work directory; ";
        return names;
    }
    volume->CloseFindHandle(find);
    CDirectory* directory = nullptr;
    if (volume->ReferenceDirectory(data.FileRecordNumber, kWork, &directory) != ERROR_SUCCESS) {
        *problem += "work directory does not load; ";
        return names;
    }
    directory->LockExclusive();
    const std::string shape = test::CheckIndex(directory);
    if (!shape.empty()) *problem += "index: " + shape + "; ";
    unsigned int end = 0;
    const std::vector<test::WalkedName> walked = test::WalkIndex(directory, &end);
    directory->UnlockExclusive();
    directory->Release();
    if (end != ERROR_FILE_NOT_FOUND) *problem += "walk ended with " + std::to_string(end) + "; ";
    CFileRecordBitmap* bitmap = volume->GetMftBitmap();
    for (const test::WalkedName& name : walked) {
        names.insert(name.name);
        CFullFileRecord* record = nullptr;
        if (volume->ReferenceFileRecord(name.record, &record) != ERROR_SUCCESS) {
            *problem += "record " + std::to_string(name.record) + " unreadable; ";
            continue;
        }
        const bool inUse = (ReadU16(record->Image, kFileFlagsOffset) & kFileRecordInUse) != 0;
        record->Release();
        bool used = false;
        if (!inUse || bitmap->IsItemInUse(name.record, &used) != ERROR_SUCCESS || !used) {
            *problem += "entry " + test::Narrow(name.name) + " names record " + std::to_string(name.record) +
                        " not in use; ";
        }
    }
    return names;
}

struct Recorded {
    std::vector<uint8_t> prepared;  // the image the operation started from
    std::vector<test::FaultStorage::WriteEntry> log;
    size_t first = 0;  // writes landed before the operation
    size_t last = 0;   // writes landed after it
    std::set<std::u16string> before;
    std::set<std::u16string> after;
    int rootOnlyBefore = 0;  // the work directory had no index records
    int rootOnlyAfter = 0;
};

bool RootOnly(CNTFSVolume* volume) {
    _FIND_FILE_DATA data{};
    void* find = volume->FindFirstFileA(kWork, &data);
    if (find == nullptr) return false;
    volume->CloseFindHandle(find);
    CFullFileRecord* record = nullptr;
    if (volume->ReferenceFileRecord(data.FileRecordNumber, &record) != ERROR_SUCCESS) return false;
    const bool only = record->FindAttribute(AttributeIndexAllocation, u"$I30", 4, 0) == nullptr;
    record->Release();
    return only;
}

// Builds the work directory with `fillers` files (and the objects the
// operations act on), unmounts, and runs `operation` on a fresh mount of
// that image with its writes recorded.
Recorded Record(int fillers, const Operation& operation) {
    Recorded run;
    {
        MountedVolume setup("c4k");
        EXPECT_EQ(setup.Mount(), 1);
        CNTFSVolume* volume = setup.Volume();
        EXPECT_EQ(volume->CreateDirectoryA(kWork, 0), 1);
        const std::u16string work = kWork;
        EXPECT_TRUE(MakeFile(volume, work + u"\\victim.bin", 9000));
        EXPECT_TRUE(MakeFile(volume, work + u"\\old.txt", 100));
        EXPECT_EQ(volume->CreateDirectoryA((work + u"\\olddir").c_str(), 0), 1);
        for (int i = 0; i < fillers; ++i) EXPECT_TRUE(MakeFile(volume, work + u"\\" + Filler(i), 0));
        EXPECT_EQ(volume->Umount(), 1);
        run.prepared = setup.Memory().Bytes();
    }
    MountedVolume mounted(run.prepared);
    EXPECT_EQ(mounted.Mount(), 1);
    std::string problem;
    run.before = NamesIn(mounted.Volume(), &problem);
    run.rootOnlyBefore = RootOnly(mounted.Volume());
    EXPECT_EQ(problem, "");
    run.first = mounted.Faults().WriteLog().size();
    EXPECT_TRUE(operation(mounted.Volume())) << mounted.Volume()->GetLastError();
    run.last = mounted.Faults().WriteLog().size();
    run.after = NamesIn(mounted.Volume(), &problem);
    run.rootOnlyAfter = RootOnly(mounted.Volume());
    EXPECT_EQ(problem, "");
    run.log = mounted.Faults().WriteLog();
    return run;
}

std::string CheckSurvivor(std::vector<uint8_t> image, const Recorded& run) {
    MountedVolume mounted(std::move(image));
    if (mounted.Mount() != 1) return "mount failed " + std::to_string(mounted.Volume()->GetLastError());
    std::string problem;
    const std::set<std::u16string> names = NamesIn(mounted.Volume(), &problem);
    for (const std::u16string& name : names) {
        if (run.before.count(name) == 0 && run.after.count(name) == 0) problem += "stray name " + test::Narrow(name) + "; ";
    }
    for (const std::u16string& name : run.before) {
        if (run.after.count(name) != 0 && names.count(name) == 0) problem += "lost name " + test::Narrow(name) + "; ";
    }
    const test::ClusterAudit audit = test::AuditClusters(mounted.Volume());
    if (audit.OwnedTwice != 0 || audit.OwnedButFree != 0) problem += "clusters: " + audit.First + "; ";
    return problem;
}

// Whether `write` overwrites, in `image`, an index record the work
// directory uses: the one write of a directory change made in place, whose
// only protection is the update sequence, which is not raised from write
// to write (so a torn one cannot be told from a whole one, as for records).
bool OverwritesUsedIndexRecord(const std::vector<uint8_t>& image, const test::FaultStorage::WriteEntry& write) {
    MountedVolume mounted(image);
    if (mounted.Mount() != 1) return false;
    CNTFSVolume* volume = mounted.Volume();
    _FIND_FILE_DATA data{};
    void* find = volume->FindFirstFileA(kWork, &data);
    if (find == nullptr) return false;
    volume->CloseFindHandle(find);
    CDirectory* directory = nullptr;
    if (volume->ReferenceDirectory(data.FileRecordNumber, kWork, &directory) != ERROR_SUCCESS) return false;
    bool overwrites = false;
    directory->LockExclusive();
    for (int64_t bit = 0; bit < directory->CBitmapData::GetItemCount() && !overwrites; ++bit) {
        bool used = false;
        if (directory->IsItemInUse(bit, &used) != ERROR_SUCCESS || !used) continue;
        overwrites = test::IndexRecordImageOffset(directory, directory->BitToVcn(bit)) ==
                     write.sector * test::FaultStorage::kSectorBytes;
    }
    directory->UnlockExclusive();
    directory->Release();
    return overwrites;
}

// Every cut point of the operation, each also with the next write torn.
// Returns the number of cut points tried.
int CutEverywhere(const Recorded& run, const std::string& label) {
    int tried = 0;
    for (size_t k = run.first; k <= run.last; ++k) {
        std::vector<uint8_t> image = run.prepared;
        test::FaultStorage::Replay(run.log, k, &image);
        const std::string problem = CheckSurvivor(image, run);
        ++tried;
        EXPECT_TRUE(problem.empty()) << label << ": cut after write " << k << ": " << problem;
        // A record write (two sectors) torn after one cannot be told from a
        // whole one (its update sequence number does not move from write to
        // write); nor can an index record written in place. Shadow copies
        // of index records can be torn.
        if (k < run.last && run.log[k].bytes.size() > static_cast<size_t>(kFileRecordSize) &&
            !OverwritesUsedIndexRecord(image, run.log[k])) {
            test::FaultStorage::WriteEntry torn = run.log[k];
            torn.bytes.resize(test::FaultStorage::kSectorBytes);
            test::FaultStorage::Replay({torn}, 1, &image);
            const std::string tornProblem = CheckSurvivor(image, run);
            ++tried;
            EXPECT_TRUE(tornProblem.empty()) << label << ": torn write " << k << ": " << tornProblem;
        }
    }
    return tried;
}

struct NamedOperation {
    const char* Label;
    Operation Run;
};

const NamedOperation kOperations[] = {
    {"create", [](CNTFSVolume* v) { return MakeFile(v, u"\\crash\\new.txt", 5000); }},
    {"create long", [](CNTFSVolume* v) { return MakeFile(v, u"\\crash\\A Long New Name.text", 0); }},
    {"delete",
     [](CNTFSVolume* v) {
         void* handle = v->CreateFileA(u"\\crash\\victim.bin", 0, kOpenExisting, kAccessDeleteOnClose | kShared);
         return handle != nullptr && v->CloseFileHandle(handle) == 1;
     }},
    {"mkdir", [](CNTFSVolume* v) { return v->CreateDirectoryA(u"\\crash\\newdir", 0) == 1; }},
    {"rmdir", [](CNTFSVolume* v) { return v->RemoveDirectoryA(u"\\crash\\olddir") == 1; }},
    {"rename", [](CNTFSVolume* v) { return v->RenameFile(u"\\crash\\old.txt", u"A Renamed Name.txt") == 1; }},
};

// The smallest number of fillers with which a create turns the work
// directory's root into an index with records: there the operations split.
int SplittingFillers() {
    for (int fillers = 0; fillers < 30; ++fillers) {
        const Recorded run = Record(fillers, kOperations[0].Run);
        if (run.rootOnlyBefore && !run.rootOnlyAfter) return fillers;
    }
    return -1;
}

TEST(CreateDeleteCrash, EveryCutOfEveryOperationLeavesAWholeVolume) {
    const int splitting = SplittingFillers();
    ASSERT_GE(splitting, 0) << "no create split the work directory";
    int total = 0;
    for (const NamedOperation& operation : kOperations) {
        for (const int fillers : {0, splitting}) {
            const std::string label =
                std::string(operation.Label) + (fillers == 0 ? " in a root-only directory" : " in a splitting one");
            SCOPED_TRACE(label);
            const Recorded run = Record(fillers, operation.Run);
            ASSERT_GT(run.last, run.first);
            if (fillers == 0) {
                EXPECT_TRUE(run.rootOnlyBefore && run.rootOnlyAfter);
            } else if (std::string(operation.Label).compare(0, 6, "create") == 0 ||
                       std::string(operation.Label) == "mkdir") {
                EXPECT_TRUE(run.rootOnlyBefore && !run.rootOnlyAfter);
            }
            const int tried = CutEverywhere(run, label);
            std::printf("%s: writes %zu to %zu, %d cut points\n", label.c_str(), run.first, run.last, tried);
            total += tried;
        }
    }
    std::printf("%d cut points in all (%d fillers split the directory)\n", total, splitting);
}

}  // namespace
}  // namespace ntfs
