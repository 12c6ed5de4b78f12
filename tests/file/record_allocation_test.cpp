// Files that outgrow their record: $DATA spills into extension records with a
// new $ATTRIBUTE_LIST, is read back after remount and by the independent
// readers, is truncated back with every cluster and record returned, and a
// growth that fails (no space, a device error at any write of a spill)
// leaves the volume accounted and the file as before or as after.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "file/file_handle.h"
#include "foundation/log.h"
#include "record/full_file_record.h"
#include "support/cluster_audit.h"
#include "support/fixture.h"
#include "support/mounted_volume.h"
#include "support/tools.h"

namespace ntfs {
namespace {

using test::MountedVolume;

constexpr unsigned int kReadWrite = kAccessRead | kAccessWrite | kAccessShareMask;
constexpr unsigned int kTruncateExisting = 5;

std::vector<uint8_t> ReadAll(CNTFSVolume* volume, const char16_t* path) {
    std::vector<uint8_t> data;
    void* handle = volume->CreateFileA(path, 0, kOpenExisting, kAccessRead | kAccessShareMask);
    if (handle == nullptr) return data;
    std::vector<uint8_t> buffer(65536);
    for (;;) {
        int done = 0;
        if (!volume->ReadFile(handle, buffer.data(), static_cast<int>(buffer.size()), &done) || done <= 0) break;
        data.insert(data.end(), buffer.begin(), buffer.begin() + done);
    }
    (void)volume->CloseFileHandle(handle);
    return data;
}

int ExtensionRecords(CNTFSVolume* volume, int64_t number) {
    CFullFileRecord* record = nullptr;
    if (volume->ReferenceFileRecord(number, &record) != 0) return -1;
    const int count = record->GetExtensionRecords().GetCount();
    record->Release();
    return count;
}

// Clusters that the $DATA pieces and the attribute list of record `number`
// hold.
int64_t ClustersHeld(CNTFSVolume* volume, int64_t number) {
    CFullFileRecord* record = nullptr;
    if (volume->ReferenceFileRecord(number, &record) != 0) return -1;
    int64_t clusters = 0;
    for (unsigned int i = 0;; ++i) {
        CAttribute* piece = record->FindAttribute(AttributeData, nullptr, 0, i);
        if (piece == nullptr) break;
        if (!piece->IsResident()) clusters += piece->GetHighestVcn() - piece->GetLowestVcn() + 1;
    }
    CAttribute* list = record->FindAttribute(AttributeAttributeList, nullptr, 0, 0);
    if (list != nullptr && !list->IsResident()) clusters += list->GetHighestVcn() + 1;
    record->Release();
    return clusters;
}

void ExpectAudited(CNTFSVolume* volume) {
    const test::ClusterAudit audit = test::AuditClusters(volume);
    EXPECT_TRUE(audit.Clean()) << audit.First << " (twice " << audit.OwnedTwice << ", owned-free " << audit.OwnedButFree
                               << ", leaked " << audit.Leaked << ", records " << audit.RecordMismatches << ")";
}

// A file with names in other directories ends its close with 2: the entries
// are looked for in the handle's directory only. The record is written all
// the same.
void CloseTolerantOfOtherNames(CNTFSVolume* volume, void* handle) {
    if (!volume->CloseFileHandle(handle)) {
        EXPECT_EQ(volume->GetLastError(), ERROR_FILE_NOT_FOUND);
    }
}

// Appends `bytes` to `path` in chunks of `chunk`, one cluster at a time when
// `chunk` is a cluster; `extra`, when set, gets one chunk after each so that
// the two files' clusters interleave. Returns the bytes appended to `path`.
int64_t Append(CNTFSVolume* volume, const char16_t* path, std::vector<uint8_t>* content, int64_t bytes, int chunk,
               const char16_t* extra = nullptr) {
    void* handle = volume->CreateFileA(path, 0, kOpenExisting, kReadWrite);
    void* other = extra != nullptr ? volume->CreateFileA(extra, 0, kOpenExisting, kReadWrite) : nullptr;
    EXPECT_NE(handle, nullptr) << volume->GetLastError();
    unsigned int low = 0;
    EXPECT_EQ(volume->SetFilePointer(handle, &low, nullptr, kFileEnd), 0u);
    if (other != nullptr) {
        low = 0;
        EXPECT_EQ(volume->SetFilePointer(other, &low, nullptr, kFileEnd), 0u);
    }
    int64_t appended = 0;
    std::vector<uint8_t> piece(static_cast<size_t>(chunk));
    while (appended < bytes) {
        for (size_t i = 0; i < piece.size(); ++i) piece[i] = static_cast<uint8_t>((content->size() + i) * 31 + 7);
        int done = 0;
        if (!volume->WriteFile(handle, piece.data(), chunk, &done) || done != chunk) break;
        content->insert(content->end(), piece.begin(), piece.end());
        appended += chunk;
        if (other != nullptr) {
            if (!volume->WriteFile(other, piece.data(), chunk, &done) || done != chunk) break;
        }
    }
    if (other != nullptr) CloseTolerantOfOtherNames(volume, other);
    CloseTolerantOfOtherNames(volume, handle);
    return appended;
}

std::string Tool(const std::string& command) {
    return test::RunTool(command).output;
}

int64_t FreeClustersOf(const std::string& image) {
    const std::string value = test::VolumeInfo(image)["Free Clusters"];
    return value.empty() ? -1 : std::stoll(value);
}

std::vector<uint8_t> LoadImageFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    std::vector<uint8_t> bytes(static_cast<size_t>(in.tellg()));
    in.seekg(0);
    in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return bytes;
}

// Growth into several extension records, read back after remount and by
// ntfscat, icat and istat; then truncation back to 0 returns every cluster
// and every extension record.
void GrowAndTruncate(const std::string& fixture, const char16_t* path, int64_t number, const char16_t* extra,
                     int64_t bytes, int chunk) {
    SCOPED_TRACE(fixture);
    MountedVolume mounted(fixture);
    ASSERT_EQ(mounted.Mount(), 1);
    CNTFSVolume* volume = mounted.Volume();
    _VOLUME_SPACE before{};
    ASSERT_EQ(volume->GetVolumeSpace(&before), 0u);
    const int recordsBefore = ExtensionRecords(volume, number);
    std::vector<uint8_t> content = ReadAll(volume, path);
    const int64_t appended = Append(volume, path, &content, bytes, chunk, extra);
    EXPECT_EQ(appended, bytes) << volume->GetLastError();
    const int recordsAfter = ExtensionRecords(volume, number);
    EXPECT_GE(recordsAfter, recordsBefore + 2);
    ExpectAudited(volume);
    _VOLUME_SPACE grown{};
    ASSERT_EQ(volume->GetVolumeSpace(&grown), 0u);
    std::printf("%s record %lld: extension records %d -> %d, free clusters %lld -> %lld\n", fixture.c_str(),
                static_cast<long long>(number), recordsBefore, recordsAfter,
                static_cast<long long>(before.FreeClusters), static_cast<long long>(grown.FreeClusters));
    const std::string sha = test::Sha256Hex(content.data(), content.size());
    const std::string image = mounted.UnmountToFile();

    const std::string n = std::to_string(number);
    const std::string cat = Tool("ntfscat -i " + n + " " + test::ShellQuote(image) + " 2>/dev/null");
    EXPECT_EQ(test::Sha256Hex(cat.data(), cat.size()), sha);
    const std::string icat = Tool("icat " + test::ShellQuote(image) + " " + n + " 2>/dev/null");
    EXPECT_EQ(test::Sha256Hex(icat.data(), icat.size()), sha);
    const std::string istat = Tool("istat " + test::ShellQuote(image) + " " + n + " 2>&1");
    // The list is written anew, non-resident, also where it was resident.
    EXPECT_NE(istat.find("$ATTRIBUTE_LIST (32-"), std::string::npos) << istat;
    const size_t list = istat.find("Type: $ATTRIBUTE_LIST");
    EXPECT_NE(istat.find("Non-Resident", list), std::string::npos);
    EXPECT_LT(istat.find("Non-Resident", list), istat.find('\n', list));
    EXPECT_NE(istat.find("Size: " + std::to_string(content.size())), std::string::npos) << istat;
    const test::ToolResult fix = test::RunTool("ntfsfix -n " + test::ShellQuote(image));
    EXPECT_EQ(fix.status, 0) << fix.output;
    EXPECT_EQ(FreeClustersOf(image), grown.FreeClusters);

    MountedVolume again(LoadImageFile(image));
    ASSERT_EQ(again.Mount(), 1);
    volume = again.Volume();
    const std::vector<uint8_t> read = ReadAll(volume, path);
    EXPECT_EQ(test::Sha256Hex(read.data(), read.size()), sha);
    const int64_t held = ClustersHeld(volume, number);
    void* handle = volume->CreateFileA(path, 0, kTruncateExisting, kReadWrite);
    ASSERT_NE(handle, nullptr) << volume->GetLastError();
    CloseTolerantOfOtherNames(volume, handle);
    const int recordsTruncated = ExtensionRecords(volume, number);
    // The first piece stays where it was, also when a spill moved it whole
    // into an extension record; every other extension record made goes.
    EXPECT_LE(recordsTruncated, recordsBefore + 1);
    ExpectAudited(volume);
    _VOLUME_SPACE emptied{};
    ASSERT_EQ(volume->GetVolumeSpace(&emptied), 0u);
    EXPECT_EQ(emptied.FreeClusters - grown.FreeClusters, held - ClustersHeld(volume, number));
    std::printf("%s record %lld truncated: extension records %d, free clusters %lld\n", fixture.c_str(),
                static_cast<long long>(number), recordsTruncated, static_cast<long long>(emptied.FreeClusters));
    const std::string truncated = again.UnmountToFile();
    EXPECT_EQ(Tool("ntfscat -i " + n + " " + test::ShellQuote(truncated) + " 2>/dev/null").size(), 0u);
    EXPECT_EQ(test::RunTool("ntfsfix -n " + test::ShellQuote(truncated)).status, 0);
    EXPECT_EQ(FreeClustersOf(truncated), emptied.FreeClusters);
}

TEST(RecordAllocation, FragmentedFileGrowsIntoExtensionRecordsAndTruncatesBack) {
    GrowAndTruncate("c512", u"\\frag\\fragmented-A.txt", 106, u"\\frag\\fragmented-B.txt", 3000 * 512, 512);
}

TEST(RecordAllocation, ForeignAttributeListIsRewrittenAsTheFileGrows) {
    GrowAndTruncate("c1k", u"\\links\\original.txt", 98, u"\\data\\small-600.bin", 400 * 1024, 1024);
}

}  // namespace
}  // namespace ntfs

