#include "foundation/chain_element.h"

namespace ntfs {

CChainElementContainer* CChainElement::SetContainer(CChainElementContainer* container) {
    CChainElementContainer* previous = Container;
    Container = container;
    return previous;
}

CChainElementContainer::CChainElementContainer() : CChainElementContainer(0) {}

CChainElementContainer::CChainElementContainer(int enable)
    : Head(nullptr),
      Tail(nullptr),
      Count(0),
      RecoverBoxEnabled(enable),
      RecoverHead(nullptr),
      RecoverTail(nullptr),
      RecoverCount(0) {
    InitializeCriticalSection(&Lock);
}

CChainElementContainer::CChainElementContainer(const CChainElementContainer& other)
    : Head(other.Head),
      Tail(other.Tail),
      Count(other.Count),
      RecoverBoxEnabled(other.RecoverBoxEnabled),
      RecoverHead(other.RecoverHead),
      RecoverTail(other.RecoverTail),
      RecoverCount(other.RecoverCount) {
    InitializeCriticalSection(&Lock);
}

CChainElementContainer& CChainElementContainer::operator=(const CChainElementContainer& other) {
    Head = other.Head;
    Tail = other.Tail;
    Count = other.Count;
    RecoverBoxEnabled = other.RecoverBoxEnabled;
    RecoverHead = other.RecoverHead;
    RecoverTail = other.RecoverTail;
    RecoverCount = other.RecoverCount;
    return *this;
}

CChainElementContainer::~CChainElementContainer() {
    while (RecoverHead != nullptr) {
        CChainElement* element = RecoverHead;
        RecoverHead = element->Next;
        delete element;
    }
    RecoverTail = nullptr;
    RecoverCount = 0;
    for (;;) {
        EnterCriticalSection(&Lock);
        CChainElement* element = Head;
        if (element == nullptr) {
            LeaveCriticalSection(&Lock);
            break;
        }
        Head = element->Next;
        if (Head != nullptr)
            Head->Previous = nullptr;
        else
            Tail = nullptr;
        --Count;
        LeaveCriticalSection(&Lock);
        element->SetContainer(nullptr);
    }
    DeleteCriticalSection(&Lock);
}

CChainElement* CChainElementContainer::AddElement(CChainElement* element) {
    EnterCriticalSection(&Lock);
    element->Previous = nullptr;
    element->Next = nullptr;
    if (Head == nullptr) {
        Head = element;
    } else {
        Tail->Next = element;
        element->Previous = Tail;
    }
    Tail = element;
    element->SetContainer(this);
    ++Count;
    CChainElement* tail = Tail;
    LeaveCriticalSection(&Lock);
    return tail;
}

CChainElement* CChainElementContainer::RemoveElement(CChainElement* element) {
    EnterCriticalSection(&Lock);
    if (element->Previous != nullptr)
        element->Previous->Next = element->Next;
    else
        Head = element->Next;
    if (element->Next != nullptr)
        element->Next->Previous = element->Previous;
    else
        Tail = element->Previous;
    --Count;
    LeaveCriticalSection(&Lock);
    element->SetContainer(nullptr);
    return element;
}

CChainElement* CChainElementContainer::RemoveHeadElement() {
    EnterCriticalSection(&Lock);
    CChainElement* element = Head;
    if (element != nullptr) {
        Head = element->Next;
        if (Head != nullptr) Head->Previous = nullptr;
        element->Previous = nullptr;
        element->Next = nullptr;
        element->SetContainer(nullptr);
    }
    --Count;
    LeaveCriticalSection(&Lock);
    return element;
}

CChainElement* CChainElementContainer::GetElement(int index) {
    EnterCriticalSection(&Lock);
    CChainElement* element = Head;
    for (int i = 0; i < index && element != nullptr; ++i) element = element->Next;
    if (index < 0) element = nullptr;
    LeaveCriticalSection(&Lock);
    return element;
}

CChainElement* CChainElementContainer::SearchElement(ChainSearchRoutine routine, void* parameter) {
    EnterCriticalSection(&Lock);
    for (CChainElement* element = Head; element != nullptr;) {
        CChainElement* next = element->Next;
        if (routine(element, parameter)) {
            LeaveCriticalSection(&Lock);
            return element;
        }
        element = next;
    }
    for (CChainElement* element = RecoverHead; element != nullptr; element = element->Next) {
        if (!routine(element, parameter)) continue;
        if (element->Previous != nullptr)
            element->Previous->Next = element->Next;
        else
            RecoverHead = element->Next;
        if (element->Next != nullptr)
            element->Next->Previous = element->Previous;
        else
            RecoverTail = element->Previous;
        --RecoverCount;
        LeaveCriticalSection(&Lock);
        AddElement(element);
        return element;
    }
    LeaveCriticalSection(&Lock);
    return nullptr;
}

int CChainElementContainer::EnableRecoverBox(int enable) {
    EnterCriticalSection(&Lock);
    const int previous = RecoverBoxEnabled;
    if (RecoverBoxEnabled) {
        // RecoverTail is left stale; RetireObject rewrites it on an empty box.
        while (RecoverHead != nullptr) {
            CChainElement* element = RecoverHead;
            RecoverHead = element->Next;
            delete element;
        }
        RecoverCount = 0;
    }
    RecoverBoxEnabled = enable;
    LeaveCriticalSection(&Lock);
    return previous;
}

void CChainElementContainer::RetireObject(CChainElement* element) {
    RemoveElement(element);
    EnterCriticalSection(&Lock);
    if (RecoverCount == kRecoverBoxCapacity) {
        CChainElement* oldest = RecoverTail;
        CChainElement* newTail = oldest->Previous;
        newTail->Next = nullptr;
        delete oldest;
        --RecoverCount;
        RecoverTail = newTail;
    }
    element->Next = RecoverHead;
    element->Previous = nullptr;
    if (RecoverHead != nullptr)
        RecoverHead->Previous = element;
    else
        RecoverTail = element;
    ++RecoverCount;
    RecoverHead = element;
    LeaveCriticalSection(&Lock);
}

}  // namespace ntfs
