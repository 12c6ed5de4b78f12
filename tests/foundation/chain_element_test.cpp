// Chains and the recover box: eviction order, search order, the move from the
// box back to the main chain, and what the container destroys.
#include "foundation/chain_element.h"

#include <gtest/gtest.h>

#include <vector>

namespace ntfs {
namespace {

struct Tracked : CChainElement {
    Tracked(int id, std::vector<int>* destroyed) : Id(id), Destroyed(destroyed) {}
    ~Tracked() override { Destroyed->push_back(Id); }
    int Id;
    std::vector<int>* Destroyed;
};

int MatchId(CChainElement* element, void* parameter) {
    return static_cast<Tracked*>(element)->Id == *static_cast<int*>(parameter);
}

CChainElement* Find(CChainElementContainer& container, int id) {
    return container.SearchElement(&MatchId, &id);
}

std::vector<int> Ids(CChainElementContainer& container) {
    std::vector<int> ids;
    for (int i = 0;; ++i) {
        auto* element = static_cast<Tracked*>(container.GetElement(i));
        if (element == nullptr) break;
        ids.push_back(element->Id);
    }
    return ids;
}

TEST(ChainContainer, AddRemoveAndIndex) {
    std::vector<int> destroyed;
    CChainElementContainer container;
    Tracked a(1, &destroyed), b(2, &destroyed), c(3, &destroyed);
    EXPECT_EQ(container.AddElement(&a), &a);
    container.AddElement(&b);
    container.AddElement(&c);
    EXPECT_EQ(a.Container, &container);
    EXPECT_EQ(Ids(container), (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(container.GetElement(3), nullptr);  // index equal to the count
    container.RemoveElement(&b);
    EXPECT_EQ(b.Container, nullptr);
    EXPECT_EQ(Ids(container), (std::vector<int>{1, 3}));
    EXPECT_EQ(container.RemoveHeadElement(), &a);
    EXPECT_EQ(container.RemoveHeadElement(), &c);
    EXPECT_EQ(container.RemoveHeadElement(), nullptr);
    // Count goes below zero on a pop from an empty chain; nothing relies on it.
    EXPECT_EQ(container.GetCount(), -1);
    // Adding after the chain was emptied by pops works although Tail was stale.
    container.AddElement(&b);
    EXPECT_EQ(Ids(container), (std::vector<int>{2}));
    container.RemoveElement(&b);
}

TEST(ChainContainer, RecoverBoxEvictsOldestAtEleven) {
    std::vector<int> destroyed;
    CChainElementContainer container(1);
    std::vector<Tracked*> elements;
    for (int id = 0; id < 11; ++id) {
        elements.push_back(new Tracked(id, &destroyed));
        container.AddElement(elements.back());
    }
    for (int id = 0; id < 10; ++id) container.RetireObject(elements[id]);
    EXPECT_TRUE(destroyed.empty());
    EXPECT_EQ(container.GetRecoverCount(), 10);
    container.RetireObject(elements[10]);
    EXPECT_EQ(destroyed, (std::vector<int>{0}));
    EXPECT_EQ(container.GetRecoverCount(), 10);
    EXPECT_EQ(container.GetCount(), 0);
}

TEST(ChainContainer, SearchPrefersMainChainThenNewestInBox) {
    std::vector<int> destroyed;
    CChainElementContainer container(1);
    auto* live = new Tracked(7, &destroyed);
    auto* retiredSame = new Tracked(7, &destroyed);
    auto* older = new Tracked(8, &destroyed);
    auto* newer = new Tracked(8, &destroyed);
    for (auto* e : {live, retiredSame, older, newer}) container.AddElement(e);
    container.RetireObject(retiredSame);
    container.RetireObject(older);
    container.RetireObject(newer);
    EXPECT_EQ(Find(container, 7), live);
    EXPECT_EQ(container.GetRecoverCount(), 3);
    // A hit in the box moves the newest match to the tail of the main chain.
    EXPECT_EQ(Find(container, 8), newer);
    EXPECT_EQ(container.GetRecoverCount(), 2);
    EXPECT_EQ(newer->Container, &container);
    EXPECT_EQ(container.GetElement(1), newer);
    EXPECT_EQ(Find(container, 99), nullptr);
    container.RemoveElement(live);
    container.RemoveElement(newer);
    delete live;
    delete newer;
}

TEST(ChainContainer, EnableRecoverBox) {
    std::vector<int> destroyed;
    CChainElementContainer container(1);
    auto* a = new Tracked(1, &destroyed);
    container.AddElement(a);
    container.RetireObject(a);
    // Enabling a box that is already on empties it and leaves it on.
    EXPECT_EQ(container.EnableRecoverBox(1), 1);
    EXPECT_EQ(destroyed, (std::vector<int>{1}));
    EXPECT_EQ(container.HasRecoverBox(), 1);
    EXPECT_EQ(container.GetRecoverCount(), 0);
    // The stale tail does not matter: the next retire rewrites it.
    auto* b = new Tracked(2, &destroyed);
    container.AddElement(b);
    container.RetireObject(b);
    EXPECT_EQ(Find(container, 2), b);
    EXPECT_EQ(container.EnableRecoverBox(0), 1);
    EXPECT_EQ(container.HasRecoverBox(), 0);
    container.RemoveElement(b);
    delete b;
}

TEST(ChainContainer, DestructorFreesBoxButNotLiveElements) {
    std::vector<int> destroyed;
    Tracked live(1, &destroyed);
    {
        CChainElementContainer container(1);
        auto* retired = new Tracked(2, &destroyed);
        container.AddElement(&live);
        container.AddElement(retired);
        container.RetireObject(retired);
    }
    EXPECT_EQ(destroyed, (std::vector<int>{2}));
    EXPECT_EQ(live.Container, nullptr);
}

}  // namespace
}  // namespace ntfs
