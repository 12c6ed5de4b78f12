// Writes into sparse and compressed files, unit by unit: into leading,
// middle and trailing holes, partial and whole units, units of zeros, text
// and random bytes, across unit borders, and a file grown until its run
// list spills into an extension record. Each case is remounted and read
// back: the bytes written read as written, and the whole file reads as a
// model of the reader gives it over the run list as it stands on disk (holes
// written with an LCN field holding 0 read as the clusters at the running
// LCN); then the cluster accounting is audited.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "data/compression.h"
#include "file/file_handle.h"
#include "foundation/endian.h"
#include "foundation/log.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "record/run_list.h"
#include "support/cluster_audit.h"
#include "support/mounted_volume.h"

namespace ntfs {
namespace {

using test::MountedVolume;

constexpr unsigned int kReadWrite = kAccessRead | kAccessWrite | kAccessShareMask;
constexpr unsigned int kTruncateExisting = 5;

// One run of the unnamed $DATA as the reader takes it.
struct ModelRun {
    int64_t Vcn;
    int64_t Length;
    int64_t Lcn;      // the running LCN for a run without an LCN field
    bool NoLcnField;  // the reader's hole: zeros
    bool ZeroDelta;   // an LCN field holding 0: the clusters at the running LCN
};

struct DataLayout {
    std::vector<ModelRun> Runs;
    uint16_t Flags = 0;
    int Exponent = 0;
    int64_t DataSize = 0;
    int Pieces = 0;
    int ExtensionRecords = 0;
    std::vector<int64_t> PieceStarts;
};

DataLayout Layout(CNTFSVolume* volume, int64_t number) {
    DataLayout layout;
    CFullFileRecord* record = nullptr;
    if (volume->ReferenceFileRecord(number, &record) != 0) return layout;
    for (unsigned int index = 0;; ++index) {
        CAttribute* piece = record->FindAttribute(AttributeData, nullptr, 0, index);
        if (piece == nullptr || piece->IsResident()) break;
        if (index == 0) {
            layout.Flags = ReadU16(piece->Header, kAttributeFlagsOffset);
            layout.Exponent = ReadU8(piece->Header, kNonResidentCompressionUnitOffset);
            layout.DataSize = piece->GetDataSize();
        }
        ++layout.Pieces;
        int64_t vcn = piece->GetLowestVcn();
        layout.PieceStarts.push_back(vcn);
        int64_t lcn = 0;
        int position = ReadU16(piece->Header, kNonResidentRunListOffsetOffset);
        _DATA_RUN run{};
        while (DecodeDataRun(piece->Header, position, piece->Size, &run) == 1) {
            lcn += run.Offset;
            layout.Runs.push_back(
                {vcn, run.Length, lcn, run.OffsetBytes == 0, run.OffsetBytes != 0 && run.Offset == 0});
            vcn += run.Length;
            position += run.Bytes;
        }
    }
    layout.ExtensionRecords = record->GetExtensionRecords().GetCount();
    record->Release();
    return layout;
}

// What one read of `count` bytes from offset 0 delivers, unit by unit, as
// the reader defines it over `layout` and the raw image.
std::vector<uint8_t> ModelRead(const DataLayout& layout, const std::vector<uint8_t>& image, int clusterSize,
                               int64_t count) {
    const bool unitFlags = (layout.Flags & kAttributeUnitFlagsMask) != 0;
    const int64_t clustersPerUnit = unitFlags ? (int64_t{1} << layout.Exponent) : 1;
    const int64_t unit = clustersPerUnit * clusterSize;
    std::vector<uint8_t> out;
    std::vector<uint8_t> raw(static_cast<size_t>(unit));
    std::vector<uint8_t> expanded(static_cast<size_t>(unit));
    for (int64_t vcnStart = 0; static_cast<int64_t>(out.size()) < count; vcnStart += clustersPerUnit) {
        int64_t vcn = vcnStart;
        int64_t filled = 0;
        int64_t real = 0;
        bool compressed = false;
        bool first = true;
        while (filled < unit) {
            const ModelRun* run = nullptr;
            for (const ModelRun& candidate : layout.Runs) {
                if (vcn >= candidate.Vcn && vcn < candidate.Vcn + candidate.Length) run = &candidate;
            }
            if (run == nullptr) return out;
            const int64_t inRun = vcn - run->Vcn;
            if (first) compressed = run->Length - inRun < clustersPerUnit;
            first = false;
            if (!run->NoLcnField) {
                int64_t clusters = std::min(run->Length - inRun, (unit - filled) / clusterSize);
                std::memcpy(raw.data() + filled, image.data() + (run->Lcn + inRun) * clusterSize,
                            static_cast<size_t>(clusters * clusterSize));
                filled += clusters * clusterSize;
                vcn += clusters;
                real += clusters;
            } else {
                // The hole's whole length, as the reader takes it.
                const int64_t bytes = std::min(run->Length * clusterSize, unit - filled);
                std::memset(raw.data() + filled, 0, static_cast<size_t>(bytes));
                filled += bytes;
                vcn += bytes / clusterSize;
            }
        }
        if (real == 0 || real == clustersPerUnit) compressed = false;
        const uint8_t* source = raw.data();
        int64_t length = unit;
        if ((layout.Flags & kAttributeCompressionMask) != 0 && compressed) {
            int32_t finalSize = 0;
            DecompressBuffer(expanded.data(), static_cast<uint32_t>(unit), raw.data(), static_cast<int32_t>(unit),
                             &finalSize);
            length = finalSize < 0 ? 0 : std::min<int64_t>(finalSize, unit);
            source = expanded.data();
        }
        length = std::min<int64_t>(length, count - static_cast<int64_t>(out.size()));
        out.insert(out.end(), source, source + length);
    }
    return out;
}

std::vector<uint8_t> ReadWhole(CNTFSVolume* volume, const char16_t* path) {
    void* handle = volume->CreateFileA(path, 0, kOpenExisting, kAccessRead | kAccessShareMask);
    if (handle == nullptr) return {};
    unsigned int low = 0;
    unsigned int high = 0;
    volume->GetFileSize(handle, &low, &high);
    std::vector<uint8_t> data((static_cast<size_t>(high) << 32) | low);
    int done = 0;
    if (!data.empty()) volume->ReadFile(handle, data.data(), static_cast<int>(data.size()), &done);
    data.resize(static_cast<size_t>(done));
    (void)volume->CloseFileHandle(handle);
    return data;
}

int64_t RecordOf(CNTFSVolume* volume, const char16_t* path) {
    void* handle = volume->CreateFileA(path, 0, kOpenExisting, kAccessRead | kAccessShareMask);
    if (handle == nullptr) return -1;
    const int64_t number = static_cast<CFileHandle*>(handle)->RecordNumber;
    (void)volume->CloseFileHandle(handle);
    return number;
}

std::vector<uint8_t> RandomBytes(size_t size, uint32_t seed) {
    std::mt19937 random(seed);
    std::vector<uint8_t> bytes(size);
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
    return bytes;
}

std::vector<uint8_t> TextBytes(size_t size, uint32_t seed) {
    static const char* const words[] = {"cluster", "sector", "record", "index", "volume", "bitmap", "run", "unit"};
    std::mt19937 random(seed);
    std::vector<uint8_t> bytes;
    while (bytes.size() < size) {
        const char* word = words[random() % 8];
        bytes.insert(bytes.end(), word, word + std::strlen(word));
        bytes.push_back(random() % 9 == 0 ? '\n' : ' ');
    }
    bytes.resize(size);
    return bytes;
}

std::string Describe(const DataLayout& layout) {
    std::string text = "flags " + std::to_string(layout.Flags) + " unit 2^" + std::to_string(layout.Exponent) +
                       " pieces " + std::to_string(layout.Pieces) + ":";
    for (size_t i = 0; i < layout.Runs.size() && i < 40; ++i) {
        const ModelRun& run = layout.Runs[i];
        text += " [" + std::to_string(run.Vcn) + "+" + std::to_string(run.Length) +
                (run.NoLcnField ? " hole" : " @" + std::to_string(run.Lcn)) + "]";
    }
    return text;
}

void ExpectAudited(CNTFSVolume* volume) {
    const test::ClusterAudit audit = test::AuditClusters(volume);
    EXPECT_TRUE(audit.Clean()) << audit.First << " (twice " << audit.OwnedTwice << ", owned-free " << audit.OwnedButFree
                               << ", leaked " << audit.Leaked << ", records " << audit.RecordMismatches << ")";
}

struct Write {
    int64_t Offset;
    std::vector<uint8_t> Data;
};

// Writes `writes` into `path` of a copy of `fixture` through one handle,
// remounts, and checks the file against what was written and against the
// model of the reader; returns the layout found after the remount.
DataLayout WriteAndCheck(const std::string& fixture, const char16_t* path, const std::vector<Write>& writes) {
    MountedVolume before(fixture);
    EXPECT_EQ(before.Mount(), 1);
    CNTFSVolume* volume = before.Volume();
    const int64_t number = RecordOf(volume, path);
    const int clusterSize = volume->GetClusterSize();
    const std::vector<uint8_t> original = ReadWhole(volume, path);
    void* handle = volume->CreateFileA(path, 0, kOpenExisting, kReadWrite);
    EXPECT_NE(handle, nullptr);
    if (handle == nullptr) return {};
    for (const Write& write : writes) {
        unsigned int low = static_cast<unsigned int>(write.Offset);
        int high = static_cast<int>(write.Offset >> 32);
        EXPECT_EQ(volume->SetFilePointer(handle, &low, &high, kFileBegin), ERROR_SUCCESS);
        int done = 0;
        EXPECT_EQ(volume->WriteFile(handle, write.Data.data(), static_cast<int>(write.Data.size()), &done), 1);
        EXPECT_EQ(volume->GetLastError(), ERROR_SUCCESS) << "write at " << write.Offset;
        EXPECT_EQ(done, static_cast<int>(write.Data.size()));
    }
    EXPECT_EQ(volume->CloseFileHandle(handle), 1);
    volume->Umount();

    MountedVolume after(before.Memory().Bytes());
    EXPECT_EQ(after.Mount(), 1);
    const std::vector<uint8_t> content = ReadWhole(after.Volume(), path);
    const DataLayout layout = Layout(after.Volume(), number);
    const std::vector<uint8_t> model =
        ModelRead(layout, after.Memory().Bytes(), clusterSize, static_cast<int64_t>(content.size()));
    EXPECT_TRUE(content == model) << Describe(layout);
    std::vector<bool> written(content.size(), false);
    std::vector<bool> touched(content.size(), false);
    int64_t end = static_cast<int64_t>(original.size());
    for (const Write& write : writes) {
        end = std::max<int64_t>(end, write.Offset + static_cast<int64_t>(write.Data.size()));
        for (size_t i = 0; i < write.Data.size(); ++i) written[static_cast<size_t>(write.Offset) + i] = true;
    }
    const int64_t unitBytes = (int64_t{1} << layout.Exponent) * clusterSize;
    for (const Write& write : writes) {
        const int64_t from = write.Offset / unitBytes * unitBytes;
        const int64_t to = std::min<int64_t>(
            (write.Offset + static_cast<int64_t>(write.Data.size()) + unitBytes - 1) / unitBytes * unitBytes,
            static_cast<int64_t>(content.size()));
        for (int64_t i = from; i < to; ++i) touched[static_cast<size_t>(i)] = true;
    }
    EXPECT_EQ(static_cast<int64_t>(content.size()), end);
    std::vector<uint8_t> expected = original;
    expected.resize(static_cast<size_t>(end));
    for (const Write& write : writes) {
        std::memcpy(expected.data() + write.Offset, write.Data.data(), write.Data.size());
    }
    // The bytes written read as written; every unit no write touched and
    // that reads no hole written with an LCN field of 0 reads as before. (A
    // unit written in part keeps what it read before, and that may be what
    // such a hole, split by a unit written earlier, maps.)
    const int64_t unit = (int64_t{1} << layout.Exponent) * clusterSize;
    for (int64_t at = 0; at < static_cast<int64_t>(content.size()); at += unit) {
        const int64_t length = std::min<int64_t>(unit, static_cast<int64_t>(content.size()) - at);
        bool keptHole = false;
        for (const ModelRun& run : layout.Runs) {
            if (run.ZeroDelta && run.Vcn * clusterSize < at + unit && (run.Vcn + run.Length) * clusterSize > at) {
                keptHole = true;
            }
        }
        for (int64_t i = at; i < at + length; ++i) {
            if (written[static_cast<size_t>(i)] || (!keptHole && !touched[static_cast<size_t>(i)])) {
                if (content[static_cast<size_t>(i)] != expected[static_cast<size_t>(i)]) {
                    ADD_FAILURE() << "byte " << i << " differs; " << Describe(layout);
                    break;
                }
            }
        }
    }
    ExpectAudited(after.Volume());
    return layout;
}

constexpr int64_t kUnit4k = 65536;

TEST(SparseWrite, IntoLeadingMiddleAndTrailingHoles) {
    // islands.bin: one real cluster, then a hole to cluster 256, one real
    // cluster, a hole to 640, 18 real clusters, a hole to the end (1024).
    WriteAndCheck("c4k", u"\\sparse\\islands.bin", {{5000, TextBytes(100, 1)}});
    WriteAndCheck("c4k", u"\\sparse\\islands.bin", {{8 * kUnit4k, RandomBytes(kUnit4k, 2)}});
    WriteAndCheck("c4k", u"\\sparse\\islands.bin", {{20 * kUnit4k, std::vector<uint8_t>(kUnit4k, 0)}});
    WriteAndCheck("c4k", u"\\sparse\\islands.bin", {{4194304 - 30000, RandomBytes(30000, 3)}});
    WriteAndCheck("c4k", u"\\sparse\\islands.bin", {{17 * kUnit4k + 10, TextBytes(40, 4)}});
}

TEST(SparseWrite, LargerClusters) {
    for (const char* fixture : {"c8k", "c64k"}) {
        SCOPED_TRACE(fixture);
        const int64_t unit = std::string(fixture) == "c8k" ? 16 * 8192 : 16 * 65536;
        WriteAndCheck(fixture, u"\\sparse\\islands.bin",
                      {{unit + 77, TextBytes(100, 40)}, {2 * unit, RandomBytes(static_cast<size_t>(unit), 41)}});
    }
}

TEST(SparseWrite, AcrossUnitBordersAndOverRealClusters) {
    WriteAndCheck("c4k", u"\\sparse\\islands.bin", {{2 * kUnit4k - 1000, TextBytes(70000, 5)}});
    WriteAndCheck("c4k", u"\\sparse\\islands.bin",
                  {{16 * kUnit4k - 7, RandomBytes(3 * kUnit4k + 14, 6)}, {0, TextBytes(10000, 7)}});
    // Twice into the same unit: the second finds the clusters the first took.
    WriteAndCheck("c4k", u"\\sparse\\islands.bin",
                  {{30 * kUnit4k + 100, RandomBytes(500, 8)}, {30 * kUnit4k + 40000, TextBytes(9000, 9)}});
}

TEST(SparseWrite, GrowsAtItsEnd) {
    const DataLayout layout =
        WriteAndCheck("c4k", u"\\sparse\\islands.bin", {{4194304, RandomBytes(3 * kUnit4k + 123, 10)}});
    EXPECT_EQ(layout.DataSize, 4194304 + 3 * kUnit4k + 123);
}

// A file grown one unit per write: its run list fills the record of its
// last piece and goes on in a new extension record, and the units after the
// spill are written there.
TEST(SparseWrite, GrownUnitByUnitSpillsIntoAnExtensionRecord) {
    const char16_t* path = u"\\frag\\sparse-striped.bin";
    MountedVolume fixture("c512");
    ASSERT_EQ(fixture.Mount(), 1);
    const int64_t number = RecordOf(fixture.Volume(), path);
    const DataLayout before = Layout(fixture.Volume(), number);
    const int64_t size = before.DataSize;
    std::vector<Write> writes;
    for (int unit = 0; unit < 400; ++unit) {
        writes.push_back({size + unit * 8192, RandomBytes(8192, 100 + unit)});
    }
    const DataLayout after = WriteAndCheck("c512", path, writes);
    EXPECT_GT(after.Pieces, before.Pieces);
    EXPECT_EQ(after.DataSize, size + 400 * 8192);
}

// A compressed file whose run list shares the base record, grown one unit
// per write: the list outgrows the record and moves whole into an extension
// record, where the next units go on.
TEST(CompressedWrite, GrownUnitByUnitMovesOutOfTheBaseRecord) {
    std::vector<Write> writes;
    for (int unit = 0; unit < 240; ++unit) writes.push_back({300001 + unit * 16384, TextBytes(16384, 300 + unit)});
    const DataLayout after = WriteAndCheck("c1k", u"\\compressed\\text-300k.txt", writes);
    EXPECT_EQ(after.ExtensionRecords, 1);
}

// Every unit of a file whose run list fills five records: each write fills
// the unit's holes and the pieces split as they overflow. Four units have
// their runs in two pieces; each piece's part is filled where it stands.
TEST(SparseWrite, EveryUnitOfAFileInFivePieces) {
    const char16_t* path = u"\\frag\\sparse-striped.bin";
    MountedVolume fixture("c512");
    ASSERT_EQ(fixture.Mount(), 1);
    CNTFSVolume* volume = fixture.Volume();
    const DataLayout before = Layout(volume, RecordOf(volume, path));
    int crossing = 0;
    std::vector<Write> writes;
    for (int64_t unit = 0; unit * 8192 < before.DataSize; ++unit) {
        for (const int64_t start : before.PieceStarts) {
            if (start > unit * 16 && start < unit * 16 + 16) ++crossing;
        }
        writes.push_back({unit * 8192 + 100 + unit, TextBytes(300, static_cast<uint32_t>(400 + unit))});
    }
    EXPECT_EQ(crossing, 4);
    const DataLayout after = WriteAndCheck("c512", path, writes);
    EXPECT_GT(after.Pieces, before.Pieces);
    for (const ModelRun& run : after.Runs) EXPECT_FALSE(run.NoLcnField || run.ZeroDelta) << Describe(after);
}

TEST(SparseWrite, UnitsWithManyHolesGetEveryHoleFilled) {
    // sparse-striped.bin: clusters of 512 bytes, one real and one hole in
    // turn, 16 to a unit, in five pieces.
    WriteAndCheck("c512", u"\\frag\\sparse-striped.bin", {{8192 + 3, TextBytes(100, 11)}});
    WriteAndCheck("c512", u"\\frag\\sparse-striped.bin", {{5 * 8192, RandomBytes(3 * 8192, 12)}});
}

TEST(CompressedWrite, PartialAndWholeUnitsOfTextRandomAndZeros) {
    // text-300k.txt: four units of seven clusters and a hole, and a tail.
    WriteAndCheck("c4k", u"\\compressed\\text-300k.txt", {{kUnit4k + 300, TextBytes(2000, 13)}});
    WriteAndCheck("c4k", u"\\compressed\\text-300k.txt", {{2 * kUnit4k, RandomBytes(kUnit4k, 14)}});
    WriteAndCheck("c4k", u"\\compressed\\text-300k.txt", {{3 * kUnit4k, std::vector<uint8_t>(kUnit4k, 0)}});
    WriteAndCheck("c4k", u"\\compressed\\text-300k.txt", {{kUnit4k - 5, TextBytes(kUnit4k + 10, 15)}});
    WriteAndCheck("c4k", u"\\compressed\\text-300k.txt", {{0, TextBytes(kUnit4k, 16)}});
}

TEST(CompressedWrite, GrowsAtItsEnd) {
    const DataLayout layout = WriteAndCheck("c4k", u"\\compressed\\text-300k.txt", {{300001, TextBytes(200000, 17)}});
    EXPECT_EQ(layout.DataSize, 500001);
}

// A truncating open frees each cluster of a file written through these paths
// once: the hole written in front of a unit maps the file's first cluster
// and the clusters of other files behind it, and none of those is freed.
TEST(SparseWrite, TruncationFreesEachClusterOnce) {
    MountedVolume mounted("c4k");
    ASSERT_EQ(mounted.Mount(), 1);
    CNTFSVolume* volume = mounted.Volume();
    const char16_t* path = u"\\sparse\\islands.bin";
    const int64_t freeBefore = test::AuditClusters(volume).FreeClusters;
    void* handle = volume->CreateFileA(path, 0, kOpenExisting, kReadWrite);
    ASSERT_NE(handle, nullptr);
    unsigned int low = kUnit4k;
    ASSERT_EQ(volume->SetFilePointer(handle, &low, nullptr, kFileBegin), ERROR_SUCCESS);
    const std::vector<uint8_t> data = RandomBytes(kUnit4k, 20);
    int done = 0;
    ASSERT_EQ(volume->WriteFile(handle, data.data(), static_cast<int>(data.size()), &done), 1);
    ASSERT_EQ(volume->GetLastError(), ERROR_SUCCESS);
    ASSERT_EQ(volume->CloseFileHandle(handle), 1);
    const DataLayout layout = Layout(volume, RecordOf(volume, path));
    ASSERT_TRUE(layout.Runs.size() > 2 && layout.Runs[1].ZeroDelta) << Describe(layout);
    ExpectAudited(volume);
    EXPECT_EQ(test::AuditClusters(volume).FreeClusters, freeBefore - 16);

    handle = volume->CreateFileA(path, 0, kTruncateExisting, kReadWrite);
    ASSERT_NE(handle, nullptr);
    ASSERT_EQ(volume->CloseFileHandle(handle), 1);
    ExpectAudited(volume);
    // The file held 1 + 1 + 18 clusters of its own and the 16 new ones.
    EXPECT_EQ(test::AuditClusters(volume).FreeClusters, freeBefore + 20);
}

// The address space a compressed file reserves when it grows repeats the LCN
// of its last run, whose clusters other files' follow: a truncating open
// frees none of them.
TEST(CompressedWrite, TruncationFreesNoReservedAddressSpace) {
    MountedVolume mounted("c4k");
    ASSERT_EQ(mounted.Mount(), 1);
    CNTFSVolume* volume = mounted.Volume();
    const char16_t* path = u"\\compressed\\text-300k.txt";
    const int64_t freeBefore = test::AuditClusters(volume).FreeClusters;
    void* handle = volume->CreateFileA(path, 0, kOpenExisting, kReadWrite);
    ASSERT_NE(handle, nullptr);
    auto* file = static_cast<CFileHandle*>(handle);
    file->FileRecord->LockExclusive();
    unsigned int clusters = 32;
    ASSERT_EQ(file->ReserveCompressedClusters(&clusters), ERROR_SUCCESS);
    int64_t changed = 0;
    ASSERT_EQ(volume->UpdateFileRecord(file->FileRecord, nullptr, nullptr, &changed), 1);
    file->FileRecord->UnlockExclusive();
    ASSERT_EQ(volume->CloseFileHandle(handle), 1);
    const DataLayout layout = Layout(volume, RecordOf(volume, path));
    ASSERT_TRUE(layout.Runs.back().ZeroDelta) << Describe(layout);
    ExpectAudited(volume);

    handle = volume->CreateFileA(path, 0, kTruncateExisting, kReadWrite);
    ASSERT_NE(handle, nullptr);
    ASSERT_EQ(volume->CloseFileHandle(handle), 1);
    ExpectAudited(volume);
    // Four units of seven clusters and a tail of four.
    EXPECT_EQ(test::AuditClusters(volume).FreeClusters, freeBefore + 32);
}

// Writes and shortenings at random places of a file emptied by a truncating
// open, against a plain copy in memory; the file is read back after every
// step, after each reopen and after a remount, and audited at the end.
void RandomSequence(const char16_t* path, uint32_t seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    MountedVolume mounted("c4k");
    ASSERT_EQ(mounted.Mount(), 1);
    CNTFSVolume* volume = mounted.Volume();
    std::vector<uint8_t> model;
    void* handle = volume->CreateFileA(path, 0, kTruncateExisting, kReadWrite);
    ASSERT_NE(handle, nullptr);
    for (int step = 0; step < 24; ++step) {
        SCOPED_TRACE("step " + std::to_string(step));
        const int64_t size = static_cast<int64_t>(model.size());
        const int64_t at = size == 0 ? 0 : static_cast<int64_t>(random() % (size + 1));
        unsigned int low = static_cast<unsigned int>(at);
        ASSERT_EQ(volume->SetFilePointer(handle, &low, nullptr, kFileBegin), ERROR_SUCCESS);
        int done = 0;
        const unsigned int kind = random() % 8;
        if (kind == 0) {
            // A write of no bytes ends non-resident data at the pointer;
            // resident data stays as it is.
            const bool resident = static_cast<CFileHandle*>(handle)->Resident != 0;
            const uint8_t none = 0;
            ASSERT_EQ(volume->WriteFile(handle, &none, 0, &done), 1);
            if (!resident) model.resize(static_cast<size_t>(at));
        } else {
            const size_t length = 1 + random() % (kind == 1 ? 300 : 150000);
            const std::vector<uint8_t> data = kind == 2   ? std::vector<uint8_t>(length, 0)
                                              : kind <= 4 ? TextBytes(length, random())
                                                          : RandomBytes(length, random());
            ASSERT_EQ(volume->WriteFile(handle, data.data(), static_cast<int>(length), &done), 1);
            ASSERT_EQ(volume->GetLastError(), ERROR_SUCCESS);
            ASSERT_EQ(done, static_cast<int>(length));
            if (model.size() < at + length) model.resize(at + length);
            std::memcpy(model.data() + at, data.data(), length);
        }
        if (random() % 4 == 0) {
            ASSERT_EQ(volume->CloseFileHandle(handle), 1);
            ASSERT_TRUE(ReadWhole(volume, path) == model);
            handle = volume->CreateFileA(path, 0, kOpenExisting, kReadWrite);
            ASSERT_NE(handle, nullptr);
        }
    }
    ASSERT_EQ(volume->CloseFileHandle(handle), 1);
    ASSERT_TRUE(ReadWhole(volume, path) == model);
    volume->Umount();
    MountedVolume again(mounted.Memory().Bytes());
    ASSERT_EQ(again.Mount(), 1);
    EXPECT_TRUE(ReadWhole(again.Volume(), path) == model);
    ExpectAudited(again.Volume());
}

uint32_t SequenceSeed(uint32_t fixed) {
    const char* chosen = std::getenv("NTFSKIT_UNIT_WRITE_SEED");
    return chosen != nullptr ? static_cast<uint32_t>(std::strtoul(chosen, nullptr, 10)) : fixed;
}

TEST(SparseWrite, RandomWritesAndShorteningsAgainstAModel) {
    RandomSequence(u"\\sparse\\islands.bin", SequenceSeed(1501));
    RandomSequence(u"\\sparse\\islands.bin", SequenceSeed(std::random_device()()));
}

TEST(CompressedWrite, RandomWritesAndShorteningsAgainstAModel) {
    RandomSequence(u"\\compressed\\text-300k.txt", SequenceSeed(1502));
    RandomSequence(u"\\compressed\\text-300k.txt", SequenceSeed(std::random_device()()));
}

// Gives the last `surplus` clusters of unit `unit` of `path` back.
unsigned int ReleaseTail(CNTFSVolume* volume, const char16_t* path, int64_t unit, uint32_t surplus) {
    void* handle = volume->CreateFileA(path, 0, kOpenExisting, kReadWrite);
    if (handle == nullptr) return ERROR_FILE_NOT_FOUND;
    CFullFileRecord* record = static_cast<CFileHandle*>(handle)->FileRecord;
    record->LockExclusive();
    _RUN_CURSOR cursor{};
    cursor.AttributeType = AttributeData;
    cursor.Vcn = unit * 16;
    const unsigned int code = record->ReleaseUnitTail(&cursor, surplus, 16);
    record->UnlockExclusive();
    (void)volume->CloseFileHandle(handle);
    return code;
}

// The tail of a unit goes back to the volume and becomes a hole where it
// stood; the run behind the unit keeps its clusters. The file reads as the
// model gives it after a remount, and every cluster is accounted for.
TEST(ReleaseUnitTail, FreesTheTailAndKeepsTheRunsBehind) {
    for (const uint32_t surplus : {3u, 13u, 16u}) {
        const bool written = surplus != 3;
        SCOPED_TRACE(written ? "a unit written whole, less " + std::to_string(surplus) : "a compressed unit");
        const char16_t* path = written ? u"\\sparse\\islands.bin" : u"\\compressed\\text-300k.txt";
        MountedVolume mounted("c4k");
        ASSERT_EQ(mounted.Mount(), 1);
        CNTFSVolume* volume = mounted.Volume();
        const int64_t number = RecordOf(volume, path);
        if (written) {
            void* handle = volume->CreateFileA(path, 0, kOpenExisting, kReadWrite);
            unsigned int low = 8 * kUnit4k;
            ASSERT_EQ(volume->SetFilePointer(handle, &low, nullptr, kFileBegin), ERROR_SUCCESS);
            const std::vector<uint8_t> data = RandomBytes(kUnit4k, 30);
            int done = 0;
            ASSERT_EQ(volume->WriteFile(handle, data.data(), kUnit4k, &done), 1);
            ASSERT_EQ(volume->CloseFileHandle(handle), 1);
        }
        const int64_t unit = written ? 8 : 1;
        const std::vector<uint8_t> before = ReadWhole(volume, path);
        const DataLayout old = Layout(volume, number);
        const int64_t freeBefore = test::AuditClusters(volume).FreeClusters;
        // More than the unit's real clusters: refused, nothing changes.
        EXPECT_EQ(ReleaseTail(volume, path, unit, 17), ERROR_INVALID_PARAMETER);
        EXPECT_TRUE(ReadWhole(volume, path) == before);
        ASSERT_EQ(ReleaseTail(volume, path, unit, surplus), ERROR_SUCCESS);
        EXPECT_EQ(test::AuditClusters(volume).FreeClusters, freeBefore + surplus);
        const DataLayout layout = Layout(volume, number);
        // What is left of the unit, then a hole; every real run outside the
        // unit keeps its clusters.
        bool found = false;
        for (const ModelRun& run : layout.Runs) {
            if (run.Vcn == unit * 16) {
                found = true;
                EXPECT_EQ(run.Length + (run.ZeroDelta ? 0 : static_cast<int64_t>(surplus)), written ? 16 : 7)
                    << Describe(layout);
            }
        }
        EXPECT_TRUE(found) << Describe(layout);
        for (const ModelRun& run : old.Runs) {
            if (run.NoLcnField || run.ZeroDelta || (run.Vcn >= unit * 16 && run.Vcn < unit * 16 + 16)) continue;
            bool kept = false;
            for (const ModelRun& now : layout.Runs) {
                if (!now.NoLcnField && !now.ZeroDelta && now.Vcn <= run.Vcn && run.Vcn < now.Vcn + now.Length) {
                    kept = now.Lcn + (run.Vcn - now.Vcn) == run.Lcn;
                }
            }
            EXPECT_TRUE(kept) << "VCN " << run.Vcn << ": " << Describe(layout);
        }
        volume->Umount();
        MountedVolume again(mounted.Memory().Bytes());
        ASSERT_EQ(again.Mount(), 1);
        const std::vector<uint8_t> content = ReadWhole(again.Volume(), path);
        const DataLayout after = Layout(again.Volume(), number);
        EXPECT_TRUE(content == ModelRead(after, again.Memory().Bytes(), 4096, static_cast<int64_t>(content.size())));
        // The units behind it read as before while the unit keeps a real run
        // (a hole behind it counts from that run's LCN).
        ASSERT_EQ(content.size(), before.size());
        EXPECT_TRUE(surplus == 16 || std::equal(content.begin() + (unit + 1) * kUnit4k, content.end(),
                                                before.begin() + (unit + 1) * kUnit4k));
        ExpectAudited(again.Volume());
    }
}

}  // namespace
}  // namespace ntfs
