// Enumeration with its inner shortcuts against their plain forms, on real
// volumes: the hash index of delivered records against the search of the
// delivered-records array, and index records kept compactly after the walk
// passed them against records kept open, comparing every result and the
// device calls (sector and count, in order).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "file/find_handle.h"
#include "foundation/log.h"
#include "index/directory.h"
#include "support/fixture.h"
#include "support/mounted_volume.h"

namespace ntfs {
namespace {

using test::MountedVolume;

struct Delivered {
    std::u16string name;
    std::u16string alternate;
    int64_t record;
    uint64_t size;
    uint32_t attributes;
    bool operator==(const Delivered& other) const {
        return name == other.name && alternate == other.alternate && record == other.record && size == other.size &&
               attributes == other.attributes;
    }
};

Delivered From(const _FIND_FILE_DATA& data) {
    return {data.FileName, data.AlternateFileName, data.FileRecordNumber,
            (static_cast<uint64_t>(data.FileSizeHigh) << 32) | data.FileSizeLow, data.FileAttributes};
}

// Lists `pattern`; with `linear`, delivered records are looked up by the
// plain search once the handle exists. The last code ends the list.
std::vector<Delivered> List(CNTFSVolume* volume, const std::u16string& pattern, bool linear) {
    std::vector<Delivered> listed;
    _FIND_FILE_DATA data{};
    void* find = volume->FindFirstFileA(pattern.c_str(), &data);
    if (find == nullptr) {
        listed.push_back({u"", u"", -static_cast<int64_t>(volume->GetLastError()), 0, 0});
        return listed;
    }
    if (linear) static_cast<CFindHandle*>(find)->SearchSeenRecordsLinearly();
    do {
        listed.push_back(From(data));
    } while (volume->FindNextFileA(find, &data));
    listed.push_back({u"", u"", -static_cast<int64_t>(volume->GetLastError()), 0, 0});
    volume->CloseFindHandle(find);
    return listed;
}

std::vector<std::u16string> Directories(const std::string& fixture) {
    std::vector<std::u16string> directories{u""};
    for (const test::ManifestEntry& entry : test::LoadManifest(fixture)) {
        if (entry.is_dir) directories.push_back(entry.path);
    }
    return directories;
}

TEST(PlainForm, DeliveredRecordIndexAnswersAsTheArraySearch) {
    for (const std::string& fixture : test::FixtureNames()) {
        SCOPED_TRACE(fixture);
        MountedVolume mounted(fixture);
        ASSERT_EQ(mounted.Mount(), 1);
        for (const std::u16string& directory : Directories(fixture)) {
            for (const std::u16string pattern : {u"\\*", u"\\?*", u"\\A*"}) {
                EXPECT_EQ(List(mounted.Volume(), directory + pattern, false),
                          List(mounted.Volume(), directory + pattern, true));
            }
        }
    }
}

struct Session {
    std::vector<std::vector<Delivered>> results;
    std::vector<test::FaultStorage::ReadEntry> reads;
    int64_t keptAfterFirstWalk = 0;
};

// Walks \many whole, looks up a spread of its names one by one, walks it
// again from the middle by a pattern and once more whole. With `plain` the
// directory is told first that its records may not be kept; with
// `compressed` every kept record is compressed.
Session RunSession(bool plain, bool compressed = false) {
    Session session;
    MountedVolume mounted("big");
    EXPECT_EQ(mounted.Mount(), 1);
    CNTFSVolume* volume = mounted.Volume();
    CDirectory* directory = nullptr;
    EXPECT_EQ(volume->ReferenceDirectory(64, u"\\many", &directory), ERROR_SUCCESS);
    if (directory == nullptr) return session;
    if (plain) directory->NoteRecordReattached();
    if (compressed) directory->SetKeptPlainBudget(0);
    mounted.Faults().ClearLogs();
    session.results.push_back(List(volume, u"\\many\\*", false));
    session.keptAfterFirstWalk = directory->GetKeptRecordCount();
    const std::vector<Delivered> all = session.results.front();
    for (size_t i = 0; i + 1 < all.size(); i += 37) {
        _FIND_FILE_DATA data{};
        void* find = volume->FindFirstFileA((u"\\many\\" + all[i].name).c_str(), &data);
        session.results.push_back({find != nullptr ? From(data) : Delivered{u"", u"", -1, 0, 0}});
        if (find != nullptr) volume->CloseFindHandle(find);
    }
    session.results.push_back(List(volume, u"\\many\\A rather long file name number 15*", false));
    session.results.push_back(List(volume, u"\\many\\*", false));
    session.reads = mounted.Faults().ReadLog();
    directory->Release();
    return session;
}

void CompareWithOpenRecords(const Session& kept) {
    const Session open = RunSession(true);
    EXPECT_GT(kept.keptAfterFirstWalk, 10);
    EXPECT_EQ(open.keptAfterFirstWalk, 0);
    ASSERT_EQ(kept.results.size(), open.results.size());
    for (size_t i = 0; i < kept.results.size(); ++i) EXPECT_TRUE(kept.results[i] == open.results[i]) << i;
    ASSERT_EQ(kept.reads.size(), open.reads.size());
    for (size_t i = 0; i < kept.reads.size(); ++i) {
        EXPECT_EQ(kept.reads[i].sector, open.reads[i].sector) << i;
        EXPECT_EQ(kept.reads[i].count, open.reads[i].count) << i;
    }
    EXPECT_GT(kept.results.front().size(), 3000u);
}

TEST(PlainForm, KeptIndexRecordsChangeNoResultAndNoDeviceCall) {
    for (const bool compressed : {false, true}) {
        SCOPED_TRACE(compressed);
        CompareWithOpenRecords(RunSession(false, compressed));
    }
}

}  // namespace
}  // namespace ntfs
