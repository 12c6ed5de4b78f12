// Short names: the tests of whether a long name needs one, the stem and
// extension of a long name, the tail search against the directory's index,
// and the volume's lists of them, one per directory.
#include "file/short_file_name_list.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "file/find_handle.h"
#include "foundation/log.h"
#include "foundation/platform.h"
#include "index/directory.h"
#include "index/index_entry.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

namespace {

constexpr int kTableSlots = 256;
// A short name has at most this many units before its dot: stem, '~', tail.
constexpr int kShortNamePlaces = 8;

bool IsReplacedUnit(char16_t unit) {
    return unit == u';' || unit == u'+' || unit == u'[' || unit == u']' || unit == u',' || unit == u'=' || unit == u'#';
}

int TableSlot(char16_t unit) {
    return FoldUnit(unit) & 0xFF;
}

// What the two tests share: the counts of dots and units around the last dot.
struct NameShape {
    int Length = 0;
    int Dots = 0;
    int LastDot = -1;
    bool Space = false;
    bool Replaced = false;
};

NameShape ShapeOf(const char16_t* name) {
    NameShape shape;
    for (; name[shape.Length] != 0; ++shape.Length) {
        const char16_t unit = name[shape.Length];
        if (unit == u'.') {
            ++shape.Dots;
            shape.LastDot = shape.Length;
        }
        if (unit == u' ') shape.Space = true;
        if (IsReplacedUnit(unit)) shape.Replaced = true;
    }
    return shape;
}

// The tests both kinds of change make: several dots, a space, a stem of
// more than 8 units or an extension of more than 3.
bool ExceedsEightDotThree(const NameShape& shape) {
    if (shape.Dots > 1 || shape.Space) return true;
    if (shape.Dots == 0) return shape.Length > kShortNamePlaces;
    return shape.LastDot > kShortNamePlaces || shape.Length - shape.LastDot - 1 > kShortExtensionPlaces;
}

// Copies units of `name` from `from` into `target` while places are left of
// `limit`. A unit above 0xFF takes two places and ends the copy when only one
// is left; with `separatorsCost`, a dot or a space is not copied and takes
// one place, else a space is skipped for free. Returns the units copied.
int CopyPlaces(const char16_t* name, int from, int limit, bool separatorsCost, char16_t* target) {
    int used = 0;
    int copied = 0;
    for (int i = from; name[i] != 0 && used < limit; ++i) {
        const char16_t unit = name[i];
        if (unit == u' ' || (separatorsCost && unit == u'.')) {
            if (separatorsCost) --limit;
            continue;
        }
        if (unit > 0xFF) {
            if (limit - used < 2) break;
            --limit;
        }
        target[copied++] = unit;
        ++used;
    }
    target[copied] = 0;
    return copied;
}

void Finish(char16_t* part) {
    for (; *part != 0; ++part) *part = IsReplacedUnit(*part) ? u'_' : FoldUnit(*part);
}

// The tail `number` in base 36, most significant digit first; returns its
// digits.
int TailDigits(int64_t number, char16_t* digits) {
    char16_t reversed[16];
    int count = 0;
    do {
        const int digit = static_cast<int>(number % 36);
        reversed[count++] = static_cast<char16_t>(digit < 10 ? u'0' + digit : u'A' + digit - 10);
        number /= 36;
    } while (number > 0 && count < 15);
    for (int i = 0; i < count; ++i) digits[i] = reversed[count - 1 - i];
    digits[count] = 0;
    return count;
}

bool SameUnits(const char16_t* a, const char16_t* b) {
    for (; *a != 0 && *a == *b; ++a, ++b) {
    }
    return *a == *b;
}

}  // namespace

bool CreationNeedsShortName(const char16_t* name) {
    const NameShape shape = ShapeOf(name);
    if (ExceedsEightDotThree(shape) || shape.Replaced) return true;
    return shape.Dots == 1 && (shape.LastDot == 0 || shape.LastDot == shape.Length - 1);
}

bool RenameNeedsShortName(const char16_t* name) {
    return ExceedsEightDotThree(ShapeOf(name));
}

CShortFileNameList::CShortFileNameList(CDirectory* directory) : Directory(directory), Table{} {}

// Every node is freed, not only the first of each chain: nothing can reach
// the others once the list is gone.
CShortFileNameList::~CShortFileNameList() {
    for (ShortNameNode** second : Table) {
        if (second == nullptr) continue;
        for (int slot = 0; slot < kTableSlots; ++slot) {
            for (ShortNameNode* node = second[slot]; node != nullptr;) {
                ShortNameNode* next = node->Next;
                delete node;
                node = next;
            }
        }
        std::free(second);
    }
}

