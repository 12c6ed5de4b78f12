// CPointerArray, including the behaviours kept on purpose: the -1 result of
// the first growth and the front insertion that overwrites element 0 when
// there is spare capacity.
#include "foundation/pointer_array.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace ntfs {
namespace {

std::vector<intptr_t> Contents(const CPointerArray& array) {
    std::vector<intptr_t> out;
    for (int i = 0; i < array.GetCount(); ++i) out.push_back(array.Get(i));
    return out;
}

TEST(PointerArray, InsertPositions) {
    CPointerArray array;
    EXPECT_EQ(array.InsertAfter(0, intptr_t{10}), -1);  // first growth
    EXPECT_EQ(array.Get(0), 10);
    EXPECT_EQ(array.InsertAfter(array.GetCount(), intptr_t{20}), 1);
    EXPECT_EQ(array.InsertAfter(99, intptr_t{30}), 2);  // clamped: appends
    EXPECT_EQ(array.InsertAfter(0, intptr_t{15}), 1);   // behind element 0
    EXPECT_EQ(array.InsertAfter(-1, intptr_t{5}), 0);   // front, by growth: all move up
    EXPECT_EQ(Contents(array), (std::vector<intptr_t>{5, 10, 15, 20, 30}));
}

TEST(PointerArray, FrontInsertWithSpareCapacityOverwrites) {
    CPointerArray array;
    for (intptr_t v : {1, 2, 3}) array.InsertAfter(array.GetCount(), v);
    ASSERT_EQ(array.RemoveAt(2), 1);  // capacity 3, count 2
    EXPECT_EQ(array.InsertAfter(-1, intptr_t{9}), 0);
    EXPECT_EQ(array.GetCount(), 3);
    // Element 0 was overwritten, nothing moved; the third slot shows what was left.
    EXPECT_EQ(array.Get(0), 9);
    EXPECT_EQ(array.Get(1), 2);
    EXPECT_EQ(array.Get(2), 3);
}

TEST(PointerArray, RemoveAndIndexOf) {
    CPointerArray array;
    for (intptr_t v : {7, 8, 7, 9}) array.InsertAfter(array.GetCount(), v);
    EXPECT_EQ(array.IndexOf(intptr_t{7}), 0);
    EXPECT_EQ(array.IndexOf(intptr_t{42}), -1);
    EXPECT_EQ(array.RemoveAt(4), 0);
    EXPECT_EQ(array.RemoveAt(-1), 0);
    EXPECT_EQ(array.GetCount(), 4);
    EXPECT_EQ(array.RemoveAt(0), 1);
    EXPECT_EQ(Contents(array), (std::vector<intptr_t>{8, 7, 9}));
    EXPECT_EQ(array.Get(3), 0);
    EXPECT_EQ(array.Get(-1), 0);
}

TEST(PointerArray, ClearKeepsBlockUntilNextGrowth) {
    CPointerArray array;
    for (intptr_t v : {1, 2}) array.InsertAfter(array.GetCount(), v);
    array.Clear();
    EXPECT_EQ(array.GetCount(), 0);
    EXPECT_EQ(array.InsertAfter(0, intptr_t{3}), -1);
    EXPECT_EQ(Contents(array), (std::vector<intptr_t>{3}));
}

TEST(PointerArray, ConcurrentAppendsKeepEveryValue) {
    CPointerArray array;
    auto fill = [&array](intptr_t base) {
        for (intptr_t i = 0; i < 500; ++i) array.InsertAfter(1 << 30, base + i);
    };
    std::thread a(fill, 0);
    std::thread b(fill, 100000);
    a.join();
    b.join();
    ASSERT_EQ(array.GetCount(), 1000);
    for (intptr_t i = 0; i < 500; ++i) {
        EXPECT_GE(array.IndexOf(i), 0);
        EXPECT_GE(array.IndexOf(100000 + i), 0);
    }
}

}  // namespace
}  // namespace ntfs
