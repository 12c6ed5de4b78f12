// Paths and names: their validity, and the walk from the root to the directory that
// holds a path's last component.
#include <cstdlib>
#include <cstring>

#include "file/find_handle.h"
#include "foundation/log.h"
#include "foundation/platform.h"
#include "index/directory.h"
#include "record/layout.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

int CNTFSVolume::IsValidPath(const char16_t* path) {
    const int length = lstrlenW(path);
    if (length == 0 || path[0] != u'\\' || path[length - 1] == u'\\') return 0;
    for (int i = 0; i < length; ++i) {
        if (path[i] == u'*' || path[i] == u'?') return 0;
    }
    return 1;
}

const char16_t* CNTFSVolume::LeafOfPath(const char16_t* path) {
    const char16_t* leaf = path;
    for (const char16_t* unit = path; *unit != 0; ++unit) {
        if (*unit == u'\\') leaf = unit + 1;
    }
    return leaf;
}

int CNTFSVolume::IsValidFileName(const char16_t* name) {
    for (; *name != 0; ++name) {
        switch (*name) {
            case u'\\':
            case u'/':
            case u':':
            case u'"':
            case u'<':
            case u'>':
            case u'|':
                return 0;
            default:
                break;
        }
    }
    return 1;
}

unsigned int CNTFSVolume::GetParentDirectory(const char16_t* path, CDirectory** directory) {
    const int length = lstrlenW(path);
    int slash = length - 1;
    while (slash >= 0 && path[slash] != u'\\') --slash;
    int64_t number = kRootDirectoryRecord;
    char16_t* parent = nullptr;
    if (slash > 0) {
        parent = static_cast<char16_t*>(std::malloc((static_cast<size_t>(slash) + 1) * sizeof(char16_t)));
        if (parent == nullptr) return LastError = ERROR_NOT_ENOUGH_MEMORY;
        std::memcpy(parent, path, static_cast<size_t>(slash) * sizeof(char16_t));
        parent[slash] = 0;
        _FIND_FILE_DATA data{};
        void* find = FindFirstFileA(parent, &data);
        if (find == nullptr) {
            std::free(parent);
            return LastError;
        }
        CloseFindHandle(find);
        number = data.FileRecordNumber;
    } else {
        parent = static_cast<char16_t*>(std::malloc(3 * sizeof(char16_t)));
        if (parent == nullptr) return LastError = ERROR_NOT_ENOUGH_MEMORY;
        parent[0] = u'\\';
        parent[1] = u'.';
        parent[2] = 0;
    }
    LastError = ReferenceDirectory(number, parent, directory);
    std::free(parent);
    return LastError;
}

}  // namespace ntfs
