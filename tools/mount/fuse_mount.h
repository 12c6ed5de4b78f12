// `ntfskit mount`: serves a volume image through FUSE (libfuse3), read and
// write, by way of VolumeFs and the library's public interface.
#pragma once

#include <string>

namespace ntfs::mount {

struct MountSettings {
    std::string image;
    std::string mountpoint;
    bool readOnly = false;    // -o ro: the image is opened read-only too
    bool foreground = false;  // -f: stay in the foreground
    bool debug = false;       // -d: libfuse's request trace (implies -f)
};

// Mounts, serves until the file system is unmounted (fusermount3 -u, SIGINT
// or SIGTERM), then unmounts the volume so its bitmaps reach the image.
// Returns the exit status: 0, or 1 when the mount or the final write-back
// failed (reported on standard error).
int RunMount(const MountSettings& settings);

}  // namespace ntfs::mount
