// Directory indexes of the fixture volumes, read through CDirectory: every
// name of every directory of the manifests is found by an exact search with
// the record number the manifest gives, in directories that live in their
// root alone and in those with several levels of index records; an in-order
// walk yields each name once and in key order; and the directory objects and
// their open records are shared as the volume promises.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "index/index_test_util.h"
#include "support/mounted_volume.h"

namespace ntfs {
namespace {

using test::DirectoryNames;
using test::FindName;
using test::IndexLess;
using test::MountedVolume;
using test::Narrow;
using test::WalkedName;

class FixtureDirectories : public ::testing::TestWithParam<std::string> {};

// Checks one directory against the manifest; returns the names found.
int CheckDirectory(CNTFSVolume* volume, const std::u16string& path, const DirectoryNames& expected) {
    CDirectory* directory = nullptr;
    const unsigned int code = volume->ReferenceDirectory(expected.record, path.c_str(), &directory);
    EXPECT_EQ(code, ERROR_SUCCESS) << Narrow(path);
    if (code != ERROR_SUCCESS) return 0;
    directory->LockShared();
    int found = 0;
    for (const auto& [name, records] : expected.names) {
        CIndexEntry* entry = nullptr;
        const unsigned int search = FindName(directory, name, &entry);
        EXPECT_EQ(search, ERROR_SUCCESS) << Narrow(path) << "\\" << Narrow(name);
        if (search != ERROR_SUCCESS) continue;
        EXPECT_EQ(entry->GetRecordNumber(), records.front()) << Narrow(name);
        ++found;
    }
    EXPECT_EQ(FindName(directory, u"no such name in here.txt"), ERROR_FILE_NOT_FOUND);

    unsigned int end = ERROR_SUCCESS;
    const std::vector<WalkedName> walked = test::WalkIndex(directory, &end);
    EXPECT_EQ(end, ERROR_FILE_NOT_FOUND);
    for (size_t i = 1; i < walked.size(); ++i) {
        EXPECT_TRUE(IndexLess(walked[i - 1].name, walked[i].name))
            << Narrow(path) << ": " << Narrow(walked[i - 1].name) << " / " << Narrow(walked[i].name);
    }
    std::map<std::u16string, int64_t> seen;
    for (const WalkedName& name : walked) seen[name.name] = name.record;
    for (const auto& [name, records] : expected.names) {
        EXPECT_TRUE(seen.count(name) == 1) << Narrow(path) << ": walk misses " << Narrow(name);
    }
    // The root also lists the system files and itself; every other
    // directory holds exactly the manifest's names.
    if (path != u"\\") {
        EXPECT_EQ(walked.size(), expected.names.size()) << Narrow(path);
    }
    directory->UnlockShared();
    directory->Release();
    return found;
}

TEST_P(FixtureDirectories, EveryNameIsFoundAndWalkedInKeyOrder) {
    const std::string fixture = GetParam();
    const auto directories = test::NamesByDirectory(test::LoadManifest(fixture));
    MountedVolume mounted(fixture);
    ASSERT_EQ(mounted.Mount(), 1);
    int names = 0;
    for (const auto& [path, expected] : directories)
        names += CheckDirectory(mounted.Volume(), path, expected);
    std::printf("%s: %zu directories, %d names found\n", fixture.c_str(), directories.size(), names);
    mounted.Volume()->Umount();
}

INSTANTIATE_TEST_SUITE_P(AllVolumes, FixtureDirectories, ::testing::ValuesIn(test::FixtureNames()));

class LargeDirectory : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(mounted.Mount(), 1);
        ASSERT_EQ(mounted.Volume()->ReferenceDirectory(64, u"\\many", &directory), ERROR_SUCCESS);
    }
    void TearDown() override {
        if (directory != nullptr) directory->Release();
        mounted.Volume()->Umount();
    }
    MountedVolume mounted{"big"};
    CDirectory* directory = nullptr;
};

