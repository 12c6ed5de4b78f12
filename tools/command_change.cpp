// The commands that change what a volume holds: put, mkdir, rm, rmdir, mv.
//
// Each one checks everything it can on a read-only mount first (sources
// readable, targets' parents present, names valid, room enough where it can
// be known) and opens the image for writing only when the change can be
// made: a command that fails before its first change leaves the image byte
// for byte as it was.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "cli.h"
#include "ntfskit.h"
#include "progress.h"

namespace ntfs::cli {

namespace {

constexpr size_t kMaxNameUnits = 255;

// A name the volume can hold: 1 to 255 units, none of \ / : * ? " < > | and
// no control characters.
bool ValidName(const std::u16string& name) {
    if (name.empty() || name.size() > kMaxNameUnits || name == u"." || name == u"..") return false;
    return std::none_of(name.begin(), name.end(), [](char16_t unit) {
        return unit < 0x20 || std::u16string(u"\\/:*?\"<>|").find(unit) != std::u16string::npos;
    });
}

// Equal as the volume compares names: a to z fold to A to Z.
bool FoldedEqual(const std::u16string& a, const std::u16string& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char16_t x, char16_t y) {
               return FoldNameUnit(x) == FoldNameUnit(y);
           });
}

int BadName(const std::u16string& path) {
    return FailText(Utf8(path) + ": not a valid name on the volume (1 to 255 characters, none of \\ / : * ? \" < > |)");
}

