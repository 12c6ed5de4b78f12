// Directory indexes of the fixture volumes, read through CDirectory: every
// name of every directory of the manifests is found by an exact search with
// the record number the manifest gives, and an in-order walk yields each name
// once and in key order; the three levels of \many of "big" hold together,
// ASCII case does not matter to its search and a prefix walk gives exactly
// the names with that prefix; the volume shares one object per directory.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "index/index_test_util.h"
#include "support/mounted_volume.h"

namespace ntfs {
namespace {

using test::FindName;
using test::IndexLess;
using test::MountedVolume;
using test::Narrow;

class FixtureDirectory : public ::testing::TestWithParam<std::string> {};

TEST_P(FixtureDirectory, EveryNameIsFoundAndWalkedInKeyOrder) {
    const std::string fixture = GetParam();
    const auto directories = test::NamesByDirectory(test::LoadManifest(fixture));
    MountedVolume mounted(fixture);
    ASSERT_EQ(mounted.Mount(), 1);
    size_t names = 0;
    for (const auto& [path, expected] : directories) {
        CDirectory* directory = nullptr;
        ASSERT_EQ(mounted.Volume()->ReferenceDirectory(expected.record, path.c_str(), &directory), ERROR_SUCCESS)
            << Narrow(path);
        directory->LockShared();
        for (const auto& [name, records] : expected.names) {
            CIndexEntry* entry = nullptr;
            ASSERT_EQ(FindName(directory, name, &entry), ERROR_SUCCESS) << Narrow(path) << "\\" << Narrow(name);
            EXPECT_EQ(entry->GetRecordNumber(), records.front()) << Narrow(name);
        }
        EXPECT_EQ(FindName(directory, u"no such name in here.txt"), ERROR_FILE_NOT_FOUND);

        // Each name once and in key order; the root also lists the system
        // files and itself.
        unsigned int end = ERROR_SUCCESS;
        const std::vector<test::WalkedName> walked = test::WalkIndex(directory, &end);
        EXPECT_EQ(end, ERROR_FILE_NOT_FOUND);
        size_t listed = 0;
        for (size_t i = 0; i < walked.size(); ++i) {
            EXPECT_TRUE(i == 0 || IndexLess(walked[i - 1].name, walked[i].name))
                << Narrow(path) << ": " << Narrow(walked[i - 1].name) << " / " << Narrow(walked[i].name);
            listed += expected.names.count(walked[i].name);
        }
        EXPECT_EQ(listed, expected.names.size()) << Narrow(path);
        EXPECT_TRUE(path == u"\\" || walked.size() == listed) << Narrow(path);
        names += expected.names.size();
        directory->UnlockShared();
        directory->Release();
    }
    std::printf("%s: %zu directories, %zu names found\n", fixture.c_str(), directories.size(), names);
    mounted.Volume()->Umount();
}

INSTANTIATE_TEST_SUITE_P(AllVolumes, FixtureDirectory, ::testing::ValuesIn(test::FixtureNames()));

TEST(LargeDirectory, ThreeLevelsFoldedSearchAndPrefixWalk) {
    MountedVolume mounted("big");
    ASSERT_EQ(mounted.Mount(), 1);
    CDirectory* directory = nullptr;
    ASSERT_EQ(mounted.Volume()->ReferenceDirectory(64, u"\\many", &directory), ERROR_SUCCESS);
    test::TreeShape shape;
    EXPECT_EQ(test::CheckIndex(directory, &shape), "");
    EXPECT_EQ(shape.Keys, 3000);
    EXPECT_EQ(shape.Depth, 4);  // the root and three levels of records
    EXPECT_EQ(static_cast<CBitmapData*>(directory)->GetItemCount(), 193);

    CIndexEntry* exact = nullptr;
    CIndexEntry* shouted = nullptr;
    ASSERT_EQ(FindName(directory, u"file_2999_delta.txt", &exact), ERROR_SUCCESS);
    const int64_t record = exact->GetRecordNumber();
    ASSERT_EQ(FindName(directory, u"FILE_2999_DELTA.TXT", &shouted), ERROR_SUCCESS);
    EXPECT_EQ(shouted->GetRecordNumber(), record);
    EXPECT_EQ(FindName(directory, u"file_2999_delta.tx"), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(FindName(directory, u"file_2999_delta.txt2"), ERROR_FILE_NOT_FOUND);

    unsigned int end = 0;
    const auto walked = test::WalkIndex(directory, &end, u"FILE_12");
    EXPECT_EQ(end, ERROR_FILE_NOT_FOUND);
    std::vector<std::u16string> expected;
    auto directories = test::NamesByDirectory(test::LoadManifest("big"));
    for (const auto& [name, records] : directories[u"\\many"].names) {
        if (test::Folded(name).rfind(u"FILE_12", 0) == 0) expected.push_back(name);
    }
    std::sort(expected.begin(), expected.end(), IndexLess);
    ASSERT_EQ(walked.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) EXPECT_TRUE(walked[i].name == expected[i]) << i;
    directory->Release();
    mounted.Volume()->Umount();
}

TEST(ReferenceDirectory, SharesOneObjectPerDirectoryLocksItsRecordAndRefusesFiles) {
    MountedVolume mounted("c4k");
    ASSERT_EQ(mounted.Mount(), 1);
    CNTFSVolume* volume = mounted.Volume();
    CDirectory* first = nullptr;
    CDirectory* second = nullptr;
    ASSERT_EQ(volume->ReferenceDirectory(test::kRootDirectoryRecord, u"\\", &first), ERROR_SUCCESS);
    ASSERT_EQ(volume->ReferenceDirectory(test::kRootDirectoryRecord, u"\\", &second), ERROR_SUCCESS);
    EXPECT_EQ(first, second);
    EXPECT_EQ(first->GetReferenceCount(), 2);
    EXPECT_TRUE(std::u16string(first->GetPath()) == u"\\");
    // The directory's locks are its file record's.
    first->LockShared();
    EXPECT_EQ(first->GetFileRecord()->GetSharedCount(), 1);
    first->UnlockShared();
    first->LockExclusive();
    EXPECT_EQ(first->GetFileRecord()->GetExclusiveCount(), 1);
    first->UnlockExclusive();
    second->Release();
    first->Release();
    // Released, it waits in the recover box and comes back as it was.
    ASSERT_EQ(volume->ReferenceDirectory(test::kRootDirectoryRecord, u"\\", &second), ERROR_SUCCESS);
    EXPECT_EQ(second, first);
    second->Release();

    CDirectory* file = nullptr;
    EXPECT_EQ(volume->ReferenceDirectory(65, u"\\Empty.dat", &file), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(file, nullptr);
    volume->Umount();
}

}  // namespace
}  // namespace ntfs
