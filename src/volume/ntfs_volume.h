// CNTFSVolume: the NTFS implementation of CVolume and the NTFS-level
// operations a host can reach.
//
// Ownership: the host owns the storage and this object. The volume owns its
// five containers: FileHandles, FindHandles, FileRecords and Directories
// (embedded; the last two keep released objects in a recover box of ten) and
// ShortNameLists (made at mount). There is at most one CFullFileRecord per
// record number and one CDirectory per directory, shared by reference count.
//
// Life: CreateFileSystemObject builds the object without I/O; Mount reads the
// boot sector (or its backup), $MFT (or its mirror), and records 1, 3, 5 and
// 6; Umount closes what is open and flushes the bitmaps, after which the
// object is only good for destruction. The destructor does no I/O.
//
// Geometry has no fields of its own: the accessors read the boot sector image,
// whose two record size fields InitializeGeometryData has replaced by byte
// counts. The accessors are valid only after the boot data has been loaded.
//
// Where the member bodies live, by group:
//   life, geometry, CopySector, times   volume/ntfs_volume.cpp
//   boot sector and geometry checks     volume/boot_data.cpp
//   Mount, Umount, system records       volume/mount.cpp
//   ReferenceFileRecord                 volume/file_record_references.cpp
//   ReferenceDirectory                  volume/reference_directory.cpp
//   ReadFileRecord, WriteFileRecord     record/file_record_io.cpp
//   UpdateFileRecord, WriteFullRecord   record/full_file_record_update.cpp
//   cluster allocation and release      data/cluster_allocation.cpp
//   DeleteFileRecordFromMFT, ReferenceEmptyFileRecordFromMFT
//                                       data/record_allocation.cpp
//   bitmap write-back, free records     data/bitmap_write_back.cpp
//   GetVolumeSpace                      data/volume_space.cpp
//   handle look-ups                     file/handles.cpp
//   IsValidPath, GetParentDirectory     file/paths.cpp
//   FindFirstFileA, FindNextFileA, ...  file/enumeration.cpp
//   CreateFileA, OpenFile               file/open.cpp
//   TruncateFile                        file/truncate.cpp
//   ReadFile, WriteFile, seek, size     file/read_write.cpp
//   CloseFileHandle                     file/close.cpp
//   CreateDirectoryA                    file/create.cpp
//   DeleteFile, RemoveDirectoryA        file/delete.cpp
//   RenameFile                          file/rename.cpp
//   IsValidFileName                     file/paths.cpp
//   short names                         file/short_file_name_list.cpp
//   a file's names in record and index  file/file_names.cpp
#pragma once

#include <cstdint>

#include "foundation/chain_element.h"
#include "foundation/platform.h"
#include "volume/volume.h"

namespace ntfs {

class CFileRecord;
class CFullFileRecord;
class CDirectory;
class CFileHandle;
class CFileRecordBitmap;
class CClusterBitmap;
class CBitmapData;
class CAttribute;
class CFindHandle;
class CIndexEntry;
struct _FILE_RECORD_HEADER;  // a raw FILE record image, read through endian.h

// Boot sector fields, byte offsets into the 512-byte image.
constexpr int kBootOemOffset = 3;
constexpr int kBootBytesPerSectorOffset = 11;
constexpr int kBootSectorsPerClusterOffset = 13;
constexpr int kBootTotalSectorsOffset = 40;
constexpr int kBootMftLcnOffset = 48;
constexpr int kBootMftMirrorLcnOffset = 56;
constexpr int kBootFileRecordSizeOffset = 64;
constexpr int kBootIndexRecordSizeOffset = 68;
constexpr int kBootSignatureOffset = 510;
constexpr uint16_t kBootSignature = 0xAA55;

// The one geometry class the library supports.
constexpr int kSectorSize = 512;
constexpr int kFileRecordSize = 1024;
constexpr int kIndexRecordSize = 4096;

// The space of a mounted volume, as GetVolumeSpace counts it.
struct _VOLUME_SPACE {
    int64_t Clusters;      // clusters the cluster bitmap covers
    int64_t FreeClusters;  // of them, clear in $Bitmap
    int64_t Records;       // records $MFT's bitmap covers
    int64_t FreeRecords;   // of the records that exist, clear in $MFT's bitmap
};

class CNTFSVolume : public CVolume {
public:
    explicit CNTFSVolume(CStorage* storage);
    CNTFSVolume(const CNTFSVolume&) = default;
    CNTFSVolume& operator=(const CNTFSVolume&) = default;
    // Destroys the embedded containers (Directories, FileRecords, FindHandles,
    // FileHandles); no I/O, no Umount.
    ~CNTFSVolume() override;

