// Threads sharing one volume: the result of each read, write and close is
// that operation's own, while another thread keeps failing and so keeps
// changing the volume's last error under it.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "file/file_handle.h"
#include "foundation/log.h"
#include "support/fixture.h"
#include "support/mounted_volume.h"
#include "support/tools.h"

namespace ntfs {
namespace {

using test::MountedVolume;

constexpr unsigned int kReadWriteShared = kAccessRead | kAccessWrite | kAccessShareMask;
constexpr int kRounds = 16;
constexpr int kAppendsPerRound = 6;

// Another thread of the host that goes on with an enumeration whose handle
// is gone, over and over: each of its calls answers 0 and leaves 6 as the
// last error. Work of the test starts once it is failing.
class FailingNeighbour {
public:
    explicit FailingNeighbour(CNTFSVolume* volume)
        : thread_([this, volume] {
              int notAHandle = 0;
              _FIND_FILE_DATA data{};
              while (!stop_.load(std::memory_order_relaxed)) {
                  if (volume->FindNextFileA(&notAHandle, &data) == 0) calls_.fetch_add(1, std::memory_order_relaxed);
              }
          }) {
        while (calls_.load() == 0) std::this_thread::yield();
    }
    ~FailingNeighbour() {
        stop_ = true;
        thread_.join();
    }

private:
    std::atomic<bool> stop_{false};
    std::atomic<long> calls_{0};
    std::thread thread_;
};

TEST(FileThreads, ResultsAreTheirOwnWhileAnotherThreadFails) {
    MountedVolume mounted("c4k");
    ASSERT_EQ(mounted.Mount(), 1);
    CNTFSVolume* volume = mounted.Volume();
    const int clusterSize = volume->GetClusterSize();
    std::vector<uint8_t> buffer(static_cast<size_t>(clusterSize), 0x5A);
    int failedReads = 0;
    int failedWrites = 0;
    int failedCloses = 0;
    for (int round = 0; round < kRounds; ++round) {
        // Handles of a resident and of a non-resident file, and one that grows.
        std::vector<void*> handles;
        for (int i = 0; i < 32; ++i) {
            void* handle = volume->CreateFileA(i % 2 ? u"\\data\\large-random.bin" : u"\\readme.txt", 0, kOpenExisting,
                                               kReadWriteShared);
            ASSERT_NE(handle, nullptr) << volume->GetLastError();
            handles.push_back(handle);
        }
        void* grower = volume->CreateFileA(u"\\data\\exact-cluster.bin", 0, kOpenExisting, kReadWriteShared);
        ASSERT_NE(grower, nullptr);
        unsigned int low = 0;
        ASSERT_EQ(volume->SetFilePointer(grower, &low, nullptr, kFileEnd), ERROR_SUCCESS);

        FailingNeighbour neighbour(volume);
        for (void* handle : handles) {
            int done = 0;
            failedReads += volume->ReadFile(handle, buffer.data(), 100, &done) == 1 && done == 100 ? 0 : 1;
        }
        handles.push_back(grower);
        // Each append takes one more cluster and writes the record.
        for (int i = 0; i < kAppendsPerRound; ++i) {
            int done = 0;
            failedWrites +=
                volume->WriteFile(grower, buffer.data(), clusterSize, &done) == 1 && done == clusterSize ? 0 : 1;
        }
        for (void* handle : handles) failedCloses += volume->CloseFileHandle(handle) == 1 ? 0 : 1;
    }
    EXPECT_EQ(failedReads, 0);
    EXPECT_EQ(failedWrites, 0);
    EXPECT_EQ(failedCloses, 0);

    const std::string saved = mounted.UnmountToFile();
    int64_t record = -1;
    for (const test::ManifestEntry& entry : test::LoadManifest("c4k")) {
        if (entry.path_utf8 == "\\data\\exact-cluster.bin") record = entry.record;
    }
    const test::ToolResult cat =
        test::RunTool("icat -f ntfs " + test::ShellQuote(saved) + " " + std::to_string(record) + " 2>/dev/null");
    EXPECT_EQ(cat.output.size(), static_cast<size_t>(4096 + kRounds * kAppendsPerRound * clusterSize));
    EXPECT_EQ(test::RunTool("ntfsfix -n " + test::ShellQuote(saved)).status, 0);
}

}  // namespace
}  // namespace ntfs
