// Mount and unmount: the boot sector (or its backup), $MFT proved against its
// own data, $MFTMirr, the version from $Volume, the root directory record and
// the cluster bitmap; at unmount everything open is closed, both bitmaps are
// flushed and their records stamped and written. No journal is replayed and
// no dirty state is looked at: volumes are taken as they stand.
//
// Mount and Umount assume that no other thread is inside the library.
#include <cstdlib>
#include <cstring>
#include <new>

#include "data/bitmap_data.h"
#include "foundation/endian.h"
#include "foundation/log.h"
#include "record/file_record.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

namespace {

constexpr int kVersionMajorOffset = 8;
constexpr int kVersionMinorOffset = 9;

}  // namespace

int CNTFSVolume::InitializeMFT(_FILE_RECORD_HEADER* header) {
    auto* mft = new (std::nothrow) CFullFileRecord(kMftRecord, header, this);
    if (mft == nullptr) {
        std::free(header);
        LastError = ERROR_NOT_ENOUGH_MEMORY;
        return 0;
    }
    if (!mft->IsValid()) {
        LastError = ERROR_UNRECOGNIZED_VOLUME;
        delete mft;
        return 0;
    }
    CAttribute* data = mft->FindAttribute(AttributeData, nullptr, 0, 0);
    if (data == nullptr) {
        LastError = ERROR_UNRECOGNIZED_VOLUME;
        delete mft;
        return 0;
    }
    const int recordSize = GetFileRecordSize();
    auto* copy = static_cast<uint8_t*>(std::malloc(static_cast<size_t>(recordSize)));
    if (copy == nullptr) {
        LastError = ERROR_NOT_ENOUGH_MEMORY;
        delete mft;
        return 0;
    }
    // The run list of record 0 must lead back to record 0 itself.
    int64_t offset = 0;
    uint32_t read = 0;
    const unsigned int code =
        mft->ReadAttribute(AttributeData, nullptr, 0, &offset, static_cast<uint32_t>(recordSize), copy, &read);
    if (code != ERROR_SUCCESS) {
        LastError = code;
        std::free(copy);
        delete mft;
        return 0;
    }
    const bool same = read == static_cast<uint32_t>(recordSize) &&
                      ReadU16(copy, kFileUpdateSequenceCountOffset) == recordSize / kSectorSize + 1 &&
                      ReadU16(copy, kFileUpdateSequenceOffsetOffset) < recordSize &&
                      ApplyUpdateSequence(copy, recordSize) &&
                      std::memcmp(copy, mft->Image, static_cast<size_t>(recordSize)) == 0;
    std::free(copy);
    if (!same) {
        LastError = ERROR_UNRECOGNIZED_VOLUME;
        delete mft;
        return 0;
    }
    // Re-find the attribute: nothing changed the table, but the pointer is
    // only promised until the next rebuild.
    data = mft->FindAttribute(AttributeData, nullptr, 0, 0);
    const int64_t initialized = data->IsResident() ? 0 : ReadI64(data->Header, kNonResidentInitializedSizeOffset);
    // A bitmap left by a first try that failed after this point is replaced.
    delete MftBitmap;
    MftBitmap = new (std::nothrow)
        CFileRecordBitmap(this, mft, ClusterSize, FileRecordSectors, recordSize, initialized / recordSize);
    if (MftBitmap == nullptr) {
        LastError = ERROR_NOT_ENOUGH_MEMORY;
        return 0;
    }
    LastError = mft->LoadExtensionRecords();
    if (LastError != ERROR_SUCCESS) return 0;
    LastError = FreeMftRecordCount();
    return LastError == ERROR_SUCCESS ? 1 : 0;
}

// References one of the system records that Mount needs; a record that
// exists but fails its checks is an unrecognised volume.
int CNTFSVolume::ReferenceSystemRecord(int64_t number, CFullFileRecord** record, bool releaseInvalid) {
    LastError = ReferenceFileRecord(number, record);
    if (LastError != ERROR_SUCCESS) return 0;
    if (!(*record)->IsValid()) {
        if (releaseInvalid) (*record)->Release();
        LastError = ERROR_UNRECOGNIZED_VOLUME;
        return 0;
    }
    return 1;
}

