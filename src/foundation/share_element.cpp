#include "foundation/share_element.h"

namespace ntfs {

CShareElement::CShareElement(CChainElementContainer* container) : ReferenceCount(0), SharedCount(0), ExclusiveCount(0) {
    InitializeCriticalSection(&ElementLock);
    Container = container;
    if (container != nullptr) container->AddElement(this);
    ++ReferenceCount;
}

CShareElement::~CShareElement() {
    if (Container != nullptr) Container->RemoveElement(this);
    DeleteCriticalSection(&ElementLock);
}

int CShareElement::Reference() {
    return ReferenceCount++;
}

int CShareElement::Release() {
    const int old = ReferenceCount--;
    if (old != 1) return ReferenceCount;
    if (Container->HasRecoverBox()) {
        Container->RetireObject(this);
        return 0;
    }
    delete this;
    return old;
}

int CShareElement::LockShared() {
    for (;;) {
        Lock();
        if (ExclusiveCount == 0) break;
        Unlock();
    }
    const int count = ++SharedCount;
    Unlock();
    return count;
}

int CShareElement::UnlockShared() {
    Lock();
    const int count = --SharedCount;
    Unlock();
    return count;
}

int CShareElement::LockExclusive() {
    for (;;) {
        Lock();
        if (SharedCount == 0 && ExclusiveCount == 0) break;
        Unlock();
    }
    ExclusiveCount = 1;
    Unlock();
    return 1;
}

int CShareElement::UnlockExclusive() {
    Lock();
    const int count = --ExclusiveCount;
    Unlock();
    return count;
}

void CShareElement::Lock() {
    EnterCriticalSection(&ElementLock);
}

void CShareElement::Unlock() {
    LeaveCriticalSection(&ElementLock);
}

int CShareElement::TryLock() {
    const int entered = TryEnterCriticalSection(&ElementLock);
    if (CriticalSectionWaiters(&ElementLock) > 0) {
        if (entered) LeaveCriticalSection(&ElementLock);
        return 0;
    }
    return entered;
}

}  // namespace ntfs
