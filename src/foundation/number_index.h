// CNumberIndex: a hash index from 64-bit numbers to pointer-sized values,
// kept beside a list whose membership is asked often (the record numbers an
// enumeration has delivered, the open index records of a directory by VCN).
//
// Open addressing with linear probing in a power-of-two table that doubles
// at half load. Entries are never removed one by one; Clear empties the
// index and keeps its table.
//
// Ownership: the index owns its table only. Thread safety: every operation
// holds the index's critical section for its own length.
#pragma once

#include <cstdint>

#include "foundation/platform.h"

namespace ntfs {

class CNumberIndex {
public:
    CNumberIndex();
    ~CNumberIndex();
    CNumberIndex(const CNumberIndex&) = delete;
    CNumberIndex& operator=(const CNumberIndex&) = delete;

    // Adds `key` with `value` unless the key is there already. 1 when added,
    // 0 when the key was there (its value unchanged, *existing set when
    // given), -2 when the table cannot grow (the index is unchanged).
    int Insert(int64_t key, intptr_t value, intptr_t* existing = nullptr);
    // 1 and *value when the key is there, else 0.
    int Find(int64_t key, intptr_t* value);
    // Empties the index; the table stays for reuse.
    void Clear();
    int64_t GetCount();

private:
    int Grow();

    struct Slot {
        int64_t Key;
        intptr_t Value;
        int Used;
    };
    Slot* Slots;
    int64_t SlotCount;  // a power of two, or 0 before the first insertion
    int64_t Count;
    CRITICAL_SECTION Lock;
};

}  // namespace ntfs