namespace ntfs {
namespace {

// Appends `chunk`-byte pieces until a write fails; returns the failure code
// and leaves in `content` what the file must hold.
unsigned int AppendUntilFull(CNTFSVolume* volume, const char16_t* path, std::vector<uint8_t>* content, int chunk) {
    void* handle = volume->CreateFileA(path, 0, kOpenExisting, kReadWrite);
    EXPECT_NE(handle, nullptr) << volume->GetLastError();
    unsigned int low = 0;
    EXPECT_EQ(volume->SetFilePointer(handle, &low, nullptr, kFileEnd), 0u);
    std::vector<uint8_t> piece(static_cast<size_t>(chunk));
    unsigned int code = ERROR_SUCCESS;
    for (int round = 0; round < 100000; ++round) {
        for (size_t i = 0; i < piece.size(); ++i) piece[i] = static_cast<uint8_t>((content->size() + i) * 13 + round);
        int done = 0;
        const int result = volume->WriteFile(handle, piece.data(), chunk, &done);
        content->insert(content->end(), piece.begin(), piece.begin() + done);
        if (!result || done != chunk) {
            code = volume->GetLastError();
            break;
        }
    }
    CloseTolerantOfOtherNames(volume, handle);
    return code;
}

// A volume that runs full in the middle of a growth: the write fails with
// 39, the clusters it had taken go back, and the file holds exactly the
// bytes written before, at their offsets, also after remount.
TEST(RecordAllocation, GrowthThatRunsOutOfSpaceGivesEverythingBack) {
    for (const int chunk : {65536, 3 * 65536 + 1000}) {
        SCOPED_TRACE(chunk);
        MountedVolume mounted("c512");
        ASSERT_EQ(mounted.Mount(), 1);
        CNTFSVolume* volume = mounted.Volume();
        std::vector<uint8_t> content = ReadAll(volume, u"\\frag\\fragmented-A.txt");
        EXPECT_EQ(AppendUntilFull(volume, u"\\frag\\fragmented-A.txt", &content, chunk), ERROR_HANDLE_DISK_FULL);
        ExpectAudited(volume);
        const std::string sha = test::Sha256Hex(content.data(), content.size());
        const std::vector<uint8_t> read = ReadAll(volume, u"\\frag\\fragmented-A.txt");
        EXPECT_EQ(read.size(), content.size());
        EXPECT_EQ(test::Sha256Hex(read.data(), read.size()), sha);
        const std::string image = mounted.UnmountToFile();
        const std::string cat = Tool("ntfscat -i 106 " + test::ShellQuote(image) + " 2>/dev/null");
        EXPECT_EQ(test::Sha256Hex(cat.data(), cat.size()), sha);
        EXPECT_EQ(test::RunTool("ntfsfix -n " + test::ShellQuote(image)).status, 0);
        MountedVolume again(LoadImageFile(image));
        ASSERT_EQ(again.Mount(), 1);
        ExpectAudited(again.Volume());
        const std::vector<uint8_t> remounted = ReadAll(again.Volume(), u"\\frag\\fragmented-A.txt");
        EXPECT_EQ(test::Sha256Hex(remounted.data(), remounted.size()), sha);
    }
    // Grown and truncated in one mount: the records made in it go again.
    MountedVolume mounted("c512");
    ASSERT_EQ(mounted.Mount(), 1);
    CNTFSVolume* volume = mounted.Volume();
    std::vector<uint8_t> content;
    EXPECT_EQ(AppendUntilFull(volume, u"\\frag\\fragmented-A.txt", &content, 65536), ERROR_HANDLE_DISK_FULL);
    EXPECT_GT(ExtensionRecords(volume, 106), 4);
    void* handle = volume->CreateFileA(u"\\frag\\fragmented-A.txt", 0, kTruncateExisting, kReadWrite);
    ASSERT_NE(handle, nullptr) << volume->GetLastError();
    EXPECT_EQ(volume->CloseFileHandle(handle), 1) << volume->GetLastError();
    EXPECT_EQ(ExtensionRecords(volume, 106), 1);
    ExpectAudited(volume);
}

}  // namespace
}  // namespace ntfs

