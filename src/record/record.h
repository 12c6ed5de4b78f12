// CRecord: the part shared by every on-disk record held in memory (FILE
// records, INDX records): a working copy that is changed in place, a backup
// copy of the last accepted state, and the modified and valid flags.
//
// Ownership: the derived class allocates, adopts and frees both copies. The
// working copy is held unprotected (update sequence applied); the protected
// form exists only on disk and for the moment of a write.
//
// Locking: none of its own; the record is guarded by the locks of the shared
// object that holds it.
#pragma once

#include <cstdint>

namespace ntfs {

class CRecord {
public:
    CRecord() : Image(nullptr), CleanImage(nullptr), Modified(0), Valid(0), MemoryShortfalls(0) {}
    CRecord(const CRecord&) = delete;
    CRecord& operator=(const CRecord&) = delete;

    // Copies the backup over the working copy and forgets the changes.
    virtual int Revert() = 0;
    virtual int IsValid() { return Valid; }
    virtual int IsModified() { return Modified; }
    // Accepts the working copy: copies it over the backup.
    virtual int Commit() = 0;
    virtual ~CRecord() = default;

    uint8_t* Image;       // the working copy, owned
    uint8_t* CleanImage;  // the backup copy of the last accepted state, owned
    int Modified;
    int Valid;
    // Counts the times the object, or a parse of its image, could not get
    // the memory it needed; what is missing then is no fault of the disk.
    // A new object with a count is not to be used for the disk's contents.
    int MemoryShortfalls;
};

}  // namespace ntfs
