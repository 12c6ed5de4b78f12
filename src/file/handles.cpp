// Looking up open handles: by the value a host holds (the object's address,
// checked by a search of the chain) and by path.
#include "file/file_handle.h"
#include "foundation/chain_element.h"
#include "foundation/platform.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

namespace {

// The parameter of FileHandleFromFileNameSearchRoutine: the folded path and
// how many matches to pass over.
struct NameAndSkip {
    const char16_t* Name;
    int Skip;
};

CFileHandle* AsFileHandle(CChainElement* element) {
    return static_cast<CFileHandle*>(static_cast<CShareElement*>(element));
}

}  // namespace

int CNTFSVolume::FileHandleSearchRoutine(CChainElement* element, void* parameter) {
    return static_cast<void*>(element) == parameter;
}

int CNTFSVolume::FindHandleSearchRoutine(CChainElement* element, void* parameter) {
    return FileHandleSearchRoutine(element, parameter);
}

int CNTFSVolume::FileHandleFromFileNameSearchRoutine(CChainElement* element, void* parameter) {
    auto* block = static_cast<NameAndSkip*>(parameter);
    CFileHandle* handle = AsFileHandle(element);
    if (handle->Path == nullptr || lstrcmpiW(handle->Path, block->Name) != 0) return 0;
    if (block->Skip == 0) return 1;
    --block->Skip;
    return 0;
}

CFileHandle* CNTFSVolume::GetFileHandleByFileName(const char16_t* name, int index) {
    NameAndSkip block{name, index};
    CChainElement* element = FileHandles.SearchElement(&FileHandleFromFileNameSearchRoutine, &block);
    return element != nullptr ? AsFileHandle(element) : nullptr;
}

CFileHandle* CNTFSVolume::LookUpFileHandle(void* handle) {
    CChainElement* element = FileHandles.SearchElement(&FileHandleSearchRoutine, handle);
    return element != nullptr ? AsFileHandle(element) : nullptr;
}

}  // namespace ntfs
