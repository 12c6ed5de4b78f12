// Write-back of the allocation bitmaps at unmount, and the count of free
// records of $MFT's bitmap taken at mount.
#include <cstdlib>

#include "data/bitmap_data.h"
#include "foundation/endian.h"
#include "foundation/log.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

namespace {

// The piece of the MFT bitmap read at a time when counting free records.
constexpr uint32_t kFreeCountChunk = 2097152;

}  // namespace

unsigned int CNTFSVolume::FlushBitmapRecord(CBitmapData* bitmap) {
    if (bitmap->IsDirty()) {
        LastError = bitmap->FlushBitmap();
        if (LastError != ERROR_SUCCESS) return LastError;
    }
    int64_t changed = 0;
    UpdateFileRecord(bitmap->GetOwner(), nullptr, nullptr, &changed);
    return LastError;
}

unsigned int CNTFSVolume::FreeMftRecordCount() {
    CFullFileRecord* mft = MftBitmap->Mft;
    CAttribute* data = mft->FindAttribute(AttributeData, nullptr, 0, 0);
    if (data == nullptr) return ERROR_FILE_CORRUPT;
    const int64_t initialized = data->IsResident() ? 0 : ReadI64(data->Header, kNonResidentInitializedSizeOffset);
    const int64_t records = initialized / GetFileRecordSize();
    const int64_t bytes = (records + 7) >> 3;
    const int partialBits = static_cast<int>(records & 7);
    auto* buffer = static_cast<uint8_t*>(std::malloc(kFreeCountChunk));
    if (buffer == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    int64_t free = 0;
    for (int64_t offset = 0; offset < bytes;) {
        const uint32_t piece =
            bytes - offset < kFreeCountChunk ? static_cast<uint32_t>(bytes - offset) : kFreeCountChunk;
        int64_t at = offset;
        uint32_t read = 0;
        const unsigned int code = mft->ReadAttribute(AttributeBitmap, nullptr, 0, &at, piece, buffer, &read);
        if (code != ERROR_SUCCESS) {
            std::free(buffer);
            return code;
        }
        const bool lastPiece = offset + piece >= bytes;
        uint32_t counted = read < piece ? read : piece;
        if (lastPiece && partialBits != 0 && counted == piece) --counted;
        for (uint32_t i = 0; i < counted; ++i) free += CBitmapData::FreeBitsInByte(buffer[i]);
        if (lastPiece && partialBits != 0 && counted + 1 == piece && read == piece) {
            // The unused high bits of the partial byte count as in use.
            const uint8_t last = static_cast<uint8_t>(buffer[counted] | (0xFFu << partialBits));
            free += CBitmapData::FreeBitsInByte(last);
        }
        offset += piece;
    }
    std::free(buffer);
    MftBitmap->FreeRecords = free;
    return ERROR_SUCCESS;
}

}  // namespace ntfs
