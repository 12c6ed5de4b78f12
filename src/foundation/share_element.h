// CShareElement: a chain element with a reference count and a two-level lock.
//
// It is the base of everything several users hold at once (full file records,
// directories, index records, file and find handles). The constructor links
// the object onto its container, so a new object is findable at once and holds
// one reference, its creator's. The last Release retires the object into the
// container's recover box when the box is on, and destroys it otherwise;
// nothing may touch the object after a Release.
//
// Locks: LockShared/LockExclusive spin on ElementLock (a critical section held
// for a few instructions at a time). They are neither re-entrant nor
// upgradable, and a writer waits until every reader has gone. Reference counts
// are plain integers, ordered by the locks of whatever the caller reached the
// object through. Lock order between objects, outer to inner: find handle,
// directory, file record, and the $MFT record innermost.
#pragma once

#include "foundation/chain_element.h"

namespace ntfs {

class CShareElement : public CChainElement {
public:
    explicit CShareElement(CChainElementContainer* container);
    // Takes the element off its container when it still has one.
    ~CShareElement() override;

    // Adds one reference; returns the old count.
    virtual int Reference();
    // Drops one reference. At the last one the element is retired (container
    // with a recover box: returns 0) or destroyed (returns the old count, 1).
    // Otherwise returns the new count. An element that is off its chain must
    // not be released to 0.
    virtual int Release();
    virtual int LockShared();
    virtual int UnlockShared();
    virtual int LockExclusive();
    virtual int UnlockExclusive();
    virtual void Lock();
    virtual void Unlock();
    // Enters ElementLock without waiting; refuses (0) when others are queued
    // for it, whatever the attempt gave.
    virtual int TryLock();

    int GetReferenceCount() const { return ReferenceCount; }
    int GetSharedCount() const { return SharedCount; }
    int GetExclusiveCount() const { return ExclusiveCount; }

protected:
    int ReferenceCount;
    int SharedCount;
    int ExclusiveCount;
    CRITICAL_SECTION ElementLock;
};

}  // namespace ntfs