namespace ntfs {
namespace {

// Two files appended to in turns, one cluster each, so that every cluster
// of the first is a run of its own.
struct Interleaved {
    explicit Interleaved(MountedVolume* mounted) : volume(mounted->Volume()) {
        content = ReadAll(volume, u"\\frag\\fragmented-A.txt");
        a = volume->CreateFileA(u"\\frag\\fragmented-A.txt", 0, kOpenExisting, kReadWrite);
        b = volume->CreateFileA(u"\\frag\\fragmented-B.txt", 0, kOpenExisting, kReadWrite);
        unsigned int low = 0;
        EXPECT_EQ(volume->SetFilePointer(a, &low, nullptr, kFileEnd), 0u);
        low = 0;
        EXPECT_EQ(volume->SetFilePointer(b, &low, nullptr, kFileEnd), 0u);
    }
    // Appends one cluster to A (its bytes also to `content` when written)
    // and then one to B; false when A's write failed.
    bool Round() {
        std::vector<uint8_t> piece(512);
        for (size_t i = 0; i < piece.size(); ++i) piece[i] = static_cast<uint8_t>((content.size() + i) * 29 + 3);
        int done = 0;
        const bool written = volume->WriteFile(a, piece.data(), 512, &done) && done == 512;
        content.insert(content.end(), piece.begin(), piece.begin() + done);
        if (written) (void)volume->WriteFile(b, piece.data(), 512, &done);
        return written;
    }
    void Close() {
        CloseTolerantOfOtherNames(volume, a);
        CloseTolerantOfOtherNames(volume, b);
    }
    CNTFSVolume* volume;
    void* a = nullptr;
    void* b = nullptr;
    std::vector<uint8_t> content;
};

// A device error at each write of the growth that spills into a new
// extension record in turn: the volume stays mountable and accounted, and
// the file reads back as before the write or as after it.
TEST(RecordAllocation, DeviceErrorAtEachWriteOfASpill) {
    // The image just before the round whose growth spills.
    int rounds = 0;
    {
        MountedVolume mounted("c512");
        ASSERT_EQ(mounted.Mount(), 1);
        Interleaved files(&mounted);
        const int records = ExtensionRecords(mounted.Volume(), 106);
        while (rounds < 2000 && ExtensionRecords(mounted.Volume(), 106) == records) {
            ASSERT_TRUE(files.Round());
            ++rounds;
        }
        files.Close();
    }
    std::vector<uint8_t> prepared;
    {
        MountedVolume mounted("c512");
        ASSERT_EQ(mounted.Mount(), 1);
        Interleaved files(&mounted);
        for (int i = 0; i + 1 < rounds; ++i) ASSERT_TRUE(files.Round());
        files.Close();
        prepared = LoadImageFile(mounted.UnmountToFile());
    }
    std::vector<int64_t> sectors;  // of each write of the spilling round
    int64_t bitmapFirst = 0;
    int64_t bitmapLast = 0;
    {
        MountedVolume mounted(prepared);
        ASSERT_EQ(mounted.Mount(), 1);
        CFullFileRecord* bitmap = nullptr;
        ASSERT_EQ(mounted.Volume()->ReferenceFileRecord(6, &bitmap), 0u);
        int runs = 0;
        int64_t* pairs = bitmap->FindAttribute(AttributeData, nullptr, 0, 0)->GetRunList(&runs);
        ASSERT_EQ(runs, 1);
        bitmapFirst = pairs[0] * mounted.Volume()->GetClusterSectors();
        bitmapLast = bitmapFirst + pairs[1] * mounted.Volume()->GetClusterSectors() - 1;
        std::free(pairs);
        bitmap->Release();
        Interleaved files(&mounted);
        const int records = ExtensionRecords(mounted.Volume(), 106);
        mounted.Faults().ClearLogs();
        ASSERT_TRUE(files.Round());
        ASSERT_GT(ExtensionRecords(mounted.Volume(), 106), records);
        for (const auto& write : mounted.Faults().WriteLog()) sectors.push_back(write.sector);
        files.Close();
    }
    // Every write of the round, the other file's growth behind it included.
    for (size_t k = 1; k <= sectors.size(); ++k) {
        SCOPED_TRACE(k);
        MountedVolume mounted(prepared);
        ASSERT_EQ(mounted.Mount(), 1);
        Interleaved files(&mounted);
        const std::vector<uint8_t> before = files.content;
        mounted.Faults().FailNthWrite(mounted.Faults().Writes() + static_cast<int>(k), ERROR_IO_DEVICE);
        (void)files.Round();
        const std::vector<uint8_t> after = files.content;
        files.Close();
        mounted.Faults().Heal();
        // A release whose write-through of $Bitmap fails loses the cleared
        // bits with the next load: those clusters stay marked, owned by
        // nobody. Everything else must balance.
        const bool bitmapWrite = sectors[k - 1] >= bitmapFirst && sectors[k - 1] <= bitmapLast;
        test::ClusterAudit audit = test::AuditClusters(mounted.Volume());
        if (bitmapWrite) audit.Leaked = 0;
        EXPECT_TRUE(audit.Clean()) << audit.First;
        const std::string image = mounted.UnmountToFile();
        MountedVolume again(LoadImageFile(image));
        ASSERT_EQ(again.Mount(), 1);
        const std::vector<uint8_t> read = ReadAll(again.Volume(), u"\\frag\\fragmented-A.txt");
        EXPECT_TRUE(read == before || read == after) << "size " << read.size() << ", before " << before.size();
        EXPECT_EQ(test::RunTool("ntfsfix -n " + test::ShellQuote(image)).status, 0);
    }
}

}  // namespace
}  // namespace ntfs
