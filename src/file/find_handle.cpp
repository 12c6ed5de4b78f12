// CFindHandle: patterns, the placing and moving of its cursor, delivery of
// each file once, and the refill of the enumeration record.
#include "file/find_handle.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "foundation/endian.h"
#include "foundation/log.h"
#include "foundation/platform.h"
#include "index/directory.h"
#include "index/index_entry.h"
#include "index/index_record.h"
#include "index/index_root.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

namespace {

constexpr int kMaxNameUnits = 255;
// A walk of one enumeration step never climbs more levels than a tree has.
constexpr int kMaxClimb = 1024;

// The folded name of an entry, NUL-terminated, in a buffer of 512 units (the
// units behind the name stay zero). A name length byte that claims more than
// the entry holds is cut to the entry.
void FoldedName(const uint8_t* entry, char16_t* buffer) {
    std::memset(buffer, 0, 512 * sizeof(char16_t));
    const int length = EntryNameLength(entry);
    for (int i = 0; i < length; ++i) buffer[i] = FoldUnit(ReadU16(entry, kEntryNameOffset + 2 * i));
}

void CopyTime(uint32_t* target, const uint8_t* value, int offset) {
    target[0] = ReadU32(value, static_cast<size_t>(offset));
    target[1] = ReadU32(value, static_cast<size_t>(offset) + 4);
}

}  // namespace

CFindHandle::CFindHandle(CDirectory* directory, CNTFSVolume* volume)
    : CShareElement(&volume->FindHandles),
      Directory(directory),
      Volume(volume),
      Stale(0),
      Pattern(nullptr),
      PatternLength(0),
      Segments(nullptr),
      SegmentCount(0),
      SegmentCapacity(0),
      RootNode(nullptr),
      SeenIndexWhole(1) {
    std::memset(CurrentEntry, 0, sizeof(CurrentEntry));
    ChangeLink.Reserved = this;
    Directory->OpenFindHandles.AddElement(&ChangeLink);
    Directory->Reference();
}

CFindHandle::~CFindHandle() {
    Directory->OpenFindHandles.RemoveElement(&ChangeLink);
    Directory->Release();
    FreePattern();
    FreeCursor();
}

void CFindHandle::FreePattern() {
    std::free(Pattern);
    std::free(Segments);
    Pattern = nullptr;
    Segments = nullptr;
    PatternLength = 0;
    SegmentCount = 0;
    SegmentCapacity = 0;
}

int CFindHandle::NotifyChange() {
    Stale = 1;
    return 1;
}

int CFindHandle::LockShared() {
    Directory->LockShared();
    return CShareElement::LockShared();
}

int CFindHandle::UnlockShared() {
    Directory->UnlockShared();
    return CShareElement::UnlockShared();
}

int CFindHandle::LockExclusive() {
    Directory->LockExclusive();
    return CShareElement::LockExclusive();
}

int CFindHandle::UnlockExclusive() {
    Directory->UnlockExclusive();
    return CShareElement::UnlockExclusive();
}

bool CFindHandle::AcceptItem(CBPlusTreeItem* item, bool backtracked, const _INDEX_SEARCH_KEY* key) {
    return !item->HasChild() || backtracked || key->Exact != 0;
}

// Chain search routine over a directory's OpenFindHandles: whether the
// cursor of the find object behind `element` stands in the node `parameter`.
int CFindHandle::CursorInNodeSearchRoutine(CChainElement* element, void* parameter) {
    const auto* handle = static_cast<const CFindHandle*>(element->Reserved);
    int depth = 0;
    for (const _TREE_CURSOR_FRAME* frame = handle->Cursor; frame != nullptr && depth <= kMaxTreeDepth;
         frame = frame->Previous, ++depth) {
        if (frame->Node == parameter) return 1;
    }
    return 0;
}

void CFindHandle::NodePassed(CBPlusTreeNode* node) {
    if (node == nullptr || node == RootNode) return;
    auto* record = dynamic_cast<CIndexRecord*>(node);
    if (record != nullptr) Directory->KeepPassedRecord(record, &CursorInNodeSearchRoutine);
}

