// Helpers of the directory index tests: keys folded as the index folds them,
// owning entries for a name, exact searches and in-order walks through a
// directory's cursor, a structural check of a whole index, the manifest's
// names by directory, and where an index record lies in an image. Callers
// hold the directory's lock where the library needs one.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "foundation/endian.h"
#include "foundation/log.h"
#include "index/directory.h"
#include "index/index_entry.h"
#include "index/index_record.h"
#include "index/index_root.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "support/fixture.h"
#include "support/mounted_volume.h"
#include "volume/ntfs_volume.h"

namespace ntfs::test {

constexpr int64_t kRootDirectoryRecord = 5;

inline std::u16string Folded(std::u16string name) {
    for (char16_t& unit : name) {
        if (unit >= u'a' && unit <= u'z') unit = static_cast<char16_t>(unit & ~0x20);
    }
    return name;
}

// The order of the index: folded units compared as unsigned numbers, a
// proper prefix first.
inline bool IndexLess(const std::u16string& a, const std::u16string& b) {
    return Folded(a) < Folded(b);
}

inline std::string Narrow(const std::u16string& text) {
    std::string out;
    for (char16_t unit : text) out += unit < 0x80 ? static_cast<char>(unit) : '?';
    return out;
}

// An owning leaf entry for `name` pointing at `record`, sized as the file
// layer sizes them: 82 + 2n rounded up to 8, key 66 + 2n.
inline CIndexEntry* MakeEntry(const std::u16string& name, int64_t record, CDirectory* directory = nullptr) {
    const int units = static_cast<int>(name.size());
    const int length = IndexEntrySize(units);
    auto* bytes = static_cast<uint8_t*>(std::calloc(static_cast<size_t>(length), 1));
    WriteU48(bytes, kEntryRecordNumberOffset, static_cast<uint64_t>(record));
    WriteU16(bytes, kEntrySequenceOffset, 1);
    WriteU16(bytes, kEntryLengthOffset, static_cast<uint16_t>(length));
    WriteU16(bytes, kEntryKeyLengthOffset, static_cast<uint16_t>(IndexKeySize(units)));
    WriteU8(bytes, kEntryNameLengthOffset, static_cast<uint8_t>(units));
    for (int i = 0; i < units; ++i) WriteU16(bytes, kEntryNameOffset + 2 * static_cast<size_t>(i), name[i]);
    return new CIndexEntry(bytes, directory);
}

inline std::u16string NameOf(CBPlusTreeItem* item) {
    char16_t name[kMaxEntryNameLength + 1];
    static_cast<CIndexEntry*>(item)->CopyName(name);
    return name;
}

// Exact search of one whole name from the root. *found is the entry.
inline unsigned int FindName(CDirectory* directory, const std::u16string& name, CIndexEntry** found = nullptr) {
    CIndexRoot* root = directory->GetIndexRoot();
    if (root == nullptr) return ERROR_INTERNAL_ERROR;
    if (!directory->ResetCursor()) return ERROR_NOT_ENOUGH_MEMORY;
    directory->GetCursor()->Node = root;
    const std::u16string key = Folded(name);
    const _INDEX_SEARCH_KEY search{1, key.c_str(), nullptr, 0, static_cast<int>(key.size()) + 1};
    CBPlusTreeItem* item = nullptr;
    const unsigned int code = directory->FindNextItem(&item, &search);
    if (found != nullptr) *found = code == ERROR_SUCCESS ? static_cast<CIndexEntry*>(item) : nullptr;
    return code;
}

struct WalkedName {
    std::u16string name;
    int64_t record;
};

// The in-order walk of every entry (or those starting with `prefix`),
// stepping the deepest frame past each delivered entry as enumeration does.
// *end receives the code that ended the walk (2 when it ran to the end).
inline std::vector<WalkedName> WalkIndex(CDirectory* directory, unsigned int* end = nullptr,
                                         const std::u16string& prefix = u"") {
    std::vector<WalkedName> names;
    unsigned int code = ERROR_INTERNAL_ERROR;
    CIndexRoot* root = directory->GetIndexRoot();
    if (root != nullptr && directory->ResetCursor()) {
        directory->GetCursor()->Node = root;
        const std::u16string key = Folded(prefix);
        const _INDEX_SEARCH_KEY search{0, key.c_str(), nullptr, 0, static_cast<int>(key.size())};
        CBPlusTreeItem* item = nullptr;
        for (code = directory->FindNextItem(&item, &search); code == ERROR_SUCCESS && names.size() < 100000;
             code = directory->FindNextItem(&item, &search)) {
            names.push_back({NameOf(item), static_cast<CIndexEntry*>(item)->GetRecordNumber()});
            ++directory->GetCursor()->Index;
        }
    }
    if (end != nullptr) *end = code;
    return names;
}

inline std::vector<std::u16string> WalkNames(CDirectory* directory, unsigned int* end = nullptr) {
    std::vector<std::u16string> names;
    for (const WalkedName& walked : WalkIndex(directory, end)) names.push_back(walked.name);
    return names;
}

struct TreeShape {
    int Keys = 0;
    int Depth = 0;
    std::vector<int> NodesPerLevel;   // nodes at each depth, the root at 0
    std::set<CBPlusTreeNode*> Nodes;  // every node reached
};

// Every structural promise of the tree below `node`, or a description of the
// first broken one: keys in order inside and across nodes (`key` gives an
// item's key, or false for an end item), the end item last and alone, items
// leading down all or none as the node's flag says, parent and neighbour
// links, no empty leaf below the root and no node reached twice.
template <typename KeyOf>
std::string CheckTree(CBPlusTreeNode* node, CBPlusTreeItem* parent, KeyOf key, TreeShape* shape,
                      const std::u16string* low = nullptr, const std::u16string* high = nullptr, int depth = 0) {
    if (depth > 32) return "too deep";
    if (depth + 1 > shape->Depth) shape->Depth = depth + 1;
    shape->NodesPerLevel.resize(shape->Depth);
    ++shape->NodesPerLevel[depth];
    if (!shape->Nodes.insert(node).second) return "a node is reached twice";
    if (node->GetParentItem() != parent) return "wrong parent item";
    const int count = node->GetItemCount();
    if (count < 1) return "node without items";
    if (depth > 0 && node->IsLeaf() && count < 2) return "empty leaf below the root";
    std::u16string before = low != nullptr ? *low : u"";
    for (int i = 0; i < count; ++i) {
        CBPlusTreeItem* item = node->GetItem(i);
        std::u16string name;
        const bool real = key(item, &name);
        if (item->GetNode() != node) return "item names the wrong node";
        if (item->GetPrevious() != node->GetItem(i - 1) || item->GetNext() != node->GetItem(i + 1))
            return "broken neighbour link";
        if (real == (i == count - 1)) return "end item not last";
        if (item->HasChild() == node->IsLeaf()) return "items and node flag disagree on leading down";
        if (real && ((low != nullptr && !IndexLess(before, name)) || (high != nullptr && !IndexLess(name, *high))))
            return "key out of order: " + Narrow(name);
        if (item->HasChild()) {
            CBPlusTreeNode* child = nullptr;
            if (item->GetChildNode(&child) != ERROR_SUCCESS || child == nullptr) return "sub-node fails to load";
            std::string problem = CheckTree(child, item, key, shape, low, real ? &name : high, depth + 1);
            if (!problem.empty()) return problem;
        }
        if (real) {
            ++shape->Keys;
            before = name;
            low = &before;
        }
    }
    return "";
}

inline std::string CheckIndex(CDirectory* directory, TreeShape* shape = nullptr) {
    TreeShape local;
    CIndexRoot* root = directory->GetIndexRoot();
    if (root == nullptr || directory->PseudoItem->GetNode() != root) return "root and pseudo item disagree";
    auto key = [](CBPlusTreeItem* item, std::u16string* name) {
        if (static_cast<CIndexEntry*>(item)->IsLast()) return false;
        *name = NameOf(item);
        return true;
    };
    return CheckTree(root, directory->PseudoItem, key, shape != nullptr ? shape : &local);
}

// The manifest's names by parent directory path ("\\" for the root).
struct DirectoryNames {
    int64_t record = 0;
    std::map<std::u16string, std::vector<int64_t>> names;  // leaf name -> records (once per name)
};

inline std::map<std::u16string, DirectoryNames> NamesByDirectory(const std::vector<ManifestEntry>& manifest) {
    std::map<std::u16string, DirectoryNames> directories;
    directories[u"\\"].record = kRootDirectoryRecord;
    for (const ManifestEntry& entry : manifest) {
        if (entry.is_dir) directories[entry.path].record = entry.record;
        const size_t slash = entry.path.rfind(u'\\');
        const std::u16string parent = slash == 0 ? u"\\" : entry.path.substr(0, slash);
        directories[parent].names[entry.path.substr(slash + 1)].push_back(entry.record);
    }
    return directories;
}

// The empty directory \EmptyDir (record 66) of a fresh copy of `fixture`, or
// of a volume image, locked for changes, and changed the way the file layer
// changes it: the work lists empty before each change.
class ScratchDirectory {
public:
    static constexpr int64_t kRecord = 66;
    static constexpr int64_t kTarget = 65;  // \Empty.dat, where new names point