int CNTFSVolume::Mount() {
    if (Mounted && !Umount()) return 0;
    DestroyShortNameLists();  // left by an earlier mount that failed
    ShortNameLists = new (std::nothrow) CChainElementContainer();
    LogMessage("-------------------- NFTS Volume Mount --------------------\n");
    LogMessage("Mount NTFS Volume from storage device %08XH.\n",
               static_cast<unsigned int>(reinterpret_cast<uintptr_t>(Storage)));
    if (!LoadBootupData(0)) {
        const int64_t totalSectors = ReadI64(BootSector, kBootTotalSectorsOffset);
        if (totalSectors == 0) return 0;
        if (!LoadBootupData(totalSectors)) return 0;
    }
    const int64_t sectors = ReadI64(BootSector, kBootTotalSectorsOffset);
    LogMessage("\nNTFS volume information:\n   Sectors in volume   %08X%08XH.\n",
               static_cast<unsigned int>(static_cast<uint64_t>(sectors) >> 32), static_cast<unsigned int>(sectors));
    LogMessage(
        "   Bytes per Sector    %02XH.\n   Sectors per Cluster %XH.\n   FileRecord Size     "
        "%04XH. IndexRecord size    %04XH.\n",
        static_cast<unsigned int>(GetSectorSize()), static_cast<unsigned int>(GetClusterSectors()),
        static_cast<unsigned int>(GetFileRecordSize()), static_cast<unsigned int>(GetIndexRecordSize()));

    // An invalid mirror record keeps its reference: MftMirror holds it.
    if (!ReferenceSystemRecord(kMftMirrorRecord, &MftMirror, false)) return 0;

    CFullFileRecord* volumeRecord = nullptr;
    if (!ReferenceSystemRecord(kVolumeRecord, &volumeRecord)) return 0;
    CAttribute* information = volumeRecord->FindAttribute(AttributeVolumeInformation, nullptr, 0, 0);
    if (information == nullptr || !information->IsResident() || information->GetValue() == nullptr ||
        information->GetDataSize() < kVersionMinorOffset + 1) {
        volumeRecord->Release();
        LastError = ERROR_UNRECOGNIZED_VOLUME;
        return 0;
    }
    VersionMajor = ReadU8(information->GetValue(), kVersionMajorOffset);
    VersionMinor = ReadU8(information->GetValue(), kVersionMinorOffset);
    LogMessage("Volume version %d.%d.\n", VersionMajor, VersionMinor);
    volumeRecord->Release();

    // The root's reference is kept for the life of the volume.
    CFullFileRecord* root = nullptr;
    if (!ReferenceSystemRecord(kRootDirectoryRecord, &root)) return 0;

    CFullFileRecord* bitmapRecord = nullptr;
    if (!ReferenceSystemRecord(kBitmapRecord, &bitmapRecord)) return 0;
    const int clusterSectors = GetClusterSectors();
    auto* clusterBitmap = new (std::nothrow) CClusterBitmap(this, bitmapRecord, ClusterSize, sectors / clusterSectors);
    if (clusterBitmap == nullptr) {
        bitmapRecord->Release();
        LastError = ERROR_NOT_ENOUGH_MEMORY;
        return 0;
    }
    int64_t firstCluster = 0;
    (void)clusterBitmap->LoadUnit(&firstCluster);
    ClusterBitmap = clusterBitmap;
    Mounted = 1;
    LastError = ERROR_SUCCESS;
    return 1;
}

int CNTFSVolume::Umount() {
    // Close what is still open. A close that cannot take its handle off the
    // chain would leave it at the head for ever: such a handle is unlinked.
    for (CChainElement* handle; (handle = FileHandles.GetElement(0)) != nullptr;) {
        CloseFileHandle(handle);
        if (FileHandles.GetElement(0) == handle) FileHandles.RemoveElement(handle);
    }
    for (CChainElement* handle; (handle = FindHandles.GetElement(0)) != nullptr;) {
        CloseFindHandle(handle);
        if (FindHandles.GetElement(0) == handle) FindHandles.RemoveElement(handle);
    }
    // Directories go whatever their reference counts; changes held in them are lost.
    for (CChainElement* directory; (directory = Directories.GetElement(0)) != nullptr;) delete directory;

    if (MftBitmap != nullptr) FlushBitmapRecord(MftBitmap);
    if (ClusterBitmap != nullptr) FlushBitmapRecord(ClusterBitmap);
    if (MftMirror != nullptr) MftMirror->Release();
    MftMirror = nullptr;
    if (ClusterBitmap != nullptr) {
        ClusterBitmap->GetOwner()->Release();
        delete ClusterBitmap;
        ClusterBitmap = nullptr;
    }
    if (MftBitmap != nullptr) {
        MftBitmap->Mft->Release();
        delete MftBitmap;
        MftBitmap = nullptr;
    }
    DestroyShortNameLists();
    return 1;
}

void CNTFSVolume::DestroyShortNameLists() {
    if (ShortNameLists == nullptr) return;
    while (CChainElement* list = ShortNameLists->RemoveHeadElement()) delete list;
    delete ShortNameLists;
    ShortNameLists = nullptr;
}

}  // namespace ntfs
