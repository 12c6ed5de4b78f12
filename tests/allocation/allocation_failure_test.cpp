// Allocation failure inside the library: every allocation through the global
// operator new made by an operation is failed in turn, one per run on a fresh
// volume, and the operation must answer ERROR_NOT_ENOUGH_MEMORY (or what it
// answers without the failure, where the lost allocation was not needed),
// never throw, crash or leak, and leave the volume usable. The sanitizer run turns a leak or a stray access
// on any of these paths into a failure.
//
// This program replaces the global operator new and delete, which affects
// everything linked into it; that is why it is a program of its own. The
// failure is armed only inside an operation's window, so GoogleTest and the
// helpers allocate normally.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <vector>

#include "data/bitmap_data.h"
#include "file/file_handle.h"
#include "foundation/log.h"
#include "index/directory.h"
#include "index/index_test_util.h"
#include "memory_storage.h"
#include "record/full_file_record.h"
#include "support/cluster_audit.h"
#include "support/fixture.h"
#include "volume/ntfs_volume.h"

namespace {

// The injection state: while armed, the allocation numbered `FailAt`
// (counted from 0 since arming) fails; `Made` counts the allocations seen.
// The device is the host's and not the library's: inside its calls the
// injection pauses.
struct Injection {
    bool Armed = false;
    long FailAt = -1;
    long Made = 0;
    bool Failed = false;
    bool Paused = false;
};
Injection g_injection;

bool FailThisAllocation() {
    if (!g_injection.Armed || g_injection.Paused) return false;
    if (g_injection.Made++ != g_injection.FailAt) return false;
    g_injection.Failed = true;
    return true;
}

void* Allocate(std::size_t size) {
    return std::malloc(size != 0 ? size : 1);
}

}  // namespace

// The replaced operators pair malloc with free by design; once they are
// inlined, GCC takes that for a mismatch of new and free.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

void* operator new(std::size_t size) {
    void* block = FailThisAllocation() ? nullptr : Allocate(size);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}