    explicit ScratchDirectory(const std::string& fixture) : mounted(fixture) { Open(); }
    explicit ScratchDirectory(std::vector<uint8_t> image) : mounted(std::move(image)) { Open(); }
    ~ScratchDirectory() { Close(); }

    void ClearWorkLists() {
        directory->ModifiedRecords.Clear();
        directory->AbateRecords.Clear();
        directory->NewRecords.Clear();
    }
    // Adds `name` for \Empty.dat as the file layer makes the entry: the
    // file's sequence number, this directory as the parent in the key.
    unsigned int InsertName(const std::u16string& name) {
        ClearWorkLists();
        std::unique_ptr<CIndexEntry> entry(MakeEntry(name, kTarget));
        WriteU16(entry->GetEntry(), kEntrySequenceOffset, targetSequence);
        WriteU64(entry->GetEntry(), kEntryParentOffset, parentReference);
        return directory->InsertEntry(directory->GetIndexRoot(), entry.get());
    }
    unsigned int RemoveName(const std::u16string& name) {
        ClearWorkLists();
        const std::u16string folded = Folded(name);
        return directory->RemoveEntry(folded.c_str());
    }
    bool Large() {
        return directory->GetFileRecord()->FindAttribute(AttributeIndexAllocation, kIndexName, kIndexNameLength, 0) !=
               nullptr;
    }
    // Unmounts and gives the image as the device holds it.
    std::vector<uint8_t> Unmount() {
        Close();
        return mounted.Memory().Bytes();
    }
    // Unmounts and saves the image for the independent readers.
    std::string UnmountToFile() {
        ReleaseDirectory();
        ready = false;
        return mounted.UnmountToFile();
    }