// The last component of a host path, without trailing slashes.
std::string HostLeaf(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// One thing put makes: a directory, or a file copied from the host.
struct PutItem {
    std::string host;
    std::u16string target;
    bool directory = false;
    uint64_t size = 0;
};

// Adds `host` and, for a directory with -R, everything below it (a
// directory before what it holds, names in byte order). 0, or 1 reported.
int PlanPut(const std::string& host, const std::u16string& target, bool recursive, std::vector<PutItem>* plan) {
    struct stat info {};
    if (::stat(host.c_str(), &info) != 0) return FailText(host + ": " + std::strerror(errno));
    if (!ValidName(LeafOf(target))) return BadName(target);
    if (S_ISREG(info.st_mode)) {
        std::FILE* probe = std::fopen(host.c_str(), "rb");
        if (probe == nullptr) return FailText(host + ": " + std::strerror(errno));
        std::fclose(probe);
        plan->push_back({host, target, false, static_cast<uint64_t>(info.st_size)});
        return 0;
    }
    if (!S_ISDIR(info.st_mode)) return FailText(host + ": not a regular file or a directory");
    if (!recursive) return FailText(host + ": is a directory (use put -R)");
    plan->push_back({host, target, true, 0});
    DIR* directory = ::opendir(host.c_str());
    if (directory == nullptr) return FailText(host + ": " + std::strerror(errno));
    std::vector<std::string> names;
    while (const dirent* entry = ::readdir(directory)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    ::closedir(directory);
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
        if (PlanPut(host + "/" + name, JoinPath(target, FromUtf8(name)), true, plan) != 0) return kExitFailed;
    }
    return 0;
}

// The read-only half of put: where each source goes, and whether it can.
int CheckPut(CNTFSVolume* volume, const PutOptions& options, std::vector<PutItem>* plan) {
    const std::vector<std::string> sources(options.sources.begin(), options.sources.end() - 1);
    const std::u16string destination = VolumePath(options.sources.back());
    VolumeEntry found;
    const unsigned int code = LookUp(volume, destination, &found);
    if (code != ERROR_SUCCESS && code != ERROR_FILE_NOT_FOUND) return ReportLookup(volume, destination, code);
    const bool intoDirectory = code == ERROR_SUCCESS && found.directory;
    if (sources.size() > 1 && !intoDirectory) {
        return FailText(Utf8(destination) + ": not a directory (several sources are copied into one)");
    }
    if (!intoDirectory) {
        VolumeEntry parent;
        const std::u16string parentPath = ParentPath(destination);
        const unsigned int parentCode = LookUp(volume, parentPath, &parent);
        if (parentCode != ERROR_SUCCESS) return ReportLookup(volume, parentPath, parentCode);
        if (!parent.directory) return FailText(Utf8(parentPath) + ": not a directory");
    }
    for (const std::string& source : sources) {
        const std::u16string target = intoDirectory ? JoinPath(destination, FromUtf8(HostLeaf(source))) : destination;
        if (PlanPut(source, target, options.recursive, plan) != 0) return kExitFailed;
    }
    // What stands at a target already: a file is overwritten, a directory
    // taken as it is; the other way round cannot be.
    const int64_t cluster = volume->GetClusterSize();
    int64_t wanted = 0;
    for (const PutItem& item : *plan) {
        VolumeEntry existing;
        const unsigned int at = LookUp(volume, item.target, &existing);
        if (at == ERROR_SUCCESS && existing.directory != item.directory) {
            return FailText(Utf8(item.target) + (existing.directory
                                                     ? ": is a directory on the volume; nothing was changed"
                                                     : ": is a file on the volume; nothing was changed"));
        }
        if (at != ERROR_SUCCESS && at != ERROR_FILE_NOT_FOUND) return ReportLookup(volume, item.target, at);
        if (item.directory) continue;
        wanted += static_cast<int64_t>((item.size + cluster - 1) / cluster);
        if (at == ERROR_SUCCESS) wanted -= static_cast<int64_t>((existing.size + cluster - 1) / cluster);
    }
    _VOLUME_SPACE space{};
    if (wanted > 0 && volume->GetVolumeSpace(&space) == ERROR_SUCCESS && wanted > space.FreeClusters) {
        return FailText(options.image + ": not enough free space: " + std::to_string(wanted) + " clusters wanted, " +
                        std::to_string(space.FreeClusters) + " free; nothing was changed");
    }
    return 0;
}

// Copies one host file over (or into a new) volume file.
int PutFile(CNTFSVolume* volume, const PutItem& item) {
    const std::string name = Utf8(item.target);
    std::FILE* source = std::fopen(item.host.c_str(), "rb");
    if (source == nullptr) return FailText(item.host + ": " + std::strerror(errno));
    void* file = volume->CreateFileA(item.target.c_str(), kFileAttributeArchive, kCreateAlways,
                                     kAccessRead | kAccessWrite | kAccessShareMask);
    if (file == nullptr) {
        std::fclose(source);
        return Fail(name, volume->GetLastError());
    }
    static const std::unique_ptr<char[]> buffer(new char[kCopyChunk]);
    Progress progress(name, item.size, true);
    uint64_t copied = 0;
    int status = 0;
    size_t got;
    while (status == 0 && (got = std::fread(buffer.get(), 1, kCopyChunk, source)) > 0) {
        int done = 0;
        // WriteFile answers 1 also when the transfer failed: the count tells.
        if (!volume->WriteFile(file, buffer.get(), static_cast<int>(got), &done) || done != static_cast<int>(got)) {
            status = Fail(name, volume->GetLastError() ? volume->GetLastError() : ERROR_HANDLE_DISK_FULL);
        }
        copied += got;
        progress.Update(copied);
    }
    if (std::ferror(source)) status = FailText(item.host + ": read error");
    std::fclose(source);
    if (!volume->CloseFileHandle(file) && status == 0) status = Fail(name + ": close", volume->GetLastError());
    return status;
}

// Runs `check` on a read-only mount of the image, then, when it passed,
// `change` on a writable one. The exit status.
template <typename Check, typename Change>
int CheckThenChange(const std::string& imagePath, Check check, Change change) {
    if (CheckImageAccess(imagePath, true) != 0) return kExitFailed;
    {
        MountedImage probe;
        if (probe.Open(imagePath, false) != ERROR_SUCCESS) return kExitFailed;
        int status = check(probe.Volume());
        if (probe.Close() != ERROR_SUCCESS) status = kExitFailed;
        if (status != 0) return status;
    }
    MountedImage image;
    if (image.Open(imagePath, true) != ERROR_SUCCESS) return kExitFailed;
    int status = change(image.Volume());
    if (image.Close() != ERROR_SUCCESS) status = kExitFailed;
    return status;
}

// The directories that mkdir makes for `path`: with -p every missing one on
// the way, else `path` alone (its parent must be there). 0, or 1 reported.
int PlanDirectories(CNTFSVolume* volume, const std::u16string& path, bool parents, std::vector<std::u16string>* plan) {
    if (path == u"\\") return parents ? 0 : FailText("\\: exists");
    VolumeEntry found;
    const unsigned int code = LookUp(volume, path, &found);
    if (code == ERROR_SUCCESS) {
        if (parents && found.directory) return 0;
        return FailText(Utf8(path) + (found.directory ? ": exists" : ": exists and is a file"));
    }
    if (code != ERROR_FILE_NOT_FOUND) return ReportLookup(volume, path, code);
    if (!ValidName(LeafOf(path))) return BadName(path);
    const std::u16string parent = ParentPath(path);
    if (parents) {
        if (PlanDirectories(volume, parent, true, plan) != 0) return kExitFailed;
    } else {
        VolumeEntry above;
        const unsigned int parentCode = LookUp(volume, parent, &above);
        if (parentCode != ERROR_SUCCESS) return ReportLookup(volume, parent, parentCode);
        if (!above.directory) return FailText(Utf8(parent) + ": not a directory");
    }
    if (std::find(plan->begin(), plan->end(), path) == plan->end()) plan->push_back(path);
    return 0;
}

// Deletes a file: a handle with the delete bit, closed.
int DeleteFile(CNTFSVolume* volume, const std::u16string& path) {
    void* file = volume->CreateFileA(path.c_str(), 0, kOpenExisting, kAccessDeleteOnClose);
    if (file == nullptr) return Fail(Utf8(path), volume->GetLastError());
    if (!volume->CloseFileHandle(file)) return Fail(Utf8(path), volume->GetLastError());
    return 0;
}

int RemoveDirectory(CNTFSVolume* volume, const std::u16string& path) {
    if (volume->RemoveDirectoryA(path.c_str())) return 0;
    const unsigned int code = volume->GetLastError();
    if (code == ERROR_DIR_NOT_EMPTY) return FailText(Utf8(path) + ": directory not empty");
    if (code == ERROR_ACCESS_DENIED) return FailText(Utf8(path) + ": directory in use");
    return Fail(Utf8(path), code);
}

// Removes a directory and everything below it. The listing is taken again
// until the directory is empty: a file with two names in one directory is
// listed under one of them until that one is gone.
int RemoveTree(CNTFSVolume* volume, const std::u16string& path) {
    std::vector<VolumeEntry> entries;
    for (;;) {
        const unsigned int code = ListEntries(volume, path, &entries);
        if (code != ERROR_SUCCESS) return Fail(Utf8(path), code);
        if (entries.empty()) break;
        for (const VolumeEntry& entry : entries) {
            const std::u16string child = JoinPath(path, entry.name);
            const int status = entry.directory ? RemoveTree(volume, child) : DeleteFile(volume, child);
            if (status != 0) return status;
        }
    }
    return RemoveDirectory(volume, path);
}

// The read-only checks of rm and rmdir: each path present, not the root, a
// directory only with -r (rm) or only a directory (rmdir).
int CheckRemove(CNTFSVolume* volume, const RemoveOptions& options, bool directoriesOnly,
                std::vector<std::pair<std::u16string, bool>>* targets) {
    for (const std::string& typed : options.paths) {
        const std::u16string path = VolumePath(typed);
        if (path == u"\\") return FailText("\\: the root directory cannot be removed");
        VolumeEntry found;
        const unsigned int code = LookUp(volume, path, &found);
        if (code != ERROR_SUCCESS) return ReportLookup(volume, path, code);
        if (directoriesOnly && !found.directory) return FailText(Utf8(path) + ": not a directory");
        if (!directoriesOnly && found.directory && !options.recursive) {
            return FailText(Utf8(path) + ": is a directory (use rm -r, or rmdir)");
        }
        targets->emplace_back(path, found.directory);
    }
    return 0;
}

}  // namespace