int CFindHandle::SetPattern(const char16_t* pattern) {
    std::free(Segments);
    Segments = nullptr;
    SegmentCount = 0;
    // Counting pass: one element, plus one per run of '?'.
    int count = 1;
    bool inRun = false;
    for (const char16_t* unit = pattern; *unit != 0 && *unit != u'*'; ++unit) {
        if (*unit == u'?') {
            if (!inRun) ++count;
            inRun = true;
        } else {
            inRun = false;
        }
    }
    // The flag is carried into the recording pass as it stands; a pattern
    // that ends in '?' then opens one element more than was counted, so the
    // array has a spare slot and no element beyond it is ever written.
    SegmentCapacity = count + 1;
    Segments =
        static_cast<_PATTERN_SEGMENT*>(std::calloc(static_cast<size_t>(SegmentCapacity), sizeof(_PATTERN_SEGMENT)));
    if (Segments == nullptr) return 0;
    int current = 0;
    int segments = 1;
    int position = 0;
    for (; pattern[position] != 0 && pattern[position] != u'*'; ++position) {
        const bool question = pattern[position] == u'?';
        if (question && !inRun) {
            if (current + 1 < SegmentCapacity) Segments[current + 1].Start = position;
            Segments[current].Length = position - Segments[current].Start;
            inRun = true;
        } else if (!question && inRun) {
            if (current + 1 < SegmentCapacity) {
                Segments[current + 1].Start = position;
                ++current;
                ++segments;
            }
            inRun = false;
        }
    }
    Segments[current].Length = position - Segments[current].Start;
    SegmentCount = segments;

    const int length = lstrlenW(pattern);
    auto* folded = static_cast<char16_t*>(std::malloc((static_cast<size_t>(length) + 1) * sizeof(char16_t)));
    if (folded == nullptr) return 0;
    for (int i = 0; i <= length; ++i) folded[i] = FoldUnit(pattern[i]);
    std::free(Pattern);
    Pattern = folded;
    PatternLength = length;
    return 1;
}

void CFindHandle::BuildKey(_INDEX_SEARCH_KEY* key) const {
    key->Name = Pattern;
    key->Segments = Segments;
    key->SegmentCount = SegmentCount;
    key->CompareLength = Segments != nullptr ? Segments[0].Length : 0;
    key->Exact = Segments != nullptr && Segments[0].Length == PatternLength ? 1 : 0;
}

CIndexEntry* CFindHandle::CursorItem() const {
    if (Cursor == nullptr || Cursor->Node == nullptr) return nullptr;
    return static_cast<CIndexEntry*>(Cursor->Node->GetItem(Cursor->Index));
}

void CFindHandle::KeepEntry(const uint8_t* entry) {
    int length = ReadU16(entry, kEntryLengthOffset);
    if (length > kCurrentEntrySize - 2) length = kCurrentEntrySize - 2;
    std::memcpy(CurrentEntry, entry, static_cast<size_t>(length));
}

unsigned int CFindHandle::FindFirst(const uint8_t** entry) {
    _INDEX_SEARCH_KEY key{};
    BuildKey(&key);
    if (key.Exact) key.CompareLength += 1;
    RootNode = Directory->GetIndexRoot();
    if (RootNode == nullptr || !ResetCursor()) return ERROR_NOT_ENOUGH_MEMORY;
    Cursor->Node = RootNode;
    CBPlusTreeItem* found = nullptr;
    unsigned int code = FindNextItem(&found, &key);
    if (code != ERROR_SUCCESS) return code;
    auto* item = static_cast<CIndexEntry*>(found);
    if (!EntryHoldsKey(item->Entry)) return ERROR_FILE_CORRUPT;
    if (!key.Exact) {
        code = MatchSegments(&item, &key);
        if (code != ERROR_SUCCESS) return code;
    }
    *entry = item->Entry;
    return ERROR_SUCCESS;
}

unsigned int CFindHandle::FindNext(const uint8_t** entry) {
    _INDEX_SEARCH_KEY key{};
    BuildKey(&key);
    const uint8_t* next = nullptr;
    unsigned int code = NextEntry(&next, &key);
    if (code != ERROR_SUCCESS) return code;
    CIndexEntry* item = CursorItem();
    if (item == nullptr) return ERROR_FILE_NOT_FOUND;
    if (!key.Exact) {
        code = MatchSegments(&item, &key);
        if (code != ERROR_SUCCESS) return code;
    }
    *entry = item->Entry;
    return ERROR_SUCCESS;
}

