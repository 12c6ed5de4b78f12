// Replays the fuzz targets' seeds and every finding kept from a campaign
// (fuzz/corpus/TARGET and fuzz/regressions/TARGET) through the same drivers
// the fuzzers run. A finding is a damaged input that once crashed, hung or
// upset a sanitizer; here it must run to its end, and under the sanitizer
// build it must do so cleanly.
#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "drivers.h"

namespace ntfs::fuzz {
namespace {

std::vector<std::string> FilesIn(const std::string& directory) {
    std::vector<std::string> files;
    if (DIR* listing = opendir(directory.c_str())) {
        while (dirent* entry = readdir(listing)) {
            if (entry->d_name[0] != '.') files.push_back(directory + "/" + entry->d_name);
        }
        closedir(listing);
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::vector<uint8_t> ReadAll(const std::string& path) {
    std::vector<uint8_t> bytes;
    if (std::FILE* file = std::fopen(path.c_str(), "rb")) {
        int c = 0;
        while ((c = std::fgetc(file)) != EOF) bytes.push_back(static_cast<uint8_t>(c));
        std::fclose(file);
    }
    return bytes;
}

// Replays every kept input of `target`; returns how many ran.
int Replay(const std::string& target, void (*driver)(const uint8_t*, size_t)) {
    int replayed = 0;
    for (const char* kind : {"corpus", "regressions"}) {
        for (const std::string& path : FilesIn(std::string(NTFSKIT_FUZZ_DATA) + "/" + kind + "/" + target)) {
            SCOPED_TRACE(path);
            const std::vector<uint8_t> input = ReadAll(path);
            driver(input.data(), input.size());
            ++replayed;
        }
    }
    return replayed;
}

TEST(FuzzReplay, Walk) {
    EXPECT_GT(Replay("walk", &RunWalk), 0);
}
TEST(FuzzReplay, Write) {
    EXPECT_GT(Replay("write", &RunWrite), 0);
}
TEST(FuzzReplay, RunLists) {
    EXPECT_GT(Replay("runs", &RunRunLists), 0);
}
TEST(FuzzReplay, Decompress) {
    EXPECT_GT(Replay("lznt1", &RunDecompress), 0);
}

}  // namespace
}  // namespace ntfs::fuzz
