#include "cli.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "foundation/log.h"

namespace ntfs::cli {

namespace {
std::FILE* g_out = stdout;
}

std::FILE* Out() {
    return g_out;
}

void RedirectLibraryLog(bool verbose) {
    const int saved = dup(STDOUT_FILENO);
    if (saved < 0) return;
    std::fflush(stdout);
    std::FILE* out = fdopen(saved, "w");
    if (out == nullptr) {
        close(saved);
        return;
    }
    // Listings are many short lines: a large buffer, written in few calls.
    std::setvbuf(out, nullptr, _IOFBF, 1 << 16);
    g_out = out;
    if (verbose) {
        dup2(STDERR_FILENO, STDOUT_FILENO);
    } else if (std::freopen("/dev/null", "w", stdout) == nullptr) {
        dup2(STDERR_FILENO, STDOUT_FILENO);
    }
}

const char* CodeMeaning(unsigned int code) {
    switch (code) {
        case ERROR_SUCCESS:
            return "success";
        case ERROR_FILE_NOT_FOUND:
            return "no such file or directory";
        case ERROR_ACCESS_DENIED:
            return "access denied";
        case ERROR_INVALID_HANDLE:
            return "invalid handle";
        case ERROR_NOT_ENOUGH_MEMORY:
            return "out of memory";
        case ERROR_BAD_FORMAT:
            return "record has a bad format";
        case ERROR_WRITE_PROTECT:
            return "the image is opened read-only";
        case ERROR_SECTOR_NOT_FOUND:
            return "sector outside the image";
        case ERROR_HANDLE_DISK_FULL:
            return "no free space on the volume";
        case ERROR_NOT_SUPPORTED:
            return "operation not supported";
        case ERROR_FILE_EXISTS:
            return "file exists";
        case ERROR_INVALID_PARAMETER:
            return "invalid parameter";
        case ERROR_INSUFFICIENT_BUFFER:
            return "no room in the record";
        case ERROR_DIR_NOT_EMPTY:
            return "directory not empty";
        case ERROR_BAD_COMPRESSION_BUFFER:
            return "malformed compressed data";
        case ERROR_UNSUPPORTED_COMPRESSION:
            return "compression format not supported";
        case ERROR_BEYOND_END_OF_VALUE:
            return "beyond the end of the data";
        case ERROR_UNRECOGNIZED_VOLUME:
            return "not an NTFS volume this tool can read";
        case ERROR_IO_DEVICE:
            return "I/O error on the image";
        case ERROR_INTERNAL_ERROR:
            return "internal error";
        case ERROR_FILE_CORRUPT:
            return "the volume is corrupt";
        default:
            return "unknown error";
    }
}

int Fail(const std::string& what, unsigned int code) {
    std::fprintf(stderr, "ntfskit: %s: %s (code %u)\n", what.c_str(), CodeMeaning(code), code);
    return 1;
}

int FailText(const std::string& message) {
    std::fprintf(stderr, "ntfskit: %s\n", message.c_str());
    return 1;
}

namespace {

// The supported geometry, in words, for messages.
const char kGeometry[] =
    "ntfskit reads volumes of 512-byte sectors, 1024-byte file records and 4096-byte index records";

// A record size field of the boot sector in bytes: clusters when positive,
// else 2 to the power of its magnitude.
int64_t RecordBytes(int8_t field, int64_t clusterBytes) {
    return field > 0 ? field * clusterBytes : (field > -31 ? int64_t{1} << -field : 0);
}

// What is wrong with the image as a volume this tool reads, judged from its
// first sector and its size; empty when nothing is. `*ntfs` tells whether the
// first sector is an NTFS boot sector at all (a volume whose first sector is
// damaged may still mount from its backup, so that case is judged only after
// a failed mount).
std::string CheckBootSector(const std::string& path, bool* ntfs) {
    *ntfs = false;
    const int fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0) return path + ": " + std::strerror(errno);
    struct stat info {};
    uint8_t boot[512] = {};
    const off_t end = ::lseek(fd, 0, SEEK_END);
    const ssize_t got = ::pread(fd, boot, sizeof boot, 0);
    const int readErrno = errno;
    fstat(fd, &info);
    ::close(fd);
    if (got < 0) return path + ": cannot be read: " + std::strerror(readErrno);
    if (end <= 0 || got < static_cast<ssize_t>(sizeof boot)) {
        return path + ": too small to be a volume (" + std::to_string(end < 0 ? 0 : end) + " bytes)";
    }
    *ntfs = std::memcmp(boot + kBootOemOffset, "NTFS    ", 8) == 0 && boot[510] == 0x55 && boot[511] == 0xAA;
    if (!*ntfs) return std::string();
    const int sectorBytes = boot[kBootBytesPerSectorOffset] | (boot[kBootBytesPerSectorOffset + 1] << 8);
    const uint8_t perCluster = boot[kBootSectorsPerClusterOffset];
    const int64_t clusterSectors = perCluster > 0x80 ? (int64_t{1} << (256 - perCluster)) : perCluster;
    const int64_t clusterBytes = clusterSectors * sectorBytes;
    const int64_t recordBytes = RecordBytes(static_cast<int8_t>(boot[kBootFileRecordSizeOffset]), clusterBytes);
    const int64_t indexBytes = RecordBytes(static_cast<int8_t>(boot[kBootIndexRecordSizeOffset]), clusterBytes);
    if (sectorBytes != kSectorSize || recordBytes != kFileRecordSize || indexBytes != kIndexRecordSize ||
        clusterSectors == 0) {
        return path + ": unsupported geometry: " + std::to_string(sectorBytes) + "-byte sectors, " +
               std::to_string(clusterBytes) + "-byte clusters, " + std::to_string(recordBytes) +
               "-byte file records, " + std::to_string(indexBytes) + "-byte index records (" + kGeometry + ")";
    }
    int64_t totalSectors = 0;
    for (int i = 7; i >= 0; --i) totalSectors = (totalSectors << 8) | boot[kBootTotalSectorsOffset + i];
    const int64_t held = static_cast<int64_t>(end) / kSectorSize;
    if (!S_ISBLK(info.st_mode) && totalSectors > held) {
        return path + ": truncated image: the volume has " + std::to_string(totalSectors) +
               " sectors, the file holds only " + std::to_string(held);
    }
    return std::string();
}

}  // namespace

