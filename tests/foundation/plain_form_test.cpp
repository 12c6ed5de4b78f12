// The pointer array and the hash index against plain models on long runs of
// random operations: the array's results (positions, codes, every element
// it shows, including the front insertion over spare capacity) must be those
// of a block that grows by exactly one element; the index must answer as a
// std::map.
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <random>
#include <vector>

#include "foundation/number_index.h"
#include "foundation/pointer_array.h"

namespace ntfs {
namespace {

// The array as defined, element by element: a block of exactly `capacity`
// slots, a new one of capacity + 1 at each growth.
struct PlainArray {
    std::vector<intptr_t> block;
    int count = 0;
    int capacity = 0;

    int InsertAfter(int index, intptr_t value) {
        if (index < -1) index = -1;
        if (index != -1 && index >= count) index = count - 1;
        if (count < capacity) {
            if (index == -1) {
                block[0] = value;
                ++count;
                return 0;
            }
            for (int i = count; i > index + 1; --i) block[static_cast<size_t>(i)] = block[static_cast<size_t>(i - 1)];
            block[static_cast<size_t>(index + 1)] = value;
            ++count;
            return index + 1;
        }
        std::vector<intptr_t> grown(static_cast<size_t>(capacity + 1));
        const int head = index + 1;
        for (int i = 0; i < head; ++i) grown[static_cast<size_t>(i)] = block[static_cast<size_t>(i)];
        for (int i = head; i < count; ++i) grown[static_cast<size_t>(i + 1)] = block[static_cast<size_t>(i)];
        grown[static_cast<size_t>(head)] = value;
        block.swap(grown);
        ++capacity;
        const int result = count == 0 ? -1 : head;
        ++count;
        return result;
    }
    int RemoveAt(int index) {
        if (index < 0 || index >= count) return 0;
        for (int i = index; i + 1 < count; ++i) block[static_cast<size_t>(i)] = block[static_cast<size_t>(i + 1)];
        --count;
        return 1;
    }
    int IndexOf(intptr_t value) const {
        for (int i = 0; i < count; ++i) {
            if (block[static_cast<size_t>(i)] == value) return i;
        }
        return -1;
    }
    // A cleared block stays until the next growth replaces it.
    void Clear() {
        count = 0;
        capacity = 0;
    }
    intptr_t Get(int index) const { return index >= 0 && index < count ? block[static_cast<size_t>(index)] : 0; }
};

TEST(PlainForm, PointerArrayAnswersAsABlockGrownByOne) {
    for (unsigned seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        CPointerArray array;
        PlainArray plain;
        // Small values so that IndexOf meets repeats; a run of many appends
        // now and then so that the block grows through several doublings.
        for (int step = 0; step < 4000; ++step) {
            const int op = static_cast<int>(random() % 100);
            const intptr_t value = static_cast<intptr_t>(random() % 50);
            const int index = static_cast<int>(random() % static_cast<unsigned>(plain.count + 3)) - 2;
            if (op < 45) {
                ASSERT_EQ(array.InsertAfter(index, value), plain.InsertAfter(index, value)) << step;
            } else if (op < 55) {
                ASSERT_EQ(array.InsertAfter(-1, value), plain.InsertAfter(-1, value)) << step;
            } else if (op < 57) {
                for (int i = 0; i < 300; ++i) {
                    ASSERT_EQ(array.InsertAfter(array.GetCount(), value + i),
                              plain.InsertAfter(plain.count, value + i));
                }
            } else if (op < 85) {
                ASSERT_EQ(array.RemoveAt(index), plain.RemoveAt(index)) << step;
            } else if (op < 97) {
                ASSERT_EQ(array.IndexOf(value), plain.IndexOf(value)) << step;
            } else {
                array.Clear();
                plain.Clear();
            }
            ASSERT_EQ(array.GetCount(), plain.count) << step;
            for (int i = -1; i <= plain.count; ++i) ASSERT_EQ(array.Get(i), plain.Get(i)) << step << " at " << i;
        }
    }
}

// A map with values; a set that leaves its bitmap form early (far and
// negative keys from the start); a set that stays a bitmap for most of the
// run, through growth of its range, and leaves it late.
TEST(PlainForm, NumberIndexAnswersAsAMap) {
    enum Kind { kMap, kSetFarKeys, kSetLateFarKey };
    for (const Kind kind : {kMap, kSetFarKeys, kSetLateFarKey}) {
        SCOPED_TRACE(kind);
        const bool withValues = kind == kMap;
        std::mt19937_64 random(7 + kind);
        CNumberIndex index(withValues);
        std::map<int64_t, intptr_t> plain;
        for (int step = 0; step < 200000; ++step) {
            const bool farInsert = kind == kSetLateFarKey && step == 190000;
            const int op = farInsert ? 0 : static_cast<int>(random() % 100);
            // Keys from a small range collide; now and then far and negative ones.
            int64_t key = static_cast<int64_t>(random() % 3000);
            if (kind == kSetLateFarKey) {
                key = static_cast<int64_t>(random() % (step < 100000 ? 3000 + step * 20 : 3000));
                if (step == 190000) key = int64_t{1} << 40;
            } else if (random() % 16 == 0) {
                key = static_cast<int64_t>(random());
            }
            const auto value = static_cast<intptr_t>(random() % 1000);
            if (op < 50) {
                intptr_t existing = -1;
                const auto it = plain.find(key);
                const int expected = it == plain.end() ? 1 : 0;
                ASSERT_EQ(index.Insert(key, value, &existing), expected) << step;
                if (expected == 0) {
                    ASSERT_EQ(existing, withValues ? it->second : 0) << step;
                } else {
                    plain[key] = withValues ? value : 0;
                }
            } else if (op < 80) {
                ASSERT_EQ(index.Remove(key), static_cast<int>(plain.erase(key))) << step;
            } else if (op < 99) {
                intptr_t found = -1;
                const auto it = plain.find(key);
                ASSERT_EQ(index.Find(key, &found), it != plain.end() ? 1 : 0) << step;
                if (it != plain.end()) {
                    ASSERT_EQ(found, it->second) << step;
                }
            } else if (random() % 20 == 0) {
                index.Clear();
                plain.clear();
            }
            ASSERT_EQ(index.GetCount(), static_cast<int64_t>(plain.size())) << step;
        }
        // Every key still there is found, and ForEach visits exactly them.
        std::map<int64_t, intptr_t> visited;
        index.ForEach([](int64_t key, intptr_t value,
                         void* context) { (*static_cast<std::map<int64_t, intptr_t>*>(context))[key] = value; },
                      &visited);
        EXPECT_EQ(visited, plain);
    }
}

}  // namespace
}  // namespace ntfs