unsigned int CFindHandle::MatchSegments(CIndexEntry** item, _INDEX_SEARCH_KEY* key) {
    char16_t name[512];
    FoldedName((*item)->Entry, name);
    for (int segment = 0; segment < SegmentCount && segment < SegmentCapacity;) {
        const int start = Segments[segment].Start;
        const int length = Segments[segment].Length;
        bool same = start >= 0 && length >= 0 && start + length <= 512;
        for (int i = 0; same && i < length; ++i) same = name[start + i] == Pattern[start + i];
        if (same) {
            ++segment;
            continue;
        }
        const uint8_t* next = nullptr;
        const unsigned int code = NextEntry(&next, key);
        if (code != ERROR_SUCCESS) return code;
        FoldedName(next, name);
        segment = 0;
    }
    CIndexEntry* current = CursorItem();
    if (current == nullptr) return ERROR_FILE_NOT_FOUND;
    *item = current;
    return ERROR_SUCCESS;
}

unsigned int CFindHandle::NextEntry(const uint8_t** entry, _INDEX_SEARCH_KEY* key) {
    unsigned int code = Revalidate();
    if (code != ERROR_SUCCESS && code != ERROR_FILE_NOT_FOUND) return code;
    bool standsOnUndelivered = code == ERROR_FILE_NOT_FOUND;
    int64_t compare = SeenRecords.GetCount() > 0 ? SeenRecords.Get(0) : 0;
    for (;;) {
        if (Cursor == nullptr) return ERROR_FILE_NOT_FOUND;
        if (!standsOnUndelivered) {
            for (int climb = 0; Cursor->Index >= Cursor->Node->GetItemCount(); ++climb) {
                if (Cursor->Previous == nullptr || climb > kMaxClimb) return ERROR_FILE_NOT_FOUND;
                _TREE_CURSOR_FRAME* deeper = Cursor;
                Cursor = Cursor->Previous;
                Cursor->Next = nullptr;
                CBPlusTreeNode* passed = deeper->Node;
                std::free(deeper);
                NodePassed(passed);
            }
            Cursor->Index += 1;
            if (Cursor->Index >= Cursor->Node->GetItemCount()) {
                Cursor->Index = Cursor->Node->GetItemCount() - 1;
                // Every node ends in its end entry, and only there does the
                // walk come back to the place it stood on. A node whose last
                // item is a real entry (its end entry lost) would give that
                // entry again on every step, for ever.
                auto* last = static_cast<CIndexEntry*>(Cursor->Node->GetItem(Cursor->Index));
                if (last != nullptr && !last->IsLast()) return ERROR_FILE_CORRUPT;
            }
        }
        CBPlusTreeItem* found = nullptr;
        code = FindNextItem(&found, key);
        if (code != ERROR_SUCCESS) return code;
        if (found == nullptr) return ERROR_FILE_NOT_FOUND;
        const uint8_t* bytes = static_cast<CIndexEntry*>(found)->Entry;
        *entry = bytes;
        if ((ReadU16(bytes, kEntryFlagsOffset) & kEntryIsLast) == 0) {
            if (!EntryHoldsKey(bytes)) return ERROR_FILE_CORRUPT;
            // Names of the POSIX namespace are always delivered, so each of
            // several POSIX hard links of a file comes out.
            if ((ReadU8(bytes, kEntryNameSpaceOffset) & 3) == 0) return ERROR_SUCCESS;
            compare = EntryReferencedRecord(bytes);
            standsOnUndelivered = false;
        }
        if (SeenRecords.GetCount() == 0 || !WasDelivered(compare)) {
            return ERROR_SUCCESS;
        }
    }
}

bool CFindHandle::WasDelivered(int64_t record) {
    if (SeenIndexWhole) {
        intptr_t ignored = 0;
        return SeenIndex.Find(record, &ignored) != 0;
    }
    return SeenRecords.IndexOf(static_cast<intptr_t>(record)) >= 0;
}