    // The volume interface.
    int Mount() override;
    int Umount() override;
    void* FindFirstFileA(const char16_t* path, _FIND_FILE_DATA* data) override;
    int FindNextFileA(void* handle, _FIND_FILE_DATA* data) override;
    int CloseFindHandle(void* handle) override;
    void* CreateFileA(const char16_t* path, unsigned int attributes, unsigned int disposition,
                      unsigned int access) override;
    int ReadFile(void* handle, void* buffer, int size, int* done) override;
    int WriteFile(void* handle, const void* buffer, int size, int* done) override;
    int CloseFileHandle(void* handle) override;
    int RenameFile(const char16_t* from, const char16_t* to) override;
    unsigned int SetFilePointer(void* handle, unsigned int* low, int* high, unsigned int method) override;
    int CreateDirectoryA(const char16_t* path, unsigned int attributes) override;
    int RemoveDirectoryA(const char16_t* path) override;
    // 16-bit bytes-per-sector field of the boot image, sign-extended.
    int GetSectorSize() override;
    int GetFileSize(void* handle, unsigned int* low, unsigned int* high);

    // Geometry.
    int GetClusterSectors() const;
    int GetClusterSize() const { return ClusterSize; }
    int GetFileRecordSize() const;
    int GetIndexRecordSize() const;
    int GetVirtualClusterSize() const { return VirtualClusterSize; }
    // Stores the boot sector's total sector count, as it stands.
    void GetVolumeSectorNumber(int64_t* out) const;
    uint8_t GetVersionMajor() const { return VersionMajor; }
    // Counts clusters and records of a mounted volume into `*space`: 0, or
    // ERROR_INVALID_PARAMETER when not mounted, or the code of a failed read
    // of $Bitmap. Reads the cluster bitmap unit by unit; writes nothing.
    [[nodiscard]] unsigned int GetVolumeSpace(_VOLUME_SPACE* space);
    // The two allocation bitmaps of a mounted volume (null before Mount and
    // after Umount); for tests that audit allocation.
    CClusterBitmap* GetClusterBitmap() const { return ClusterBitmap; }
    CFileRecordBitmap* GetMftBitmap() const { return MftBitmap; }
    uint8_t GetVersionMinor() const { return VersionMinor; }

    // Copies `count` sectors from `source` to `target` in passes of up to 128.
    // `*done` counts the sectors written; a short read that reports success
    // ends the copy with 0, so callers must compare `*done` with `count`.
    [[nodiscard]] unsigned int CopySector(int64_t source, int64_t target, int count, int* done);

    // Records of $MFT, by number: the only paths by which records travel.
    [[nodiscard]] unsigned int ReadFileRecord(int64_t* number, void* buffer);
    [[nodiscard]] unsigned int WriteFileRecord(int64_t* number, void* buffer);

    // Shared, cached access to file records and directories: 0 and one
    // reference (give it back with Release), or a failure code.
    [[nodiscard]] unsigned int ReferenceFileRecord(int64_t number, CFullFileRecord** record);
    [[nodiscard]] unsigned int ReferenceDirectory(int64_t number, const char16_t* path, CDirectory** directory);

    // Clusters and records.
    [[nodiscard]] unsigned int SearchSpareClusterAndAllocate(int wanted, int64_t* start, int* got,
                                                             int ignoreExclusions);
    [[nodiscard]] unsigned int SearchSpareClusterAndAllocateWithLeastItemNumber(int wanted, int64_t* start, int* got,
                                                                                int least, int ignoreExclusions);
    // Frees `count` clusters at `*start`; ERROR_INVALID_PARAMETER, nothing
    // changed, for clusters outside the volume.
    [[nodiscard]] unsigned int FreeClusters(int64_t* start, int count);
    // Gives record `number` back to the MFT (flags cleared on disk, bit
    // cleared), under the exclusive lock of $MFT.
    [[nodiscard]] unsigned int DeleteFileRecordFromMFT(int64_t number);
    // A new CFileRecord, owned by the caller, over a blank record just taken
    // from the MFT and marked in use there. `useReserve` nonzero takes one of
    // the records reserved for the relocation of $MFT instead. 0, or the
    // code (also in LastError): ERROR_HANDLE_DISK_FULL when no record can be
    // had, ERROR_NOT_ENOUGH_MEMORY, or a device code; a record taken and
    // found unusable is given back.
    [[nodiscard]] unsigned int ReferenceEmptyFileRecordFromMFT(CFileRecord** record, int useReserve);

    // Writes a full record back at the end of a change: stamps the change
    // time (and the given access and write times) into $STANDARD_INFORMATION
    // and every $FILE_NAME, stores the change time in `*changeTime` (never
    // null), writes the base record, then each modified extension record.
    // Nonzero on success; LastError holds the code.
    int UpdateFileRecord(CFullFileRecord* record, int64_t* accessTime, int64_t* writeTime, int64_t* changeTime);