    MountedVolume mounted;
    CDirectory* directory = nullptr;
    bool ready = false;

private:
    void Open() {
        ready = mounted.Mount() == 1 &&
                mounted.Volume()->ReferenceDirectory(kRecord, u"\\EmptyDir", &directory) == ERROR_SUCCESS;
        if (!ready) return;
        directory->LockExclusive();
        parentReference = static_cast<uint64_t>(kRecord) |
                          uint64_t{ReadU16(directory->GetFileRecord()->Image, kFileSequenceNumberOffset)} << 48;
        CFullFileRecord* target = nullptr;
        if (mounted.Volume()->ReferenceFileRecord(kTarget, &target) == ERROR_SUCCESS) {
            targetSequence = ReadU16(target->Image, kFileSequenceNumberOffset);
            target->Release();
        }
    }
    void ReleaseDirectory() {
        if (directory != nullptr) {
            directory->UnlockExclusive();
            directory->Release();
            directory = nullptr;
        }
    }
    void Close() {
        ReleaseDirectory();
        if (ready) mounted.Volume()->Umount();
        ready = false;
    }

    uint64_t parentReference = 0;
    uint16_t targetSequence = 1;
};

// Byte offset in the image of the index record at `vcn` of `directory`, by
// the run list of its $INDEX_ALLOCATION; -1 when the VCN is not mapped.
inline int64_t IndexRecordImageOffset(CDirectory* directory, int64_t vcn) {
    CNTFSVolume* volume = directory->GetVolume();
    const int64_t byte = vcn * directory->GetVirtualClusterSize();
    const int64_t cluster = volume->GetClusterSize();
    int64_t start = 0;
    for (unsigned int piece = 0;; ++piece) {
        CAttribute* allocation =
            directory->GetFileRecord()->FindAttribute(AttributeIndexAllocation, kIndexName, kIndexNameLength, piece);
        if (allocation == nullptr) return -1;
        int count = 0;
        int64_t* runs = allocation->GetRunList(&count);
        for (int i = 0; i < count; ++i) {
            const int64_t lcn = runs[2 * i];
            const int64_t length = runs[2 * i + 1];
            if (byte < (start + length) * cluster) {
                std::free(runs);
                return lcn * cluster + (byte - start * cluster);
            }
            start += length;
        }
        std::free(runs);
    }
}

}  // namespace ntfs::test
