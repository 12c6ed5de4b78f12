// CPointerArray: the library's one list of pointer-sized values (attribute
// tables, extension record lists, tree node items, directory work lists, the
// record numbers an enumeration has delivered).
//
// Ownership: the array owns only its block of elements, never what the values
// point at. Thread safety: InsertAfter, RemoveAt and IndexOf each hold the
// array's critical section for their own length; Clear takes no lock and is
// for the owner alone when nothing else reaches the array.
//
// Capacity, as the operations see it, grows by exactly one element at a time,
// and its results (the front insertion with spare capacity, the -1 of a first
// growth) follow from it. The block beneath keeps room to spare (it doubles),
// so a growth is a move of the elements behind the new slot, not a new block
// and a copy of all: filling a long list (an enumeration's delivered records)
// stays linear in copies.
#pragma once

#include <cstdint>

#include "foundation/platform.h"

namespace ntfs {

class CPointerArray {
public:
    CPointerArray();
    ~CPointerArray();
    CPointerArray(const CPointerArray&) = delete;
    CPointerArray& operator=(const CPointerArray&) = delete;

    // Puts `value` directly behind `index`; -1 means the front, an index at or
    // above the count is clamped to count - 1 (so passing the count appends).
    // Returns the new element's position, except that an insertion into an
    // empty array that had to grow returns -1 although the value stands at 0.
    // A front insertion with spare capacity overwrites element 0 and still
    // raises the count; only a growth moves elements up for it.
    // Returns -2 when the block cannot be allocated (the array is unchanged).
    int InsertAfter(int index, intptr_t value);
    int InsertAfter(int index, const void* value) { return InsertAfter(index, reinterpret_cast<intptr_t>(value)); }
    // Removes the element at `index`, moving the higher ones down. Returns 1,
    // or 0 (and changes nothing) when the index is at or above the count.
    int RemoveAt(int index);
    // The first position holding `value`, or -1.
    int IndexOf(intptr_t value);
    int IndexOf(const void* value) { return IndexOf(reinterpret_cast<intptr_t>(value)); }
    // Count and capacity to zero by a plain store; the block stays and the next
    // growth reuses it.
    void Clear() {
        Count = 0;
        Capacity = 0;
    }

    // Sorts the elements stably (equal elements keep their order) by `less`,
    // under the array's lock.
    void StableSort(bool (*less)(intptr_t a, intptr_t b));

    int GetCount() const { return Count; }
    // The element at `index`, or 0 outside 0 .. count - 1.
    intptr_t Get(int index) const { return index >= 0 && index < Count ? Elements[index] : 0; }
    template <typename T>
    T* At(int index) const {
        return reinterpret_cast<T*>(Get(index));
    }
    // Overwrites an element in range; out-of-range stores are ignored.
    void Set(int index, intptr_t value) {
        if (index >= 0 && index < Count) Elements[index] = value;
    }

private:
    intptr_t* Elements;
    int32_t Count;
    int32_t Capacity;
    CRITICAL_SECTION Lock;
    int32_t BlockCapacity;  // elements the block holds; at least Capacity
};

}  // namespace ntfs
