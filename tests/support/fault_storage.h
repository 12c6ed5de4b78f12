// FaultStorage: a CStorage that wraps another one and misbehaves on request,
// for tests of failure paths and crash safety.
//
// Faults it can inject:
//   - the n-th read or write (1-based, counted over the storage's life) fails
//     with a given code and transfers nothing;
//   - every read that touches a given sector fails with a given code;
//   - short reads: a read delivers at most N sectors and reports success;
//   - a torn write: the n-th write lands only its first k sectors, then fails;
//   - a power cut after N writes: every later read or write fails;
//   - a write-protected device: every write fails, reads go on.
// It counts calls and sectors, and logs every read (sector, count) and every
// write (sector and the bytes that landed), so a test can replay a prefix of
// the writes onto a fresh image to simulate a crash at any point.
//
// Not thread-safe: one test thread drives it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "volume/storage.h"

namespace ntfs::test {

class FaultStorage : public CStorage {
public:
    static constexpr int kSectorBytes = 512;

    struct ReadEntry {
        int64_t sector;
        int count;
    };
    struct WriteEntry {
        int64_t sector;
        std::vector<uint8_t> bytes;  // only what landed
    };

    explicit FaultStorage(CStorage* inner) : Inner(inner) {}

    void FailNthRead(int nth, unsigned int code) { FailRead = {nth, code}; }
    void FailNthWrite(int nth, unsigned int code) { FailWrite = {nth, code}; }
    void FailReadsOfSector(int64_t sector, unsigned int code) { BadSector = {sector, code}; }
    void LimitReadSectors(int most) { ShortReadLimit = most; }
    void TearNthWrite(int nth, int sectorsLanded, unsigned int code) { Torn = {nth, sectorsLanded, code}; }
    // After `writes` writes have landed, every later call fails with `code`.
    void CutPowerAfterWrites(int writes, unsigned int code) { PowerCut = {writes, code}; }
    // Every later write fails with `code` (a read-only image); reads go on.
    void RefuseWrites(unsigned int code) { WriteProtect = code; }
    // Clears every fault; counters and logs stay.
    void Heal();

    unsigned int ReadSectors(void* buffer, int64_t* sector, int count, int* done,
                             _STORAGE_NOTIFICATION_BLOCK* block) override;
    unsigned int WriteSectors(void* buffer, int64_t* sector, int count, int* done,
                              _STORAGE_NOTIFICATION_BLOCK* block) override;

    int Reads() const { return ReadCalls; }
    int Writes() const { return WriteCalls; }
    int64_t SectorsRead() const { return ReadSectorTotal; }
    int64_t SectorsWritten() const { return WriteSectorTotal; }
    const std::vector<ReadEntry>& ReadLog() const { return Reads_; }
    const std::vector<WriteEntry>& WriteLog() const { return Writes_; }
    void ClearLogs();

    // Replays the first `count` logged writes onto a raw image of 512-byte
    // sectors (writes beyond the image end are cut off).
    static void Replay(const std::vector<WriteEntry>& log, size_t count, std::vector<uint8_t>* image);

private:
    struct NthFault {
        int nth = 0;
        unsigned int code = 0;
    };
    struct SectorFault {
        int64_t sector = -1;
        unsigned int code = 0;
    };
    struct TornFault {
        int nth = 0;
        int landed = 0;
        unsigned int code = 0;
    };
    struct PowerFault {
        int after = -1;
        unsigned int code = 0;
    };

    bool PowerIsOff() const { return PowerCut.after >= 0 && LandedWrites >= PowerCut.after; }

    CStorage* Inner;
    NthFault FailRead;
    NthFault FailWrite;
    SectorFault BadSector;
    TornFault Torn;
    PowerFault PowerCut;
    int ShortReadLimit = -1;
    unsigned int WriteProtect = 0;
    int ReadCalls = 0;
    int WriteCalls = 0;
    int LandedWrites = 0;
    int64_t ReadSectorTotal = 0;
    int64_t WriteSectorTotal = 0;
    std::vector<ReadEntry> Reads_;
    std::vector<WriteEntry> Writes_;
};

}  // namespace ntfs::test
