// RecordingStorage: passes every transfer to another storage and keeps a
// record of each one that failed or came back short.
//
// The volume drops some device failures by design (a failed read inside a
// compression unit ends that unit short and the read goes on; Umount answers
// success whatever its flushes gave), so a host that must not report success
// over a failed transfer asks this record after the work instead. Writes
// refused with ERROR_WRITE_PROTECT are counted apart: a read-only host
// expects them (closing a handle stamps its times).
// Thread safety: as the wrapped storage; the counters are not atomic, so one
// thread at a time.
#pragma once

#include <cstdint>
#include <string>

#include "volume/storage.h"

namespace ntfs {

class RecordingStorage : public CStorage {
public:
    // A failed or short transfer.
    struct Failure {
        bool Write = false;
        int64_t Sector = 0;
        int Count = 0;          // sectors asked for
        int Done = 0;           // sectors moved
        unsigned int Code = 0;  // the storage's answer; 0 for a short transfer
    };

    explicit RecordingStorage(CStorage* inner) : Inner(inner) {}

    unsigned int ReadSectors(void* buffer, int64_t* sector, int count, int* done,
                             _STORAGE_NOTIFICATION_BLOCK* block) override;
    unsigned int WriteSectors(void* buffer, int64_t* sector, int count, int* done,
                              _STORAGE_NOTIFICATION_BLOCK* block) override;

    // Failed and short transfers other than refused writes.
    uint64_t Failures() const { return FailureCount; }
    // The first of them (valid when Failures() is not 0).
    const Failure& FirstFailure() const { return First; }
    uint64_t RefusedWrites() const { return RefusedCount; }
    uint64_t Writes() const { return WriteCount; }
    // "read of 8 sectors at sector 123: I/O error on the device (code 1117)".
    std::string Describe(const Failure& failure) const;

private:
    void Note(bool write, int64_t sector, int count, int done, unsigned int code);

    CStorage* Inner;
    uint64_t FailureCount = 0;
    uint64_t RefusedCount = 0;
    uint64_t WriteCount = 0;
    Failure First;
};

}  // namespace ntfs
