// Crash safety of the directory flush. New names go into the 3000-name
// directory of the `big` volume until one insertion splits an index record,
// which takes shadow copies, the directory's file record as commit point and
// the bitmap. Then, for every write k of that insertion, a power cut is
// simulated (only the first k writes landed, the next one possibly torn) and
// what survived is mounted and checked: the index walks in key order, every
// entry points at a record in use, the MFT bitmap agrees, and the directory
// holds exactly the names of before or of after the insertion. A failing
// device write during the flush is checked the same way, in memory and on
// disk. Each failing case prints its k so it can be replayed.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "data/bitmap_data.h"
#include "foundation/log.h"
#include "index/directory.h"
#include "index/index_test_util.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "support/fixture.h"
#include "support/mounted_volume.h"

namespace ntfs {
namespace {

using test::MountedVolume;
using test::Narrow;

constexpr int64_t kManyRecord = 64;    // \many on the big volume
constexpr int64_t kTargetRecord = 67;  // a file of \many the new names point at
constexpr int kMaxInsertions = 400;

std::u16string NewName(int i) {
    std::u16string name = u"crash-test name ";
    const std::string digits = std::to_string(10000 + i);
    name.append(digits.begin(), digits.end());
    return name;
}

struct Workload {
    std::vector<uint8_t> original;
    std::vector<test::FaultStorage::WriteEntry> log;
    size_t splitFirstWrite = 0;  // writes landed before the splitting insertion
    size_t splitLastWrite = 0;   // writes landed after it
    int splitIndex = -1;         // the insertion that split
    std::set<std::u16string> before;
    std::set<std::u16string> after;
};

std::set<std::u16string> NamesOf(CDirectory* directory) {
    const std::vector<std::u16string> walked = test::WalkNames(directory);
    return std::set<std::u16string>(walked.begin(), walked.end());
}

unsigned int InsertName(CDirectory* directory, const std::u16string& name) {
    directory->ModifiedRecords.Clear();
    directory->AbateRecords.Clear();
    directory->NewRecords.Clear();
    CIndexEntry* entry = test::MakeEntry(name, kTargetRecord);
    const unsigned int code = directory->InsertEntry(directory->GetIndexRoot(), entry);
    delete entry;
    return code;
}

// Runs the insertions on a fresh copy until one takes more than one write.
Workload RecordWorkload() {
    Workload work;
    work.original = test::LoadImage("big");
    MountedVolume mounted(work.original);
    EXPECT_EQ(mounted.Mount(), 1);
    CDirectory* directory = nullptr;
    EXPECT_EQ(mounted.Volume()->ReferenceDirectory(kManyRecord, u"\\many", &directory), ERROR_SUCCESS);
    directory->LockExclusive();
    std::set<std::u16string> names = NamesOf(directory);
    for (int i = 0; i < kMaxInsertions && work.splitIndex < 0; ++i) {
        const size_t writesBefore = mounted.Faults().WriteLog().size();
        std::set<std::u16string> previous = names;
        EXPECT_EQ(InsertName(directory, NewName(i)), ERROR_SUCCESS);
        names.insert(NewName(i));
        if (mounted.Faults().WriteLog().size() - writesBefore > 2) {
            work.splitIndex = i;
            work.splitFirstWrite = writesBefore;
            work.splitLastWrite = mounted.Faults().WriteLog().size();
            work.before = previous;
            work.after = names;
        }
    }
    EXPECT_TRUE(NamesOf(directory) == work.after);
    directory->UnlockExclusive();
    directory->Release();
    work.log = mounted.Faults().WriteLog();
    return work;
}

// Checks a volume image that survived a cut; returns a description of what
// is wrong, empty when all is well.
std::string CheckSurvivor(std::vector<uint8_t> image, const Workload& work, std::set<std::u16string>* found = nullptr) {
    MountedVolume mounted(std::move(image));
    if (mounted.Mount() != 1) return "mount failed " + std::to_string(mounted.Volume()->GetLastError());
    CNTFSVolume* volume = mounted.Volume();
    CDirectory* directory = nullptr;
    if (volume->ReferenceDirectory(kManyRecord, u"\\many", &directory) != ERROR_SUCCESS) return "no directory";
    directory->LockShared();
    unsigned int end = 0;
    const std::vector<test::WalkedName> walked = test::WalkIndex(directory, &end);
    directory->UnlockShared();
    directory->Release();
    std::string problem;
    if (end != ERROR_FILE_NOT_FOUND) problem += "walk ended with " + std::to_string(end) + "; ";
    std::set<std::u16string> names;
    std::set<int64_t> records;
    for (size_t i = 0; i < walked.size(); ++i) {
        names.insert(walked[i].name);
        records.insert(walked[i].record);
        if (i > 0 && !test::IndexLess(walked[i - 1].name, walked[i].name)) problem += "out of order; ";
    }
    if (found != nullptr) *found = names;
    if (names != work.before && names != work.after) {
        problem += "names are neither old nor new (" + std::to_string(names.size()) + "); ";
    }
    CFileRecordBitmap* bitmap = volume->GetMftBitmap();
    for (int64_t number : records) {
        CFullFileRecord* record = nullptr;
        bool used = false;
        if (volume->ReferenceFileRecord(number, &record) != ERROR_SUCCESS) {
            problem += "record " + std::to_string(number) + " unreadable; ";
            continue;
        }
        const bool inUse = (ReadU16(record->Image, kFileFlagsOffset) & kFileRecordInUse) != 0;
        record->Release();
        if (!inUse || bitmap->IsItemInUse(number, &used) != ERROR_SUCCESS || !used) {
            problem += "record " + std::to_string(number) + " not in use; ";
        }
    }
    return problem;
}

TEST(FlushCrash, PowerCutAtEveryWriteOfASplit) {
    const Workload work = RecordWorkload();
    ASSERT_GE(work.splitIndex, 0) << "no insertion split a record";
    ASSERT_GT(work.splitLastWrite - work.splitFirstWrite, 2u);
    std::printf("split at insertion %d: writes %zu to %zu\n", work.splitIndex, work.splitFirstWrite,
                work.splitLastWrite);
    for (size_t k = work.splitFirstWrite; k <= work.splitLastWrite; ++k) {
        std::vector<uint8_t> image = work.original;
        test::FaultStorage::Replay(work.log, k, &image);
        const std::string problem = CheckSurvivor(image, work);
        EXPECT_TRUE(problem.empty()) << "cut after write " << k << ": " << problem;
        // The next write torn after its first sector. Not the file record:
        // its update sequence number stays the same from write to write, so
        // a torn record write cannot be told from a whole one; the commit
        // point relies on that write landing whole.
        if (k < work.splitLastWrite && work.log[k].bytes.size() > 1024) {
            test::FaultStorage::WriteEntry torn = work.log[k];
            torn.bytes.resize(512);
            test::FaultStorage::Replay({torn}, 1, &image);
            const std::string tornProblem = CheckSurvivor(image, work);
            EXPECT_TRUE(tornProblem.empty()) << "torn write " << k << ": " << tornProblem;
        }
    }
}

TEST(FlushCrash, FailedWriteLeavesMemoryAndDiskConsistent) {
    const Workload work = RecordWorkload();
    ASSERT_GE(work.splitIndex, 0);
    for (size_t k = work.splitFirstWrite + 1; k <= work.splitLastWrite; ++k) {
        SCOPED_TRACE(k);
        MountedVolume mounted(work.original);
        ASSERT_EQ(mounted.Mount(), 1);
        CDirectory* directory = nullptr;
        ASSERT_EQ(mounted.Volume()->ReferenceDirectory(kManyRecord, u"\\many", &directory), ERROR_SUCCESS);
        directory->LockExclusive();
        const int mountWrites = mounted.Faults().Writes();
        // Same writes as the recorded run, then the k-th write fails.
        mounted.Faults().FailNthWrite(mountWrites + static_cast<int>(k), ERROR_IO_DEVICE);
        unsigned int code = ERROR_SUCCESS;
        for (int i = 0; i <= work.splitIndex; ++i) code = InsertName(directory, NewName(i));
        const std::set<std::u16string> inMemory = NamesOf(directory);
        EXPECT_TRUE(inMemory == work.before || inMemory == work.after) << "code " << code;
        directory->UnlockExclusive();
        directory->Release();
        mounted.Faults().Heal();
        std::vector<uint8_t> image = mounted.Memory().Bytes();
        std::set<std::u16string> onDisk;
        const std::string problem = CheckSurvivor(image, work, &onDisk);
        EXPECT_TRUE(problem.empty()) << problem;
        // Before the commit point both go back; after it both stand.
        EXPECT_TRUE(onDisk == inMemory) << "code " << code << ", in memory " << inMemory.size() << ", on disk "
                                        << onDisk.size();
    }
}

// The growth and shrinking of a directory under power cuts. One run on a
// copy of "c4k" takes \EmptyDir from empty to three levels and back down a
// little; four of its changes are the workloads: the insertion that converts
// the directory (new index record, then the file record), the one that
// splits a leaf and the root (depth 2 to 3), the one that splits a leaf and
// an interior record, and the removal that empties a leaf under a real entry
// (the entry's return is a nested insertion whose flush writes the whole
// change). For every write k of a workload only the writes up to k land,
// and then also the next one torn after its first sector; the survivor must
// mount, every directory's index must walk in key order with entries that
// point at records in use, and \EmptyDir must hold exactly the names of
// before or of after the change. Each workload prints the cut points tried
// ("t" where the torn write was tried too).
struct DirectoryWorkload {
    std::string name;
    size_t first = 0;  // writes landed before the change
    size_t last = 0;   // writes landed after it
    std::set<std::u16string> before;
    std::set<std::u16string> after;
    size_t operation = 0;  // its place in the run's operations
};

// One change of the run: an insertion or a removal of a name.
struct DirectoryOperation {
    bool insert;
    std::u16string name;
};

struct DirectoryRun {
    std::vector<uint8_t> original;
    std::vector<test::FaultStorage::WriteEntry> log;
    std::vector<DirectoryOperation> operations;
    std::vector<DirectoryWorkload> workloads;
};

std::u16string GrowthName(int number) {
    std::string text = "Crash growth " + std::to_string(10000 + (number * 7919) % 90000) + " ";
    text.append(90 + (number * 37) % 100, static_cast<char>('a' + number % 26));
    return std::u16string(text.begin(), text.end());
}

std::set<std::u16string> WalkedSet(CDirectory* directory) {
    const std::vector<std::u16string> walked = test::WalkNames(directory);
    return std::set<std::u16string>(walked.begin(), walked.end());
}

// The first node of each level below the root, down the left side.
CBPlusTreeNode* LeftmostLeaf(CDirectory* directory) {
    CBPlusTreeNode* node = directory->GetIndexRoot();
    for (int depth = 0; node != nullptr && !node->IsLeaf() && depth < 8; ++depth) {
        CBPlusTreeNode* child = nullptr;
        if (node->GetItem(0)->GetChildNode(&child) != ERROR_SUCCESS) return nullptr;
        node = child;
    }
    return node;
}

DirectoryRun RecordDirectoryRun() {
    DirectoryRun run;
    run.original = test::LoadImage("c4k");
    test::ScratchDirectory scratch(run.original);
    EXPECT_TRUE(scratch.ready);
    if (!scratch.ready) return run;
    CDirectory* directory = scratch.directory;
    std::set<std::u16string> names;
    auto shape = [&] {
        test::TreeShape now;
        EXPECT_EQ(test::CheckIndex(directory, &now), "");
        return now;
    };
    auto change = [&](const std::string& workload, bool insert, const std::u16string& name) {
        DirectoryWorkload work{
            workload, scratch.mounted.Faults().WriteLog().size(), 0, names, {}, run.operations.size()};
        run.operations.push_back({insert, name});
        EXPECT_EQ(insert ? scratch.InsertName(name) : scratch.RemoveName(name), ERROR_SUCCESS) << workload;
        if (insert) names.insert(name);
        if (!insert) names.erase(name);
        work.last = scratch.mounted.Faults().WriteLog().size();
        work.after = names;
        if (!workload.empty()) run.workloads.push_back(work);
    };
    int next = 0;
    while (!scratch.Large() && next < 100) {
        const bool converts = [&] {
            // The insertion that converts is the one after which the
            // directory is large; it is told afterwards, so each insertion is
            // kept as a candidate and the others dropped.
            change("conversion", true, GrowthName(next++));
            if (scratch.Large()) return true;
            run.workloads.pop_back();
            return false;
        }();
        if (converts) break;
    }
    for (int depth = shape().Depth; depth < 3 && next < 600; depth = shape().Depth) {
        change("leaf and root split", true, GrowthName(next++));
        if (shape().Depth < 3) run.workloads.pop_back();
    }
    for (int interior = shape().NodesPerLevel[1]; interior < 2 && next < 600; interior = shape().NodesPerLevel[1]) {
        change("leaf and interior split", true, GrowthName(next++));
        if (shape().NodesPerLevel[1] < 2) run.workloads.pop_back();
    }
    // The leftmost leaf's names go; the last of them empties it, and the
    // real entry above it comes back as a leaf entry.
    CBPlusTreeNode* leaf = LeftmostLeaf(directory);
    EXPECT_NE(leaf, nullptr);
    std::vector<std::u16string> leafNames;
    for (int i = 0; leaf != nullptr && i + 1 < leaf->GetItemCount(); ++i)
        leafNames.push_back(test::NameOf(leaf->GetItem(i)));
    for (size_t i = 0; i < leafNames.size(); ++i) {
        change(i + 1 == leafNames.size() ? "removal emptying a leaf" : "", false, leafNames[i]);
    }
    EXPECT_EQ(WalkedSet(directory), names);
    EXPECT_EQ(run.workloads.size(), 4u);
    run.log = scratch.mounted.Faults().WriteLog();
    return run;
}

// Checks a survivor of a cut in `work`; empty when all is well.
std::string CheckDirectorySurvivor(std::vector<uint8_t> image, const DirectoryWorkload& work) {
    MountedVolume mounted(std::move(image));
    if (mounted.Mount() != 1) return "mount failed " + std::to_string(mounted.Volume()->GetLastError());
    CNTFSVolume* volume = mounted.Volume();
    std::string problem;
    const auto directories = test::NamesByDirectory(test::LoadManifest("c4k"));
    for (const auto& [path, entry] : directories) {
        CDirectory* directory = nullptr;
        if (volume->ReferenceDirectory(entry.record, path.c_str(), &directory) != ERROR_SUCCESS) {
            problem += "no directory " + Narrow(path) + "; ";
            continue;
        }
        directory->LockShared();
        unsigned int end = 0;
        const std::vector<test::WalkedName> walked = test::WalkIndex(directory, &end);
        directory->UnlockShared();
        directory->Release();
        if (end != ERROR_FILE_NOT_FOUND) problem += Narrow(path) + " walk ended with " + std::to_string(end) + "; ";
        std::set<std::u16string> names;
        for (size_t i = 0; i < walked.size(); ++i) {
            names.insert(walked[i].name);
            if (i > 0 && !test::IndexLess(walked[i - 1].name, walked[i].name))
                problem += Narrow(path) + " out of order; ";
            CFullFileRecord* record = nullptr;
            if (volume->ReferenceFileRecord(walked[i].record, &record) != ERROR_SUCCESS) {
                problem += "record " + std::to_string(walked[i].record) + " unreadable; ";
                continue;
            }
            const bool inUse = (ReadU16(record->Image, kFileFlagsOffset) & kFileRecordInUse) != 0;
            record->Release();
            bool used = false;
            if (!inUse || volume->GetMftBitmap()->IsItemInUse(walked[i].record, &used) != ERROR_SUCCESS || !used)
                problem += "record " + std::to_string(walked[i].record) + " not in use; ";
        }
        if (entry.record == test::ScratchDirectory::kRecord && names != work.before && names != work.after) {
            problem += "names are neither old nor new (" + std::to_string(names.size()) + " for " +
                       std::to_string(work.before.size()) + " or " + std::to_string(work.after.size()) + "); ";
        }
    }
    return problem;
}

// Whether logged write `k` starts with `magic` ("FILE", "INDX") and, for a
// file record, is the record `number` (its header holds the number at 44).
bool WriteIs(const std::vector<test::FaultStorage::WriteEntry>& log, size_t k, const char* magic, int64_t number = -1) {
    const std::vector<uint8_t>& bytes = log[k].bytes;
    if (bytes.size() < 48 || std::memcmp(bytes.data(), magic, 4) != 0) return false;
    return number < 0 || ReadU32(bytes.data(), 44) == static_cast<uint32_t>(number);
}

TEST(FlushCrash, PowerCutAtEveryWriteOfDirectoryGrowthAndRemoval) {
    const DirectoryRun run = RecordDirectoryRun();
    ASSERT_EQ(run.workloads.size(), 4u);
    for (const DirectoryWorkload& work : run.workloads) {
        ASSERT_GT(work.last, work.first) << work.name;
        // The order of the change: every index record lands before the
        // directory's file record, the commit point, is first written.
        size_t commit = work.last;
        for (size_t k = work.first; k < work.last && commit == work.last; ++k) {
            if (WriteIs(run.log, k, "FILE", test::ScratchDirectory::kRecord)) commit = k;
        }
        EXPECT_LT(commit, work.last) << work.name << ": the directory's record is not written";
        for (size_t k = commit; k < work.last; ++k) {
            EXPECT_FALSE(WriteIs(run.log, k, "INDX"))
                << work.name << ": index record written at " << k << " after the commit point at " << commit;
        }
        std::string tried;
        for (size_t k = work.first; k <= work.last; ++k) {
            tried += " " + std::to_string(k);
            std::vector<uint8_t> image = run.original;
            test::FaultStorage::Replay(run.log, k, &image);
            const std::string problem = CheckDirectorySurvivor(image, work);
            EXPECT_TRUE(problem.empty()) << work.name << ": cut after write " << k << ": " << problem;
            // The next write torn after its first sector, unless it is a
            // file record (see PowerCutAtEveryWriteOfASplit).
            if (k < work.last && run.log[k].bytes.size() > 1024) {
                test::FaultStorage::WriteEntry torn = run.log[k];
                torn.bytes.resize(512);
                test::FaultStorage::Replay({torn}, 1, &image);
                const std::string tornProblem = CheckDirectorySurvivor(image, work);
                EXPECT_TRUE(tornProblem.empty()) << work.name << ": torn write " << k << ": " << tornProblem;
                tried += "t";
            }
        }
        std::printf("%s: writes %zu to %zu, cut after%s\n", work.name.c_str(), work.first, work.last, tried.c_str());
    }
}
// The same workloads with a failing device write in place of a power cut:
// the change before it is replayed, then write k of the change fails. The
// directory in memory must then equal the one on disk, and both hold the old
// or the new names (before the commit point the change is undone in memory,
// after it it stands).
TEST(FlushCrash, FailedWriteInDirectoryGrowthAndRemovalLeavesMemoryAndDiskAlike) {
    const DirectoryRun run = RecordDirectoryRun();
    ASSERT_EQ(run.workloads.size(), 4u);
    for (const DirectoryWorkload& work : run.workloads) {
        for (size_t k = work.first; k < work.last; ++k) {
            SCOPED_TRACE(work.name + ", failed write " + std::to_string(k));
            test::ScratchDirectory scratch(run.original);
            ASSERT_TRUE(scratch.ready);
            for (size_t i = 0; i < work.operation; ++i) {
                const DirectoryOperation& operation = run.operations[i];
                ASSERT_EQ(operation.insert ? scratch.InsertName(operation.name) : scratch.RemoveName(operation.name),
                          ERROR_SUCCESS);
            }
            ASSERT_EQ(scratch.mounted.Faults().WriteLog().size(), work.first);
            scratch.mounted.Faults().FailNthWrite(static_cast<int>(k) + 1, ERROR_IO_DEVICE);
            const DirectoryOperation& operation = run.operations[work.operation];
            const unsigned int code =
                operation.insert ? scratch.InsertName(operation.name) : scratch.RemoveName(operation.name);
            std::set<std::u16string> inMemory = WalkedSet(scratch.directory);
            EXPECT_EQ(test::CheckIndex(scratch.directory), "") << "code " << code;
            scratch.mounted.Faults().Heal();
            // The caller tries again: a change given up must leave the
            // directory able to take it.
            if (code != ERROR_SUCCESS && inMemory == work.before) {
                EXPECT_EQ(operation.insert ? scratch.InsertName(operation.name) : scratch.RemoveName(operation.name),
                          ERROR_SUCCESS);
                EXPECT_EQ(WalkedSet(scratch.directory), work.after);
                EXPECT_EQ(test::CheckIndex(scratch.directory), "");
                inMemory = WalkedSet(scratch.directory);
            }
            const std::vector<uint8_t> image = scratch.Unmount();
            EXPECT_EQ(CheckDirectorySurvivor(image, work), "") << "code " << code;
            test::ScratchDirectory survivor(image);
            ASSERT_TRUE(survivor.ready);
            EXPECT_TRUE(WalkedSet(survivor.directory) == inMemory)
                << "code " << code << ", in memory " << inMemory.size();
        }
    }
}

}  // namespace
}  // namespace ntfs
