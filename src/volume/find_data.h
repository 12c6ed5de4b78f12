// _FIND_FILE_DATA: what enumeration delivers to the host for one directory
// entry. The caller owns it. Times stay in the on-disk form (100-nanosecond
// units since 1601, UTC). The size is given high half first, on purpose.
#pragma once

#include <cstdint>

namespace ntfs {

struct _FIND_FILE_DATA {
    uint32_t FileAttributes;
    uint32_t CreationTime[2];    // low, high
    uint32_t LastAccessTime[2];  // low, high
    uint32_t LastWriteTime[2];   // low, high
    uint32_t FileSizeHigh;
    uint32_t FileSizeLow;
    int64_t FileRecordNumber;  // -1 when the record object is not valid
    char16_t FileName[512];
    char16_t AlternateFileName[28];
};

}  // namespace ntfs