int CommandPut(const GlobalOptions&, const PutOptions& options) {
    std::vector<PutItem> plan;
    return CheckThenChange(
        options.image, [&](CNTFSVolume* volume) { return CheckPut(volume, options, &plan); },
        [&](CNTFSVolume* volume) {
            for (const PutItem& item : plan) {
                if (item.directory) {
                    VolumeEntry existing;
                    if (LookUp(volume, item.target, &existing) == ERROR_SUCCESS) continue;
                    if (!volume->CreateDirectoryA(item.target.c_str(), 0)) {
                        return Fail(Utf8(item.target), volume->GetLastError());
                    }
                } else if (PutFile(volume, item) != 0) {
                    return kExitFailed;
                }
            }
            return 0;
        });
}

int CommandMkdir(const GlobalOptions&, const MkdirOptions& options) {
    std::vector<std::u16string> plan;
    return CheckThenChange(
        options.image,
        [&](CNTFSVolume* volume) {
            for (const std::string& typed : options.paths) {
                if (PlanDirectories(volume, VolumePath(typed), options.parents, &plan) != 0) return kExitFailed;
            }
            return 0;
        },
        [&](CNTFSVolume* volume) {
            for (const std::u16string& path : plan) {
                if (!volume->CreateDirectoryA(path.c_str(), 0)) return Fail(Utf8(path), volume->GetLastError());
            }
            return 0;
        });
}

