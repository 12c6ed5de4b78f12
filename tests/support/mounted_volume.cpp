#include "support/mounted_volume.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "support/fixture.h"

namespace ntfs::test {

MountedVolume::MountedVolume(const std::string& name) : MountedVolume(LoadImage(name)) {}

MountedVolume::MountedVolume(std::vector<uint8_t> image)
    : memory_(std::move(image)), faults_(&memory_), volume_(new CNTFSVolume(&faults_)) {}

MountedVolume::~MountedVolume() {
    volume_.reset();
    if (!savedPath_.empty()) std::remove(savedPath_.c_str());
}

int MountedVolume::Mount() {
    return volume_->Mount();
}

std::string MountedVolume::UnmountToFile() {
    volume_->Umount();
    if (savedPath_.empty()) {
        char name[] = "/tmp/ntfskit-volume-XXXXXX";
        const int fd = mkstemp(name);
        if (fd >= 0) close(fd);
        savedPath_ = name;
    }
    memory_.SaveFile(savedPath_);
    return savedPath_;
}

}  // namespace ntfs::test