TEST_F(LargeDirectory, HasSeveralLevelsOfIndexRecordsBelowTheRoot) {
    test::IndexChecker checker(directory);
    ASSERT_EQ(checker.Check(), "");
    EXPECT_EQ(checker.Keys, 3000);
    EXPECT_EQ(checker.Depth, 4);  // the root and three levels of records
    EXPECT_EQ(static_cast<CBitmapData*>(directory)->GetItemCount(), 193);
    EXPECT_EQ(directory->OpenRecords.GetCount(), 193);
}

TEST_F(LargeDirectory, CaseOfAsciiLettersDoesNotMatterToTheSearch) {
    CIndexEntry* exact = nullptr;
    CIndexEntry* shouted = nullptr;
    ASSERT_EQ(FindName(directory, u"file_2999_delta.txt", &exact), ERROR_SUCCESS);
    const int64_t record = exact->GetRecordNumber();
    ASSERT_EQ(FindName(directory, u"FILE_2999_DELTA.TXT", &shouted), ERROR_SUCCESS);
    EXPECT_EQ(shouted->GetRecordNumber(), record);
    EXPECT_EQ(FindName(directory, u"file_2999_delta.tx"), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(FindName(directory, u"file_2999_delta.txt2"), ERROR_FILE_NOT_FOUND);
}

TEST_F(LargeDirectory, PrefixWalkYieldsExactlyTheNamesWithThatPrefix) {
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
}

TEST_F(LargeDirectory, TheSameVcnGivesTheSameOpenRecordWithOneMoreReference) {
    CIndexRoot* root = directory->GetIndexRoot();
    auto* first = static_cast<CIndexEntry*>(root->GetItem(0));
    CBPlusTreeNode* loaded = nullptr;
    ASSERT_EQ(first->GetChildNode(&loaded), ERROR_SUCCESS);
    auto* record = static_cast<CIndexRecord*>(loaded);
    const int references = record->GetReferenceCount();
    // A second entry object over the same bytes has no child yet and finds
    // the open record by its VCN.
    CIndexEntry again(first->GetEntry(), root, nullptr, directory);
    CBPlusTreeNode* found = nullptr;
    ASSERT_EQ(again.GetChildNode(&found), ERROR_SUCCESS);
    EXPECT_EQ(found, loaded);
    EXPECT_EQ(record->GetReferenceCount(), references + 1);
    EXPECT_EQ(record->GetParentItem(), &again);
    EXPECT_EQ(directory->FindOpenRecord(test::FirstSubNodeVcn(directory)), record);
    record->SetParentItem(first);
}

TEST(ReferenceDirectory, SharesOneObjectPerDirectoryAndRefusesFiles) {
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
    EXPECT_EQ(first->GetRecordSize(), 4096);
    // The root directory's index has records; an empty directory lives in
    // its root alone.
    EXPECT_GT(static_cast<CBitmapData*>(first)->GetItemCount(), 0);
    CDirectory* empty = nullptr;
    ASSERT_EQ(volume->ReferenceDirectory(66, u"\\EmptyDir", &empty), ERROR_SUCCESS);
    EXPECT_EQ(static_cast<CBitmapData*>(empty)->GetItemCount(), 0);
    EXPECT_EQ(test::WalkNames(empty).size(), 0u);
    empty->Release();
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

TEST(ReferenceDirectory, LocksTheFileRecordWithTheDirectory) {
    MountedVolume mounted("c4k");
    ASSERT_EQ(mounted.Mount(), 1);
    CDirectory* directory = nullptr;
    ASSERT_EQ(mounted.Volume()->ReferenceDirectory(test::kRootDirectoryRecord, u"\\", &directory),
              ERROR_SUCCESS);
    CFullFileRecord* record = directory->GetFileRecord();
    directory->LockShared();
    EXPECT_EQ(record->GetSharedCount(), 1);
    EXPECT_EQ(directory->GetSharedCount(), 1);
    directory->UnlockShared();
    directory->LockExclusive();
    EXPECT_EQ(record->GetExclusiveCount(), 1);
    EXPECT_EQ(directory->GetExclusiveCount(), 1);
    directory->UnlockExclusive();
    EXPECT_EQ(record->GetExclusiveCount(), 0);
    directory->Release();
    mounted.Volume()->Umount();
}

}  // namespace
}  // namespace ntfs