int CheckImageAccess(const std::string& path, bool writable) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        if (errno == ENOENT) return FailText(path + ": no such image file");
        return FailText(path + ": " + std::strerror(errno));
    }
    if (S_ISDIR(info.st_mode)) return FailText(path + ": is a directory, not a volume image");
    if (!S_ISREG(info.st_mode) && !S_ISBLK(info.st_mode)) {
        return FailText(path + ": not a volume image (neither a regular file nor a block device)");
    }
    if (::access(path.c_str(), R_OK) != 0) return FailText(path + ": cannot be read: " + std::strerror(errno));
    // A file without any write permission bit counts as read-only also for
    // a user (root) whom the system would let write it.
    const bool noWriteBits = S_ISREG(info.st_mode) && (info.st_mode & 0222) == 0;
    if (writable && (noWriteBits || ::access(path.c_str(), W_OK) != 0)) {
        if (noWriteBits) errno = EACCES;
        return FailText(path + ": the image is read-only (" + std::strerror(errno) +
                        ") and this command changes it; nothing was changed");
    }
    return 0;
}

unsigned int MountedImage::Open(const std::string& path, bool writable) {
    path_ = path;
    writable_ = writable;
    if (CheckImageAccess(path, writable) != 0) return ERROR_FILE_NOT_FOUND;
    bool ntfs = false;
    const std::string problem = CheckBootSector(path, &ntfs);
    if (!problem.empty()) {
        FailText(problem);
        return ERROR_UNRECOGNIZED_VOLUME;
    }
    CStorage* storage = &mapped_;
    if (writable || mapped_.Open(path) != ERROR_SUCCESS) {
        storage = &storage_;
        const unsigned int opened = storage_.Open(path, !writable);
        if (opened != ERROR_SUCCESS) {
            FailText(storage_.LastErrorText().empty() ? path + ": cannot be opened" : storage_.LastErrorText());
            return opened;
        }
    }
    recorder_.reset(new RecordingStorage(storage));
    volume_.reset(new CNTFSVolume(recorder_.get()));
    if (!volume_->Mount()) {
        const unsigned int code = volume_->GetLastError();
        if (!ntfs) {
            FailText(path + ": not an NTFS volume (no NTFS boot sector)");
        } else if (recorder_->Failures() != 0) {
            ReportDeviceFailure("mount");
        } else {
            FailText(path + ": cannot be mounted: " + CodeMeaning(code) + " (code " + std::to_string(code) + ")");
        }
        return code != ERROR_SUCCESS ? code : ERROR_UNRECOGNIZED_VOLUME;
    }
    mounted_ = true;
    return ERROR_SUCCESS;
}

