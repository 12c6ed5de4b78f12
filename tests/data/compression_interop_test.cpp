// Streams made by our compressor are read by an independent reader: one
// compression unit of a file that ntfs-3g compressed is replaced by our
// stream for new data (same stored cluster count, so the run list keeps the
// rest of the unit as a hole), and ntfscat must deliver the new plain data.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "data/compression.h"
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

using test::ManifestEntry;
using test::MountedVolume;

std::vector<uint8_t> Compress(const std::vector<uint8_t>& plain, uint16_t engine) {
    uint32_t workspaceBytes = 0;
    uint32_t fragment = 0;
    EXPECT_EQ(QueryCompressionWorkspace(engine, &workspaceBytes, &fragment), ERROR_SUCCESS);
    std::vector<uint64_t> workspace(workspaceBytes / sizeof(uint64_t) + 1);
    std::vector<uint8_t> stream(plain.size() + 4096);
    uint32_t size = 0;
    EXPECT_EQ(CompressBuffer(engine, plain.data(), static_cast<uint32_t>(plain.size()), stream.data(),
                             static_cast<int32_t>(stream.size()), 4096, &size, workspace.data()),
              ERROR_SUCCESS);
    stream.resize(size);
    return stream;
}

TEST(CompressionInterop, NtfscatReadsOurStreams) {
    const std::string name = "c4k";
    const ManifestEntry* target = nullptr;
    const std::vector<ManifestEntry> manifest = test::LoadManifest(name);
    for (const ManifestEntry& entry : manifest) {
        if (entry.path_utf8 == "\\compressed\\text-300k.txt") target = &entry;
    }
    ASSERT_NE(target, nullptr);
    for (uint16_t engine : {uint16_t{0}, uint16_t{256}}) {
        SCOPED_TRACE(engine);
        MountedVolume mounted(name);
        ASSERT_EQ(mounted.Mount(), 1);
        CNTFSVolume* volume = mounted.Volume();
        const int clusterSize = volume->GetClusterSize();
        CFullFileRecord* record = nullptr;
        ASSERT_EQ(volume->ReferenceFileRecord(target->record, &record), ERROR_SUCCESS);
        CAttribute* data = record->FindAttribute(AttributeData, nullptr, 0, 0);
        ASSERT_NE(data, nullptr);
        const uint32_t unitBytes = (1u << ReadU8(data->Header, kNonResidentCompressionUnitOffset)) * clusterSize;
        // Unit 0 is stored as a real run shorter than the unit, then a hole.
        _DATA_RUN first{};
        ASSERT_EQ(
            DecodeDataRun(data->Header, ReadU16(data->Header, kNonResidentRunListOffsetOffset), data->Size, &first), 1);
        ASSERT_GT(first.OffsetBytes, 0);
        ASSERT_LT(first.Length * clusterSize, unitBytes);
        const int64_t lcn = first.Offset;
        const int64_t stored = first.Length * clusterSize;

        std::vector<uint8_t> plain(unitBytes);
        int64_t offset = 0;
        uint32_t read = 0;
        ASSERT_EQ(record->ReadAttribute(AttributeData, nullptr, 0, &offset, unitBytes, plain.data(), &read),
                  ERROR_SUCCESS);
        record->Release();

        // New text whose stream fits the unit's stored clusters, with room for
        // the zero header that ends it.
        std::vector<uint8_t> changed;
        std::vector<uint8_t> stream;
        for (int step = 4096; step >= 64 && stream.empty(); step /= 2) {
            changed = plain;
            for (size_t i = 0; i < changed.size(); i += static_cast<size_t>(step)) {
                if (changed[i] >= 'a' && changed[i] <= 'z') changed[i] = static_cast<uint8_t>(changed[i] - 32);
            }
            std::vector<uint8_t> candidate = Compress(changed, engine);
            if (candidate.size() + 2 <= static_cast<size_t>(stored)) {
                stream = candidate;
            }
        }
        ASSERT_FALSE(stream.empty());
        std::vector<uint8_t>& image = mounted.Memory().Bytes();
        uint8_t* place = image.data() + lcn * clusterSize;
        std::memset(place, 0, static_cast<size_t>(stored));
        std::memcpy(place, stream.data(), stream.size());

        const std::string path = "/tmp/ntfskit-interop-" + std::to_string(engine) + ".img";
        ASSERT_EQ(mounted.Memory().SaveFile(path), ERROR_SUCCESS);
        const test::ToolResult cat =
            test::RunTool("ntfscat -i " + std::to_string(target->record) + " " + path + " 2>/dev/null");
        std::remove(path.c_str());
        ASSERT_EQ(cat.status, 0);
        ASSERT_GE(cat.output.size(), changed.size());
        EXPECT_TRUE(std::memcmp(cat.output.data(), changed.data(), changed.size()) == 0);
    }
}

}  // namespace
}  // namespace ntfs
