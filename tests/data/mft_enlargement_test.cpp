// $MFT grows when its records run out: new clusters for its $DATA, new
// pieces of its run list in extension records once a record of pieces is
// full, its $BITMAP moved out of a full record, and, with no record left,
// its last runs moved to a longer place. Records are taken through the
// record allocation and written as small nameless files; after each phase
// the volume is remounted, audited (every cluster once, the MFT bitmap
// against every record's in-use flag), read back, and checked by ntfsls,
// fls and ntfsfix.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "data/bitmap_data.h"
#include "foundation/endian.h"
#include "foundation/log.h"
#include "record/file_record.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "support/cluster_audit.h"
#include "support/mounted_volume.h"
#include "support/tools.h"

namespace ntfs {
namespace {

using test::MountedVolume;

constexpr int kStandardValueSize = 72;

// The paths of the growth a workload went through, read from the log.
struct Paths {
    int Full = 0;          // "$MFT file is full" lines: new records stamped
    int Enlargements = 0;  // times $DATA of $MFT gained clusters
    int TailMoves = 0;     // "The new space to store node at tail" lines
    void Count(const std::string& log) {
        for (size_t at = 0; (at = log.find("$MFT file is full", at)) != std::string::npos; ++at) ++Full;
        for (size_t at = 0; (at = log.find("The new space to store node at tail", at)) != std::string::npos; ++at) {
            ++TailMoves;
        }
    }
};

// $MFT as the volume sees it.
struct MftShape {
    int64_t Records = 0;  // initialized size in records
    int DataPieces = 0;
    int ExtensionRecords = 0;
    bool BitmapInBase = true;
    bool HasList = false;
    bool Record15 = false;  // record 15 holds a piece of $MFT
};

MftShape ShapeOf(CNTFSVolume* volume) {
    MftShape shape;
    CFullFileRecord* mft = volume->GetMftBitmap()->Mft;
    CAttribute* data = mft->FindAttribute(AttributeData, nullptr, 0, 0);
    shape.Records = ReadI64(data->Header, kNonResidentInitializedSizeOffset) / volume->GetFileRecordSize();
    while (mft->FindAttribute(AttributeData, nullptr, 0, static_cast<unsigned int>(shape.DataPieces)) != nullptr) {
        ++shape.DataPieces;
    }
    shape.ExtensionRecords = mft->GetExtensionRecords().GetCount();
    for (int i = 0; i < shape.ExtensionRecords; ++i) {
        if (mft->GetExtensionRecords().At<CFileRecord>(i)->RecordNumber == 15) shape.Record15 = true;
    }
    CAttribute* bitmap = mft->FindAttribute(AttributeBitmap, nullptr, 0, 0);
    shape.BitmapInBase = bitmap != nullptr && bitmap->Record == static_cast<CFileRecord*>(mft);
    shape.HasList = mft->FindAttribute(AttributeAttributeList, nullptr, 0, 0) != nullptr;
    return shape;
}

// Fills a blank record in use with $STANDARD_INFORMATION and a resident
// $DATA that holds its own number, and writes it.
unsigned int WriteSmallFile(CFileRecord* record) {
    CAttribute standard(kResidentHeaderSize + kStandardValueSize, 1, nullptr);
    WriteU32(standard.Header, kAttributeTypeOffset, AttributeStandardInformation);
    uint8_t times[kStandardValueSize] = {};
    standard.SetValue(times, kStandardValueSize);
    CAttribute data(kResidentHeaderSize + 8, 1, nullptr);
    WriteU32(data.Header, kAttributeTypeOffset, AttributeData);
    uint8_t number[8];
    WriteU64(number, 0, static_cast<uint64_t>(record->RecordNumber));
    data.SetValue(number, 8);
    if (record->InsertAttribute(&standard) == nullptr || record->InsertAttribute(&data) == nullptr) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    return record->WriteRecord();
}

int64_t MftAllocated(CNTFSVolume* volume) {
    CAttribute* data = volume->GetMftBitmap()->Mft->FindAttribute(AttributeData, nullptr, 0, 0);
    return ReadI64(data->Header, kNonResidentAllocatedSizeOffset);
}

// Takes `count` records and writes each; stops at the first failure.
unsigned int TakeRecords(CNTFSVolume* volume, int count, std::vector<int64_t>* taken, Paths* paths = nullptr) {
    for (int i = 0; i < count; ++i) {
        const int64_t allocated = paths != nullptr ? MftAllocated(volume) : 0;
        CFileRecord* record = nullptr;
        unsigned int code = volume->ReferenceEmptyFileRecordFromMFT(&record, 0);
        if (code != ERROR_SUCCESS) return code;
        if (paths != nullptr && MftAllocated(volume) != allocated) ++paths->Enlargements;
        code = WriteSmallFile(record);
        taken->push_back(record->RecordNumber);
        delete record;
        if (code != ERROR_SUCCESS) return code;
    }
    return ERROR_SUCCESS;
}

// Uses up every free bit of the MFT bitmap with records in use, as another
// user of the volume would, and leaves no free record counted.
unsigned int UseEveryFreeRecord(CNTFSVolume* volume, std::vector<int64_t>* taken) {
    CFileRecordBitmap* bitmap = volume->GetMftBitmap();
    const int size = volume->GetFileRecordSize();
    for (;;) {
        int64_t index = 0;
        int got = 0;
        if (bitmap->AllocateUnits(1, &index, &got, 1) != ERROR_SUCCESS) break;
        auto* image = static_cast<uint8_t*>(std::malloc(static_cast<size_t>(size)));
        unsigned int code = bitmap->ReadRecordImage(index, image);
        if (code == ERROR_SUCCESS && !CFileRecord::InitializeFileRecord(reinterpret_cast<_FILE_RECORD_HEADER*>(image),
                                                                        size, volume->GetSectorSize(), &index)) {
            code = ERROR_FILE_CORRUPT;
        }
        if (code != ERROR_SUCCESS) {
            std::free(image);
            return code;
        }
        WriteU16(image, kFileFlagsOffset, kFileRecordInUse);
        CFileRecord record(index, reinterpret_cast<_FILE_RECORD_HEADER*>(image), nullptr, volume);
        code = WriteSmallFile(&record);
        if (code != ERROR_SUCCESS) return code;
        taken->push_back(index);
    }
    bitmap->FreeRecords = 0;
    return ERROR_SUCCESS;
}

std::vector<uint8_t> ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The audit, with `kept` clusters held by the test itself (set in $Bitmap,
// owned by no record).
void ExpectAudited(CNTFSVolume* volume, const std::string& when, int64_t kept = 0) {
    const test::ClusterAudit audit = test::AuditClusters(volume);
    EXPECT_TRUE(audit.OwnedTwice == 0 && audit.OwnedButFree == 0 && audit.RecordMismatches == 0 && audit.Leaked == kept)
        << when << ": " << audit.First << " (twice " << audit.OwnedTwice << ", owned-free " << audit.OwnedButFree
        << ", leaked " << audit.Leaked << ", records " << audit.RecordMismatches << ")";
}

// A sample of the taken records reads back its own number.
void ExpectSample(CNTFSVolume* volume, const std::vector<int64_t>& taken, const std::string& phase) {
    for (size_t i = 0; i < taken.size(); i += taken.size() / 64 + 1) {
        CFullFileRecord* record = nullptr;
        ASSERT_EQ(volume->ReferenceFileRecord(taken[i], &record), 0u) << phase << " record " << taken[i];
        CAttribute* data = record->FindAttribute(AttributeData, nullptr, 0, 0);
        ASSERT_NE(data, nullptr) << phase << " record " << taken[i];
        EXPECT_EQ(ReadI64(data->GetValue(), 0), taken[i]) << phase;
        record->Release();
    }
}

// Unmounts, checks the image with the independent readers, mounts it again
// in a new volume object, audits it and reads a sample of the records back.
std::unique_ptr<MountedVolume> Remount(std::unique_ptr<MountedVolume> mounted, const std::vector<int64_t>& taken,
                                       const std::string& phase, int64_t kept = 0) {
    const std::string image = mounted->UnmountToFile();
    const std::string quoted = test::ShellQuote(image);
    const test::ToolResult fix = test::RunTool("ntfsfix -n " + quoted);
    EXPECT_EQ(fix.status, 0) << phase << ": " << fix.output;
    const test::ToolResult list = test::RunTool("ntfsls -R " + quoted);
    EXPECT_EQ(list.status, 0) << phase << ": " << list.output.substr(0, 2000);
    const test::ToolResult walk = test::RunTool("fls -r -p " + quoted);
    EXPECT_EQ(walk.status, 0) << phase << ": " << walk.output.substr(0, 2000);
    EXPECT_EQ(walk.output.find("Error"), std::string::npos) << phase << ": " << walk.output.substr(0, 2000);
    // The readers see $MFT at its grown size.
    const test::ToolResult info = test::RunTool("ntfsinfo -i 0 " + quoted);
    EXPECT_EQ(info.status, 0) << phase << ": " << info.output.substr(0, 2000);

    auto again = std::make_unique<MountedVolume>(ReadFile(image));
    EXPECT_EQ(again->Mount(), 1) << phase << ": " << again->Volume()->GetLastError();
    CNTFSVolume* volume = again->Volume();
    ExpectAudited(volume, phase + " after remount", kept);
    ExpectSample(volume, taken, phase);
    return again;
}

// Takes records in rounds until `done` says so, capturing the log.
template <typename Done>
unsigned int Grow(CNTFSVolume* volume, std::vector<int64_t>* taken, Paths* paths, int limit, Done done) {
    unsigned int code = ERROR_SUCCESS;
    for (int round = 0; round < limit && code == ERROR_SUCCESS && !done(); ++round) {
        testing::internal::CaptureStdout();
        code = TakeRecords(volume, 16, taken, paths);
        const std::string log = testing::internal::GetCapturedStdout();
        paths->Count(log);
        if (code != ERROR_SUCCESS) std::printf("%s\n", log.substr(log.size() > 3000 ? log.size() - 3000 : 0).c_str());
    }
    return code;
}

// A new volume of `megabytes` with clusters of `cluster` bytes, made by
// mkntfs in a temporary file, loaded into memory.
std::vector<uint8_t> MakeVolume(int megabytes, int cluster) {
    char name[] = "/tmp/ntfskit-mft-XXXXXX";
    const int fd = mkstemp(name);
    if (fd < 0) return {};
    std::FILE* file = fdopen(fd, "w");
    std::fclose(file);
    const std::string quoted = test::ShellQuote(name);
    const test::ToolResult made =
        test::RunTool("truncate -s " + std::to_string(megabytes) + "M " + quoted + " && mkntfs -F -Q -q -s 512 -c " +
                      std::to_string(cluster) + " -L grow " + quoted);
    std::vector<uint8_t> image = made.status == 0 ? ReadFile(name) : std::vector<uint8_t>{};
    std::remove(name);
    return image;
}

// Fragments the free space of `volume`: every free cluster is taken, then
// given back in stretches of `free` clusters with one kept between them.
// Returns the kept clusters, which the test frees at the end.
std::vector<int64_t> Fragment(CNTFSVolume* volume, int free) {
    std::vector<int64_t> taken;
    for (;;) {
        int64_t start = 0;
        int got = 0;
        if (volume->SearchSpareClusterAndAllocate(1, &start, &got, 0) != ERROR_SUCCESS) break;
        taken.push_back(start);
    }
    std::vector<int64_t> kept;
    for (size_t i = 0; i < taken.size(); ++i) {
        if (i % static_cast<size_t>(free + 1) == static_cast<size_t>(free)) {
            kept.push_back(taken[i]);
        } else {
            int64_t start = taken[i];
            EXPECT_EQ(volume->FreeClusters(&start, 1), 0u);
        }
    }
    return kept;
}

void FreeKept(CNTFSVolume* volume, const std::vector<int64_t>& kept) {
    for (int64_t cluster : kept) {
        int64_t start = cluster;
        EXPECT_EQ(volume->FreeClusters(&start, 1), 0u);
    }
}

TEST(MftEnlargement, BigVolumeGrowsSeveralTimes) {
    auto mounted = std::make_unique<MountedVolume>("big");
    ASSERT_EQ(mounted->Mount(), 1);
    const MftShape before = ShapeOf(mounted->Volume());
    std::vector<int64_t> taken;
    Paths paths;
    // 16 records per growth on this volume (65535 sectors): ten growths.
    const unsigned int code = Grow(mounted->Volume(), &taken, &paths, 1000,
                                   [&] { return ShapeOf(mounted->Volume()).Records >= before.Records + 160 + 16; });
    ASSERT_EQ(code, 0u);
    const MftShape after = ShapeOf(mounted->Volume());
    EXPECT_GE(after.Records, before.Records + 160);
    EXPECT_EQ(after.Records % 2, 0);
    ExpectAudited(mounted->Volume(), "big");
    mounted = Remount(std::move(mounted), taken, "big");
    EXPECT_EQ(ShapeOf(mounted->Volume()).Records, after.Records);
    EXPECT_GE(paths.Enlargements, 10);
    std::printf("big: records %lld -> %lld, %d stampings, %d enlargements, pieces %d -> %d\n",
                static_cast<long long>(before.Records), static_cast<long long>(after.Records), paths.Full,
                paths.Enlargements, before.DataPieces, after.DataPieces);
}

// Fills $MFT's base record to its last byte with a resident named
// stream, and writes it.
unsigned int FillBaseRecord(CNTFSVolume* volume) {
    CFullFileRecord* mft = volume->GetMftBitmap()->Mft;
    CFileRecord* base = mft;
    const int size = base->GetFreeSpace() & ~7;
    CAttribute pad(size, 1, u"pad");
    WriteU32(pad.Header, kAttributeTypeOffset, AttributeData);
    std::vector<uint8_t> zeros(static_cast<size_t>(size));
    pad.SetValue(zeros.data(), size - ReadU16(pad.Header, kResidentValueOffsetOffset));
    if (base->InsertAttribute(&pad) == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    mft->RebuildMergedTable();
    int64_t changed = 0;
    return volume->UpdateFileRecord(mft, nullptr, nullptr, &changed) ? ERROR_SUCCESS : volume->GetLastError();
}

void Report(const char* phase, const MftShape& shape, const Paths& paths) {
    std::printf(
        "%s: records %lld, pieces %d, extension records %d, record 15 %d, bitmap in base %d, "
        "%d stampings, %d enlargements, %d tail moves\n",
        phase, static_cast<long long>(shape.Records), shape.DataPieces, shape.ExtensionRecords, shape.Record15 ? 1 : 0,
        shape.BitmapInBase ? 1 : 0, paths.Full, paths.Enlargements, paths.TailMoves);
}

// A volume of 32 MiB (65535 sectors: 16 records a growth) with clusters of
// one sector, whose free space is cut into stretches of 20 clusters: each
// growth of 32 clusters takes two runs (requests fall to the longest free
// run), so the runs fill record 0 and then extension records, and the MFT
// bitmap outgrows its cluster where record 0 has no room left for its run.
TEST(MftEnlargement, FragmentedVolumeOpensPiecesSpillsItsBitmapAndMovesItsTail) {
    std::vector<uint8_t> image = MakeVolume(32, 512);
    ASSERT_FALSE(image.empty()) << "mkntfs could not make the volume";
    auto mounted = std::make_unique<MountedVolume>(std::move(image));
    ASSERT_EQ(mounted->Mount(), 1);
    const MftShape before = ShapeOf(mounted->Volume());
    Report("fragmented, before", before, Paths{});
    EXPECT_EQ(before.DataPieces, 1);
    EXPECT_FALSE(before.HasList);
    std::vector<int64_t> kept = Fragment(mounted->Volume(), 20);
    auto held = static_cast<int64_t>(kept.size());
    std::vector<int64_t> taken;
    Paths paths;

    // 1. New pieces: the first in record 15, with a new attribute list.
    ASSERT_EQ(Grow(mounted->Volume(), &taken, &paths, 2000, [&] { return ShapeOf(mounted->Volume()).DataPieces >= 3; }),
              0u);
    MftShape shape = ShapeOf(mounted->Volume());
    Report("fragmented, pieces", shape, paths);
    EXPECT_GE(shape.DataPieces, 3);
    EXPECT_TRUE(shape.Record15);
    EXPECT_TRUE(shape.HasList);
    ExpectAudited(mounted->Volume(), "pieces", held);
    mounted = Remount(std::move(mounted), taken, "pieces", held);
    EXPECT_EQ(ShapeOf(mounted->Volume()).DataPieces, shape.DataPieces);

    // 2. Record 0 is full (a resident stream fills it) when the bitmap needs
    //    a second cluster: the bitmap moves to a record of its own.
    ASSERT_EQ(FillBaseRecord(mounted->Volume()), 0u);
    ASSERT_EQ(Grow(mounted->Volume(), &taken, &paths, 2000, [&] { return !ShapeOf(mounted->Volume()).BitmapInBase; }),
              0u);
    ASSERT_EQ(TakeRecords(mounted->Volume(), 64, &taken, &paths), 0u);
    shape = ShapeOf(mounted->Volume());
    Report("fragmented, bitmap", shape, paths);
    EXPECT_FALSE(shape.BitmapInBase);
    EXPECT_GT(shape.Records, 4096);
    ExpectAudited(mounted->Volume(), "bitmap", held);
    mounted = Remount(std::move(mounted), taken, "bitmap", held);

    // 3. No record free at all when a piece is full: the tail moves. Every
    //    second kept cluster goes back, so that stretches of 41 clusters take
    //    a growth in one run and the last run plus four records still finds
    //    a place.
    std::vector<int64_t> stillKept;
    for (size_t i = 0; i < kept.size(); ++i) {
        if (i % 2 == 0) {
            stillKept.push_back(kept[i]);
        } else {
            int64_t start = kept[i];
            ASSERT_EQ(mounted->Volume()->FreeClusters(&start, 1), 0u);
        }
    }
    kept = stillKept;
    held = static_cast<int64_t>(kept.size());
    for (int round = 0; round < 2000 && paths.TailMoves == 0; ++round) {
        ASSERT_EQ(UseEveryFreeRecord(mounted->Volume(), &taken), 0u);
        testing::internal::CaptureStdout();
        const unsigned int code = TakeRecords(mounted->Volume(), 1, &taken, &paths);
        const std::string log = testing::internal::GetCapturedStdout();
        paths.Count(log);
        ASSERT_EQ(code, 0u) << "round " << round << "\n" << log.substr(log.size() > 3000 ? log.size() - 3000 : 0);
    }
    ASSERT_EQ(TakeRecords(mounted->Volume(), 64, &taken, &paths), 0u);
    shape = ShapeOf(mounted->Volume());
    Report("fragmented, tail", shape, paths);
    EXPECT_EQ(paths.TailMoves, 1);
    ExpectAudited(mounted->Volume(), "tail", held);
    mounted = Remount(std::move(mounted), taken, "tail", held);

    // The test's own clusters go back; the volume is whole.
    FreeKept(mounted->Volume(), kept);
    ExpectAudited(mounted->Volume(), "end");
    mounted = Remount(std::move(mounted), taken, "end");
}

// Fails each of the `writes` writes of the next take on copies of `image`
// in turn: the take answers the device's code (or 1392 for a record whose
// bit that write lost, which keeps its bit from then on) or succeeds, and
// the volume, mounted again, has every cluster and record accounted for
// (`held` clusters are the test's own; a failed write of a release may leak
// up to `leakable` clusters, never free one in use) and still takes records.
void FailEachWrite(const std::vector<uint8_t>& image, int writes, int64_t held, int64_t leakable) {
    for (int nth = 1; nth <= writes; ++nth) {
        const std::string when = "write " + std::to_string(nth) + " of " + std::to_string(writes);
        auto faulty = std::make_unique<MountedVolume>(image);
        ASSERT_EQ(faulty->Mount(), 1);
        faulty->Faults().FailNthWrite(faulty->Faults().Writes() + nth, ERROR_IO_DEVICE);
        std::vector<int64_t> more;
        testing::internal::CaptureStdout();
        const unsigned int code = TakeRecords(faulty->Volume(), 1, &more);
        (void)testing::internal::GetCapturedStdout();
        EXPECT_TRUE(code == ERROR_SUCCESS || code == ERROR_IO_DEVICE || code == ERROR_FILE_CORRUPT)
            << when << ": " << code;
        faulty->Faults().Heal();
        (void)faulty->UnmountToFile();
        MountedVolume after(faulty->Memory().Bytes());
        ASSERT_EQ(after.Mount(), 1) << when;
        const test::ClusterAudit audit = test::AuditClusters(after.Volume());
        EXPECT_TRUE(audit.OwnedTwice == 0 && audit.OwnedButFree == 0 && audit.RecordMismatches == 0 &&
                    audit.Leaked >= held && audit.Leaked <= held + leakable)
            << when << ": " << audit.First << " (twice " << audit.OwnedTwice << ", owned-free " << audit.OwnedButFree
            << ", leaked " << audit.Leaked - held << ", records " << audit.RecordMismatches << ")";
        testing::internal::CaptureStdout();
        EXPECT_EQ(TakeRecords(after.Volume(), 32, &more), 0u) << when;
        (void)testing::internal::GetCapturedStdout();
    }
}

// Gives record 15 a $FILE_NAME, as a file of someone's would have.
unsigned int NameRecord15(CNTFSVolume* volume) {
    CFullFileRecord* fifteen = nullptr;
    unsigned int code = volume->ReferenceFileRecord(15, &fifteen);
    if (code != ERROR_SUCCESS) return code;
    CAttribute name(kResidentHeaderSize + 72, 1, nullptr);
    WriteU32(name.Header, kAttributeTypeOffset, AttributeFileName);
    uint8_t value[68] = {};
    WriteU64(value, kFileNameParentOffset, kRootDirectoryRecord | (uint64_t{5} << 48));
    WriteU8(value, kFileNameLengthOffset, 1);
    WriteU16(value, kFileNameUnitsOffset, u'x');
    name.SetValue(value, sizeof(value));
    CFileRecord* base = fifteen;
    code = base->InsertAttribute(&name) != nullptr ? base->WriteRecord() : ERROR_NOT_ENOUGH_MEMORY;
    fifteen->RebuildMergedTable();
    fifteen->Release();
    return code;
}

// The writes the next take makes on a copy of `image`, which must bring
// $MFT to `pieces` pieces of $DATA.
int WritesOfNextTake(const std::vector<uint8_t>& image, int pieces, Paths* paths) {
    MountedVolume probe(image);
    if (probe.Mount() != 1) return -1;
    const int first = probe.Faults().Writes();
    std::vector<int64_t> ignored;
    testing::internal::CaptureStdout();
    const unsigned int code = TakeRecords(probe.Volume(), 1, &ignored);
    paths->Count(testing::internal::GetCapturedStdout());
    if (code != ERROR_SUCCESS || ShapeOf(probe.Volume()).DataPieces != pieces) return -1;
    return probe.Faults().Writes() - first;
}

// A volume of 20 MiB with clusters of one sector, record 15 named and the
// free space in stretches of 40 clusters (one run a growth), grown until
// record 0 is full of runs with every record in use: `rounds` rounds of
// using every free record and taking one more. Returns the image unmounted.
std::vector<uint8_t> FullRecordZero(int rounds, std::vector<int64_t>* kept, int* tail) {
    MountedVolume mounted(MakeVolume(20, 512));
    if (mounted.Mount() != 1 || NameRecord15(mounted.Volume()) != ERROR_SUCCESS) return {};
    *kept = Fragment(mounted.Volume(), 40);
    std::vector<int64_t> taken;
    Paths paths;
    int round = 0;
    for (; round < rounds && paths.TailMoves == 0; ++round) {
        if (UseEveryFreeRecord(mounted.Volume(), &taken) != ERROR_SUCCESS) return {};
        if (round + 1 == rounds) break;
        testing::internal::CaptureStdout();
        const unsigned int code = TakeRecords(mounted.Volume(), 1, &taken);
        paths.Count(testing::internal::GetCapturedStdout());
        if (code != ERROR_SUCCESS) return {};
    }
    *tail = paths.TailMoves != 0 ? round : 0;
    (void)mounted.UnmountToFile();
    return mounted.Memory().Bytes();
}

// A device error at each write of the take that opens the first new piece
// (record 15, a new attribute list, piece 0 split): the take answers the
// device's code or succeeds, and the volume, mounted again, has every
// cluster and record accounted for and still takes records.
TEST(MftEnlargement, DeviceErrorAtEachWriteOfAPieceOpening) {
    std::vector<uint8_t> image = MakeVolume(20, 512);
    ASSERT_FALSE(image.empty()) << "mkntfs could not make the volume";
    auto prepared = std::make_unique<MountedVolume>(std::move(image));
    ASSERT_EQ(prepared->Mount(), 1);
    const std::vector<int64_t> kept = Fragment(prepared->Volume(), 20);
    const auto held = static_cast<int64_t>(kept.size());
    std::vector<int64_t> taken;
    // Up to the take before the one that opens a piece, found on a copy.
    std::vector<uint8_t> start;
    int before = 0;
    {
        testing::internal::CaptureStdout();
        unsigned int code = ERROR_SUCCESS;
        while (code == ERROR_SUCCESS && ShapeOf(prepared->Volume()).DataPieces < 2) {
            code = TakeRecords(prepared->Volume(), 1, &taken);
        }
        (void)testing::internal::GetCapturedStdout();
        ASSERT_EQ(code, 0u);
        before = static_cast<int>(taken.size()) - 1;
    }
    {
        std::vector<uint8_t> fresh = MakeVolume(20, 512);
        MountedVolume again(std::move(fresh));
        ASSERT_EQ(again.Mount(), 1);
        EXPECT_EQ(Fragment(again.Volume(), 20), kept);
        std::vector<int64_t> ignored;
        testing::internal::CaptureStdout();
        const unsigned int code = TakeRecords(again.Volume(), before, &ignored);
        (void)testing::internal::GetCapturedStdout();
        ASSERT_EQ(code, 0u);
        ASSERT_EQ(ShapeOf(again.Volume()).DataPieces, 1);
        (void)again.UnmountToFile();
        start = again.Memory().Bytes();
    }
    // The writes of that one take.
    int writes = 0;
    {
        MountedVolume probe(start);
        ASSERT_EQ(probe.Mount(), 1);
        const int first = probe.Faults().Writes();
        std::vector<int64_t> ignored;
        testing::internal::CaptureStdout();
        ASSERT_EQ(TakeRecords(probe.Volume(), 1, &ignored), 0u);
        (void)testing::internal::GetCapturedStdout();
        ASSERT_EQ(ShapeOf(probe.Volume()).DataPieces, 2);
        writes = probe.Faults().Writes() - first;
    }
    ASSERT_GT(writes, 4);
    FailEachWrite(start, writes, held, 0);
}

// With record 0 full of runs, no list yet, record 15 someone's and no record
// free at all, the last run of $MFT moves to a place four records longer,
// and the first of those records takes the new piece; the old clusters go
// back. A device error at each write of that take leaves the volume
// accounted.
TEST(MftEnlargement, TailMoveOutOfAFullRecordZero) {
    std::vector<int64_t> kept;
    int tail = 0;
    // The round whose take moves the tail, then the state just before it.
    (void)FullRecordZero(1000, &kept, &tail);
    ASSERT_GT(tail, 0) << "no tail move";
    std::vector<int64_t> keptAgain;
    int none = 0;
    const std::vector<uint8_t> start = FullRecordZero(tail, &keptAgain, &none);
    ASSERT_FALSE(start.empty());
    ASSERT_EQ(keptAgain, kept);
    const auto held = static_cast<int64_t>(kept.size());
    Paths paths;
    const int writes = WritesOfNextTake(start, 2, &paths);
    ASSERT_GT(writes, 4);
    EXPECT_EQ(paths.TailMoves, 1);

    auto mounted = std::make_unique<MountedVolume>(start);
    ASSERT_EQ(mounted->Mount(), 1);
    const MftShape before = ShapeOf(mounted->Volume());
    EXPECT_FALSE(before.HasList);
    std::vector<int64_t> taken;
    testing::internal::CaptureStdout();
    ASSERT_EQ(TakeRecords(mounted->Volume(), 40, &taken, &paths), 0u);
    (void)testing::internal::GetCapturedStdout();
    const MftShape after = ShapeOf(mounted->Volume());
    Report("tail out of record 0", after, paths);
    EXPECT_TRUE(after.HasList);
    EXPECT_FALSE(after.Record15);
    EXPECT_EQ(after.DataPieces, 2);
    EXPECT_EQ(after.ExtensionRecords, 1);
    EXPECT_GT(after.Records, before.Records);
    ExpectAudited(mounted->Volume(), "tail out of record 0", held);
    mounted = Remount(std::move(mounted), taken, "tail out of record 0", held);
    FreeKept(mounted->Volume(), kept);
    ExpectAudited(mounted->Volume(), "tail out of record 0, end");
    mounted = Remount(std::move(mounted), taken, "tail out of record 0, end");

    // The release of the old place of the moved run (32 clusters) is the
    // one write whose failure leaks.
    FailEachWrite(start, writes, held, 32);
}

// With $MFT in one run whose record is full and no record free, the only
// run to move would be the one that holds record 0, whose place the boot
// sector names: the growth answers 39 and the volume's bytes stay as they
// were.
TEST(MftEnlargement, RunOfRecordZeroNeverMoves) {
    MountedVolume mounted(MakeVolume(20, 512));
    ASSERT_EQ(mounted.Mount(), 1);
    CNTFSVolume* volume = mounted.Volume();
    ASSERT_EQ(NameRecord15(volume), 0u);
    ASSERT_EQ(FillBaseRecord(volume), 0u);
    std::vector<int64_t> taken;
    unsigned int code = ERROR_SUCCESS;
    std::vector<uint8_t> before;
    testing::internal::CaptureStdout();
    for (int round = 0; round < 100 && code == ERROR_SUCCESS; ++round) {
        code = UseEveryFreeRecord(volume, &taken);
        if (code != ERROR_SUCCESS) break;
        before = mounted.Memory().Bytes();
        code = TakeRecords(volume, 1, &taken);
    }
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_EQ(code, ERROR_HANDLE_DISK_FULL);
    EXPECT_EQ(log.find("The new space to store node at tail"), std::string::npos);
    EXPECT_EQ(ShapeOf(volume).DataPieces, 1);
    EXPECT_TRUE(mounted.Memory().Bytes() == before);
    ExpectAudited(volume, "record 0 stays");
}

// The long workload, run when NTFSKIT_LONG_TESTS is set: 100,000 records
// taken on a new 256 MiB volume with clusters of 4 KiB.
TEST(MftEnlargement, HundredThousandRecords) {
    if (std::getenv("NTFSKIT_LONG_TESTS") == nullptr) GTEST_SKIP() << "set NTFSKIT_LONG_TESTS to run";
    std::vector<uint8_t> image = MakeVolume(256, 4096);
    ASSERT_FALSE(image.empty()) << "mkntfs could not make the volume";
    auto mounted = std::make_unique<MountedVolume>(std::move(image));
    ASSERT_EQ(mounted->Mount(), 1);
    const MftShape before = ShapeOf(mounted->Volume());
    std::vector<int64_t> taken;
    Paths paths;
    const auto start = std::chrono::steady_clock::now();
    testing::internal::CaptureStdout();
    const unsigned int code = TakeRecords(mounted->Volume(), 100000, &taken, &paths);
    paths.Count(testing::internal::GetCapturedStdout());
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    ASSERT_EQ(code, 0u);
    const MftShape after = ShapeOf(mounted->Volume());
    std::printf("100000 records in %.1f s; $MFT %lld -> %lld records (%lld bytes allocated)\n", seconds,
                static_cast<long long>(before.Records), static_cast<long long>(after.Records),
                static_cast<long long>(MftAllocated(mounted->Volume())));
    Report("long", after, paths);
    ExpectAudited(mounted->Volume(), "long");
    mounted = Remount(std::move(mounted), taken, "long");
}

// A volume of fewer than 32768 sectors has no growth step: once the room
// $DATA owns is stamped, the answer is 39 and nothing on the volume changes.
TEST(MftEnlargement, VolumeTooSmallToGrowAnswers39AndStaysWhole) {
    auto mounted = std::make_unique<MountedVolume>("c4k");
    ASSERT_EQ(mounted->Mount(), 1);
    CNTFSVolume* volume = mounted->Volume();
    int64_t sectors = 0;
    volume->GetVolumeSectorNumber(&sectors);
    ASSERT_LT(sectors, 32768);
    std::vector<int64_t> taken;
    unsigned int code = ERROR_SUCCESS;
    CFileRecordBitmap* bitmap = volume->GetMftBitmap();
    // Up to the last stamped record: the next call would enlarge.
    while (code == ERROR_SUCCESS &&
           !(bitmap->FreeRecords <= 2 && MftAllocated(volume) - ShapeOf(volume).Records * 1024 < 1024)) {
        code = TakeRecords(volume, 1, &taken);
    }
    ASSERT_EQ(code, 0u);
    const std::vector<uint8_t> before = mounted->Memory().Bytes();
    const int64_t records = ShapeOf(volume).Records;
    testing::internal::CaptureStdout();
    CFileRecord* record = nullptr;
    EXPECT_EQ(volume->ReferenceEmptyFileRecordFromMFT(&record, 0), ERROR_HANDLE_DISK_FULL);
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find("$MFT file is full. Enlarge it to store more data.\n"), std::string::npos);
    EXPECT_EQ(record, nullptr);
    EXPECT_EQ(mounted->Memory().Bytes(), before);
    EXPECT_EQ(ShapeOf(volume).Records, records);
    ExpectAudited(volume, "small");
    mounted = Remount(std::move(mounted), taken, "small");
}

// Record 15 that carries a name is a file of someone's: it is left alone and
// a free record takes the new piece; without a list, piece 0 keeps the runs
// up to that record and the rest moves there.
TEST(MftEnlargement, Record15WithANameIsLeftAlone) {
    std::vector<uint8_t> image = MakeVolume(20, 512);
    ASSERT_FALSE(image.empty()) << "mkntfs could not make the volume";
    auto mounted = std::make_unique<MountedVolume>(std::move(image));
    ASSERT_EQ(mounted->Mount(), 1);
    CNTFSVolume* volume = mounted->Volume();
    ASSERT_EQ(NameRecord15(volume), 0u);
    const std::vector<int64_t> kept = Fragment(volume, 20);
    std::vector<int64_t> taken;
    Paths paths;
    ASSERT_EQ(Grow(volume, &taken, &paths, 2000, [&] { return ShapeOf(volume).DataPieces >= 2; }), 0u);
    const MftShape shape = ShapeOf(volume);
    Report("record 15 named", shape, paths);
    EXPECT_FALSE(shape.Record15);
    EXPECT_TRUE(shape.HasList);
    EXPECT_EQ(shape.ExtensionRecords, 1);
    CFullFileRecord* fifteen = nullptr;
    ASSERT_EQ(volume->ReferenceFileRecord(15, &fifteen), 0u);
    EXPECT_NE(fifteen->FindAttribute(AttributeFileName, nullptr, 0, 0), nullptr);
    EXPECT_EQ(ReadU64(fifteen->Image, kFileBaseReferenceOffset), 0u);
    fifteen->Release();
    // Piece 0 ends with the clusters of the record that holds piece 1.
    CFullFileRecord* mft = volume->GetMftBitmap()->Mft;
    CAttribute* second = mft->FindAttribute(AttributeData, nullptr, 0, 1);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->GetLowestVcn(), (second->Record->RecordNumber + 1) * 1024 / 512);
    FreeKept(volume, kept);
    ExpectAudited(volume, "record 15 named");
    mounted = Remount(std::move(mounted), taken, "record 15 named");
}

}  // namespace
}  // namespace ntfs
