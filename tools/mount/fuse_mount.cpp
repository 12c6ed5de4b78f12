#include "mount/fuse_mount.h"

#define FUSE_USE_VERSION 35
#include <fuse.h>
#include <syslog.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "cli.h"
#include "file_layout.h"
#include "mount/errno_map.h"
#include "mount/volume_fs.h"
#include "ntfskit.h"
#include "recording_storage.h"

namespace ntfs::mount {

namespace {

// The largest read the kernel sends (the max_read option): the volume's
// read of a file is judged for calls of this size.
constexpr uint32_t kMaxRead = 128 * 1024;

// What the kernel's requests reach: the file system and the code of its
// final unmount, kept for RunMount.
struct Served {
    VolumeFs* fs = nullptr;
    unsigned int unmountCode = ERROR_SUCCESS;
    bool unmounted = false;
};

Served* Current() {
    return static_cast<Served*>(fuse_get_context()->private_data);
}

VolumeFs* Fs() {
    return Current()->fs;
}

std::u16string Path(const char* path) {
    return cli::VolumePath(path);
}

void* Init(struct fuse_conn_info* connection, struct fuse_config* config) {
    connection->max_read = kMaxRead;
    // Inode numbers are record numbers; attributes come with the listing.
    config->use_ino = 1;
    config->readdir_ino = 1;
    return fuse_get_context()->private_data;
}

void Destroy(void* data) {
    auto* served = static_cast<Served*>(data);
    served->unmountCode = served->fs->Unmount();
    served->unmounted = true;
}

int GetAttr(const char* path, struct stat* attributes, struct fuse_file_info*) {
    return Fs()->GetAttr(Path(path), attributes);
}

int ReadDir(const char* path, void* buffer, fuse_fill_dir_t filler, off_t, struct fuse_file_info*,
            enum fuse_readdir_flags) {
    filler(buffer, ".", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
    filler(buffer, "..", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
    return Fs()->ReadDir(Path(path), [buffer, filler](const std::u16string& name, const struct stat& attributes) {
        return filler(buffer, cli::ToUtf8(name.c_str()).c_str(), &attributes, 0, FUSE_FILL_DIR_PLUS) == 0;
    });
}

int Open(const char* path, struct fuse_file_info* info) {
    uint64_t handle = 0;
    const int result = Fs()->Open(Path(path), info->flags, &handle);
    if (result == 0) info->fh = handle;
    return result;
}

int Create(const char* path, mode_t, struct fuse_file_info* info) {
    uint64_t handle = 0;
    const int result = Fs()->Create(Path(path), info->flags, &handle);
    if (result == 0) info->fh = handle;
    return result;
}

int Read(const char*, char* buffer, size_t size, off_t offset, struct fuse_file_info* info) {
    return Fs()->Read(info->fh, buffer, size, offset);
}

int Write(const char*, const char* buffer, size_t size, off_t offset, struct fuse_file_info* info) {
    return Fs()->Write(info->fh, buffer, size, offset);
}

int Truncate(const char* path, off_t size, struct fuse_file_info* info) {
    return info != nullptr ? Fs()->Truncate(Path(path), &info->fh, size) : Fs()->Truncate(Path(path), nullptr, size);
}

int Release(const char*, struct fuse_file_info* info) {
    return Fs()->Release(info->fh);
}

// Data reaches the device during each write and the size at release; there
// is nothing to flush at close(2) before that.
int Flush(const char*, struct fuse_file_info*) {
    return 0;
}

int MakeDirectory(const char* path, mode_t) {
    return Fs()->MakeDirectory(Path(path));
}

int Unlink(const char* path) {
    return Fs()->Unlink(Path(path));
}

int RemoveDirectory(const char* path) {
    return Fs()->RemoveDirectory(Path(path));
}

int Rename(const char* from, const char* to, unsigned int flags) {
    if ((flags & RENAME_EXCHANGE) != 0) return -EINVAL;
    return Fs()->Rename(Path(from), Path(to), (flags & RENAME_NOREPLACE) != 0);
}

int StatFs(const char*, struct statvfs* space) {
    return Fs()->StatFs(space);
}

// The volume keeps no owners or modes, and the library sets no times: these
// are accepted and change nothing, so that touch, cp and tar can finish.
int Ignore(const char*, mode_t, struct fuse_file_info*) {
    return 0;
}
int IgnoreOwner(const char*, uid_t, gid_t, struct fuse_file_info*) {
    return 0;
}
int IgnoreTimes(const char*, const struct timespec[2], struct fuse_file_info*) {
    return 0;
}

struct fuse_operations Operations() {
    struct fuse_operations operations {};
    operations.init = Init;
    operations.destroy = Destroy;
    operations.getattr = GetAttr;
    operations.readdir = ReadDir;
    operations.open = Open;
    operations.create = Create;
    operations.read = Read;
    operations.write = Write;
    operations.truncate = Truncate;
    operations.release = Release;
    operations.flush = Flush;
    operations.mkdir = MakeDirectory;
    operations.unlink = Unlink;
    operations.rmdir = RemoveDirectory;
    operations.rename = Rename;
    operations.statfs = StatFs;
    operations.chmod = Ignore;
    operations.chown = IgnoreOwner;
    operations.utimens = IgnoreTimes;
    return operations;
}

void LogRefusal(const std::string& image, const std::u16string& path, const std::string& reason) {
    const std::string file = cli::ToUtf8(path.c_str());
    std::fprintf(stderr, "ntfskit mount: %s: %s: read refused: %s\n", image.c_str(), file.c_str(), reason.c_str());
    syslog(LOG_WARNING, "ntfskit mount: %s: %s: read refused: %s", image.c_str(), file.c_str(), reason.c_str());
}

// Whether the volume's read of the file at `path` hands out other bytes than
// the file holds on disk, judged from its run lists.
ReadVerdict CheckRead(CNTFSVolume* volume, CStorage* storage, const std::u16string& path) {
    ReadVerdict verdict;
    _FIND_FILE_DATA data{};
    void* find = volume->FindFirstFileA(path.c_str(), &data);
    if (find == nullptr) return verdict;  // just opened: cannot be
    volume->CloseFindHandle(find);
    FileLayout layout;
    if (LoadFileLayout(volume, storage, data.FileRecordNumber, &layout) != ERROR_SUCCESS) {
        verdict.refusal = "its records could not be examined";
        return verdict;
    }
    const std::vector<const LayoutAttribute*> pieces = layout.DataPieces();
    if (pieces.empty()) return verdict;
    const uint32_t unit = static_cast<uint32_t>(volume->GetClusterSize()) << pieces.front()->UnitExponent;
    const uint32_t callBytes = (kMaxRead + unit - 1) / unit * unit;
    for (const ReadDifference& difference : FindReadDifferences(layout, volume->GetClusterSize(), callBytes)) {
        if (difference.Kind == ReadDifferenceKind::BeyondInitializedSize) {
            verdict.zerosFrom = std::min<uint64_t>(verdict.zerosFrom, difference.Offset);
        } else if (verdict.refusal.empty()) {
            verdict.refusal = "bytes " + std::to_string(difference.Offset) + " to " +
                              std::to_string(difference.Offset + difference.Length - 1) +
                              " as read differ from the file on disk: " + ReadDifferenceReason(difference.Kind);
        }
    }
    return verdict;
}

}  // namespace

int RunMount(const MountSettings& settings) {
    FileStorage storage;
    const unsigned int opened = storage.Open(settings.image, settings.readOnly);
    if (opened != ERROR_SUCCESS) {
        return cli::Fail(storage.LastErrorText().empty() ? settings.image : storage.LastErrorText(), opened);
    }
    // Every failed transfer is counted: the volume passes over some.
    RecordingStorage recording(&storage);
    CNTFSVolume volume(&recording);
    if (!volume.Mount()) return cli::Fail(settings.image, volume.GetLastError());
    VolumeFs fs(&volume, settings.readOnly);
    const std::string image = settings.image;
    fs.SetReadCheck([&recording](CNTFSVolume* mounted, const std::u16string& path) {
        return CheckRead(mounted, &recording, path);
    });
    fs.SetDeviceFailures([&recording] { return recording.Failures(); });
    fs.SetRefusalLog(
        [image](const std::u16string& path, const std::string& reason) { LogRefusal(image, path, reason); });

    std::string mountOptions = "fsname=" + settings.image + ",subtype=ntfskit,max_read=" + std::to_string(kMaxRead);
    if (settings.readOnly) mountOptions += ",ro";
    std::vector<std::string> arguments = {"ntfskit", "-o", mountOptions};
    if (settings.debug) arguments.push_back("-d");
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    struct fuse_args args = FUSE_ARGS_INIT(static_cast<int>(argv.size() - 1), argv.data());

    Served served;
    served.fs = &fs;
    const struct fuse_operations operations = Operations();
    // One thread serves the kernel (fuse_loop): every call into the volume
    // is serialized anyway (see VolumeFs).
    struct fuse* fuse = fuse_new(&args, &operations, sizeof(operations), &served);
    if (fuse == nullptr) return cli::FailText(settings.mountpoint + ": cannot set up the FUSE session");
    if (fuse_mount(fuse, settings.mountpoint.c_str()) != 0) {
        fuse_destroy(fuse);
        fs.Unmount();
        return cli::FailText(settings.mountpoint +
                             ": cannot mount (is it an empty directory, and is /dev/fuse there?)");
    }
    struct fuse_session* session = fuse_get_session(fuse);
    int loop = -1;
    if (fuse_daemonize(settings.foreground || settings.debug ? 1 : 0) == 0 && fuse_set_signal_handlers(session) == 0) {
        // Ends at fusermount3 -u (0) or at SIGINT, SIGTERM or SIGHUP (the
        // signal's number): both are a clean end.
        loop = fuse_loop(fuse);
        fuse_remove_signal_handlers(session);
    }
    fuse_unmount(fuse);
    fuse_destroy(fuse);  // the destroy operation unmounts the volume
    fuse_opt_free_args(&args);
    const unsigned int code = served.unmounted ? served.unmountCode : fs.Unmount();
    if (code != ERROR_SUCCESS) return cli::Fail(settings.image + ": unmount", code);
    if (loop < 0) return cli::FailText(settings.mountpoint + ": the FUSE session failed");
    return 0;
}

}  // namespace ntfs::mount