void CFindHandle::RememberDelivered(int64_t record) {
    if (SeenRecords.InsertAfter(SeenRecords.GetCount(), static_cast<intptr_t>(record)) == -2) return;
    if (SeenIndexWhole && SeenIndex.Insert(record, 1) == -2) SeenIndexWhole = 0;
}

unsigned int CFindHandle::Revalidate() {
    if (!Stale) return ERROR_SUCCESS;
    Stale = 0;
    const int length = ReadU8(CurrentEntry, kEntryNameLengthOffset);
    char16_t name[kMaxNameUnits + 1];
    for (int i = 0; i < length; ++i) name[i] = ReadU16(CurrentEntry, kEntryNameOffset + 2 * i);
    name[length] = 0;
    auto* temporary = new (std::nothrow) CFindHandle(Directory, Volume);
    if (temporary == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    if (!temporary->SetPattern(name)) {
        delete temporary;
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    const uint8_t* entry = nullptr;
    const unsigned int code = temporary->FindFirst(&entry);
    _TREE_CURSOR_FRAME* mine = Cursor;
    Cursor = temporary->Cursor;
    temporary->Cursor = mine;
    delete temporary;
    return code;
}

void CFindHandle::FillFindData(const uint64_t* parentReference, CFullFileRecord* record, _FIND_FILE_DATA* data,
                               const uint8_t* entry) {
    if ((ReadU16(entry, kEntryFlagsOffset) & kEntryIsLast) == 0) {
        RememberDelivered(EntryReferencedRecord(entry));
    }
    KeepEntry(entry);
    std::memset(data->AlternateFileName, 0, sizeof(data->AlternateFileName));
    std::memset(data->FileName, 0, sizeof(data->FileName));
    record->LockShared();
    const uint8_t* last = nullptr;
    for (unsigned int index = 0;; ++index) {
        CAttribute* name = record->FindAttribute(AttributeFileName, nullptr, 0, index);
        if (name == nullptr) break;
        const uint8_t* value = name->GetValue();
        if (!name->IsResident() || !name->BodyFits() || name->GetDataSize() < kFileNameUnitsOffset) continue;
        const int units = ReadU8(value, kFileNameLengthOffset);
        if (kFileNameUnitsOffset + 2 * units > name->GetDataSize()) continue;
        last = value;
        if ((ReadU48(value, kFileNameParentOffset) & kFileReferenceNumberMask) !=
            (*parentReference & kFileReferenceNumberMask)) {
            continue;
        }
        // Each copy is terminated: a later, shorter name of the same
        // directory replaces an earlier one whole.
        const uint8_t space = ReadU8(value, kFileNameNamespaceOffset);
        if (space & kNamespaceDos) {
            const int fit = units < 27 ? units : 27;
            for (int i = 0; i < fit; ++i) data->AlternateFileName[i] = ReadU16(value, kFileNameUnitsOffset + 2 * i);
            data->AlternateFileName[fit] = 0;
        }
        if (space != kNamespaceDos) {
            for (int i = 0; i < units; ++i) data->FileName[i] = ReadU16(value, kFileNameUnitsOffset + 2 * i);
            data->FileName[units] = 0;
        }
    }
    if (last != nullptr) {
        uint32_t attributes = ReadU32(last, kFileNameFlagsOffset);
        if (attributes & kFileNameIsDirectory)
            attributes = (attributes & ~kFileNameIsDirectory) | kFileAttributeDirectory;
        data->FileAttributes = attributes;
        CopyTime(data->CreationTime, last, kFileNameCreationTimeOffset);
        CopyTime(data->LastAccessTime, last, kFileNameAccessTimeOffset);
        CopyTime(data->LastWriteTime, last, kFileNameWriteTimeOffset);
    }
    const uint64_t size = ReadU64(entry, kEntryRealSizeOffset);
    data->FileSizeHigh = static_cast<uint32_t>(size >> 32);
    data->FileSizeLow = static_cast<uint32_t>(size);
    data->FileRecordNumber = record->IsValid() ? record->RecordNumber : -1;
    record->UnlockShared();
}

}  // namespace ntfs
