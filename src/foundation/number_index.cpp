#include "foundation/number_index.h"

#include <cstdlib>
#include <cstring>

namespace ntfs {

namespace {

constexpr int64_t kFirstSlotCount = 64;
// A set's bitmap may always cover this many numbers (128 KiB), and beyond
// that as many as 64 per key it holds (8 bits of bitmap per key, the size
// of a table slot).
constexpr int64_t kDenseFreeBits = int64_t{1} << 20;
constexpr int64_t kDenseBitsPerKey = 64;

uint64_t Spread(int64_t key) {
    // A 64-bit finaliser: neighbouring numbers land far apart.
    uint64_t x = static_cast<uint64_t>(key);
    x ^= x >> 33;
    x *= 0xFF51AFD7ED558CCDull;
    x ^= x >> 33;
    x *= 0xC4CEB9FE1A85EC53ull;
    x ^= x >> 33;
    return x;
}

}  // namespace

CNumberIndex::CNumberIndex(bool withValues)
    : WithValues(withValues),
      IsDense(!withValues),
      Dense(nullptr),
      DenseWords(0),
      Keys(nullptr),
      Values(nullptr),
      Used(nullptr),
      SlotCount(0),
      Count(0) {
    InitializeCriticalSection(&Lock);
}

CNumberIndex::~CNumberIndex() {
    std::free(Dense);
    std::free(Keys);
    std::free(Values);
    std::free(Used);
    DeleteCriticalSection(&Lock);
}

void CNumberIndex::SetUsed(uint64_t slot, bool used) {
    const uint64_t bit = uint64_t{1} << (slot % 64);
    Used[slot / 64] = used ? (Used[slot / 64] | bit) : (Used[slot / 64] & ~bit);
}

uint64_t CNumberIndex::Probe(int64_t key) const {
    const uint64_t mask = static_cast<uint64_t>(SlotCount) - 1;
    uint64_t at = Spread(key) & mask;
    while (IsUsed(at) && Keys[at] != key) at = (at + 1) & mask;
    return at;
}

int CNumberIndex::Grow() {
    const int64_t slots = SlotCount == 0 ? kFirstSlotCount : SlotCount * 2;
    auto* keys = static_cast<int64_t*>(std::malloc(static_cast<size_t>(slots) * sizeof(int64_t)));
    auto* values =
        WithValues ? static_cast<intptr_t*>(std::malloc(static_cast<size_t>(slots) * sizeof(intptr_t))) : nullptr;
    auto* used = static_cast<uint64_t*>(std::calloc(static_cast<size_t>(slots / 64), sizeof(uint64_t)));
    if (keys == nullptr || used == nullptr || (WithValues && values == nullptr)) {
        std::free(keys);
        std::free(values);
        std::free(used);
        return 0;
    }
    int64_t* oldKeys = Keys;
    intptr_t* oldValues = Values;
    uint64_t* oldUsed = Used;
    const int64_t oldSlots = SlotCount;
    Keys = keys;
    Values = values;
    Used = used;
    SlotCount = slots;
    for (int64_t i = 0; i < oldSlots; ++i) {
        if (!((oldUsed[i / 64] >> (i % 64)) & 1)) continue;
        const uint64_t at = Probe(oldKeys[i]);
        Keys[at] = oldKeys[i];
        if (WithValues) Values[at] = oldValues[i];
        SetUsed(at, true);
    }
    std::free(oldKeys);
    std::free(oldValues);
    std::free(oldUsed);
    return 1;
}

bool CNumberIndex::DenseFits(int64_t key) const {
    return key >= 0 && (key < kDenseFreeBits || key / kDenseBitsPerKey <= Count);
}

int CNumberIndex::GrowDense(int64_t key) {
    int64_t words = DenseWords == 0 ? 16 : DenseWords;
    while (words * 64 <= key) words *= 2;
    auto* dense = static_cast<uint64_t*>(std::realloc(Dense, static_cast<size_t>(words) * sizeof(uint64_t)));
    if (dense == nullptr) return 0;
    std::memset(dense + DenseWords, 0, static_cast<size_t>(words - DenseWords) * sizeof(uint64_t));
    Dense = dense;
    DenseWords = words;
    return 1;
}

int CNumberIndex::LeaveDense() {
    const int64_t count = Count;
    Count = 0;
    while (count * 4 > SlotCount * 3) {
        if (!Grow()) {
            Count = count;
            return 0;
        }
    }
    for (int64_t word = 0; word < DenseWords; ++word) {
        for (uint64_t bits = Dense[word]; bits != 0; bits &= bits - 1) {
            InsertHashed(word * 64 + __builtin_ctzll(bits), 0, nullptr);
        }
    }
    std::free(Dense);
    Dense = nullptr;
    DenseWords = 0;
    IsDense = false;
    return 1;
}

int CNumberIndex::InsertHashed(int64_t key, intptr_t value, intptr_t* existing) {
    if ((Count + 1) * 4 > SlotCount * 3 && !Grow()) return -2;
    const uint64_t at = Probe(key);
    if (IsUsed(at)) {
        if (existing != nullptr) *existing = WithValues ? Values[at] : 0;
        return 0;
    }
    Keys[at] = key;
    if (WithValues) Values[at] = value;
    SetUsed(at, true);
    ++Count;
    return 1;
}

int CNumberIndex::Insert(int64_t key, intptr_t value, intptr_t* existing) {
    EnterCriticalSection(&Lock);
    int result = 1;
    if (IsDense && DenseFits(key)) {
        if (key >= DenseWords * 64 && !GrowDense(key)) {
            result = -2;
        } else if ((Dense[key / 64] >> (key % 64)) & 1) {
            if (existing != nullptr) *existing = 0;
            result = 0;
        } else {
            Dense[key / 64] |= uint64_t{1} << (key % 64);
            ++Count;
        }
    } else if (IsDense && !LeaveDense()) {
        result = -2;
    } else {
        result = InsertHashed(key, value, existing);
    }
    LeaveCriticalSection(&Lock);
    return result;
}

int CNumberIndex::Find(int64_t key, intptr_t* value) {
    EnterCriticalSection(&Lock);
    int found = 0;
    if (IsDense) {
        if (key >= 0 && key < DenseWords * 64 && ((Dense[key / 64] >> (key % 64)) & 1)) {
            *value = 0;
            found = 1;
        }
    } else if (SlotCount > 0) {
        const uint64_t at = Probe(key);
        if (IsUsed(at)) {
            *value = WithValues ? Values[at] : 0;
            found = 1;
        }
    }
    LeaveCriticalSection(&Lock);
    return found;
}

int CNumberIndex::Remove(int64_t key) {
    EnterCriticalSection(&Lock);
    int removed = 0;
    if (IsDense) {
        if (key >= 0 && key < DenseWords * 64 && ((Dense[key / 64] >> (key % 64)) & 1)) {
            Dense[key / 64] &= ~(uint64_t{1} << (key % 64));
            --Count;
            removed = 1;
        }
    } else if (SlotCount > 0) {
        const uint64_t mask = static_cast<uint64_t>(SlotCount) - 1;
        uint64_t hole = Probe(key);
        if (IsUsed(hole)) {
            removed = 1;
            --Count;
            SetUsed(hole, false);
            // Entries behind the hole that would not be found past it move in.
            for (uint64_t at = (hole + 1) & mask; IsUsed(at); at = (at + 1) & mask) {
                const uint64_t home = Spread(Keys[at]) & mask;
                const bool reachable = hole <= at ? (home > hole && home <= at) : (home > hole || home <= at);
                if (reachable) continue;
                Keys[hole] = Keys[at];
                if (WithValues) Values[hole] = Values[at];
                SetUsed(hole, true);
                SetUsed(at, false);
                hole = at;
            }
        }
    }
    LeaveCriticalSection(&Lock);
    return removed;
}

void CNumberIndex::Clear() {
    EnterCriticalSection(&Lock);
    if (Used != nullptr) std::memset(Used, 0, static_cast<size_t>(SlotCount / 64) * sizeof(uint64_t));
    if (Dense != nullptr) std::memset(Dense, 0, static_cast<size_t>(DenseWords) * sizeof(uint64_t));
    Count = 0;
    LeaveCriticalSection(&Lock);
}

void CNumberIndex::ForEach(void (*visit)(int64_t key, intptr_t value, void* context), void* context) {
    EnterCriticalSection(&Lock);
    for (int64_t word = 0; word < DenseWords; ++word) {
        for (uint64_t bits = Dense[word]; bits != 0; bits &= bits - 1)
            visit(word * 64 + __builtin_ctzll(bits), 0, context);
    }
    for (int64_t i = 0; i < SlotCount; ++i) {
        if (IsUsed(static_cast<uint64_t>(i))) visit(Keys[i], WithValues ? Values[i] : 0, context);
    }
    LeaveCriticalSection(&Lock);
}

int64_t CNumberIndex::GetCount() {
    EnterCriticalSection(&Lock);
    const int64_t count = Count;
    LeaveCriticalSection(&Lock);
    return count;
}

}  // namespace ntfs
