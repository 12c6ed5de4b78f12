// File record allocation: records of $MFT handed out and taken back.
//
// CFileRecordBitmap owns the state: its bit per record, the count of free
// records taken at mount, and the records of the relocation reserve. A record
// is taken by setting its bit and writing a blank image with the in-use flag
// over it; it is given back by clearing the flag on disk and the bit in the
// cached unit. Records travel through $MFT's own $DATA (ReadAttribute and
// WriteAttribute on the $MFT record), not through WriteFileRecord, so the
// mirror is not touched here.
//
// Locking: TakeRecord and ReleaseRecord run under the exclusive lock of
// $MFT's record, taken by their callers; reading a taken record runs under
// its shared lock. A file's own lock, when held, comes first.
#include <cstdlib>
#include <cstring>

#include "data/bitmap_data.h"
#include "foundation/endian.h"
#include "foundation/log.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

namespace {

// New records stamped at a time out of the room $DATA of $MFT already owns.
constexpr int64_t kRecordsStampedAtOnce = 10;

}  // namespace

unsigned int CFileRecordBitmap::ReadRecordImage(int64_t index, void* buffer) {
    int64_t offset = index * FileRecordSize;
    uint32_t read = 0;
    const unsigned int code =
        Mft->ReadAttribute(AttributeData, nullptr, 0, &offset, static_cast<uint32_t>(FileRecordSize), buffer, &read);
    if (code != ERROR_SUCCESS) return code;
    return read == static_cast<uint32_t>(FileRecordSize) ? ERROR_SUCCESS : ERROR_FILE_CORRUPT;
}

unsigned int CFileRecordBitmap::WriteRecordImage(int64_t index, const void* buffer) {
    int64_t offset = index * FileRecordSize;
    uint32_t written = 0;
    return Mft->WriteAttribute(AttributeData, nullptr, 0, &offset, static_cast<uint32_t>(FileRecordSize), buffer,
                               &written);
}

