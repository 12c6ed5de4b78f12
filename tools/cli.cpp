#include "cli.h"

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

unsigned int MountedImage::Open(const std::string& path, bool writable) {
    path_ = path;
    writable_ = writable;
    CStorage* storage = &mapped_;
    if (writable || mapped_.Open(path) != ERROR_SUCCESS) {
        storage = &storage_;
        const unsigned int opened = storage_.Open(path, !writable);
        if (opened != ERROR_SUCCESS) {
            Fail(storage_.LastErrorText().empty() ? path : storage_.LastErrorText(), opened);
            return opened;
        }
    }
    volume_.reset(new CNTFSVolume(storage));
    if (!volume_->Mount()) {
        const unsigned int code = volume_->GetLastError();
        Fail(path, code);
        return code;
    }
    mounted_ = true;
    return ERROR_SUCCESS;
}

unsigned int MountedImage::Close() {
    if (!mounted_) return ERROR_SUCCESS;
    mounted_ = false;
    volume_->Umount();
    // A read-only image refuses the write-back of unmount; that is expected.
    const unsigned int code = writable_ ? volume_->GetLastError() : ERROR_SUCCESS;
    if (code != ERROR_SUCCESS) Fail(path_ + ": unmount", code);
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
