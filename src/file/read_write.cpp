// The byte stream of an open file: ReadFile, WriteFile, SetFilePointer and
// GetFileSize, with the growth behind WriteFile: resident data grows in its
// record, leaves it when it no longer fits, and non-resident data takes
// clusters at its end. A file grows only at its end: the pointer never goes
// beyond the handle's DataSize.
#include <cstdint>
#include <cstring>

#include "file/file_handle.h"
#include "foundation/endian.h"
#include "foundation/log.h"
#include "foundation/platform.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

namespace {

// The largest size a file may reach: rounded up to clusters or to a whole
// compression unit of any cluster size it still has a 64-bit byte count.
constexpr int64_t kLargestFileSize = INT64_MAX - 0xFFFFFFFF;

int64_t CeilDiv(int64_t value, int64_t by) {
    return (value + by - 1) / by;
}

}  // namespace

CFileHandle* CNTFSVolume::TransferHandle(void* handle, unsigned int access, int size) {
    CFileHandle* file = LookUpFileHandle(handle);
    if (file == nullptr) {
        LastError = ERROR_INVALID_HANDLE;
        return nullptr;
    }
    if ((file->AccessMode & access) == 0) {
        LastError = ERROR_ACCESS_DENIED;
        return nullptr;
    }
    // Deviation for safety: a negative size is no request to shorten a file
    // (only a write of no bytes is), and taken as a count it would move about
    // 4 GiB from or into the caller's buffer. It is refused before anything
    // moves.
    if (size < 0) {
        LastError = ERROR_INVALID_PARAMETER;
        return nullptr;
    }
    // Deviation for safety: another handle deleted the file; its clusters
    // and its record may belong to a new file already, so nothing is read
    // from or written to them.
    if (file->FileRecord->RemovedFromVolume) {
        LastError = ERROR_ACCESS_DENIED;
        return nullptr;
    }
    return file;
}

int CNTFSVolume::ReadFile(void* handle, void* buffer, int size, int* done) {
    *done = 0;
    CFileHandle* file = TransferHandle(handle, kAccessRead, size);
    if (file == nullptr) return 0;
    if (file->FilePointer >= file->DataSize) {
        file->FilePointer = file->DataSize;
        return 1;
    }
    int64_t count = size;
    if (count > file->DataSize - file->FilePointer) count = file->DataSize - file->FilePointer;
    int64_t position = file->FilePointer;
    uint32_t read = 0;
    file->FileRecord->LockShared();
    const unsigned int code = file->FileRecord->ReadAttribute(AttributeData, nullptr, 0, &position,
                                                              static_cast<uint32_t>(count), buffer, &read);
    file->FileRecord->UnlockShared();
    LastError = code;
    file->FilePointer += read;
    GetSystemTime(&file->LastReadTime);
    *done = static_cast<int>(read);
    // The result follows this transfer's own code: LastError is shared by
    // every thread of the volume.
    return code == ERROR_SUCCESS ? 1 : 0;
}

// Stamps the change time and writes the file's records after a growth; a
// failure puts the record image back.
unsigned int CNTFSVolume::WriteGrownRecord(CFullFileRecord* record) {
    int64_t changed = 0;
    const unsigned int code = WriteChangedRecord(record, nullptr, nullptr, &changed);
    if (code != ERROR_SUCCESS) {
        record->Revert();
        return code;
    }
    // What is on disk now is what a later failed growth returns to.
    record->Commit();
    return ERROR_SUCCESS;
}

int CNTFSVolume::WriteResident(CFileHandle* file, const void* buffer, int size, int* done, bool* leaves) {
    *leaves = false;
    CFullFileRecord* record = file->FileRecord;
    CAttribute* attribute = record->FindAttribute(AttributeData, nullptr, 0, 0);
    // A value length that reaches past its attribute is damage: the copies
    // below trust it.
    if (attribute == nullptr || !attribute->IsResident() || !attribute->BodyFits()) {
        LastError = ERROR_FILE_CORRUPT;
        return 0;
    }
    const int64_t length = attribute->GetDataSize();
    const int64_t end = file->FilePointer + size;
    if (end <= length) {
        // A zero-byte write may come with no buffer at all.
        if (size > 0) std::memcpy(attribute->GetValue() + file->FilePointer, buffer, static_cast<size_t>(size));
        file->FilePointer = end;
        attribute->Mark();
        record->MarkModified();
        *done = size;
        return 1;
    }
    const int64_t capacity = length + attribute->Record->GetFreeSpace();
    if (end < capacity) {
        const int valueOffset = ReadU16(attribute->Header, kResidentValueOffsetOffset);
        CAttribute* resized = nullptr;
        // The free space comes from the record's header. A record that
        // claims more room than its image holds refuses the growth here, and
        // the copy would land outside the attribute: damage, nothing changed.
        if (attribute->SetSize(static_cast<int>(end + valueOffset), &resized) != ERROR_SUCCESS) {
            LastError = ERROR_FILE_CORRUPT;
            return 0;
        }
        // A zero-byte write may come with no buffer at all.
        if (size > 0) std::memcpy(attribute->GetValue() + file->FilePointer, buffer, static_cast<size_t>(size));
        file->FilePointer = end;
        WriteU32(attribute->Header, kResidentValueLengthOffset, static_cast<uint32_t>(file->FilePointer));
        if (file->DataSize < file->FilePointer) file->DataSize = file->FilePointer;
        attribute->Mark();
        record->MarkModified();
        *done = size;
        return 1;
    }
    // The data leaves the record.
    const unsigned int code = attribute->Record->MakeNonResident(attribute);
    LastError = code;
    if (code != ERROR_SUCCESS) return 0;
    if (WriteGrownRecord(record) != ERROR_SUCCESS) return 0;
    file->AllocatedSize =
        static_cast<int64_t>(GetClusterSize()) * (file->Compressed ? kDefaultCompressionUnitClusters : 1);
    file->Resident = 0;
    *leaves = true;
    return 1;
}

