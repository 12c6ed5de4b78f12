// The ready storages for hosts: range checks of the memory storage, file
// storage with an offset, short reads at the end and the read-only mode.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "file_storage.h"
#include "foundation/log.h"
#include "memory_storage.h"

namespace ntfs {
namespace {

std::vector<uint8_t> Pattern(size_t sectors) {
    std::vector<uint8_t> bytes(sectors * 512);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 7 + i / 512);
    return bytes;
}

class TempFile {
public:
    explicit TempFile(const std::vector<uint8_t>& bytes) {
        char name[] = "/tmp/ntfskit-storage-XXXXXX";
        const int fd = mkstemp(name);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        close(fd);
        Path = name;
    }
    ~TempFile() { std::remove(Path.c_str()); }
    std::string Path;
};

TEST(MemoryStorage, TransfersAndRangeChecks) {
    MemoryStorage storage(Pattern(8));
    std::vector<uint8_t> buffer(3 * 512);
    int64_t sector = 5;
    int done = -1;
    ASSERT_EQ(storage.ReadSectors(buffer.data(), &sector, 3, &done, nullptr), ERROR_SUCCESS);
    EXPECT_EQ(done, 3);
    EXPECT_EQ(sector, 5);  // the first sector comes back unchanged
    EXPECT_EQ(std::vector<uint8_t>(storage.Bytes().begin() + 5 * 512, storage.Bytes().end()), buffer);
    sector = 6;
    EXPECT_EQ(storage.ReadSectors(buffer.data(), &sector, 3, &done, nullptr), ERROR_SECTOR_NOT_FOUND);
    EXPECT_EQ(done, 0);
    sector = -1;
    EXPECT_EQ(storage.WriteSectors(buffer.data(), &sector, 1, &done, nullptr), ERROR_SECTOR_NOT_FOUND);
    sector = 0;
    ASSERT_EQ(storage.WriteSectors(buffer.data(), &sector, 3, &done, nullptr), ERROR_SUCCESS);
    EXPECT_TRUE(std::equal(buffer.begin(), buffer.end(), storage.Bytes().begin()));
}

TEST(MemoryStorage, LoadAndSave) {
    TempFile file(Pattern(4));
    MemoryStorage storage;
    ASSERT_EQ(storage.LoadFile(file.Path), ERROR_SUCCESS);
    EXPECT_EQ(storage.SectorCount(), 4);
    storage.Bytes()[0] ^= 0xFF;
    ASSERT_EQ(storage.SaveFile(file.Path), ERROR_SUCCESS);
    MemoryStorage again;
    ASSERT_EQ(again.LoadFile(file.Path), ERROR_SUCCESS);
    EXPECT_EQ(again.Bytes(), storage.Bytes());
    EXPECT_NE(again.LoadFile("/nonexistent/ntfskit.img"), ERROR_SUCCESS);
}

TEST(FileStorage, OffsetShortReadAndWrite) {
    const std::vector<uint8_t> bytes = Pattern(10);
    TempFile file(bytes);
    FileStorage storage;
    ASSERT_EQ(storage.Open(file.Path, false, 2 * 512), ERROR_SUCCESS);
    EXPECT_EQ(storage.SectorCount(), 8);
    std::vector<uint8_t> buffer(4 * 512);
    int64_t sector = 6;
    int done = 0;
    // Two sectors remain behind the offset's sector 6: a short read, no error.
    ASSERT_EQ(storage.ReadSectors(buffer.data(), &sector, 4, &done, nullptr), ERROR_SUCCESS);
    EXPECT_EQ(done, 2);
    EXPECT_TRUE(std::equal(buffer.begin(), buffer.begin() + 1024, bytes.begin() + 8 * 512));
    std::vector<uint8_t> ones(512, 0x11);
    sector = 0;
    ASSERT_EQ(storage.WriteSectors(ones.data(), &sector, 1, &done, nullptr), ERROR_SUCCESS);
    EXPECT_EQ(done, 1);
    storage.Close();
    MemoryStorage check;
    ASSERT_EQ(check.LoadFile(file.Path), ERROR_SUCCESS);
    EXPECT_EQ(check.Bytes()[2 * 512], 0x11);
    EXPECT_EQ(check.Bytes()[0], bytes[0]);
}

TEST(FileStorage, ReadOnlyRefusesWrites) {
    TempFile file(Pattern(2));
    FileStorage storage;
    ASSERT_EQ(storage.Open(file.Path, true), ERROR_SUCCESS);
    std::vector<uint8_t> buffer(512);
    int64_t sector = 0;
    int done = 7;
    EXPECT_EQ(storage.WriteSectors(buffer.data(), &sector, 1, &done, nullptr), ERROR_WRITE_PROTECT);
    EXPECT_EQ(done, 0);
    EXPECT_EQ(storage.ReadSectors(buffer.data(), &sector, 1, &done, nullptr), ERROR_SUCCESS);
    FileStorage missing;
    EXPECT_EQ(missing.Open("/nonexistent/ntfskit.img", true), ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(missing.LastErrorText().empty());
}

}  // namespace
}  // namespace ntfs