int MountedImage::ReportDeviceFailure(const std::string& during) {
    reported_ = recorder_->Failures();
    std::string text =
        path_ + ": device error during " + during + ": " + recorder_->Describe(recorder_->FirstFailure());
    if (reported_ > 1) text += " (and " + std::to_string(reported_ - 1) + " more failed transfers)";
    return FailText(text);
}

unsigned int MountedImage::Close() {
    if (!mounted_) return ERROR_SUCCESS;
    mounted_ = false;
    // Umount answers success whatever its flushes gave: its last error and
    // the storage's record tell. Umount does not clear the last error, so a
    // code left by an earlier operation (an enumeration's end) counts only
    // when the flushes changed it. A read-only image refuses the write-back
    // of unmount; that is expected, and its device reads are on record.
    const unsigned int before = volume_->GetLastError();
    volume_->Umount();
    unsigned int code = volume_->GetLastError();
    if (!writable_ || code == before) code = ERROR_SUCCESS;
    if (recorder_->Failures() > reported_) {
        ReportDeviceFailure("unmount");
        return code != ERROR_SUCCESS ? code : ERROR_IO_DEVICE;
    }
    if (code != ERROR_SUCCESS) Fail(path_ + ": writing back at unmount", code);
    return code;
}

MountedImage::~MountedImage() {
    Close();
}

std::u16string FromUtf8(const std::string& text) {
    std::u16string out;
    for (size_t i = 0; i < text.size();) {
        const auto byte = static_cast<unsigned char>(text[i]);
        uint32_t point = byte;
        int extra = 0;
        if (byte >= 0xF0) {
            point = byte & 0x07;
            extra = 3;
        } else if (byte >= 0xE0) {
            point = byte & 0x0F;
            extra = 2;
        } else if (byte >= 0xC0) {
            point = byte & 0x1F;
            extra = 1;
        }
        ++i;
        for (int k = 0; k < extra && i < text.size(); ++k, ++i) {
            point = (point << 6) | (static_cast<unsigned char>(text[i]) & 0x3F);
        }
        if (point >= 0x10000) {
            point -= 0x10000;
            out.push_back(static_cast<char16_t>(0xD800 + (point >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + (point & 0x3FF)));
        } else {
            out.push_back(static_cast<char16_t>(point));
        }
    }
    return out;
}

std::string ToUtf8(const char16_t* text) {
    std::string out;
    for (size_t i = 0; text[i] != 0; ++i) {
        uint32_t point = text[i];
        if (point >= 0xD800 && point < 0xDC00 && text[i + 1] >= 0xDC00 && text[i + 1] < 0xE000) {
            point = 0x10000 + ((point - 0xD800) << 10) + (text[i + 1] - 0xDC00);
            ++i;
        }
        if (point < 0x80) {
            out.push_back(static_cast<char>(point));
        } else if (point < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (point >> 6)));
            out.push_back(static_cast<char>(0x80 | (point & 0x3F)));
        } else if (point < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | (point >> 12)));
            out.push_back(static_cast<char>(0x80 | ((point >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (point & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xF0 | (point >> 18)));
            out.push_back(static_cast<char>(0x80 | ((point >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((point >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (point & 0x3F)));
        }
    }
    return out;
}

std::string Utf8(const std::u16string& text) {
    return ToUtf8(text.c_str());
}

std::u16string VolumePath(const std::string& typed) {
    std::u16string path = FromUtf8(typed);
    for (char16_t& unit : path) {
        if (unit == u'/') unit = u'\\';
    }
    if (path.empty() || path[0] != u'\\') path.insert(path.begin(), u'\\');
    while (path.size() > 1 && path.back() == u'\\') path.pop_back();
    return path;
}

}  // namespace ntfs::cli
