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

}  // namespace
}  // namespace ntfs
