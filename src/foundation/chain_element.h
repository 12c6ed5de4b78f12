// Intrusive chains of shared objects, with an optional recover box.
//
// CChainElement is the base of everything the library keeps alive and finds by
// identity (file records, directories, handles, short-name lists). A
// CChainElementContainer holds a doubly linked main chain of live elements
// and, when enabled, a recover box: the last kRecoverBoxCapacity elements that
// were released but not destroyed, newest first. A search looks at the main
// chain and then in the box, and moves a hit from the box back to the main
// chain; the box is the library's only cache of file records and directories.
//
// Ownership: the container does not own what is on its main chain; it owns
// (and destroys) what is in its recover box. An element is on one list at a
// time, and its Previous/Next links serve both.
//
// Thread safety: one recursive critical section per container guards both
// lists and the counters, held only inside one chain operation. Search
// routines run with it held and must not call back into the container.
#pragma once

#include "foundation/platform.h"

namespace ntfs {

class CChainElementContainer;

class CChainElement {
public:
    CChainElement() : Previous(nullptr), Next(nullptr), Reserved(nullptr), Container(nullptr) {}
    virtual ~CChainElement() = default;
    // Stores the container the element is now on (null when taken off) and
    // returns the previous one. Called by the container on every link and unlink.
    virtual CChainElementContainer* SetContainer(CChainElementContainer* container);
    // A change notification; 0 in the base.
    virtual int NotifyChange() { return 0; }

    CChainElement* Previous;
    CChainElement* Next;
    void* Reserved;  // cleared, no reader in the chain code
    CChainElementContainer* Container;
};

// A search routine returns nonzero for a match. It runs under the container's
// lock: it must be short and must not re-enter the container.
using ChainSearchRoutine = int (*)(CChainElement* element, void* parameter);

class CChainElementContainer {
public:
    static constexpr int kRecoverBoxCapacity = 10;

    CChainElementContainer();
    explicit CChainElementContainer(int enable);
    // Copies share every pointer; the library never calls them and a copy is
    // not a working second container.
    CChainElementContainer(const CChainElementContainer& other);
    CChainElementContainer& operator=(const CChainElementContainer& other);
    // Destroys the recover box's elements, unlinks (without destroying) the
    // live ones and clears their container pointers.
    virtual ~CChainElementContainer();

    // Appends at the tail and calls element->SetContainer(this). Returns the
    // element.
    virtual CChainElement* AddElement(CChainElement* element);
    // Unlinks the element (which must be on this main chain) and clears its
    // container pointer; its own links are left as they were. Returns it.
    virtual CChainElement* RemoveElement(CChainElement* element);
    // Pops the head, or returns null on an empty chain. Count is decremented
    // even for an empty chain, and Tail is not touched: both kept as they are.
    virtual CChainElement* RemoveHeadElement();
    // The element `index` steps from the head, unreferenced, or null past the end.
    virtual CChainElement* GetElement(int index);
    // First match on the main chain, else newest-first in the recover box (a
    // box hit is moved to the tail of the main chain). Adds no reference.
    virtual CChainElement* SearchElement(ChainSearchRoutine routine, void* parameter);

    // Stores a new setting and returns the previous one; if the box was on,
    // its elements are destroyed first.
    int EnableRecoverBox(int enable);
    int HasRecoverBox() const { return RecoverBoxEnabled; }
    // Takes the element off the main chain and puts it at the front of the box,
    // destroying the oldest retired element when the box is full. Called by
    // CShareElement::Release only.
    void RetireObject(CChainElement* element);

    int GetCount() const { return Count; }
    int GetRecoverCount() const { return RecoverCount; }

protected:
    CChainElement* Head;
    CChainElement* Tail;
    int Count;
    CRITICAL_SECTION Lock;
    int RecoverBoxEnabled;
    CChainElement* RecoverHead;
    CChainElement* RecoverTail;
    int RecoverCount;
};

}  // namespace ntfs
