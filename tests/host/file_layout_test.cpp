// FileLayout: a file's records as the fixture volumes hold them, and the
// places where the volume's read hands out other bytes than the file holds,
// checked against run lists built by hand and against the bytes the volume
// really delivers.
#include "file_layout.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "support/fixture.h"
#include "support/mounted_volume.h"

namespace ntfs {
namespace {

constexpr int kCluster = 4096;
constexpr uint32_t kCall = 1 << 20;

// A file of one unnamed $DATA piece with the given runs (length, hole).
FileLayout SparseFile(std::vector<std::pair<int64_t, bool>> runs, int64_t size, uint8_t unitExponent = 4,
                      uint16_t flags = 0x8000) {
    FileLayout layout;
    LayoutAttribute data;
    data.Type = 0x80;
    data.NonResident = true;
    data.Flags = flags;
    data.UnitExponent = unitExponent;
    data.DataSize = size;
    data.InitializedSize = size;
    int64_t vcn = 0;
    int64_t lcn = 1000;
    for (const auto& [length, hole] : runs) {
        data.Runs.push_back({vcn, length, hole ? 0 : lcn, hole});
        vcn += length;
        if (!hole) lcn += length + 7;
    }
    data.AllocatedSize = vcn * kCluster;
    data.HighestVcn = vcn - 1;
    layout.Attributes.push_back(data);
    return layout;
}

TEST(FileLayoutTest, DifferencesOfTheReadFromRunLists) {
    // Unit-aligned holes and data: read faithfully.
    EXPECT_TRUE(
        FindReadDifferences(SparseFile({{16, true}, {16, false}, {32, true}}, 64 * kCluster), kCluster, kCall).empty());
    // A hole of 20 clusters entered in its second unit (at cluster 16) ends
    // at cluster 20, inside that unit: the unit 16..31 is read as zeros, and
    // its clusters 20..31 hold data.
    auto differences = FindReadDifferences(SparseFile({{20, true}, {12, false}}, 32 * kCluster), kCluster, kCall);
    ASSERT_EQ(differences.size(), 1u);
    EXPECT_EQ(differences[0].Kind, ReadDifferenceKind::HoleFromEarlierUnit);
    EXPECT_EQ(differences[0].Offset, 20u * kCluster);
    EXPECT_EQ(differences[0].Length, 12u * kCluster);
    // A hole that starts with its unit and ends inside it is read right.
    EXPECT_TRUE(
        FindReadDifferences(SparseFile({{16, true}, {4, true}, {12, false}}, 32 * kCluster), kCluster, kCall).empty());
    // Runs that end inside the last unit: the read fails there.
    differences = FindReadDifferences(SparseFile({{16, true}, {4, false}}, 20 * kCluster), kCluster, kCall);
    ASSERT_EQ(differences.size(), 1u);
    EXPECT_EQ(differences[0].Kind, ReadDifferenceKind::UnitPastLastRun);
    EXPECT_EQ(differences[0].Offset, 16u * kCluster);
    // Plain data is read cluster by cluster: no unit, no difference.
    EXPECT_TRUE(
        FindReadDifferences(SparseFile({{20, true}, {12, false}}, 32 * kCluster, 0, 0), kCluster, kCall).empty());
    // Clusters behind the initialized size.
    FileLayout stale = SparseFile({{16, false}}, 16 * kCluster);
    stale.Attributes[0].InitializedSize = 5000;
    differences = FindReadDifferences(stale, kCluster, kCall);
    ASSERT_EQ(differences.size(), 1u);
    EXPECT_EQ(differences[0].Kind, ReadDifferenceKind::BeyondInitializedSize);
    EXPECT_EQ(differences[0].Offset, 5000u);
}

// The answer agrees with what the volume delivers: every file of every
// fixture is read through the volume and compared with its manifest, and a
// file differs exactly when FindReadDifferences names a place where it does.
TEST(FileLayoutTest, DifferencesMatchTheVolumesReadOnEveryFixture) {
    int differing = 0;
    for (const std::string& name : test::FixtureNames()) {
        if (name == "big") continue;  // all resident
        test::MountedVolume mounted(name);
        ASSERT_EQ(mounted.Mount(), 1) << name;
        CNTFSVolume* volume = mounted.Volume();
        for (const test::ManifestEntry& entry : test::LoadManifest(name)) {
            if (entry.is_dir) continue;
            FileLayout layout;
            ASSERT_EQ(LoadFileLayout(volume, &mounted.Memory(), entry.record, &layout), ERROR_SUCCESS)
                << entry.path_utf8;
            void* file = volume->CreateFileA(entry.path.c_str(), 0, kOpenExisting, kAccessRead | kAccessShareMask);
            ASSERT_NE(file, nullptr) << name << " " << entry.path_utf8;
            std::vector<char> content;
            std::vector<char> buffer(kCall);
            bool failed = false;
            for (;;) {
                int done = 0;
                failed = !volume->ReadFile(file, buffer.data(), static_cast<int>(kCall), &done);
                content.insert(content.end(), buffer.begin(), buffer.begin() + done);
                if (failed || done == 0) break;
            }
            volume->CloseFileHandle(file);
            const bool same = !failed && test::Sha256Hex(content.data(), content.size()) == entry.sha256;
            // Clusters behind the initialized size differ only where they
            // do not hold zeros, which shows in the bytes delivered.
            bool predicted = false;
            for (const ReadDifference& difference : FindReadDifferences(layout, volume->GetClusterSize(), kCall)) {
                predicted = predicted || difference.Kind != ReadDifferenceKind::BeyondInitializedSize ||
                            std::any_of(content.begin() + static_cast<long>(difference.Offset), content.end(),
                                        [](char c) { return c != 0; });
            }
            EXPECT_EQ(same, !predicted) << name << " " << entry.path_utf8;
            if (!same) ++differing;
        }
        EXPECT_EQ(volume->Umount(), 1);
    }
    // c4k and c8k: data-at-end.bin, mid-write.bin; c64k also islands.bin.
    EXPECT_EQ(differing, 7);
}

TEST(FileLayoutTest, NamesExtensionsAndSizesOfAFixtureFile) {
    test::MountedVolume mounted("c4k");
    ASSERT_EQ(mounted.Mount(), 1);
    FileLayout layout;
    // \links\original.txt: three names, two of them in extension record 99.
    ASSERT_EQ(LoadFileLayout(mounted.Volume(), &mounted.Memory(), 98, &layout), ERROR_SUCCESS);
    EXPECT_EQ(layout.LinkCount, 3);
    ASSERT_EQ(layout.Names.size(), 3u);
    EXPECT_EQ(layout.Extensions, std::vector<int64_t>{99});
    std::vector<std::u16string> names;
    for (const LayoutName& name : layout.Names) names.push_back(name.Name);
    EXPECT_NE(std::find(names.begin(), names.end(), u"original.txt"), names.end());
    EXPECT_NE(std::find(names.begin(), names.end(), u"cross-dir-link.txt"), names.end());
    ASSERT_EQ(layout.DataPieces().size(), 1u);
    EXPECT_EQ(layout.DataPieces()[0]->ValueLength, 500u);
    // Not a FILE record image: refused, not guessed at.
    EXPECT_EQ(LoadFileLayout(mounted.Volume(), &mounted.Memory(), int64_t{1} << 40, &layout) == ERROR_SUCCESS, false);
    EXPECT_EQ(mounted.Volume()->Umount(), 1);
}

}  // namespace
}  // namespace ntfs
