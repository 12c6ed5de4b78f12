// File record allocation at volume level: giving a record of $MFT back.
// Not built yet: answers ERROR_NOT_SUPPORTED (boolean forms: 0 with
// LastError set) until its subsystem lands.
#include "foundation/log.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

unsigned int CNTFSVolume::DeleteFileRecordFromMFT(int64_t) { return ERROR_NOT_SUPPORTED; }

}  // namespace ntfs
