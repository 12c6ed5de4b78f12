// Shared elements: reference counting into the recover box or to destruction,
// and the spin-built shared and exclusive locks across threads.
#include "foundation/share_element.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace ntfs {
namespace {

struct Counted : CShareElement {
    Counted(CChainElementContainer* container, int* destroyed) : CShareElement(container), Destroyed(destroyed) {}
    ~Counted() override { ++*Destroyed; }
    int* Destroyed;
};

int IsElement(CChainElement* element, void* parameter) {
    return element == parameter;
}

TEST(ShareElement, NewObjectIsLinkedWithOneReference) {
    int destroyed = 0;
    CChainElementContainer container;
    auto* object = new Counted(&container, &destroyed);
    EXPECT_EQ(container.GetCount(), 1);
    EXPECT_EQ(object->Reference(), 1);
    EXPECT_EQ(object->Release(), 1);
    // Without a box the last release destroys and unlinks.
    EXPECT_EQ(object->Release(), 1);
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(container.GetCount(), 0);
}

TEST(ShareElement, LastReleaseRetiresIntoBox) {
    int destroyed = 0;
    CChainElementContainer container(1);
    auto* object = new Counted(&container, &destroyed);
    EXPECT_EQ(object->Release(), 0);
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(object->Container, nullptr);
    EXPECT_EQ(container.SearchElement(&IsElement, object), object);
    EXPECT_EQ(object->GetReferenceCount(), 0);
    object->Reference();
    EXPECT_EQ(object->Release(), 0);
    // The container destroys what is in its box.
}

TEST(ShareElement, SharedLocksStackExclusiveWaitsForReaders) {
    int destroyed = 0;
    Counted object(nullptr, &destroyed);
    EXPECT_EQ(object.LockShared(), 1);
    EXPECT_EQ(object.LockShared(), 2);
    EXPECT_EQ(object.GetSharedCount(), 2);
    std::atomic<bool> acquired{false};
    std::thread writer([&] {
        object.LockExclusive();
        acquired = true;
        object.UnlockExclusive();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(acquired);
    object.UnlockShared();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_FALSE(acquired);
    object.UnlockShared();
    writer.join();
    EXPECT_TRUE(acquired);
    EXPECT_EQ(object.GetExclusiveCount(), 0);
}

TEST(ShareElement, ReaderWaitsForWriter) {
    int destroyed = 0;
    Counted object(nullptr, &destroyed);
    object.LockExclusive();
    std::atomic<bool> acquired{false};
    std::thread reader([&] {
        object.LockShared();
        acquired = true;
        object.UnlockShared();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(acquired);
    object.UnlockExclusive();
    reader.join();
    EXPECT_TRUE(acquired);
}

TEST(ShareElement, TryLockRefusesWhenOthersQueue) {
    int destroyed = 0;
    Counted object(nullptr, &destroyed);
    EXPECT_EQ(object.TryLock(), 1);
    object.Unlock();
    object.Lock();
    std::thread waiter([&] {
        object.Lock();
        object.Unlock();
    });
    // The owner's own try succeeds (the lock is recursive) until another thread
    // is queued; from then on it is refused.
    int result = 1;
    for (int i = 0; i < 5000 && result == 1; ++i) {
        result = object.TryLock();
        if (result == 1) {
            object.Unlock();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    EXPECT_EQ(result, 0);
    object.Unlock();
    waiter.join();
    std::atomic<int> other{-1};
    std::thread probe([&] {
        other = object.TryLock();
        if (other == 1) object.Unlock();
    });
    probe.join();
    EXPECT_EQ(other, 1);
}

}  // namespace
}  // namespace ntfs
