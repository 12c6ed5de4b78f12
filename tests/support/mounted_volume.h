// A fixture volume copied into memory and mounted: the common start of the
// tests that work on real volumes. Each instance has its own copy, so a test
// may write freely.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "memory_storage.h"
#include "support/fault_storage.h"
#include "volume/ntfs_volume.h"

namespace ntfs::test {

class MountedVolume {
public:
    // Loads fixture `name` into memory behind a FaultStorage. Call Mount().
    explicit MountedVolume(const std::string& name);
    explicit MountedVolume(std::vector<uint8_t> image);
    ~MountedVolume();

    // Mounts; returns the result of CNTFSVolume::Mount.
    int Mount();
    // Umount, then writes the image to a temporary file for the independent
    // readers and returns its path (removed by the destructor).
    std::string UnmountToFile();

    CNTFSVolume* Volume() { return volume_.get(); }
    MemoryStorage& Memory() { return memory_; }
    FaultStorage& Faults() { return faults_; }

private:
    MemoryStorage memory_;
    FaultStorage faults_;
    std::unique_ptr<CNTFSVolume> volume_;
    std::string savedPath_;
};

}  // namespace ntfs::test