void* operator new[](std::size_t size) {
    return ::operator new(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return FailThisAllocation() ? nullptr : Allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return ::operator new(size, std::nothrow);
}
void operator delete(void* block) noexcept {
    std::free(block);
}
void operator delete[](void* block) noexcept {
    std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
    std::free(block);
}
void operator delete[](void* block, std::size_t) noexcept {
    std::free(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
    std::free(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
    std::free(block);
}

namespace ntfs {
namespace {

// A volume image in memory behind a device whose calls pause the injection.
class HostDevice : public CStorage {
public:
    explicit HostDevice(std::vector<uint8_t> image) : memory_(std::move(image)) {}
    unsigned int ReadSectors(void* buffer, int64_t* sector, int count, int* done,
                             _STORAGE_NOTIFICATION_BLOCK* block) override {
        Pause pause;
        return memory_.ReadSectors(buffer, sector, count, done, block);
    }
    unsigned int WriteSectors(void* buffer, int64_t* sector, int count, int* done,
                              _STORAGE_NOTIFICATION_BLOCK* block) override {
        Pause pause;
        return memory_.WriteSectors(buffer, sector, count, done, block);
    }

private:
    struct Pause {
        Pause() : was(g_injection.Paused) { g_injection.Paused = true; }
        ~Pause() { g_injection.Paused = was; }
        bool was;
    };
    MemoryStorage memory_;

public:
    std::vector<uint8_t>& Bytes() { return memory_.Bytes(); }
};

// A fresh, mounted copy of a fixture volume, loaded from the file only once.
class FreshVolume {
public:
    explicit FreshVolume(const std::string& fixture) : device_(Image(fixture)), volume_(&device_) {
        mounted_ = volume_.Mount() == 1;
    }
    bool Mounted() const { return mounted_; }
    CNTFSVolume* Volume() { return &volume_; }

private:
    static const std::vector<uint8_t>& Image(const std::string& fixture) {
        static std::map<std::string, std::vector<uint8_t>> images;
        auto found = images.find(fixture);
        if (found == images.end()) found = images.emplace(fixture, test::LoadImage(fixture)).first;
        return found->second;
    }

    HostDevice device_;
    CNTFSVolume volume_;
    bool mounted_ = false;
};

constexpr unsigned int kReadWriteShared = kAccessRead | kAccessWrite | kAccessShareMask;
constexpr int64_t kEmptyDirectoryRecord = 66;  // EmptyDir of "c4k"
// Far more allocations than any of these operations makes.
constexpr long kMaxAllocations = 5000;

// What one armed run saw.
struct Outcome {
    unsigned int Code = ERROR_SUCCESS;
    bool Failed = false;  // the armed allocation was reached and failed
    bool Threw = false;   // an exception left the library
};

// Runs `operation` (which returns 0 or a failure code) with allocation
// number `failAt` failing.
Outcome RunArmed(long failAt, const std::function<unsigned int()>& operation) {
    Outcome outcome;
    g_injection = Injection{true, failAt, 0, false};
    try {
        outcome.Code = operation();
    } catch (const std::bad_alloc&) {
        outcome.Threw = true;
    }
    outcome.Failed = g_injection.Failed;
    g_injection.Armed = false;
    return outcome;
}

// Fails each allocation of a scenario in turn. `run(failAt)` builds its own
// fresh state, runs the operation armed through RunArmed, checks what is left
// and returns the outcome; the walk ends at the first run that reached no
// failure, which must answer `unfailed`. Every other run answers 8, or
// `unfailed` where the lost allocation was not needed.
void EachAllocationFails(const std::function<Outcome(long)>& run, unsigned int unfailed = ERROR_SUCCESS) {
    long failures = 0;
    for (long failAt = 0; failAt < kMaxAllocations; ++failAt) {
        SCOPED_TRACE("allocation " + std::to_string(failAt));
        const Outcome outcome = run(failAt);
        ASSERT_FALSE(outcome.Threw) << "an exception left the library";
        if (!outcome.Failed) {
            EXPECT_EQ(outcome.Code, unfailed);
            EXPECT_GT(failAt, 0) << "the operation allocated nothing";
            std::printf("%ld allocations, %ld answered 8\n", failAt, failures);
            return;
        }
        EXPECT_TRUE(outcome.Code == unfailed || outcome.Code == ERROR_NOT_ENOUGH_MEMORY) << outcome.Code;
        failures += outcome.Code == ERROR_NOT_ENOUGH_MEMORY ? 1 : 0;
    }
    ADD_FAILURE() << "more than " << kMaxAllocations << " allocations";
}

// Opens a resident file, writes past what its record can hold (the data
// leaves the record) and closes it; the first failing step's code.
unsigned int OpenWriteClose(CNTFSVolume* volume, const char16_t* path, const std::vector<uint8_t>& data) {
    const int bytes = static_cast<int>(data.size());
    void* handle = volume->CreateFileA(path, 0, kOpenExisting, kReadWriteShared);
    if (handle == nullptr) return volume->GetLastError();
    unsigned int code = ERROR_SUCCESS;
    unsigned int low = 0;
    code = volume->SetFilePointer(handle, &low, nullptr, kFileEnd);
    int done = 0;
    if (code == ERROR_SUCCESS && !volume->WriteFile(handle, data.data(), bytes, &done)) code = volume->GetLastError();
    // WriteFile answers 1 also when the transfer failed; the last error tells.
    if (code == ERROR_SUCCESS && done != bytes) {
        code = volume->GetLastError() != ERROR_SUCCESS ? volume->GetLastError() : ERROR_INTERNAL_ERROR;
    }
    if (!volume->CloseFileHandle(handle) && code == ERROR_SUCCESS) code = volume->GetLastError();
    return code;
}

void WriteThatLeavesTheRecord(const char* fixture, const char16_t* path, unsigned int unfailed) {
    EachAllocationFails(
        [&](long failAt) {
            FreshVolume fresh(fixture);
            EXPECT_TRUE(fresh.Mounted());
            CNTFSVolume* volume = fresh.Volume();
            const std::vector<uint8_t> data(3000, 0x6B);
            const Outcome outcome = RunArmed(failAt, [&] { return OpenWriteClose(volume, path, data); });
            if (outcome.Threw) return outcome;
            // The volume still works: the file opens and reads to its end.
            void* handle = volume->CreateFileA(path, 0, kOpenExisting, kReadWriteShared);
            EXPECT_NE(handle, nullptr) << volume->GetLastError();
            if (handle != nullptr) {
                std::vector<uint8_t> buffer(8192);
                int done = 0;
                EXPECT_EQ(volume->ReadFile(handle, buffer.data(), 8192, &done), 1) << volume->GetLastError();
                EXPECT_EQ(volume->CloseFileHandle(handle), 1) << volume->GetLastError();
            }
            EXPECT_EQ(volume->Umount(), 1);
            return outcome;
        },
        unfailed);
}

TEST(AllocationFailure, OpenAndWriteThatLeavesThePlainRecord) {
    WriteThatLeavesTheRecord("c4k", u"\\readme.txt", ERROR_SUCCESS);
}

// The conversion of a compressed value writes it through the compressed
// path, which takes clusters for its unit.
TEST(AllocationFailure, OpenAndWriteThatLeavesTheCompressedRecord) {
    WriteThatLeavesTheRecord("c4k", u"\\compressed\\tiny.txt", ERROR_SUCCESS);
}

// A file whose data is spread over extension records: the open loads them
// all through the attribute list.
TEST(AllocationFailure, OpenAndReadOfAFileWithExtensionRecords) {
    EachAllocationFails([&](long failAt) {
        FreshVolume fresh("c512");
        EXPECT_TRUE(fresh.Mounted());
        CNTFSVolume* volume = fresh.Volume();
        std::vector<uint8_t> buffer(65536);
        const char16_t* path = u"\\frag\\fragmented-A.txt";
        const Outcome outcome = RunArmed(failAt, [&] {
            void* handle = volume->CreateFileA(path, 0, kOpenExisting, kReadWriteShared);
            if (handle == nullptr) return volume->GetLastError();
            int done = 0;
            unsigned int code =
                volume->ReadFile(handle, buffer.data(), 65536, &done) ? ERROR_SUCCESS : volume->GetLastError();
            if (!volume->CloseFileHandle(handle) && code == ERROR_SUCCESS) code = volume->GetLastError();
            return code;
        });
        if (outcome.Threw) return outcome;
        void* handle = volume->CreateFileA(path, 0, kOpenExisting, kReadWriteShared);
        EXPECT_NE(handle, nullptr) << volume->GetLastError();
        if (handle != nullptr) {
            EXPECT_EQ(volume->CloseFileHandle(handle), 1) << volume->GetLastError();
        }
        EXPECT_EQ(volume->Umount(), 1);
        return outcome;
    });
}

// Names of 100 to 129 units: a record takes a dozen, the root two.
std::u16string LongName(int number) {
    char text[160];
    std::snprintf(text, sizeof(text), "Entry %04d of the allocation failure test%.*s", number, 60 + number % 30,
                  "..........................................................................................");
    return std::u16string(text, text + std::char_traits<char>::length(text));
}

unsigned int InsertName(CDirectory* directory, CIndexEntry* entry) {
    directory->ModifiedRecords.Clear();
    directory->AbateRecords.Clear();
    directory->NewRecords.Clear();
    return directory->InsertEntry(directory->GetIndexRoot(), entry);
}

std::set<std::u16string> NamesOf(CDirectory* directory) {
    const std::vector<std::u16string> walked = test::WalkNames(directory);
    return std::set<std::u16string>(walked.begin(), walked.end());
}

// The empty directory of a fresh "c4k", exclusively locked; the volume must
// unmount at the end.
class ScratchDirectory {
public:
    ScratchDirectory() : fresh("c4k") {
        ready = fresh.Mounted() &&
                fresh.Volume()->ReferenceDirectory(kEmptyDirectoryRecord, u"\\EmptyDir", &directory) == ERROR_SUCCESS;
        if (ready) directory->LockExclusive();
    }
    ~ScratchDirectory() {
        if (directory != nullptr) {
            directory->UnlockExclusive();
            directory->Release();
        }
        EXPECT_EQ(fresh.Volume()->Umount(), 1);
    }

    FreshVolume fresh;
    CDirectory* directory = nullptr;
    bool ready = false;
};

// Inserts `count` names into the empty directory, then the next one armed:
// the index must be whole and hold the names of before the insertion when it
// failed, of after it when it succeeded.
Outcome InsertArmed(int count, long failAt) {
    ScratchDirectory scratch;
    EXPECT_TRUE(scratch.ready);
    if (!scratch.ready) return Outcome{};
    std::set<std::u16string> before;
    for (int i = 0; i < count; ++i) {
        std::unique_ptr<CIndexEntry> entry(test::MakeEntry(LongName(i), 1000 + i));
        EXPECT_EQ(InsertName(scratch.directory, entry.get()), ERROR_SUCCESS);
        before.insert(LongName(i));
    }
    std::set<std::u16string> after = before;
    after.insert(LongName(count));
    std::unique_ptr<CIndexEntry> entry(test::MakeEntry(LongName(count), 1000 + count));
    const Outcome outcome = RunArmed(failAt, [&] { return InsertName(scratch.directory, entry.get()); });
    if (outcome.Threw) return outcome;
    const std::string problem = test::CheckIndex(scratch.directory);
    EXPECT_TRUE(problem.empty()) << problem;
    const std::set<std::u16string> names = NamesOf(scratch.directory);
    EXPECT_TRUE(names == (outcome.Code == ERROR_SUCCESS ? after : before))
        << "code " << outcome.Code << ", " << names.size() << " names";
    return outcome;
}

// The insertions, counted from an empty directory, at which the root first
// moves down into an index record and at which that record first splits.
struct SplitPoints {
    int RootMoves = -1;
    int RecordSplits = -1;
};

SplitPoints FindSplitPoints() {
    SplitPoints points;
    ScratchDirectory scratch;
    EXPECT_TRUE(scratch.ready);
    for (int i = 0; scratch.ready && i < 100 && points.RecordSplits < 0; ++i) {
        std::unique_ptr<CIndexEntry> entry(test::MakeEntry(LongName(i), 1000 + i));
        EXPECT_EQ(InsertName(scratch.directory, entry.get()), ERROR_SUCCESS);
        test::TreeShape shape;
        EXPECT_EQ(test::CheckIndex(scratch.directory, &shape), "");
        if (points.RootMoves < 0 && shape.Depth == 2) points.RootMoves = i;
        if (shape.Depth == 2 && shape.NodesPerLevel[1] > 1) points.RecordSplits = i;
    }
    return points;
}

TEST(AllocationFailure, DirectoryInsertionsThatSplitAndFlush) {
    const SplitPoints points = FindSplitPoints();
    ASSERT_GE(points.RootMoves, 0);
    ASSERT_GT(points.RecordSplits, points.RootMoves);
    for (const int count : {points.RootMoves, points.RecordSplits}) {
        SCOPED_TRACE("insertion " + std::to_string(count));
        EachAllocationFails([&](long failAt) { return InsertArmed(count, failAt); });
    }
}

// A directory's bitmap grown beyond what its record holds: it leaves the
// record, takes clusters and zeroes them.
TEST(AllocationFailure, BitmapGrowthThatLeavesTheRecord) {
    EachAllocationFails([&](long failAt) {
        FreshVolume fresh("c4k");
        EXPECT_TRUE(fresh.Mounted());
        CNTFSVolume* volume = fresh.Volume();
        CDirectory* directory = nullptr;
        EXPECT_EQ(volume->ReferenceDirectory(test::kRootDirectoryRecord, u"\\", &directory), ERROR_SUCCESS);
        if (directory == nullptr) return Outcome{};
        directory->LockExclusive();
        CFullFileRecord* record = directory->GetFileRecord();
        CAttribute* bitmap = record->FindAttribute(AttributeBitmap, kIndexName, kIndexNameLength, 0);
        EXPECT_TRUE(bitmap != nullptr && bitmap->IsResident());
        const int64_t bytes = bitmap != nullptr ? bitmap->GetDataSize() : 0;
        const uint32_t items = static_cast<uint32_t>((bytes + 3 * volume->GetClusterSize()) * 8);
        const Outcome outcome = RunArmed(failAt, [&] { return directory->Resize(items); });
        if (!outcome.Threw) {
            bitmap = record->FindAttribute(AttributeBitmap, kIndexName, kIndexNameLength, 0);
            EXPECT_NE(bitmap, nullptr);
            if (outcome.Code == ERROR_SUCCESS && bitmap != nullptr) {
                EXPECT_FALSE(bitmap->IsResident());
                EXPECT_GE(bitmap->GetDataSize() * 8, items);
            }
            // What a failure left is given up, as callers do.
            if (outcome.Code != ERROR_SUCCESS) record->Revert();
        }
        directory->UnlockExclusive();
        directory->Release();
        EXPECT_EQ(volume->Umount(), 1);
        return outcome;
    });
}

// A growth whose run no longer fits the record of its last piece: a record
// is taken from the MFT, the run opens a piece there and the attribute list
// is written anew. Whatever allocation fails, the volume stays accounted and
// the file reads as before or as after.
std::vector<uint8_t> ReadWhole(CNTFSVolume* volume, const char16_t* path) {
    std::vector<uint8_t> data;
    void* handle = volume->CreateFileA(path, 0, kOpenExisting, kReadWriteShared);
    if (handle == nullptr) return data;
    std::vector<uint8_t> buffer(65536);
    int done = 0;
    while (volume->ReadFile(handle, buffer.data(), 65536, &done) && done > 0) {
        data.insert(data.end(), buffer.begin(), buffer.begin() + done);
    }
    (void)volume->CloseFileHandle(handle);
    return data;
}

int ExtensionRecordsOf(CNTFSVolume* volume, int64_t number) {
    CFullFileRecord* record = nullptr;
    if (volume->ReferenceFileRecord(number, &record) != ERROR_SUCCESS) return -1;
    const int count = record->GetExtensionRecords().GetCount();
    record->Release();
    return count;
}

TEST(AllocationFailure, GrowthThatSpillsIntoAnExtensionRecord) {
    const char16_t* kPath = u"\\frag\\fragmented-A.txt";
    const char16_t* kOther = u"\\frag\\fragmented-B.txt";
    const std::vector<uint8_t> cluster(512, 0x5A);
    // Unarmed: the two files grow in turns, one cluster each, so that every
    // cluster of the first is a run of its own; count the rounds until its
    // growth spills, then keep the image one round short of that.
    int rounds = 0;
    {
        HostDevice device(test::LoadImage("c512"));
        CNTFSVolume volume(&device);
        ASSERT_EQ(volume.Mount(), 1);
        const int records = ExtensionRecordsOf(&volume, 106);
        while (rounds < 2000 && ExtensionRecordsOf(&volume, 106) == records) {
            ASSERT_EQ(OpenWriteClose(&volume, kPath, cluster), ERROR_SUCCESS);
            ASSERT_EQ(OpenWriteClose(&volume, kOther, cluster), ERROR_SUCCESS);
            ++rounds;
        }
    }
    HostDevice prepared(test::LoadImage("c512"));
    {
        CNTFSVolume volume(&prepared);
        ASSERT_EQ(volume.Mount(), 1);
        for (int round = 1; round < rounds; ++round) {
            ASSERT_EQ(OpenWriteClose(&volume, kPath, cluster), ERROR_SUCCESS);
            ASSERT_EQ(OpenWriteClose(&volume, kOther, cluster), ERROR_SUCCESS);
        }
        ASSERT_EQ(volume.Umount(), 1);
    }
    EachAllocationFails([&](long failAt) {
        HostDevice device(prepared.Bytes());
        CNTFSVolume volume(&device);
        EXPECT_EQ(volume.Mount(), 1);
        const int records = ExtensionRecordsOf(&volume, 106);
        std::vector<uint8_t> before = ReadWhole(&volume, kPath);
        const Outcome outcome = RunArmed(failAt, [&] { return OpenWriteClose(&volume, kPath, cluster); });
        if (outcome.Threw) return outcome;
        if (!outcome.Failed) {
            EXPECT_GT(ExtensionRecordsOf(&volume, 106), records);
        }
        const test::ClusterAudit audit = test::AuditClusters(&volume);
        EXPECT_TRUE(audit.Clean()) << audit.First;
        const std::vector<uint8_t> read = ReadWhole(&volume, kPath);
        std::vector<uint8_t> after = before;
        after.insert(after.end(), cluster.begin(), cluster.end());
        EXPECT_TRUE(read == before || read == after) << read.size() << " bytes, before " << before.size();
        EXPECT_EQ(volume.Umount(), 1);
        return outcome;
    });
}

}  // namespace
}  // namespace ntfs
