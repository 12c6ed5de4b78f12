#include "foundation/number_index.h"

#include <cstdlib>

namespace ntfs {

namespace {

constexpr int64_t kFirstSlotCount = 64;

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

CNumberIndex::CNumberIndex() : Slots(nullptr), SlotCount(0), Count(0) { InitializeCriticalSection(&Lock); }

CNumberIndex::~CNumberIndex() {
    std::free(Slots);
    DeleteCriticalSection(&Lock);
}

int CNumberIndex::Grow() {
    const int64_t slots = SlotCount == 0 ? kFirstSlotCount : SlotCount * 2;
    auto* table = static_cast<Slot*>(std::calloc(static_cast<size_t>(slots), sizeof(Slot)));
    if (table == nullptr) return 0;
    const uint64_t mask = static_cast<uint64_t>(slots) - 1;
    for (int64_t i = 0; i < SlotCount; ++i) {
        if (!Slots[i].Used) continue;
        uint64_t at = Spread(Slots[i].Key) & mask;
        while (table[at].Used) at = (at + 1) & mask;
        table[at] = Slots[i];
    }
    std::free(Slots);
    Slots = table;
    SlotCount = slots;
    return 1;
}

int CNumberIndex::Insert(int64_t key, intptr_t value, intptr_t* existing) {
    EnterCriticalSection(&Lock);
    int result = 1;
    if ((Count + 1) * 2 > SlotCount && !Grow()) {
        result = -2;
    } else {
        const uint64_t mask = static_cast<uint64_t>(SlotCount) - 1;
        uint64_t at = Spread(key) & mask;
        while (Slots[at].Used && Slots[at].Key != key) at = (at + 1) & mask;
        if (Slots[at].Used) {
            if (existing != nullptr) *existing = Slots[at].Value;
            result = 0;
        } else {
            Slots[at].Key = key;
            Slots[at].Value = value;
            Slots[at].Used = 1;
            ++Count;
        }
    }
    LeaveCriticalSection(&Lock);
    return result;
}

int CNumberIndex::Find(int64_t key, intptr_t* value) {
    EnterCriticalSection(&Lock);
    int found = 0;
    if (SlotCount > 0) {
        const uint64_t mask = static_cast<uint64_t>(SlotCount) - 1;
        uint64_t at = Spread(key) & mask;
        while (Slots[at].Used && Slots[at].Key != key) at = (at + 1) & mask;
        if (Slots[at].Used) {
            *value = Slots[at].Value;
            found = 1;
        }
    }
    LeaveCriticalSection(&Lock);
    return found;
}

void CNumberIndex::Clear() {
    EnterCriticalSection(&Lock);
    for (int64_t i = 0; i < SlotCount; ++i) Slots[i].Used = 0;
    Count = 0;
    LeaveCriticalSection(&Lock);
}

int64_t CNumberIndex::GetCount() {
    EnterCriticalSection(&Lock);
    const int64_t count = Count;
    LeaveCriticalSection(&Lock);
    return count;
}

}  // namespace ntfs
