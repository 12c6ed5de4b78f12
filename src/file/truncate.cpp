// Emptying a file's data on a truncating open.
#include "foundation/endian.h"
#include "foundation/log.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

unsigned int CNTFSVolume::TruncateFile(CFullFileRecord* record, uint32_t type, const char16_t* name,
                                       int nameLength) {
    // Several instances (an attribute list) need the attribute list rewritten
    // and emptied extension records given back when instances go; that is
    // not built yet, and removing them without it would leave the freed
    // clusters mapped on disk.
    if (record->FindAttribute(type, name, static_cast<unsigned int>(nameLength), 1) != nullptr) {
        return ERROR_NOT_SUPPORTED;
    }
    CAttribute* attribute = record->FindAttribute(type, name, static_cast<unsigned int>(nameLength), 0);
    if (attribute == nullptr) return ERROR_FILE_CORRUPT;
    const unsigned int code = FreeAttributeClusters(attribute);
    if (code != ERROR_SUCCESS) return code;
    CAttribute* resized = nullptr;
    (void)attribute->SetSize(nameLength * 2 + kResidentHeaderSize, &resized);
    attribute->SetResident(1);
    WriteU32(attribute->Header, kResidentValueLengthOffset, 0);
    attribute->Mark();
    record->MarkModified();
    return ERROR_SUCCESS;
}

}  // namespace ntfs
