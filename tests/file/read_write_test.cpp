// Reading and writing through file handles on real volumes: every file read
// in odd chunks equals the manifest; overwrites, resident growth, conversion
// to non-resident and appends across many clusters are seen by the
// independent readers after close and unmount.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "file/file_handle.h"
#include "foundation/endian.h"
#include "foundation/log.h"
#include "support/fixture.h"
#include "support/mounted_volume.h"
#include "support/tools.h"

namespace ntfs {
namespace {

using test::LoadManifest;
using test::ManifestEntry;
using test::MountedVolume;

constexpr unsigned int kReadShared = kAccessRead | kAccessShareMask;
constexpr unsigned int kReadWriteShared = kAccessRead | kAccessWrite | kAccessShareMask;

std::vector<uint8_t> ReadAll(CNTFSVolume* volume, void* handle, int chunk) {
    std::vector<uint8_t> data;
    std::vector<uint8_t> buffer(static_cast<size_t>(chunk));
    for (;;) {
        int done = 0;
        EXPECT_EQ(volume->ReadFile(handle, buffer.data(), chunk, &done), 1) << volume->GetLastError();
        if (done <= 0) break;
        data.insert(data.end(), buffer.begin(), buffer.begin() + done);
    }
    return data;
}

std::vector<uint8_t> Pattern(size_t size, uint8_t seed) {
    std::vector<uint8_t> bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>('a' + (i * 7 + seed) % 26);
    return bytes;
}

TEST(FileRead, EveryFileEqualsTheManifest) {
    for (const std::string& name : test::FixtureNames()) {
        SCOPED_TRACE(name);
        MountedVolume mounted(name);
        ASSERT_EQ(mounted.Mount(), 1);
        int files = 0;
        int64_t bytes = 0;
        int mismatches = 0;
        for (const ManifestEntry& entry : LoadManifest(name)) {
            if (entry.is_dir || entry.sparse) continue;
            SCOPED_TRACE(entry.path_utf8);
            void* handle = mounted.Volume()->CreateFileA(entry.path.c_str(), 0, kOpenExisting, kReadShared);
            ASSERT_NE(handle, nullptr) << mounted.Volume()->GetLastError();
            const std::vector<uint8_t> data = ReadAll(mounted.Volume(), handle, 7919);
            const bool same = test::Sha256Hex(data.data(), data.size()) == entry.sha256;
            EXPECT_TRUE(same);
            mismatches += same ? 0 : 1;
            ++files;
            bytes += static_cast<int64_t>(data.size());
            // A name of the file in another directory is looked for in the
            // handle's directory only, which ends the close with 2.
            if (!mounted.Volume()->CloseFileHandle(handle)) {
                EXPECT_GT(entry.links, 1);
                EXPECT_EQ(mounted.Volume()->GetLastError(), ERROR_FILE_NOT_FOUND);
            }
        }
        std::printf("open+read %s: files %d, bytes %lld, mismatches %d\n", name.c_str(), files,
                    static_cast<long long>(bytes), mismatches);
    }
}

std::string Cat(const std::string& image, int64_t record) {
    return test::RunTool("ntfscat -i " + std::to_string(record) + " " + test::ShellQuote(image) + " 2>/dev/null")
        .output;
}

std::string Icat(const std::string& image, int64_t record) {
    return test::RunTool("icat -f ntfs " + test::ShellQuote(image) + " " + std::to_string(record) + " 2>/dev/null")
        .output;
}

const ManifestEntry* Find(const std::vector<ManifestEntry>& manifest, const std::string& path) {
    for (const ManifestEntry& entry : manifest) {
        if (entry.path_utf8 == path) return &entry;
    }
    return nullptr;
}

TEST(FileWrite, GrowthSeenByIndependentReaders) {
    for (const char* name : {"c512", "c4k", "c64k"}) {
        SCOPED_TRACE(name);
        const std::vector<ManifestEntry> manifest = LoadManifest(name);
        const ManifestEntry* small = Find(manifest, "\\data\\small-600.bin");
        const ManifestEntry* large = Find(manifest, "\\data\\large-random.bin");
        const ManifestEntry* readme = Find(manifest, "\\readme.txt");
        ASSERT_TRUE(small && large && readme);
        MountedVolume mounted(name);
        ASSERT_EQ(mounted.Mount(), 1);
        CNTFSVolume* volume = mounted.Volume();
        const std::string original = test::FixturePath(name);

        // Overwrite inside a non-resident file, unaligned.
        std::string expectedLarge = Cat(original, large->record);
        void* handle = volume->CreateFileA(u"\\data\\large-random.bin", 0, kOpenExisting, kReadWriteShared);
        ASSERT_NE(handle, nullptr);
        unsigned int low = 777;
        ASSERT_EQ(volume->SetFilePointer(handle, &low, nullptr, kFileBegin), ERROR_SUCCESS);
        const std::vector<uint8_t> middle = Pattern(10000, 1);
        int done = 0;
        ASSERT_EQ(volume->WriteFile(handle, middle.data(), 10000, &done), 1);
        ASSERT_EQ(volume->GetLastError(), ERROR_SUCCESS);
        expectedLarge.replace(777, middle.size(), std::string(middle.begin(), middle.end()));
        // Append across many clusters at the end.
        low = 0;
        ASSERT_EQ(volume->SetFilePointer(handle, &low, nullptr, kFileEnd), ERROR_SUCCESS);
        const std::vector<uint8_t> tail = Pattern(300000, 2);
        ASSERT_EQ(volume->WriteFile(handle, tail.data(), static_cast<int>(tail.size()), &done), 1);
        ASSERT_EQ(volume->GetLastError(), ERROR_SUCCESS);
        expectedLarge += std::string(tail.begin(), tail.end());
        EXPECT_EQ(volume->CloseFileHandle(handle), 1) << volume->GetLastError();

        // Append to a resident file until it leaves its record.
        std::string expectedSmall = Cat(original, readme->record);
        handle = volume->CreateFileA(u"\\readme.txt", 0, kOpenExisting, kReadWriteShared);
        ASSERT_NE(handle, nullptr);
        for (int round = 0; round < 40; ++round) {
            low = 0;
            ASSERT_EQ(volume->SetFilePointer(handle, &low, nullptr, kFileEnd), ERROR_SUCCESS);
            const std::vector<uint8_t> piece = Pattern(97, static_cast<uint8_t>(round));
            ASSERT_EQ(volume->WriteFile(handle, piece.data(), 97, &done), 1) << volume->GetLastError();
            EXPECT_EQ(done, 97);
            expectedSmall += std::string(piece.begin(), piece.end());
        }
        unsigned int sizeLow = 0;
        ASSERT_EQ(volume->GetFileSize(handle, &sizeLow, nullptr), 1);
        EXPECT_EQ(sizeLow, expectedSmall.size());
        EXPECT_EQ(volume->CloseFileHandle(handle), 1) << volume->GetLastError();

        // Our own reads agree before the unmount.
        handle = volume->CreateFileA(u"\\readme.txt", 0, kOpenExisting, kReadShared);
        ASSERT_NE(handle, nullptr);
        const std::vector<uint8_t> again = ReadAll(volume, handle, 333);
        EXPECT_TRUE(std::string(again.begin(), again.end()) == expectedSmall);
        EXPECT_EQ(volume->CloseFileHandle(handle), 1);

        const std::string saved = mounted.UnmountToFile();
        EXPECT_TRUE(Icat(saved, large->record) == expectedLarge);
        EXPECT_TRUE(Icat(saved, readme->record) == expectedSmall);
        const test::ToolResult fls = test::RunTool("fls -f ntfs -r " + test::ShellQuote(saved));
        EXPECT_EQ(fls.status, 0);
        EXPECT_NE(fls.output.find("readme.txt"), std::string::npos);
        if (volume->GetClusterSize() <= 4096) {
            // ntfs-3g compares every record its mirror holds; see the mirror note
            // in the attribute write tests.
            EXPECT_TRUE(Cat(saved, large->record) == expectedLarge);
            EXPECT_TRUE(Cat(saved, readme->record) == expectedSmall);
            const test::ToolResult ls = test::RunTool("ntfsls -l -p /data " + test::ShellQuote(saved));
            EXPECT_NE(ls.output.find(std::to_string(expectedLarge.size())), std::string::npos) << ls.output;
            EXPECT_EQ(test::RunTool("ntfsfix -n " + test::ShellQuote(saved)).status, 0);
        }
    }
}

TEST(FileHandles, AccessSharingDispositionsAndSeeking) {
    MountedVolume mounted("c4k");
    ASSERT_EQ(mounted.Mount(), 1);
    CNTFSVolume* volume = mounted.Volume();
    const char16_t* path = u"\\data\\small-600.bin";
    // Read-only handle cannot write; write-only cannot read.
    void* reader = volume->CreateFileA(path, 0, kOpenExisting, kAccessRead | kAccessShareRead);
    ASSERT_NE(reader, nullptr);
    int done = 0;
    char buffer[64];
    EXPECT_EQ(volume->WriteFile(reader, buffer, 10, &done), 0);
    EXPECT_EQ(volume->GetLastError(), ERROR_ACCESS_DENIED);
    // Sharing: a second open needs a sharing bit in common.
    EXPECT_EQ(volume->CreateFileA(path, 0, kOpenExisting, kAccessRead | kAccessShareWrite), nullptr);
    EXPECT_EQ(volume->GetLastError(), ERROR_ACCESS_DENIED);
    void* writer = volume->CreateFileA(u"\\DATA\\small-600.BIN", 0, kOpenExisting, kAccessWrite | kAccessShareMask);
    ASSERT_NE(writer, nullptr);
    EXPECT_EQ(volume->ReadFile(writer, buffer, 10, &done), 0);
    EXPECT_EQ(volume->GetLastError(), ERROR_ACCESS_DENIED);
    EXPECT_EQ(volume->CloseFileHandle(writer), 1);
    // Seeking: end, before the end, beyond the size.
    unsigned int low = 0;
    int high = 0;
    EXPECT_EQ(volume->SetFilePointer(reader, &low, &high, kFileEnd), ERROR_SUCCESS);
    EXPECT_EQ(low, 600u);
    low = 10;
    EXPECT_EQ(volume->SetFilePointer(reader, &low, &high, kFileEnd), ERROR_SUCCESS);
    EXPECT_EQ(low, 590u);
    low = 5000;
    EXPECT_EQ(volume->SetFilePointer(reader, &low, &high, kFileEnd), ERROR_SUCCESS);
    EXPECT_EQ(low, 0u);
    low = 5000;
    EXPECT_EQ(volume->SetFilePointer(reader, &low, &high, kFileBegin), ERROR_SUCCESS);
    EXPECT_EQ(low, 600u);
    EXPECT_EQ(volume->ReadFile(reader, buffer, 64, &done), 1);
    EXPECT_EQ(done, 0);
    low = 100;
    EXPECT_EQ(volume->SetFilePointer(reader, &low, &high, 7), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(volume->CloseFileHandle(reader), 1);
    // Closed and unknown handles.
    EXPECT_EQ(volume->CloseFileHandle(reader), 0);
    EXPECT_EQ(volume->GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_EQ(volume->SetFilePointer(reader, &low, &high, kFileBegin), ERROR_INVALID_HANDLE);
    unsigned int size = 0;
    EXPECT_EQ(volume->GetFileSize(reader, &size, nullptr), 0);
    // Dispositions: absent files, existing ones, directories, bad paths.
    EXPECT_EQ(volume->CreateFileA(u"\\data\\absent.bin", 0, kOpenExisting, kReadShared), nullptr);
    EXPECT_EQ(volume->GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(volume->CreateFileA(path, 0, kCreateNew, kReadShared), nullptr);
    EXPECT_EQ(volume->GetLastError(), ERROR_FILE_EXISTS);
    EXPECT_EQ(volume->CreateFileA(u"\\data", 0, kOpenExisting, kReadShared), nullptr);
    EXPECT_EQ(volume->GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(volume->CreateFileA(u"\\data\\", 0, kOpenExisting, kReadShared), nullptr);
    EXPECT_EQ(volume->GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(volume->CreateFileA(u"\\absent\\x", 0, kOpenExisting, kReadShared), nullptr);
    EXPECT_EQ(volume->GetLastError(), ERROR_FILE_NOT_FOUND);
    void* system = volume->CreateFileA(u"\\$MFT", 0, kOpenExisting, kReadShared);
    EXPECT_NE(system, nullptr);  // no filter of reserved records here
    EXPECT_EQ(volume->CloseFileHandle(system), 1);
}

TEST(FileHandles, TruncateOnOpenAndZeroWriteShorten) {
    MountedVolume mounted("c4k");
    ASSERT_EQ(mounted.Mount(), 1);
    CNTFSVolume* volume = mounted.Volume();
    void* handle = volume->CreateFileA(u"\\data\\exact-cluster.bin", 0, kTruncateExisting, kReadWriteShared);
    ASSERT_NE(handle, nullptr) << volume->GetLastError();
    unsigned int size = 99;
    ASSERT_EQ(volume->GetFileSize(handle, &size, nullptr), 1);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(volume->CloseFileHandle(handle), 1);
    // A zero-byte write on non-resident data ends the file at the pointer.
    handle = volume->CreateFileA(u"\\data\\large-random.bin", 0, kOpenExisting, kReadWriteShared);
    ASSERT_NE(handle, nullptr);
    unsigned int low = 1000;
    ASSERT_EQ(volume->SetFilePointer(handle, &low, nullptr, kFileBegin), ERROR_SUCCESS);
    int done = 0;
    EXPECT_EQ(volume->WriteFile(handle, "", 0, &done), 1);
    EXPECT_EQ(volume->CloseFileHandle(handle), 1);
    // On resident data a zero-byte write, here with no buffer at all, copies
    // nothing and leaves the file as it is.
    handle = volume->CreateFileA(u"\\data\\small-600.bin", 0, kOpenExisting, kReadWriteShared);
    ASSERT_NE(handle, nullptr);
    low = 100;
    ASSERT_EQ(volume->SetFilePointer(handle, &low, nullptr, kFileBegin), ERROR_SUCCESS);
    EXPECT_EQ(volume->WriteFile(handle, nullptr, 0, &done), 1);
    EXPECT_EQ(done, 0);
    EXPECT_EQ(volume->CloseFileHandle(handle), 1);
    const std::string saved = mounted.UnmountToFile();
    const std::vector<ManifestEntry> manifest = LoadManifest("c4k");
    EXPECT_EQ(Icat(saved, Find(manifest, "\\data\\exact-cluster.bin")->record).size(), 0u);
    EXPECT_EQ(Icat(saved, Find(manifest, "\\data\\large-random.bin")->record).size(), 1000u);
    EXPECT_EQ(Icat(saved, Find(manifest, "\\data\\small-600.bin")->record).size(), 600u);
    EXPECT_EQ(test::RunTool("ntfsfix -n " + test::ShellQuote(saved)).status, 0);
}

// A negative size asks for nothing: no read, no write, no shortening of a
// non-resident file (only a write of no bytes shortens), no growth of a
// resident one.
TEST(FileHandles, NegativeSizesAreRefusedAndChangeNothing) {
    MountedVolume mounted("c4k");
    ASSERT_EQ(mounted.Mount(), 1);
    CNTFSVolume* volume = mounted.Volume();
    const std::vector<ManifestEntry> manifest = LoadManifest("c4k");
    const std::string original = test::FixturePath("c4k");
    struct Case {
        const char16_t* path;
        const char* name;
    };
    for (const Case& file :
         {Case{u"\\data\\large-random.bin", "\\data\\large-random.bin"}, Case{u"\\readme.txt", "\\readme.txt"}}) {
        SCOPED_TRACE(file.name);
        void* handle = volume->CreateFileA(file.path, 0, kOpenExisting, kReadWriteShared);
        ASSERT_NE(handle, nullptr) << volume->GetLastError();
        unsigned int size = 0;
        ASSERT_EQ(volume->GetFileSize(handle, &size, nullptr), 1);
        unsigned int low = 100;
        ASSERT_EQ(volume->SetFilePointer(handle, &low, nullptr, kFileBegin), ERROR_SUCCESS);
        std::vector<uint8_t> buffer(64, 0xEE);
        for (const int negative : {-1, -64, INT32_MIN}) {
            int done = 7;
            EXPECT_EQ(volume->WriteFile(handle, buffer.data(), negative, &done), 0);
            EXPECT_EQ(volume->GetLastError(), ERROR_INVALID_PARAMETER);
            EXPECT_EQ(done, 0);
            done = 7;
            EXPECT_EQ(volume->ReadFile(handle, buffer.data(), negative, &done), 0);
            EXPECT_EQ(volume->GetLastError(), ERROR_INVALID_PARAMETER);
            EXPECT_EQ(done, 0);
        }
        EXPECT_TRUE(std::all_of(buffer.begin(), buffer.end(), [](uint8_t byte) { return byte == 0xEE; }));
        unsigned int after = 0;
        ASSERT_EQ(volume->GetFileSize(handle, &after, nullptr), 1);
        EXPECT_EQ(after, size);
        low = 0;
        ASSERT_EQ(volume->SetFilePointer(handle, &low, nullptr, kFileCurrent), ERROR_SUCCESS);
        EXPECT_EQ(low, 100u);
        EXPECT_EQ(volume->CloseFileHandle(handle), 1) << volume->GetLastError();
    }
    const std::string saved = mounted.UnmountToFile();
    for (const char* path : {"\\data\\large-random.bin", "\\readme.txt"}) {
        const ManifestEntry* entry = Find(manifest, path);
        ASSERT_NE(entry, nullptr);
        EXPECT_TRUE(Icat(saved, entry->record) == Cat(original, entry->record)) << path;
    }
}

// A file record the device cannot read: the open answers the device's own
// code, not a verdict on the record.
TEST(FileHandles, AnUnreadableFileRecordAnswersTheDeviceCode) {
    const std::vector<ManifestEntry> manifest = LoadManifest("c4k");
    const ManifestEntry* entry = Find(manifest, "\\readme.txt");
    ASSERT_NE(entry, nullptr);
    const std::vector<uint8_t> image = test::LoadImage("c4k");
    const int64_t clusterSectors = image[13];
    const int64_t sector = ReadI64(image.data(), 48) * clusterSectors + entry->record * 2;
    {
        // The record lies where the first run of $MFT puts it: an open reads it there.
        MountedVolume mounted(image);
        ASSERT_EQ(mounted.Mount(), 1);
        mounted.Faults().ClearLogs();
        void* handle = mounted.Volume()->CreateFileA(u"\\readme.txt", 0, kOpenExisting, kReadShared);
        ASSERT_NE(handle, nullptr);
        EXPECT_TRUE(std::any_of(mounted.Faults().ReadLog().begin(), mounted.Faults().ReadLog().end(),
                                [&](const test::FaultStorage::ReadEntry& read) {
                                    return read.sector <= sector && sector < read.sector + read.count;
                                }));
        EXPECT_EQ(mounted.Volume()->CloseFileHandle(handle), 1);
    }
    for (const unsigned int code : {ERROR_IO_DEVICE, ERROR_SECTOR_NOT_FOUND}) {
        MountedVolume mounted(image);
        ASSERT_EQ(mounted.Mount(), 1);
        mounted.Faults().FailReadsOfSector(sector, code);
        EXPECT_EQ(mounted.Volume()->CreateFileA(u"\\readme.txt", 0, kOpenExisting, kReadShared), nullptr);
        EXPECT_EQ(mounted.Volume()->GetLastError(), code);
        // Once the device reads again, so does the file.
        mounted.Faults().Heal();
        void* handle = mounted.Volume()->CreateFileA(u"\\readme.txt", 0, kOpenExisting, kReadShared);
        ASSERT_NE(handle, nullptr) << mounted.Volume()->GetLastError();
        EXPECT_EQ(mounted.Volume()->CloseFileHandle(handle), 1);
    }
}

}  // namespace
}  // namespace ntfs
