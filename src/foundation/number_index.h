// CNumberIndex: a hash index from 64-bit numbers to pointer-sized values,
// kept beside a list whose membership is asked often (the record numbers an
// enumeration has delivered, the open index records of a directory by VCN).
//
// Open addressing with linear probing in a power-of-two table that doubles
// at three-quarters load; a removal shifts the entries behind it back, so no marks of
// removed entries remain. An index made without values keeps the keys only
// (a set: Find answers whether the key is there, with value 0); while its
// keys are small non-negative numbers, as record numbers are, it keeps them
// as a bitmap instead, one bit per number, and moves them into the table at
// the first key that would make the bitmap large. Clear empties the index
// and keeps its table.
//
// Ownership: the index owns its table only. Thread safety: every operation
// holds the index's critical section for its own length.
#pragma once

#include <cstdint>

#include "foundation/platform.h"

namespace ntfs {

class CNumberIndex {
public:
    explicit CNumberIndex(bool withValues = true);
    ~CNumberIndex();
    CNumberIndex(const CNumberIndex&) = delete;
    CNumberIndex& operator=(const CNumberIndex&) = delete;

    // Adds `key` with `value` unless the key is there already. 1 when added,
    // 0 when the key was there (its value unchanged, *existing set when
    // given), -2 when the table cannot grow (the index is unchanged).
    int Insert(int64_t key, intptr_t value, intptr_t* existing = nullptr);
    // 1 and *value when the key is there, else 0.
    int Find(int64_t key, intptr_t* value);
    // Takes `key` out; 1 when it was there, else 0.
    int Remove(int64_t key);
    // Empties the index; the table stays for reuse.
    void Clear();
    int64_t GetCount();
    // Calls `visit` for every entry, in no particular order, under the lock;
    // `visit` must not call back into the index.
    void ForEach(void (*visit)(int64_t key, intptr_t value, void* context), void* context);

private:
    int Grow();
    bool IsUsed(uint64_t slot) const { return (Used[slot / 64] >> (slot % 64)) & 1; }
    void SetUsed(uint64_t slot, bool used);
    // The slot holding `key`, or the free slot where it would go.
    uint64_t Probe(int64_t key) const;

    // The bitmap form of a set: whether `key` may go in it, and room for it.
    bool DenseFits(int64_t key) const;
    int GrowDense(int64_t key);
    // Moves every key of the bitmap into the table; 0 when that fails.
    int LeaveDense();
    int InsertHashed(int64_t key, intptr_t value, intptr_t* existing);

    bool WithValues;
    bool IsDense;        // a set in its bitmap form
    uint64_t* Dense;     // bit k: key k is in the set
    int64_t DenseWords;  // 64-bit words of Dense
    int64_t* Keys;
    intptr_t* Values;   // null without values
    uint64_t* Used;     // one bit per slot
    int64_t SlotCount;  // a power of two, or 0 before the first insertion
    int64_t Count;
    CRITICAL_SECTION Lock;
};

}  // namespace ntfs
