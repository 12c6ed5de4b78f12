// CFileHandle: one open file. The value a host holds is the object's address,
// checked by a search of the volume's FileHandles.
//
// The handle owns one reference to the find object that located the file
// (its cursor stands on the file's index entry, which close refreshes) and
// one to the file's record, which all handles of the file share. Size,
// position and times are the handle's own: they reach the record and the
// index entries only at close, so two handles of one file do not see each
// other's growth until the file is opened again.
//
// Thread safety: one handle is for one thread at a time; data transfers hold
// the record's shared lock, growth and resident writes its exclusive lock.
#pragma once

#include <cstdint>

#include "foundation/platform.h"
#include "foundation/pointer_array.h"
#include "foundation/share_element.h"
#include "volume/volume.h"

namespace ntfs {

class CFindHandle;
class CAttribute;
class CFileRecord;
class CFullFileRecord;
class CNTFSVolume;

class CFileHandle : public CShareElement {
public:
    CFileHandle(CFindHandle* findHandle, CNTFSVolume* volume, unsigned int accessMode);
    // Frees the path, releases the find object and lets go of the record
    // (destroys it outright after a delete at close).
    ~CFileHandle() override;

    // Fills the handle from the entry under the find object's cursor: path,
    // record, sizes, form, times. 0 or a code.
    [[nodiscard]] unsigned int Initialize(const char16_t* path);
    // Adds `clusters` clusters at the end of plain non-resident data.
    // A piece that has filled its record spills into a new extension record;
    // a failure gives back the clusters taken since the records were last
    // written and returns the records to that state.
    [[nodiscard]] unsigned int AllocateClusters(unsigned int clusters);
    // Puts the run (`lcn`, `take`) behind `attribute`, the last $DATA piece,
    // in a new extension record: the piece moves there with the run when it
    // shares its record, else a new piece starts with it. The records are
    // written through the attribute list's rewrite.
    // Gives the clusters of UnwrittenRuns back and empties it.
    void FreeUnwrittenRuns();
    [[nodiscard]] unsigned int SpillDataPiece(CAttribute* attribute, int64_t lcn, int take);
    // Reserves address space for compressed data to the next unit boundary;
    // *clusters in and out.
    [[nodiscard]] unsigned int ReserveCompressedClusters(unsigned int* clusters);
    // Places `piece` (deleted here) with `highestVcn` into `extension`, a new
    // record, and joins the record to the file, unless `code` already tells
    // a failure; on failure the record goes back to the MFT.
    [[nodiscard]] unsigned int PlacePiece(CFileRecord* extension, CAttribute* piece, int64_t highestVcn,
                                          unsigned int code);
    // The reservation `run` (`runBytes` with its end byte) of `reserved`
    // clusters when the record of `attribute`, the last piece, is full: it
    // goes into a new extension record, with the piece when the piece shares
    // its record, else as a new piece of its own.
    [[nodiscard]] unsigned int SpillReservation(CAttribute* attribute, const uint8_t* run, int runBytes,
                                                int64_t reserved);
    // Gives the file the name `newName` in its directory in place of
    // `oldName` (a leaf name; with a Win32 name its DOS partner goes too),
    // with a short name where the rename test asks for one. Writes the file's
    // record, after the new names entered the index and before the old ones
    // leave it. 0 or a code; 1392 when the record lacks `oldName` or the
    // index holds a new name already. `*changed` is 1 while the record in
    // memory differs from the disk: the caller then reverts it.
    [[nodiscard]] unsigned int Rename(const char16_t* oldName, const char16_t* newName, int* changed);
    // Deletes the file by the name it was opened with: the name (and its DOS
    // or Win32 partner) leaves the directory and the record, then the file
    // leaves the volume when it has no name left. 0 or a code;
    // ERROR_BAD_FORMAT when the record holds that name no more.
    [[nodiscard]] unsigned int DeleteFile();
    // Writes sizes and times into the record and every index entry of the file
    // in its directory.
    [[nodiscard]] unsigned int UpdateIndexEntries(int64_t* accessTime, int64_t* writeTime);

    CFindHandle* FindHandle;
    CNTFSVolume* Volume;
    char16_t* Path;
    CFullFileRecord* FileRecord;
    int Modified;
    int64_t DataSize;
    int64_t AllocatedSize;
    int64_t FilePointer;
    int64_t RecordNumber;
    uint32_t AccessMode;
    int Resident;
    _SYSTEMTIME LastWriteTime;
    _SYSTEMTIME LastReadTime;
    int Compressed;
    char16_t StreamName[256];
    int StreamNameLength;
    int Deleted;
    // (LCN, count) of the clusters the last AllocateClusters took and the
    // records on disk do not map yet: given back when the record write that
    // follows a growth fails.
    // Two elements a pair.
    CPointerArray UnwrittenRuns;
};

}  // namespace ntfs
