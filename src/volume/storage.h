// The boundary to the host's sector device.
//
// A host hands the library a CStorage. The library calls ReadSectors and
// WriteSectors with sector numbers relative to the start of the NTFS volume
// (sector 0 is the boot sector), in units of the volume's 512-byte sectors.
//
// Contract of both operations:
//   buffer  holds count * 512 bytes;
//   sector  points at the first sector and must be left unchanged: callers
//           that loop advance it themselves;
//   done    receives the sectors transferred on success; callers compare it
//           with the count they asked for (a short transfer is not an error);
//   block   is always null.
//   Result: 0 on success, otherwise the device's own failure code, which the
//   library stores in the volume's last error unchanged.
// The library holds no lock around storage calls: several threads may be
// inside one storage at once.
#pragma once

#include <cstdint>

namespace ntfs {

struct _STORAGE_NOTIFICATION_BLOCK;  // never defined: always passed as null

class CStorage {
public:
    virtual unsigned int ReadSectors(void* buffer, int64_t* sector, int count, int* done,
                                     _STORAGE_NOTIFICATION_BLOCK* block) = 0;
    virtual unsigned int WriteSectors(void* buffer, int64_t* sector, int count, int* done,
                                      _STORAGE_NOTIFICATION_BLOCK* block) = 0;
    virtual ~CStorage() = default;
};

}  // namespace ntfs
