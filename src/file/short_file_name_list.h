// Short 8.3 names: which long names need one, and how one is made unique in
// its directory.
//
// CShortFileNameList is the memory of one directory's short names: for each
// stem and extension a node with the number of the next tail to try, found
// through two tables indexed by the low bytes of the long name's first two
// units. The directory's index stays the judge of whether a candidate is
// free, so a list is only a hint: losing it (at unmount) costs nothing but
// further trips of the search loop after the next mount.
//
// Ownership: the volume's ShortNameLists holds every list and destroys them
// at unmount. A list keeps no reference to its directory: the pointer is the
// key of the search and nothing more.
//
// Locking: none of its own. The caller of GenerateName holds the exclusive
// lock of a find object on the directory, so one thread at a time uses a
// directory's list; ShortNameLists is locked per chain operation.
#pragma once

#include <cstdint>

#include "foundation/chain_element.h"

namespace ntfs {

class CDirectory;
class CNTFSVolume;

// Units of a short name with its terminator: 8 + dot + 3 + NUL.
constexpr int kShortNameUnits = 13;
// Places of the stem and of the extension, without the terminator.
constexpr int kShortStemPlaces = 6;
constexpr int kShortExtensionPlaces = 3;

// The two tests of whether a long name needs a separate short name. The one
// of file creation refuses more than the one of rename: a dot that is the
// first or the last unit, and the units ; + [ ] , = #, make a short name at
// creation only. Both count units, with no notion of code pages.
bool CreationNeedsShortName(const char16_t* name);
bool RenameNeedsShortName(const char16_t* name);

// One stem of a directory's short names, on a chain at its table slot,
// newest first.
struct ShortNameNode {
    ShortNameNode* Previous;
    ShortNameNode* Next;
    int64_t Counter;                                // the number of the next tail; 1 in a new node
    char16_t Base[kShortStemPlaces + 1];            // stem, folded
    char16_t Extension[kShortExtensionPlaces + 2];  // extension, folded, no dot
};

class CShortFileNameList : public CChainElement {
public:
    explicit CShortFileNameList(CDirectory* directory);
    // Frees every second-level table and every node.
    ~CShortFileNameList() override;
    CShortFileNameList(const CShortFileNameList&) = delete;
    CShortFileNameList& operator=(const CShortFileNameList&) = delete;

    // The first short name of the form STEM~TAIL.EXT that `directory` does
    // not hold, into `shortName` (kShortNameUnits units). 0, or
    // ERROR_NOT_ENOUGH_MEMORY when a table, a node, the search object or its
    // pattern cannot be made, or the code of a search that failed otherwise.
    // REQUIRES: the caller holds the exclusive lock of a find object on
    // `directory`.
    [[nodiscard]] unsigned int GenerateName(CDirectory* directory, const char16_t* name, char16_t* shortName,
                                            CNTFSVolume* volume);
    // The stem (up to 6 places) and extension (up to 3) of `name`, with the
    // units ; + [ ] , = # made '_' and 'a' to 'z' folded. A unit above 0xFF
    // takes two places.
    static void SplitName(const char16_t* name, char16_t* base, char16_t* extension);

    CDirectory* Directory;

private:
    // Second-level tables: 256 chain heads each, made at first use.
    ShortNameNode** Table[256];
};

}  // namespace ntfs
