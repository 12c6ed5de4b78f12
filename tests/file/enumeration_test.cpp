// Enumeration on real volumes: every directory of every fixture listed
// through FindFirstFileA/FindNextFileA gives exactly the manifest's names,
// with sizes and record numbers; patterns; the hiding of records 0 to 11;
// handles that are not handles.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "foundation/log.h"
#include "index/directory.h"
#include "index/index_test_util.h"
#include "support/fixture.h"
#include "support/mounted_volume.h"

namespace ntfs {
namespace {

using test::LoadManifest;
using test::ManifestEntry;
using test::MountedVolume;

struct Listed {
    std::u16string name;
    int64_t record;
    uint64_t size;
    uint32_t attributes;
};

std::u16string ParentOf(const std::u16string& path) {
    const size_t slash = path.rfind(u'\\');
    return slash == 0 ? u"" : path.substr(0, slash);
}

std::u16string LeafOf(const std::u16string& path) {
    return path.substr(path.rfind(u'\\') + 1);
}

// Lists `pattern` (a full path with a pattern as its last component).
std::vector<Listed> List(CNTFSVolume* volume, const std::u16string& pattern, unsigned int* lastError) {
    std::vector<Listed> listed;
    _FIND_FILE_DATA data{};
    void* find = volume->FindFirstFileA(pattern.c_str(), &data);
    if (find == nullptr) {
        *lastError = volume->GetLastError();
        return listed;
    }
    do {
        listed.push_back({data.FileName, data.FileRecordNumber,
                          (static_cast<uint64_t>(data.FileSizeHigh) << 32) | data.FileSizeLow, data.FileAttributes});
    } while (volume->FindNextFileA(find, &data));
    *lastError = volume->GetLastError();
    EXPECT_EQ(volume->CloseFindHandle(find), 1);
    return listed;
}

TEST(Enumeration, EveryDirectoryListsTheManifestNames) {
    for (const std::string& name : test::FixtureNames()) {
        SCOPED_TRACE(name);
        MountedVolume mounted(name);
        ASSERT_EQ(mounted.Mount(), 1);
        std::map<std::u16string, std::vector<const ManifestEntry*>> children;
        const std::vector<ManifestEntry> manifest = LoadManifest(name);
        children[u""];
        for (const ManifestEntry& entry : manifest) {
            children[ParentOf(entry.path)].push_back(&entry);
            if (entry.is_dir) children[entry.path];
        }
        int directories = 0;
        int names = 0;
        for (const auto& [directory, expected] : children) {
            SCOPED_TRACE(std::string(directory.begin(), directory.end()));
            unsigned int lastError = 0;
            const std::vector<Listed> listed = List(mounted.Volume(), directory + u"\\*", &lastError);
            if (expected.empty()) {
                EXPECT_TRUE(listed.empty());
                continue;
            }
            EXPECT_EQ(lastError, ERROR_FILE_NOT_FOUND);
            // Each file's entry is delivered; its FileName is the file's last
            // name in this directory, so two hard links in one directory both
            // show that name. Names are compared for files with one name here.
            std::map<int64_t, int> namesHere;
            for (const ManifestEntry* entry : expected) ++namesHere[entry->record];
            std::multiset<int64_t> gotRecords;
            std::multiset<std::u16string> got;
            for (const Listed& item : listed) {
                gotRecords.insert(item.record);
                if (namesHere[item.record] == 1) got.insert(item.name);
            }
            std::multiset<int64_t> wantRecords;
            std::multiset<std::u16string> want;
            for (const ManifestEntry* entry : expected) {
                wantRecords.insert(entry->record);
                if (namesHere[entry->record] == 1) want.insert(LeafOf(entry->path));
            }
            EXPECT_TRUE(gotRecords == wantRecords) << "listed " << listed.size() << ", expected " << expected.size();
            EXPECT_TRUE(got == want);
            for (const Listed& item : listed) {
                const auto match = std::find_if(expected.begin(), expected.end(), [&](const ManifestEntry* entry) {
                    return LeafOf(entry->path) == item.name;
                });
                if (match == expected.end()) continue;
                EXPECT_EQ(item.record, (*match)->record);
                EXPECT_EQ((item.attributes & kFileAttributeDirectory) != 0, (*match)->is_dir);
                if (!(*match)->is_dir && (*match)->links == 1) {
                    EXPECT_EQ(item.size, (*match)->size);
                }
            }
            ++directories;
            names += static_cast<int>(listed.size());
        }
        std::printf("list %s: directories %d, names %d\n", name.c_str(), directories, names);
    }
}

// A file with two names in one directory lists under one of them, whole: the
// copy of a later, shorter name does not keep the tail of an earlier one.
TEST(Enumeration, EachNameOfAFileWithTwoInOneDirectoryIsCopiedWhole) {
    for (const std::string& name : test::FixtureNames()) {
        if (name == "big") continue;
        SCOPED_TRACE(name);
        MountedVolume mounted(name);
        ASSERT_EQ(mounted.Mount(), 1);
        unsigned int lastError = 0;
        int linked = 0;
        for (const Listed& item : List(mounted.Volume(), u"\\links\\*", &lastError)) {
            if (item.record != 98) continue;
            ++linked;
            EXPECT_TRUE(item.name == u"original.txt" || item.name == u"same-dir-link.txt") << test::Narrow(item.name);
        }
        EXPECT_EQ(linked, 2);
    }
}

TEST(Enumeration, Patterns) {
    MountedVolume mounted("c4k");
    ASSERT_EQ(mounted.Mount(), 1);
    CNTFSVolume* volume = mounted.Volume();
    unsigned int lastError = 0;
    auto names = [&](const std::u16string& pattern) {
        std::set<std::u16string> out;
        for (const Listed& item : List(volume, pattern, &lastError)) out.insert(item.name);
        return out;
    };
    const std::set<std::u16string> all = names(u"\\data\\*");
    EXPECT_EQ(all.size(), 7u);
    // Behind '*' nothing counts.
    EXPECT_EQ(names(u"\\data\\*.TXT"), all);
    EXPECT_EQ(names(u"\\data\\L*"), (std::set<std::u16string>{u"Large Text File.log", u"large-random.bin"}));
    // '?' stands for one unit; a match is a prefix match.
    EXPECT_EQ(names(u"\\data\\ONE-?YTE"), (std::set<std::u16string>{u"one-byte.bin"}));
    EXPECT_EQ(names(u"\\data\\?XACT-CLUSTER.BIN"), (std::set<std::u16string>{u"exact-cluster.bin"}));
    // Exact names fold ASCII case only.
    EXPECT_EQ(names(u"\\DATA\\ONE-BYTE.BIN"), (std::set<std::u16string>{u"one-byte.bin"}));
    EXPECT_TRUE(names(u"\\data\\one-byte.binX").empty());
    EXPECT_EQ(lastError, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(names(u"\\unicode\\gr\u00fc\u00dfe.txt"), (std::set<std::u16string>{u"Gr\u00fc\u00dfe.txt"}));
    EXPECT_TRUE(names(u"\\unicode\\GR\u00dc\u00dfE.TXT").empty());
}

TEST(Enumeration, SystemRecordsAreHiddenAndPathsChecked) {
    MountedVolume mounted("c1k");
    ASSERT_EQ(mounted.Mount(), 1);
    CNTFSVolume* volume = mounted.Volume();
    _FIND_FILE_DATA data{};
    EXPECT_EQ(volume->FindFirstFileA(u"\\$MFT", &data), nullptr);
    EXPECT_EQ(volume->GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(volume->FindFirstFileA(u"\\", &data), nullptr);
    EXPECT_EQ(volume->GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(volume->FindFirstFileA(u"data", &data), nullptr);
    EXPECT_EQ(volume->GetLastError(), ERROR_INVALID_PARAMETER);
    // A file in the middle of a path is not a directory.
    EXPECT_EQ(volume->FindFirstFileA(u"\\readme.txt\\x", &data), nullptr);
    EXPECT_EQ(volume->GetLastError(), ERROR_FILE_NOT_FOUND);
    for (const Listed& item : [&] {
             unsigned int lastError = 0;
             return List(volume, u"\\*", &lastError);
         }()) {
        EXPECT_GE(item.record, 12) << std::string(item.name.begin(), item.name.end());
    }
    // Names that are not handles give 6 and no fault.
    int local = 0;
    EXPECT_EQ(volume->FindNextFileA(&local, &data), 0);
    EXPECT_EQ(volume->GetLastError(), ERROR_INVALID_HANDLE);
    void* find = volume->FindFirstFileA(u"\\data\\*", &data);
    ASSERT_NE(find, nullptr);
    EXPECT_EQ(volume->CloseFindHandle(find), 1);
    EXPECT_EQ(volume->CloseFindHandle(find), 0);
    EXPECT_EQ(volume->GetLastError(), ERROR_INVALID_HANDLE);
    int read = 0;
    char buffer[4];
    find = volume->FindFirstFileA(u"\\data\\*", &data);
    EXPECT_EQ(volume->ReadFile(find, buffer, 4, &read), 0);  // a find handle is no file handle
    EXPECT_EQ(volume->GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_EQ(volume->CloseFindHandle(find), 1);
}

TEST(Enumeration, LongAndNonAsciiNamesComeBackWhole) {
    MountedVolume mounted("c512");
    ASSERT_EQ(mounted.Mount(), 1);
    unsigned int lastError = 0;
    std::set<std::u16string> names;
    for (const Listed& item : List(mounted.Volume(), u"\\long\\*", &lastError)) names.insert(item.name);
    bool found255 = false;
    for (const std::u16string& name : names) found255 |= name.size() == 255;
    EXPECT_TRUE(found255);
    names.clear();
    for (const Listed& item : List(mounted.Volume(), u"\\unicode\\*", &lastError)) names.insert(item.name);
    EXPECT_EQ(names.count(u"emoji-\U0001F600-smile.txt"), 1u);
    EXPECT_EQ(names.count(u"\u65e5\u672c\u8a9e.txt"), 1u);
}

TEST(Enumeration, ContinuesAfterTheDirectoryChanged) {
    MountedVolume mounted("c4k");
    ASSERT_EQ(mounted.Mount(), 1);
    CNTFSVolume* volume = mounted.Volume();
    _FIND_FILE_DATA data{};
    void* find = volume->FindFirstFileA(u"\\data\\*", &data);
    ASSERT_NE(find, nullptr);
    std::vector<int64_t> seen{data.FileRecordNumber};
    ASSERT_EQ(volume->FindNextFileA(find, &data), 1);
    seen.push_back(data.FileRecordNumber);
    // A change lands between two steps: one name before the cursor, one
    // after; both entries lead to the record of small-600.bin (84).
    CDirectory* directory = nullptr;
    ASSERT_EQ(volume->ReferenceDirectory(78, u"\\data", &directory), ERROR_SUCCESS);
    directory->LockExclusive();
    for (const char16_t* name : {u"aaa-first.bin", u"zzz-last.bin"}) {
        directory->ModifiedRecords.Clear();
        directory->AbateRecords.Clear();
        directory->NewRecords.Clear();
        CIndexEntry* entry = test::MakeEntry(name, 84);
        EXPECT_EQ(directory->InsertEntry(directory->GetIndexRoot(), entry), ERROR_SUCCESS);
        delete entry;
    }
    directory->UnlockExclusive();
    directory->Release();
    while (volume->FindNextFileA(find, &data)) seen.push_back(data.FileRecordNumber);
    EXPECT_EQ(volume->GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(volume->CloseFindHandle(find), 1);
    // The seven names once each, plus the later new entry; not the earlier one.
    EXPECT_EQ(seen.size(), 8u);
    EXPECT_EQ(std::count(seen.begin(), seen.end(), 84), 2);
    EXPECT_EQ(std::set<int64_t>(seen.begin(), seen.end()).size(), 7u);
}

}  // namespace
}  // namespace ntfs
