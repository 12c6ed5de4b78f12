#include "mount/errno_map.h"

#include <cerrno>

#include "ntfskit.h"

namespace ntfs::mount {

namespace {

struct CodeErrno {
    unsigned int code;
    int error;
};

// Sharing refusals and "in use" both come as ERROR_ACCESS_DENIED: to a
// program they mean the file is busy, not that it lacks a permission.
// ERROR_INSUFFICIENT_BUFFER is a file record (or index) without room for
// what was asked, which a program can only treat as a full file system.
constexpr CodeErrno kTable[] = {
    {ERROR_SUCCESS, 0},
    {ERROR_FILE_NOT_FOUND, ENOENT},
    {ERROR_ACCESS_DENIED, EBUSY},
    {ERROR_INVALID_HANDLE, EBADF},
    {ERROR_NOT_ENOUGH_MEMORY, ENOMEM},
    {ERROR_WRITE_PROTECT, EROFS},
    {ERROR_HANDLE_DISK_FULL, ENOSPC},
    {ERROR_NOT_SUPPORTED, EOPNOTSUPP},
    {ERROR_FILE_EXISTS, EEXIST},
    {ERROR_INVALID_PARAMETER, EINVAL},
    {ERROR_INSUFFICIENT_BUFFER, ENOSPC},
    {ERROR_DIR_NOT_EMPTY, ENOTEMPTY},
};

}  // namespace

int ErrnoFromCode(unsigned int code) {
    for (const CodeErrno& entry : kTable) {
        if (entry.code == code) return entry.error;
    }
    // Damaged structures, codec failures, sector and device errors.
    return EIO;
}

}  // namespace ntfs::mount