int CommandRemove(const GlobalOptions&, const RemoveOptions& options) {
    std::vector<std::pair<std::u16string, bool>> targets;
    return CheckThenChange(
        options.image, [&](CNTFSVolume* volume) { return CheckRemove(volume, options, false, &targets); },
        [&](CNTFSVolume* volume) {
            for (const auto& [path, directory] : targets) {
                const int status = directory ? RemoveTree(volume, path) : DeleteFile(volume, path);
                if (status != 0) return status;
            }
            return 0;
        });
}

int CommandRmdir(const GlobalOptions&, const RemoveOptions& options) {
    std::vector<std::pair<std::u16string, bool>> targets;
    return CheckThenChange(
        options.image,
        [&](CNTFSVolume* volume) {
            const int status = CheckRemove(volume, options, true, &targets);
            if (status != 0) return status;
            // Empty, checked before the image opens for writing; what an
            // earlier path of the list removes does not count (rmdir a/b a).
            std::vector<VolumeEntry> entries;
            for (size_t i = 0; i < targets.size(); ++i) {
                const unsigned int code = ListEntries(volume, targets[i].first, &entries);
                if (code != ERROR_SUCCESS) return Fail(Utf8(targets[i].first), code);
                for (const VolumeEntry& entry : entries) {
                    const std::u16string child = JoinPath(targets[i].first, entry.name);
                    const auto removedBefore = [&](const std::pair<std::u16string, bool>& earlier) {
                        return FoldedEqual(earlier.first, child);
                    };
                    if (std::none_of(targets.begin(), targets.begin() + static_cast<long>(i), removedBefore)) {
                        return FailText(Utf8(targets[i].first) + ": directory not empty");
                    }
                }
            }
            return 0;
        },
        [&](CNTFSVolume* volume) {
            for (const auto& target : targets) {
                if (RemoveDirectory(volume, target.first) != 0) return kExitFailed;
            }
            return 0;
        });
}

int CommandMove(const GlobalOptions&, const MoveOptions& options) {
    const std::u16string path = VolumePath(options.path);
    const std::u16string newName = FromUtf8(options.newName);
    return CheckThenChange(
        options.image,
        [&](CNTFSVolume* volume) {
            if (newName.find(u'/') != std::u16string::npos || newName.find(u'\\') != std::u16string::npos) {
                return FailText(options.newName + ": mv takes a new name, not a path (a file stays in its directory)");
            }
            if (!ValidName(newName)) return BadName(newName);
            VolumeEntry found;
            const unsigned int code = LookUp(volume, path, &found);
            if (code != ERROR_SUCCESS) return ReportLookup(volume, path, code);
            if (found.directory) return FailText(Utf8(path) + ": is a directory; the volume renames files only");
            VolumeEntry existing;
            const std::u16string target = JoinPath(ParentPath(path), newName);
            if (LookUp(volume, target, &existing) == ERROR_SUCCESS && existing.record != found.record) {
                return FailText(Utf8(target) + ": exists; nothing was changed");
            }
            return 0;
        },
        [&](CNTFSVolume* volume) {
            if (volume->RenameFile(path.c_str(), newName.c_str())) return 0;
            return Fail(Utf8(path), volume->GetLastError());
        });
}

}  // namespace ntfs::cli
