#include "foundation/pointer_array.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace ntfs {

CPointerArray::CPointerArray() : Elements(nullptr), Count(0), Capacity(0), BlockCapacity(0) {
    InitializeCriticalSection(&Lock);
}

CPointerArray::~CPointerArray() {
    std::free(Elements);
    DeleteCriticalSection(&Lock);
}

int CPointerArray::InsertAfter(int index, intptr_t value) {
    EnterCriticalSection(&Lock);
    int result;
    if (index < -1) index = -1;
    if (index != -1 && index >= Count) index = Count - 1;
    if (Count < Capacity) {
        if (index == -1) {
            // Spare capacity at the front: element 0 is overwritten, nothing moves.
            Elements[0] = value;
            result = 0;
        } else {
            std::memmove(&Elements[index + 2], &Elements[index + 1],
                         sizeof(intptr_t) * static_cast<size_t>(Count - index - 1));
            Elements[index + 1] = value;
            result = index + 1;
        }
        ++Count;
    } else {
        // A growth: the new slot opens behind `index`, the elements up to it
        // stay and the rest move up one place.
        const int head = index + 1;
        if (Capacity >= BlockCapacity) {
            // The block is full: a larger one, the elements copied around the slot.
            int32_t room = BlockCapacity < 4 ? 4 : (BlockCapacity > (INT32_MAX / 2) ? INT32_MAX : BlockCapacity * 2);
            auto* block = static_cast<intptr_t*>(std::malloc(sizeof(intptr_t) * static_cast<size_t>(room)));
            if (block == nullptr) {
                room = Capacity + 1;
                block = static_cast<intptr_t*>(std::malloc(sizeof(intptr_t) * static_cast<size_t>(room)));
            }
            if (block == nullptr) {
                LeaveCriticalSection(&Lock);
                return -2;
            }
            if (head > 0) std::memcpy(block, Elements, sizeof(intptr_t) * static_cast<size_t>(head));
            if (Count > head) {
                std::memcpy(&block[head + 1], &Elements[head], sizeof(intptr_t) * static_cast<size_t>(Count - head));
            }
            std::free(Elements);
            Elements = block;
            BlockCapacity = room;
        } else if (Count > head) {
            std::memmove(&Elements[head + 1], &Elements[head], sizeof(intptr_t) * static_cast<size_t>(Count - head));
        }
        Elements[head] = value;
        ++Capacity;
        result = Count == 0 ? -1 : head;
        ++Count;
    }
    LeaveCriticalSection(&Lock);
    return result;
}

int CPointerArray::RemoveAt(int index) {
    EnterCriticalSection(&Lock);
    if (index < 0 || index >= Count) {
        LeaveCriticalSection(&Lock);
        return 0;
    }
    std::memmove(&Elements[index], &Elements[index + 1], sizeof(intptr_t) * static_cast<size_t>(Count - index - 1));
    --Count;
    LeaveCriticalSection(&Lock);
    return 1;
}

int CPointerArray::IndexOf(intptr_t value) {
    EnterCriticalSection(&Lock);
    int found = -1;
    for (int i = 0; i < Count; ++i) {
        if (Elements[i] == value) {
            found = i;
            break;
        }
    }
    LeaveCriticalSection(&Lock);
    return found;
}

void CPointerArray::StableSort(bool (*less)(intptr_t a, intptr_t b)) {
    EnterCriticalSection(&Lock);
    // Insertion sort: stable, and the lists are short.
    for (int i = 1; i < Count; ++i) {
        const intptr_t value = Elements[i];
        int j = i;
        while (j > 0 && less(value, Elements[j - 1])) {
            Elements[j] = Elements[j - 1];
            --j;
        }
        Elements[j] = value;
    }
    LeaveCriticalSection(&Lock);
}

}  // namespace ntfs