void CShortFileNameList::SplitName(const char16_t* name, char16_t* base, char16_t* extension) {
    const int length = lstrlenW(name);
    int lastDot = -1;
    for (int i = 0; i < length; ++i) {
        if (name[i] == u'.') lastDot = i;
    }
    int stemLimit = kShortStemPlaces;
    extension[0] = 0;
    if (lastDot == 0) {
        if (length - 1 < stemLimit) stemLimit = length - 1;
    } else if (lastDot > 0) {
        const int copied = CopyPlaces(name, lastDot + 1, kShortExtensionPlaces, false, extension);
        int weight = 0;
        for (int i = 0; i < copied; ++i) {
            weight += extension[i] > 0xFF ? 2 : 1;
            if (weight > kShortExtensionPlaces) {
                extension[i] = 0;
                break;
            }
        }
        if (lastDot < stemLimit) stemLimit = lastDot;
    }
    base[0] = 0;
    if (stemLimit >= 1) CopyPlaces(name, 0, stemLimit, true, base);
    Finish(base);
    Finish(extension);
}

unsigned int CShortFileNameList::GenerateName(CDirectory* directory, const char16_t* name, char16_t* shortName,
                                              CNTFSVolume* volume) {
    ShortNameNode**& second = Table[TableSlot(name[0])];
    if (second == nullptr) {
        second = static_cast<ShortNameNode**>(std::calloc(kTableSlots, sizeof(ShortNameNode*)));
        if (second == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    }
    char16_t base[kShortStemPlaces + 1];
    char16_t extension[kShortExtensionPlaces + 2];
    SplitName(name, base, extension);

    ShortNameNode*& chain = second[name[0] != 0 ? TableSlot(name[1]) : 0];
    ShortNameNode* node = chain;
    while (node != nullptr && !(SameUnits(node->Base, base) && SameUnits(node->Extension, extension))) {
        node = node->Next;
    }
    if (node == nullptr) {
        node = new (std::nothrow) ShortNameNode{};
        if (node == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
        node->Counter = 1;
        lstrcpyW(node->Base, base);
        lstrcpyW(node->Extension, extension);
        node->Next = chain;
        if (chain != nullptr) chain->Previous = node;
        chain = node;
    }

    auto* search = new (std::nothrow) CFindHandle(directory, volume);
    if (search == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    const int stemLength = lstrlenW(base);
    unsigned int code = ERROR_SUCCESS;
    for (;;) {
        char16_t digits[16];
        const int count = TailDigits(node->Counter++, digits);
        int keep = stemLength;
        if (keep + count > kShortNamePlaces - 1) keep = kShortNamePlaces - 1 - count;
        if (keep < 0) keep = 0;
        char16_t candidate[kShortNameUnits + 16];
        int at = 0;
        for (int i = 0; i < keep; ++i) candidate[at++] = base[i];
        candidate[at++] = u'~';
        for (int i = 0; i < count; ++i) candidate[at++] = digits[i];
        if (extension[0] != 0) {
            candidate[at++] = u'.';
            for (int i = 0; extension[i] != 0; ++i) candidate[at++] = extension[i];
        }
        candidate[at] = 0;
        if (!search->SetPattern(candidate)) {
            code = ERROR_NOT_ENOUGH_MEMORY;
            break;
        }
        const uint8_t* entry = nullptr;
        code = search->FindFirst(&entry);
        if (code == ERROR_FILE_NOT_FOUND) {
            lstrcpyW(shortName, candidate);
            code = ERROR_SUCCESS;
            break;
        }
        if (code != ERROR_SUCCESS) break;
        // Deviation for safety: a candidate holding '*' is searched as a
        // pattern that ignores everything behind it, tail included, so once
        // it is found taken every further tail is found taken too and the
        // search would never end. It ends here with the invalid-name code.
        bool star = false;
        for (int i = 0; i < at; ++i) star = star || candidate[i] == u'*';
        if (star) {
            code = ERROR_INVALID_PARAMETER;
            break;
        }
    }
    delete search;
    return code;
}

int CNTFSVolume::ShortFileNameListSearchRoutine(CChainElement* element, void* directory) {
    return static_cast<CShortFileNameList*>(element)->Directory == directory;
}

unsigned int CNTFSVolume::GenerateShortName(CDirectory* directory, const char16_t* name, char16_t* shortName) {
    if (ShortNameLists == nullptr) return ERROR_INVALID_PARAMETER;
    CChainElement* found = ShortNameLists->SearchElement(&ShortFileNameListSearchRoutine, directory);
    auto* list = static_cast<CShortFileNameList*>(found);
    if (list == nullptr) {
        list = new (std::nothrow) CShortFileNameList(directory);
        if (list == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
        ShortNameLists->AddElement(list);
    }
    return list->GenerateName(directory, name, shortName, this);
}

unsigned int CNTFSVolume::GenerateAlternateFileNameDesc(CDirectory* directory, const char16_t* name,
                                                        char16_t* shortName) {
    if (RenameNeedsShortName(name)) return GenerateShortName(directory, name, shortName);
    // A name that passes the test has at most 8 + 1 + 3 units.
    lstrcpyW(shortName, name);
    return ERROR_SUCCESS;
}

}  // namespace ntfs
