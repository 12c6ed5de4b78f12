// Damaged volumes never crash the library: bytes of file records, index
// records and run lists of a real volume are flipped at random (fixed seeds),
// then the whole tree is listed and every file read. Each operation may fail
// with a code; the sanitizer run turns any out-of-bounds access or undefined
// behaviour into a failure. A failing seed is printed for replay.
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "file/file_handle.h"
#include "foundation/endian.h"
#include "foundation/log.h"
#include "support/fixture.h"
#include "support/mounted_volume.h"

namespace ntfs {
namespace {

using test::MountedVolume;

constexpr int kRecordBytes = 1024;

// Visits every name below `directory`, opening and reading each file.
void WalkAndRead(CNTFSVolume* volume, const std::u16string& directory, int depth, int* operations) {
    if (depth > 16 || *operations > 5000) return;
    _FIND_FILE_DATA data{};
    void* find = volume->FindFirstFileA((directory + u"\\*").c_str(), &data);
    if (find == nullptr) return;
    std::vector<std::pair<std::u16string, bool>> children;
    do {
        if (data.FileName[0] != 0)
            children.push_back({data.FileName, (data.FileAttributes & kFileAttributeDirectory) != 0});
        ++*operations;
    } while (volume->FindNextFileA(find, &data) && *operations < 5000);
    volume->CloseFindHandle(find);
    std::vector<uint8_t> buffer(65536);
    for (const auto& [name, isDirectory] : children) {
        const std::u16string path = directory + u"\\" + name;
        if (isDirectory) {
            WalkAndRead(volume, path, depth + 1, operations);
            continue;
        }
        void* file = volume->CreateFileA(path.c_str(), 0, kOpenExisting, kAccessRead | kAccessShareMask);
        if (file == nullptr) continue;
        int done = 0;
        for (int chunk = 0; chunk < 64 && volume->ReadFile(file, buffer.data(), 65536, &done) && done > 0; ++chunk) {
            ++*operations;
        }
        volume->CloseFileHandle(file);
    }
}

// Flips `flips` random bytes inside the given byte ranges of the image.
void Damage(std::vector<uint8_t>* image, const std::vector<std::pair<size_t, size_t>>& ranges, int flips,
            std::mt19937* random) {
    for (int i = 0; i < flips; ++i) {
        const auto& [start, length] = ranges[(*random)() % ranges.size()];
        (*image)[start + (*random)() % length] ^= static_cast<uint8_t>(1 + (*random)() % 255);
    }
}

TEST(Corruption, RandomlyDamagedRecordsAndIndexesNeverCrash) {
    const uint32_t seeds = std::getenv("NTFSKIT_CORRUPTION_SEEDS") != nullptr
                               ? static_cast<uint32_t>(std::atoi(std::getenv("NTFSKIT_CORRUPTION_SEEDS")))
                               : 40;
    for (const char* name : {"c512", "c4k", "big"}) {
        const std::vector<uint8_t> original = test::LoadImage(name);
        const int64_t clusterBytes = ReadU8(original.data(), 13) * 512;
        const size_t mft = static_cast<size_t>(ReadI64(original.data(), 48) * clusterBytes);
        // The records of the files and directories (64 on), the root's record,
        // and a stretch of the data area where index records and data lie.
        const std::vector<std::pair<size_t, size_t>> targets = {
            {mft + 64 * kRecordBytes, 60 * kRecordBytes},
            {mft + 5 * kRecordBytes, kRecordBytes},
            {original.size() / 4, 1 << 20},
        };
        int mounted = 0;
        for (uint32_t seed = 1; seed <= seeds; ++seed) {
            SCOPED_TRACE(std::string(name) + " seed " + std::to_string(seed));
            std::mt19937 random(seed);
            std::vector<uint8_t> image = original;
            Damage(&image, targets, 1 + static_cast<int>(seed % 24), &random);
            MountedVolume volume(std::move(image));
            if (volume.Mount() != 1) continue;
            ++mounted;
            int operations = 0;
            WalkAndRead(volume.Volume(), u"", 0, &operations);
            EXPECT_EQ(volume.Volume()->Umount(), 1);
        }
        EXPECT_GT(mounted, static_cast<int>(seeds) / 2) << name;
    }
}

}  // namespace
}  // namespace ntfs