    // 1 when `name` holds none of \ / : " < > |, else 0.
    int IsValidFileName(const char16_t* name);
    // A short name for `name` that `directory` does not hold yet, made from
    // the directory's list of short names (made at the first call), into
    // `shortName` (13 units). 0 or a code (CShortFileNameList::GenerateName).
    // REQUIRES: the caller holds the exclusive lock of a find object on
    // `directory`.
    [[nodiscard]] unsigned int GenerateShortName(CDirectory* directory, const char16_t* name, char16_t* shortName);

    // The platform's time conversions, unadjusted (NTFS time is UTC).
    void SystemTimeToFileTime(const _SYSTEMTIME* time, _LARGE_INTEGER* result);
    void FileTimeToSystemTime(_LARGE_INTEGER* time, _SYSTEMTIME* result);

protected:
    // The subsystems below the volume reach its containers, bitmaps and
    // scratch buffer directly, as parts of one object.
    friend class CFileRecord;
    friend class CFullFileRecord;
    friend class CBitmapData;
    friend class CFileRecordBitmap;
    friend class CDirectory;
    friend class CIndexRecord;
    friend class CFileHandle;
    friend class CFindHandle;

    // Reads one candidate boot sector at `sector`, checks it, derives the
    // geometry and reads $MFT from its location or, on a record that fails
    // its checks, from the mirror's. Nonzero on success; LastError otherwise.
    int LoadBootupData(int64_t sector);
    // Derives the geometry from BootSector in place (the two record size
    // fields become byte counts): run once per boot image. Nonzero on success.
    int InitializeGeometryData();
    // Proves the raw $MFT record against its own data and sets up the MFT
    // bitmap; takes ownership of `header`. Nonzero on success.
    int InitializeMFT(_FILE_RECORD_HEADER* header);
    // Destroys the short-name lists and their container.
    void DestroyShortNameLists();
    // Writes the base record and each modified extension record, and clears
    // the modified flags when all went well. Result also in LastError.
    unsigned int WriteFullRecord(CFullFileRecord* record);
    // UpdateFileRecord with the code as its result (also left in LastError),
    // for callers that decide by it: LastError is shared by all threads, so
    // reading it back may give another operation's code.
    unsigned int WriteChangedRecord(CFullFileRecord* record, int64_t* accessTime, int64_t* writeTime,
                                    int64_t* changeTime);
    // References a system record for Mount: 1, or 0 with LastError set (a
    // record that fails its checks is an unrecognised volume).
    int ReferenceSystemRecord(int64_t number, CFullFileRecord** record, bool releaseInvalid = true);
    // Unmount write-back of a bitmap: its cached unit, then its record,
    // stamped with the current time. Result also in LastError.
    unsigned int FlushBitmapRecord(CBitmapData* bitmap);
    // Counts the clear bits of $MFT's $BITMAP over the records that exist
    // into MftBitmap->FreeRecords.
    unsigned int FreeMftRecordCount();

    // Path and handle helpers of the file operations.
    // The directory that holds the last component of `path`, referenced.
    // Result also in LastError.
    unsigned int GetParentDirectory(const char16_t* path, CDirectory** directory);
    // Nonzero when `path` has no wildcard, starts with a backslash and does
    // not end with one.
    int IsValidPath(const char16_t* path);
    // Opens the file whose entry `find` (exclusively locked, its reference
    // handed over) stands on, after the sharing test; consumes `find`.
    void* OpenFile(CFindHandle* find, const char16_t* path, unsigned int accessMode);
    // Empties attribute (type, name) of `record`: extra instances go, the
    // first becomes an empty resident value. Nothing is written.
    unsigned int TruncateFile(CFullFileRecord* record, uint32_t type, const char16_t* name, int nameLength);
    // Gives the clusters of a non-resident attribute back to the volume: 0,
    // or ERROR_FILE_CORRUPT with nothing freed when its run list is damaged
    // or leaves the volume.
    unsigned int FreeAttributeClusters(CAttribute* attribute);
    // The open file handle with this value, or null.
    CFileHandle* LookUpFileHandle(void* handle);
    // The handle of a ReadFile or WriteFile after the checks both share: a
    // known handle (else 6), the `access` bit (else 5), a size that is not
    // negative (else 87). Null with LastError set when one fails.
    CFileHandle* TransferHandle(void* handle, unsigned int access, int size);
    // The open handle of `name` (folded path, compared ignoring case),
    // skipping `index` matches; no reference is added.
    CFileHandle* GetFileHandleByFileName(const char16_t* name, int index);
    // Writes a file's records after its data grew; a failure reverts the image.
    unsigned int WriteGrownRecord(CFullFileRecord* record);
    // The resident path of WriteFile; *leaves tells that the data left the
    // record and the write must go on as non-resident.
    int WriteResident(CFileHandle* file, const void* buffer, int size, int* done, bool* leaves);
    // The creating path of CreateFileA: the file `leaf` made in the directory
    // of `find` (exclusively locked), its entry found and kept by `find`, its
    // record written. True, or false with LastError set; `find` is left as
    // it was handed in either way.
    bool CreateNewFile(CFindHandle* find, const char16_t* leaf, unsigned int attributes);
    // A new find object on the directory that holds the last component of
    // `path`, exclusively locked, its pattern that component; null with
    // LastError set (the parent's code, or 8).
    CFindHandle* SearchParentForLeaf(const char16_t* path);
    // The last component of `path`: what stands behind its last backslash.
    static const char16_t* LeafOfPath(const char16_t* path);

