// Reading attribute values of real volumes: every file of every fixture read
// through its full record equals the manifest, in one piece and in chunks of
// odd sizes, across run, piece and extension record borders, sparse holes and
// compressed units included. Also the read path's documented quirks.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "foundation/endian.h"
#include "foundation/log.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "record/run_list.h"
#include "support/fixture.h"
#include "support/mounted_volume.h"
#include "support/tools.h"

namespace ntfs {
namespace {

using test::LoadManifest;
using test::ManifestEntry;
using test::MountedVolume;

// Reads the unnamed $DATA of `record`, bounded by its data size, in chunks of
// `chunk` bytes. Returns the bytes, or fails the test.
std::vector<uint8_t> ReadData(CFullFileRecord* record, uint32_t chunk) {
    const int64_t size = record->GetAttributeDataSize(AttributeData, nullptr, 0);
    std::vector<uint8_t> data(static_cast<size_t>(size));
    for (int64_t at = 0; at < size;) {
        const uint32_t want = static_cast<uint32_t>(std::min<int64_t>(chunk, size - at));
        int64_t offset = at;
        uint32_t read = 0;
        const unsigned int code =
            record->ReadAttribute(AttributeData, nullptr, 0, &offset, want, data.data() + at, &read);
        EXPECT_EQ(code, ERROR_SUCCESS) << "at " << at;
        EXPECT_EQ(read, want) << "at " << at;
        if (code != ERROR_SUCCESS || read != want) break;
        at += read;
    }
    return data;
}

struct Totals {
    int files = 0;
    int64_t bytes = 0;
    int mismatches = 0;
};

TEST(AttributeRead, EveryManifestFileMatches) {
    std::map<std::string, Totals> perFixture;
    for (const std::string& name : test::FixtureNames()) {
        SCOPED_TRACE(name);
        MountedVolume mounted(name);
        ASSERT_EQ(mounted.Mount(), 1);
        Totals& totals = perFixture[name];
        for (const ManifestEntry& entry : LoadManifest(name)) {
            if (entry.is_dir) continue;
            SCOPED_TRACE(entry.path_utf8);
            CFullFileRecord* record = nullptr;
            ASSERT_EQ(mounted.Volume()->ReferenceFileRecord(entry.record, &record), ERROR_SUCCESS);
            record->LockShared();
            EXPECT_EQ(record->GetAttributeDataSize(AttributeData, nullptr, 0), static_cast<int64_t>(entry.size));
            const std::vector<uint8_t> whole = ReadData(record, 1u << 30);
            if (entry.sparse) {
                // Checked against the documented hole over-fill below.
                record->UnlockShared();
                record->Release();
                continue;
            }
            const bool same = test::Sha256Hex(whole.data(), whole.size()) == entry.sha256;
            EXPECT_TRUE(same);
            totals.files += 1;
            totals.bytes += static_cast<int64_t>(whole.size());
            totals.mismatches += same ? 0 : 1;
            if (entry.size > 0 && entry.size < (8u << 20)) {
                // Odd chunks cross cluster, run and compression unit borders.
                const std::vector<uint8_t> chunked = ReadData(record, 4093);
                EXPECT_TRUE(chunked == whole);
            }
            record->UnlockShared();
            record->Release();
        }
    }
    for (const auto& [name, totals] : perFixture) {
        std::printf("read %s: files %d, bytes %lld, mismatches %d\n", name.c_str(), totals.files,
                    static_cast<long long>(totals.bytes), totals.mismatches);
    }
}

// Clusters that a unit-aligned read delivers as zeros although the run list
// maps data there: when a pass of one compression unit enters a hole that
// began in an earlier unit, it zero-fills the hole's whole length (up to the
// unit), not just what is left of it.
std::vector<std::pair<int64_t, int64_t>> OverFilledClusters(CAttribute* data, int64_t unitClusters) {
    std::vector<std::pair<int64_t, int64_t>> ranges;
    const int start = ReadU16(data->Header, 32);
    int64_t vcn = 0;
    for (int position = start;;) {
        _DATA_RUN run{};
        if (DecodeDataRun(data->Header, position, data->Size, &run) != 1) break;
        if (run.OffsetBytes == 0) {
            const int64_t holeEnd = vcn + run.Length;
            for (int64_t unit = (vcn / unitClusters + 1) * unitClusters; unit < holeEnd; unit += unitClusters) {
                const int64_t filledTo = unit + std::min(run.Length, unitClusters);
                if (filledTo > holeEnd) ranges.push_back({holeEnd, filledTo});
            }
        }
        vcn += run.Length;
        position += run.Bytes;
    }
    return ranges;
}

TEST(AttributeRead, SparseFilesReadAsIndependentReaderSaysExceptOverFill) {
    int checked = 0;
    int overFilled = 0;
    for (const std::string& name : test::FixtureNames()) {
        MountedVolume mounted(name);
        ASSERT_EQ(mounted.Mount(), 1);
        const int clusterSize = mounted.Volume()->GetClusterSize();
        for (const ManifestEntry& entry : LoadManifest(name)) {
            if (!entry.sparse || entry.compressed) continue;
            SCOPED_TRACE(name + " " + entry.path_utf8);
            const test::ToolResult cat = test::RunTool("ntfscat -i " + std::to_string(entry.record) + " " +
                                                       test::ShellQuote(test::FixturePath(name)) + " 2>/dev/null");
            ASSERT_EQ(cat.status, 0);
            std::vector<uint8_t> expected(cat.output.begin(), cat.output.end());
            ASSERT_EQ(test::Sha256Hex(expected.data(), expected.size()), entry.sha256);
            CFullFileRecord* record = nullptr;
            ASSERT_EQ(mounted.Volume()->ReferenceFileRecord(entry.record, &record), ERROR_SUCCESS);
            CAttribute* data = record->FindAttribute(AttributeData, nullptr, 0, 0);
            ASSERT_NE(data, nullptr);
            const int64_t unitClusters = int64_t{1} << ReadU8(data->Header, 34);
            for (const auto& [from, to] : OverFilledClusters(data, unitClusters)) {
                const int64_t begin = std::min<int64_t>(from * clusterSize, expected.size());
                const int64_t end = std::min<int64_t>(to * clusterSize, expected.size());
                std::fill(expected.begin() + begin, expected.begin() + end, 0);
                ++overFilled;
            }
            EXPECT_TRUE(ReadData(record, 1u << 30) == expected);
            EXPECT_TRUE(ReadData(record, 12289) == expected);
            record->Release();
            ++checked;
        }
    }
    EXPECT_GT(checked, 10);
    EXPECT_GT(overFilled, 0);
}

TEST(AttributeRead, QuirksOfTheReadPath) {
    MountedVolume mounted("c4k");
    ASSERT_EQ(mounted.Mount(), 1);
    CNTFSVolume* volume = mounted.Volume();
    std::vector<ManifestEntry> manifest = LoadManifest("c4k");
    const ManifestEntry* resident = nullptr;
    const ManifestEntry* plain = nullptr;
    const ManifestEntry* compressed = nullptr;
    for (const ManifestEntry& entry : manifest) {
        if (entry.is_dir) continue;
        if (entry.size > 0 && entry.size < 200 && !entry.compressed && !resident) resident = &entry;
        if (entry.size > 100000 && !entry.compressed && !entry.sparse && !plain) plain = &entry;
        if (entry.compressed && entry.size > 70000 && !compressed) compressed = &entry;
    }
    ASSERT_TRUE(resident && plain && compressed);
    uint8_t buffer[16];
    uint32_t read = 99;

    CFullFileRecord* record = nullptr;
    ASSERT_EQ(volume->ReferenceFileRecord(resident->record, &record), ERROR_SUCCESS);
    int64_t offset = 0;
    EXPECT_EQ(record->ReadAttribute(AttributeData, nullptr, 0, &offset, 0, buffer, &read), ERROR_SUCCESS);
    EXPECT_EQ(read, 0u);
    offset = static_cast<int64_t>(resident->size);  // at the end: nothing, no failure
    EXPECT_EQ(record->ReadAttribute(AttributeData, nullptr, 0, &offset, 4, buffer, &read), ERROR_SUCCESS);
    EXPECT_EQ(read, 0u);
    offset += 1;
    EXPECT_EQ(record->ReadAttribute(AttributeData, nullptr, 0, &offset, 4, buffer, &read), ERROR_BEYOND_END_OF_VALUE);
    EXPECT_EQ(record->ReadAttribute(AttributeIndexRoot, nullptr, 0, &offset, 4, buffer, &read), ERROR_FILE_CORRUPT);
    record->Release();

    // A count of 0 answers the flags word: 0 for plain data, the compression
    // flags for a compressed attribute.
    ASSERT_EQ(volume->ReferenceFileRecord(plain->record, &record), ERROR_SUCCESS);
    offset = 0;
    EXPECT_EQ(record->ReadAttribute(AttributeData, nullptr, 0, &offset, 0, buffer, &read), 0u);
    // Reading one cluster beyond the allocation fails with the bytes before it counted.
    const int64_t allocated = (static_cast<int64_t>(plain->size) + 4095) / 4096 * 4096;
    std::vector<uint8_t> tail(8192);
    offset = allocated - 4096;
    EXPECT_EQ(record->ReadAttribute(AttributeData, nullptr, 0, &offset, 8192, tail.data(), &read), ERROR_FILE_CORRUPT);
    EXPECT_EQ(read, 4096u);
    record->Release();

    ASSERT_EQ(volume->ReferenceFileRecord(compressed->record, &record), ERROR_SUCCESS);
    offset = 0;
    EXPECT_NE(record->ReadAttribute(AttributeData, nullptr, 0, &offset, 0, buffer, &read), 0u);
    record->Release();
}

TEST(AttributeRead, CachedRecordNeedsNoDeviceRead) {
    MountedVolume mounted("c4k");
    ASSERT_EQ(mounted.Mount(), 1);
    CNTFSVolume* volume = mounted.Volume();
    CFullFileRecord* first = nullptr;
    ASSERT_EQ(volume->ReferenceFileRecord(11, &first), ERROR_SUCCESS);
    CFullFileRecord* again = nullptr;
    ASSERT_EQ(volume->ReferenceFileRecord(11, &again), ERROR_SUCCESS);
    EXPECT_EQ(first, again);
    EXPECT_EQ(first->GetReferenceCount(), 2);
    again->Release();
    first->Release();
    const int reads = mounted.Faults().Reads();
    ASSERT_EQ(volume->ReferenceFileRecord(11, &again), ERROR_SUCCESS);
    EXPECT_EQ(again, first);
    EXPECT_EQ(mounted.Faults().Reads(), reads);
    again->Release();
    // Ten more retirements push record 11 out; the next reference reads again.
    for (int64_t number = 12; number < 23; ++number) {
        CFullFileRecord* other = nullptr;
        ASSERT_EQ(volume->ReferenceFileRecord(number + 20, &other), ERROR_SUCCESS);
        other->Release();
    }
    const int before = mounted.Faults().Reads();
    ASSERT_EQ(volume->ReferenceFileRecord(11, &again), ERROR_SUCCESS);
    EXPECT_GT(mounted.Faults().Reads(), before);
    again->Release();
}

}  // namespace
}  // namespace ntfs
