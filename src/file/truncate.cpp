// Emptying a file's data on a truncating open.
#include "foundation/endian.h"
#include "foundation/log.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

unsigned int CNTFSVolume::TruncateFile(CFullFileRecord* record, uint32_t type, const char16_t* name, int nameLength) {
    const auto length = static_cast<unsigned int>(nameLength);
    // The sweep over the further instances takes instance 1, then what is
    // instance 2 after that removal, and so on: every second piece of the
    // numbering at the start. The pieces it leaves would stay behind an
    // empty resident first instance, an attribute no reader can make sense
    // of, holding their clusters; so the sweep runs again until only the
    // first instance is left.
    while (record->FindAttribute(type, name, length, 1) != nullptr) {
        for (unsigned int index = 1;; ++index) {
            CAttribute* piece = record->FindAttribute(type, name, length, index);
            if (piece == nullptr) break;
            unsigned int code = record->FreeAttributeClusters(piece);
            if (code != ERROR_SUCCESS) return code;
            code = record->DeleteAttribute(piece);
            if (code != ERROR_SUCCESS) return code;
        }
    }
    CAttribute* attribute = record->FindAttribute(type, name, length, 0);
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