    // Makes a file (or, with kFileAttributeDirectory in `attributes`, a
    // directory) named `name` in `directory`: a record taken from the MFT
    // with its first attributes, and its names (with a short name where one
    // is needed, when `nameSpace` is 1) in the record and the index, which is
    // flushed. 0 and `*record` referenced, its image modified and not yet
    // written (the caller writes it); or a code (also in LastError), with the
    // record given back and the index as it was. REQUIRES: the exclusive lock
    // of a find object on `directory`.
    [[nodiscard]] unsigned int CreateEmptyFileRecord(const char16_t* name, int nameSpace, unsigned int attributes,
                                                     CDirectory* directory, CFullFileRecord** record);
    // Gives a record that never became a file back to the MFT, with any
    // extension records, and lets go of the object so that nobody finds it
    // under its number again.
    void DiscardNewRecord(CFullFileRecord* record);

    // A file's names. The short name `name` takes under a rename: a
    // generated one when the rename test asks for it, else a copy of `name`.
    [[nodiscard]] unsigned int GenerateAlternateFileNameDesc(CDirectory* directory, const char16_t* name,
                                                             char16_t* shortName);
    // Both forms of one name from the template `entry` (an index entry whose
    // key holds parent, times, sizes, flags and namespace, 84 bytes or more):
    // an owning index entry and a resident $FILE_NAME attribute in memory of
    // its own, both the caller's. 1, or 0 when out of memory.
    int GenerateNewFileName(const uint8_t* entry, const char16_t* name, CAttribute** attribute, CIndexEntry** item);
    // Adds `name` to `record` (its $FILE_NAME, placed as room allows) and to
    // the index of `directory`, which is flushed. 0 or a code; 1392 when the
    // index holds the name already. REQUIRES: the exclusive lock of a find
    // object on `directory`.
    [[nodiscard]] unsigned int AddFileNameDescription(CDirectory* directory, CFullFileRecord* record,
                                                      const uint8_t* entry, const char16_t* name);
    // Takes `name` (as the index holds it, folded) out of the index of
    // `directory`, then the $FILE_NAME of that exact name under that
    // directory out of `record`, and writes the record. 0 or a code; a name
    // the index lacks ends the call with its code and changes nothing.
    [[nodiscard]] unsigned int RemoveFileNameDescription(CDirectory* directory, CFullFileRecord* record,
                                                         const char16_t* name);

    // Search routines over the volume's chains (parameter: see each body).
    // `parameter` is a CDirectory*: the list of short names of that directory.
    static int ShortFileNameListSearchRoutine(CChainElement* element, void* parameter);
    static int FileHandleFromFileNameSearchRoutine(CChainElement* element, void* parameter);
    static int FileRecordSearchRoutine(CChainElement* element, void* parameter);
    static int DirectorySearchRoutine(CChainElement* element, void* parameter);
    static int FileHandleSearchRoutine(CChainElement* element, void* parameter);
    static int FindHandleSearchRoutine(CChainElement* element, void* parameter);

    CChainElementContainer* ShortNameLists;
    CChainElementContainer FileHandles;
    CChainElementContainer FindHandles;
    CChainElementContainer FileRecords;
    CChainElementContainer Directories;
    int FileRecordSectors;
    int IndexRecordSectors;
    int VirtualClusterSize;
    CFileRecordBitmap* MftBitmap;
    CFullFileRecord* MftMirror;
    CClusterBitmap* ClusterBitmap;
    uint8_t BootSector[kSectorSize];
    uint8_t VersionMajor;
    uint8_t VersionMinor;
    uint8_t SectorScratch[kSectorSize];
};

// The only way in: builds a CNTFSVolume over `storage` without any I/O and
// stores it in `*volume`. Returns 1, or 0 when the object could not be made.
int CreateFileSystemObject(CStorage* storage, CVolume** volume);

}  // namespace ntfs