unsigned int CFileRecordBitmap::InitializeRecords(int64_t first, int count) {
    LogMessage("Initialize FileRecord %d, Number %d.\n", static_cast<int>(first), count);
    auto* buffer = static_cast<uint8_t*>(std::malloc(static_cast<size_t>(FileRecordSize)));
    if (buffer == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    unsigned int code = ERROR_SUCCESS;
    for (int i = 0; i < count && code == ERROR_SUCCESS; ++i) {
        code = ReadRecordImage(first + i, buffer);
        if (code != ERROR_SUCCESS) break;
        // Only the signature and the flags: the rest stays as the clusters held it.
        WriteU32(buffer, kFileMagicOffset, kFileRecordMagic);
        WriteU16(buffer, kFileFlagsOffset, 0);
        code = WriteRecordImage(first + i, buffer);
    }
    std::free(buffer);
    return code;
}

unsigned int CFileRecordBitmap::StampNewRecords(int64_t first, int64_t end) {
    if (first == ItemCount || end <= first) {
        return InitializeRecords(first, end > first ? static_cast<int>(end - first) : 0);
    }
    // After a tail move the count of records can stand past the initialized
    // size (it counts the move's clusters, which on clusters smaller than a
    // record are more than the records won). Stamping from that count would
    // leave records inside the new initialized size that were never stamped,
    // so every record from the old size on is stamped, except those whose
    // bit is set: the reserved records that hold $MFT's own pieces.
    int64_t from = first;
    for (int64_t item = first; item <= end; ++item) {
        bool inUse = false;
        if (item < end && IsItemInUse(item, &inUse) == ERROR_SUCCESS && !inUse) continue;
        if (item > from) {
            const unsigned int code = InitializeRecords(from, static_cast<int>(item - from));
            if (code != ERROR_SUCCESS) return code;
        }
        from = item + 1;
    }
    return ERROR_SUCCESS;
}

unsigned int CFileRecordBitmap::TakeRecord(int64_t* index, int ignoreExclusions) {
    int64_t item = 0;
    int got = 0;
    unsigned int code = ERROR_HANDLE_DISK_FULL;
    if (FreeRecords > 2 || Growing) {
        code = AllocateUnits(1, &item, &got, ignoreExclusions);
        if (code == ERROR_HANDLE_DISK_FULL && Growing) return code;
    }
    if (code == ERROR_HANDLE_DISK_FULL) {
        // Enlarging begins while two free records are left, free bits or not.
        LogMessage("$MFT file is full. Enlarge it to store more data.\n");
        CAttribute* data = Mft->FindAttribute(AttributeData, nullptr, 0, 0);
        if (data == nullptr || data->IsResident()) return ERROR_FILE_CORRUPT;
        int64_t allocated = ReadI64(data->Header, kNonResidentAllocatedSizeOffset);
        int64_t initialized = ReadI64(data->Header, kNonResidentInitializedSizeOffset);
        int grown = 0;
        if (allocated - initialized < FileRecordSize) {
            code = EnlargeMft(allocated / FileRecordSize, ignoreExclusions, &grown);
            if (code != ERROR_SUCCESS) return code;
            data = Mft->FindAttribute(AttributeData, nullptr, 0, 0);
            if (data == nullptr || data->IsResident()) return ERROR_FILE_CORRUPT;
            allocated = ReadI64(data->Header, kNonResidentAllocatedSizeOffset);
            initialized = ReadI64(data->Header, kNonResidentInitializedSizeOffset);
        }
        int64_t count = (allocated - initialized) / FileRecordSize;
        if (count > kRecordsStampedAtOnce) count = kRecordsStampedAtOnce;
        if (count < 0) count = 0;
        const int64_t newInitialized = initialized + count * FileRecordSize;
        const int64_t newCount = newInitialized / FileRecordSize;
        // The new records must have bits to be handed out by; a bitmap that
        // cannot cover them would leave records that no bit describes, so the
        // stamping does not begin (after a growth, the bitmap grows first).
        if (!grown && Mft->GetAttributeDataSize(AttributeBitmap, nullptr, 0) * 8 < newCount) {
            return ERROR_HANDLE_DISK_FULL;
        }
        code = StampNewRecords(initialized / FileRecordSize, newCount);
        if (code != ERROR_SUCCESS) return code;
        ItemCount = newCount;
        if (grown) {
            code = Resize(static_cast<uint32_t>(ItemCount));
            if (code == ERROR_INSUFFICIENT_BUFFER) code = SpillBitmap(static_cast<uint32_t>(ItemCount));
            if (code != ERROR_SUCCESS) return code;
            // The spill drops the result of its own growth: records are not
            // counted in before a bit describes each of them.
            if (Mft->GetAttributeDataSize(AttributeBitmap, nullptr, 0) * 8 < newCount) {
                return ERROR_HANDLE_DISK_FULL;
            }
        }
        data = Mft->FindAttribute(AttributeData, nullptr, 0, 0);
        if (data == nullptr) return ERROR_FILE_CORRUPT;
        WriteU64(data->Header, kNonResidentDataSizeOffset, static_cast<uint64_t>(newInitialized));
        WriteU64(data->Header, kNonResidentInitializedSizeOffset, static_cast<uint64_t>(newInitialized));
        data->Mark();
        int64_t changed = 0;
        if (Volume->UpdateFileRecord(Mft, nullptr, nullptr, &changed)) {
            FreeRecords += count;
        } else if (Volume->LastError != ERROR_SUCCESS) {
            return Volume->LastError;
        }
        code = AllocateUnits(1, &item, &got, ignoreExclusions);
    }
    if (code != ERROR_SUCCESS) return code;

    auto* buffer = static_cast<uint8_t*>(std::malloc(static_cast<size_t>(FileRecordSize)));
    if (buffer == nullptr) {
        (void)FreeUnits(&item, 1);
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    code = ReadRecordImage(item, buffer);
    if (code == ERROR_SUCCESS && !CFileRecord::InitializeFileRecord(reinterpret_cast<_FILE_RECORD_HEADER*>(buffer),
                                                                    FileRecordSize, Volume->GetSectorSize(), &item)) {
        // A record whose bit is clear but whose image says it is in use is
        // not overwritten: whatever it holds stays (a bit lost to a failed
        // write can leave one of $MFT's own records so). Its bit stays set,
        // which is what the record's image says, so that the next search
        // does not find the same record again.
        std::free(buffer);
        --FreeRecords;
        return ERROR_FILE_CORRUPT;
    }
    if (code == ERROR_SUCCESS) {
        WriteU16(buffer, kFileFlagsOffset, kFileRecordInUse);
        code = WriteRecordImage(item, buffer);
        *index = item;
    }
    std::free(buffer);
    if (code != ERROR_SUCCESS) {
        (void)FreeUnits(&item, 1);
        return code;
    }
    --FreeRecords;
    return ERROR_SUCCESS;
}

unsigned int CFileRecordBitmap::ReleaseRecord(int64_t* index) {
    auto* buffer = static_cast<uint8_t*>(std::malloc(static_cast<size_t>(FileRecordSize)));
    if (buffer == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    unsigned int code = ReadRecordImage(*index, buffer);
    if (code == ERROR_SUCCESS) {
        WriteU16(buffer, kFileFlagsOffset, 0);
        code = WriteRecordImage(*index, buffer);
    }
    std::free(buffer);
    if (code != ERROR_SUCCESS) return code;
    code = LoadUnit(index);
    if (code != ERROR_SUCCESS) return code;
    const int64_t byte = *index / 8 - UnitBase;
    if (byte >= 0 && byte < ValidBytes) {
        Buffer[byte] = static_cast<uint8_t>(Buffer[byte] & ~(1u << (*index & 7)));
        Dirty = 1;
    }
    return ERROR_SUCCESS;
}

unsigned int CNTFSVolume::ReferenceEmptyFileRecordFromMFT(CFileRecord** record, int useReserve) {
    *record = nullptr;
    CFileRecordBitmap* bitmap = MftBitmap;
    if (bitmap == nullptr) return LastError = ERROR_INTERNAL_ERROR;
    const int recordSize = GetFileRecordSize();
    auto* buffer = static_cast<uint8_t*>(std::malloc(static_cast<size_t>(recordSize)));
    if (buffer == nullptr) return LastError = ERROR_NOT_ENOUGH_MEMORY;
    CFullFileRecord* mft = bitmap->Mft;
    int64_t index = 0;
    if (useReserve == 0) {
        mft->LockExclusive();
        LastError = bitmap->TakeRecord(&index, 0);
        mft->UnlockExclusive();
    } else {
        const uint32_t all = bitmap->ReserveCount >= 32 ? 0xFFFFFFFFu : (1u << bitmap->ReserveCount) - 1;
        if ((bitmap->ReserveMask & all) == all) {
            LastError = ERROR_HANDLE_DISK_FULL;
        } else {
            int bit = 0;
            while ((bitmap->ReserveMask & (1u << bit)) != 0) ++bit;
            bitmap->ReserveMask |= 1u << bit;
            index = bitmap->ReserveBase + bit;
            std::memset(buffer, 0, static_cast<size_t>(recordSize));
            CFileRecord::InitializeFileRecord(reinterpret_cast<_FILE_RECORD_HEADER*>(buffer), recordSize,
                                              GetSectorSize(), &index);
            LastError = bitmap->WriteRecordImage(index, buffer);
            if (LastError != ERROR_SUCCESS) bitmap->ReserveMask &= ~(1u << bit);
        }
    }
    if (LastError != ERROR_SUCCESS) {
        std::free(buffer);
        return LastError;
    }
    LogMessage("Found a available FileRecord, Index %X%08XH.\n",
               static_cast<unsigned int>(static_cast<uint64_t>(index) >> 32) & 0xFFFF,
               static_cast<unsigned int>(index));
    mft->LockShared();
    LastError = bitmap->ReadRecordImage(index, buffer);
    mft->UnlockShared();
    auto giveBack = [&](unsigned int code) {
        mft->LockExclusive();
        (void)bitmap->ReleaseRecord(&index);
        mft->UnlockExclusive();
        return LastError = code;
    };
    if (LastError != ERROR_SUCCESS) {
        std::free(buffer);
        return giveBack(LastError);
    }
    auto* made = new (std::nothrow) CFileRecord(index, reinterpret_cast<_FILE_RECORD_HEADER*>(buffer), nullptr, this);
    if (made == nullptr) {
        std::free(buffer);
        return giveBack(ERROR_NOT_ENOUGH_MEMORY);
    }
    if (!made->IsValid()) {
        delete made;
        return giveBack(ERROR_NOT_ENOUGH_MEMORY);
    }
    *record = made;
    return LastError = ERROR_SUCCESS;
}

unsigned int CNTFSVolume::DeleteFileRecordFromMFT(int64_t number) {
    if (MftBitmap == nullptr) return ERROR_INTERNAL_ERROR;
    MftBitmap->Mft->LockExclusive();
    const unsigned int code = MftBitmap->ReleaseRecord(&number);
    MftBitmap->Mft->UnlockExclusive();
    return code;
}

unsigned int CFullFileRecord::ReleaseExtensionRecords() {
    CNTFSVolume* volume = CFileRecord::Volume;
    CFileRecordBitmap* bitmap = volume->MftBitmap;
    if (bitmap == nullptr) return ERROR_INTERNAL_ERROR;
    unsigned int code = ERROR_SUCCESS;
    auto release = [&](CFileRecord* record) {
        if (record->IsValid()) {
            record->Modified = 1;
            WriteU16(record->Image, kFileFlagsOffset, 0);
        }
        int64_t index = record->RecordNumber;
        bitmap->Mft->LockExclusive();
        code = bitmap->ReleaseRecord(&index);
        bitmap->Mft->UnlockExclusive();
        return code;
    };
    // Each record leaves the array as it is destroyed, and the merged table
    // is rebuilt before any way out: a failure half way would otherwise leave
    // the array and the table pointing at destroyed records.
    while (ExtensionRecords.GetCount() > 0) {
        CFileRecord* extension = ExtensionRecords.At<CFileRecord>(0);
        if (release(extension) != ERROR_SUCCESS) {
            RebuildMergedTable();
            return code;
        }
        extension->Modified = 0;
        ExtensionRecords.RemoveAt(0);
        delete extension;
    }
    RebuildMergedTable();
    if (CFileRecord::Valid && release(this) != ERROR_SUCCESS) return code;
    ClearModified();
    return code;
}

}  // namespace ntfs