int CNTFSVolume::WriteFile(void* handle, const void* buffer, int size, int* done) {
    *done = 0;
    CFileHandle* file = TransferHandle(handle, kAccessWrite, size);
    if (file == nullptr) return 0;
    if (file->FilePointer > file->DataSize) file->FilePointer = file->DataSize;
    CFullFileRecord* record = file->FileRecord;
    // Only a damaged size puts the pointer this close to the largest size;
    // the end of the write could not even be computed.
    if (file->FilePointer > kLargestFileSize - size) {
        LastError = ERROR_INVALID_PARAMETER;
        return 0;
    }
    if (file->Resident) {
        record->LockExclusive();
        bool leaves = false;
        const int result = WriteResident(file, buffer, size, done, &leaves);
        record->UnlockExclusive();
        if (!result || !leaves) return result;
    }

    const int64_t clusterSize = GetClusterSize();
    const int64_t end = file->FilePointer + size;
    if (end > file->AllocatedSize) {
        unsigned int clusters =
            static_cast<unsigned int>(CeilDiv(end, clusterSize) - CeilDiv(file->AllocatedSize, clusterSize));
        record->LockExclusive();
        const unsigned int code =
            file->Compressed ? file->ReserveCompressedClusters(&clusters) : file->AllocateClusters(clusters);
        LastError = code;
        if (code != ERROR_SUCCESS) {
            record->UnlockExclusive();
            return 0;
        }
        CAttribute* first = record->FindAttribute(AttributeData, nullptr, 0, 0);
        const int64_t grown = static_cast<int64_t>(clusters) * clusterSize;
        WriteU64(first->Header, kNonResidentAllocatedSizeOffset,
                 ReadU64(first->Header, kNonResidentAllocatedSizeOffset) + static_cast<uint64_t>(grown));
        first->Mark();
        record->MarkModified();
        if (WriteGrownRecord(record) != ERROR_SUCCESS) {
            // The record is back as it was last written; clusters that only
            // the lost image mapped are given back.
            file->FreeUnwrittenRuns();
            record->UnlockExclusive();
            return 0;
        }
        file->UnwrittenRuns.Clear();
        file->AllocatedSize += grown;
        record->UnlockExclusive();
    }

    int64_t position = file->FilePointer;
    uint32_t written = static_cast<uint32_t>(size);
    record->LockShared();
    LastError =
        record->WriteAttribute(AttributeData, nullptr, 0, &position, static_cast<uint32_t>(size), buffer, &written);
    record->UnlockShared();
    *done = static_cast<int>(written);
    if (file->FilePointer + written > file->DataSize) file->DataSize = file->FilePointer + written;
    // A write of no bytes ends the file at the pointer; the clusters stay.
    if (size == 0) file->DataSize = file->FilePointer;
    file->FilePointer += written;
    GetSystemTime(&file->LastWriteTime);
    file->Modified = 1;
    // Kept: the result is 1 even when the transfer failed; LastError tells.
    return 1;
}

unsigned int CNTFSVolume::SetFilePointer(void* handle, unsigned int* low, int* high, unsigned int method) {
    CFileHandle* file = LookUpFileHandle(handle);
    if (file == nullptr) return ERROR_INVALID_HANDLE;
    const int64_t value =
        static_cast<int64_t>((static_cast<uint64_t>(high != nullptr ? static_cast<uint32_t>(*high) : 0) << 32) | *low);
    int64_t target;
    switch (method) {
        case kFileBegin:
            target = value;
            break;
        case kFileCurrent:
            target = value + file->FilePointer;
            if (target > file->DataSize) target = file->DataSize;
            break;
        case kFileEnd:
            target = file->DataSize - value;
            if (target < 0) target = 0;
            break;
        default:
            return ERROR_INVALID_PARAMETER;
    }
    file->FilePointer = target > file->DataSize ? file->DataSize : target;
    *low = static_cast<unsigned int>(file->FilePointer);
    if (high != nullptr) *high = static_cast<int>(static_cast<uint64_t>(file->FilePointer) >> 32);
    return ERROR_SUCCESS;
}

int CNTFSVolume::GetFileSize(void* handle, unsigned int* low, unsigned int* high) {
    CFileHandle* file = LookUpFileHandle(handle);
    if (file == nullptr) {
        LastError = ERROR_INVALID_HANDLE;
        return 0;
    }
    if (low != nullptr) *low = static_cast<unsigned int>(file->DataSize);
    if (high != nullptr) *high = static_cast<unsigned int>(static_cast<uint64_t>(file->DataSize) >> 32);
    return 1;
}

}  // namespace ntfs
