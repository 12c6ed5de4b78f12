#include "file_layout.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <set>

namespace ntfs {

namespace {

constexpr uint32_t kTypeStandardInformation = 0x10;
constexpr uint32_t kTypeAttributeList = 0x20;
constexpr uint32_t kTypeFileName = 0x30;
constexpr uint32_t kTypeData = 0x80;
constexpr uint32_t kTypeEnd = 0xFFFFFFFF;
constexpr int64_t kRecordMask = 0xFFFFFFFFFFFFll;
constexpr uint16_t kUnitFlags = 0x80FF;  // a compression method or sparse: reads go by units
constexpr uint16_t kCompressionFlags = 0x00FF;
constexpr uint8_t kLargestUnitExponent = 16;
// The largest attribute list read from clusters.
constexpr int64_t kLargestAttributeList = 16 << 20;

uint64_t Get(const uint8_t* at, int bytes) {
    uint64_t value = 0;
    for (int i = bytes - 1; i >= 0; --i) value = (value << 8) | at[i];
    return value;
}
uint16_t Get16(const uint8_t* at) {
    return static_cast<uint16_t>(Get(at, 2));
}
uint32_t Get32(const uint8_t* at) {
    return static_cast<uint32_t>(Get(at, 4));
}
int64_t Get64(const uint8_t* at) {
    return static_cast<int64_t>(Get(at, 8));
}

std::u16string Units(const uint8_t* at, size_t count) {
    std::u16string text(count, u'\0');
    for (size_t i = 0; i < count; ++i) text[i] = static_cast<char16_t>(Get16(at + 2 * i));
    return text;
}

// Cluster arithmetic on damaged values wraps instead of overflowing.
int64_t Wrap(uint64_t value) {
    return static_cast<int64_t>(value);
}

// Sign-extended little-endian field of `bytes` (1 to 8) bytes.
int64_t Signed(const uint8_t* at, int bytes) {
    uint64_t value = Get(at, bytes);
    if (bytes < 8 && (at[bytes - 1] & 0x80) != 0) value |= ~0ull << (8 * bytes);
    return static_cast<int64_t>(value);
}

// Puts the update sequence back into a record image; false when a sector's
// check value does not match or the array does not fit.
bool ApplyFixups(uint8_t* record, size_t size) {
    const uint16_t offset = Get16(record + 4);
    const uint16_t count = Get16(record + 6);
    if (count == 0 || offset + 2u * count > size || (count - 1) * 512u > size) return false;
    const uint8_t* array = record + offset;
    for (uint16_t i = 1; i < count; ++i) {
        uint8_t* tail = record + i * 512 - 2;
        if (tail[0] != array[0] || tail[1] != array[1]) return false;
        tail[0] = array[2 * i];
        tail[1] = array[2 * i + 1];
    }
    return true;
}

// Decodes the mapping pairs of a piece; runs carry absolute LCNs, the delta
// base restarting at 0 in each piece.
void DecodeRuns(const uint8_t* at, const uint8_t* end, LayoutAttribute* attribute) {
    if (attribute->LowestVcn < 0) {
        attribute->RunsDamaged = true;
        return;
    }
    int64_t vcn = attribute->LowestVcn;
    int64_t lcn = 0;
    while (at < end && *at != 0) {
        const int countBytes = *at & 0x0F;
        const int deltaBytes = (*at >> 4) & 0x0F;
        if (countBytes == 0 || countBytes > 8 || deltaBytes > 8 || at + 1 + countBytes + deltaBytes > end) {
            attribute->RunsDamaged = true;
            return;
        }
        LayoutRun run;
        run.Vcn = vcn;
        run.Length = Signed(at + 1, countBytes);
        run.Hole = deltaBytes == 0;
        // Damaged deltas wrap rather than overflow; the read's own checks
        // judge where such a run points.
        if (!run.Hole) {
            lcn = Wrap(static_cast<uint64_t>(lcn) + static_cast<uint64_t>(Signed(at + 1 + countBytes, deltaBytes)));
        }
        run.Lcn = lcn;
        if (run.Length <= 0 || run.Length > INT64_MAX - vcn) {
            attribute->RunsDamaged = true;
            return;
        }
        attribute->Runs.push_back(run);
        vcn += run.Length;
        at += 1 + countBytes + deltaBytes;
    }
    if (at >= end) attribute->RunsDamaged = true;
}

// Reads one record image with its update sequence applied.
unsigned int ReadRecord(CNTFSVolume* volume, int64_t number, std::vector<uint8_t>* image) {
    image->assign(static_cast<size_t>(volume->GetFileRecordSize()), 0);
    const unsigned int code = volume->ReadFileRecord(&number, image->data());
    if (code != ERROR_SUCCESS) return code;
    if (std::memcmp(image->data(), "FILE", 4) != 0 || !ApplyFixups(image->data(), image->size())) {
        return ERROR_FILE_CORRUPT;
    }
    return ERROR_SUCCESS;
}

// Walks the attributes of one record image into `layout`.
unsigned int ParseRecord(const std::vector<uint8_t>& image, int64_t number, FileLayout* layout,
                         std::vector<uint8_t>* attributeList, LayoutAttribute* listAttribute) {
    const uint8_t* record = image.data();
    const size_t used = std::min<size_t>(Get32(record + 0x18), image.size());
    size_t offset = Get16(record + 0x14);
    while (offset + 8 <= used) {
        const uint8_t* at = record + offset;
        const uint32_t type = Get32(at);
        if (type == kTypeEnd) return ERROR_SUCCESS;
        const uint32_t length = Get32(at + 4);
        if (length < 0x18 || offset + length > used) return ERROR_FILE_CORRUPT;
        LayoutAttribute attribute;
        attribute.Type = type;
        attribute.Record = number;
        attribute.NonResident = at[8] != 0;
        const uint8_t nameLength = at[9];
        const uint16_t nameOffset = Get16(at + 0x0A);
        if (nameOffset + 2u * nameLength > length) return ERROR_FILE_CORRUPT;
        attribute.Name = Units(at + nameOffset, nameLength);
        attribute.Flags = Get16(at + 0x0C);
        const uint8_t* value = nullptr;
        if (!attribute.NonResident) {
            attribute.ValueLength = Get32(at + 0x10);
            const uint16_t valueOffset = Get16(at + 0x14);
            if (valueOffset + static_cast<uint64_t>(attribute.ValueLength) > length) return ERROR_FILE_CORRUPT;
            value = at + valueOffset;
        } else {
            if (length < 0x40) return ERROR_FILE_CORRUPT;
            attribute.LowestVcn = Get64(at + 0x10);
            attribute.HighestVcn = Get64(at + 0x18);
            attribute.UnitExponent = at[0x22];
            attribute.AllocatedSize = Get64(at + 0x28);
            attribute.DataSize = Get64(at + 0x30);
            attribute.InitializedSize = Get64(at + 0x38);
            const uint16_t runs = Get16(at + 0x20);
            if (runs >= length) return ERROR_FILE_CORRUPT;
            DecodeRuns(at + runs, at + length, &attribute);
        }
        if (type == kTypeStandardInformation && value != nullptr && attribute.ValueLength >= 0x24) {
            layout->Created = Get64(value);
            layout->Modified = Get64(value + 0x08);
            layout->RecordChanged = Get64(value + 0x10);
            layout->Accessed = Get64(value + 0x18);
            layout->FileAttributes = Get32(value + 0x20);
        } else if (type == kTypeFileName && value != nullptr && attribute.ValueLength >= 0x42) {
            LayoutName name;
            name.Parent = Get64(value) & kRecordMask;
            name.Namespace = value[0x41];
            const size_t units = std::min<size_t>(value[0x40], (attribute.ValueLength - 0x42) / 2);
            name.Name = Units(value + 0x42, units);
            layout->Names.push_back(std::move(name));
        } else if (type == kTypeAttributeList) {
            if (value != nullptr) attributeList->assign(value, value + attribute.ValueLength);
            *listAttribute = attribute;
        }
        layout->Attributes.push_back(std::move(attribute));
        offset += length;
    }
    return ERROR_FILE_CORRUPT;
}

// The value of a non-resident attribute list, read from its clusters.
unsigned int ReadNonResident(CNTFSVolume* volume, CStorage* storage, const LayoutAttribute& attribute,
                             std::vector<uint8_t>* value) {
    if (attribute.DataSize < 0 || attribute.DataSize > kLargestAttributeList) return ERROR_FILE_CORRUPT;
    const int clusterSize = volume->GetClusterSize();
    const int sectorsPerCluster = clusterSize / kSectorSize;
    value->clear();
    for (const LayoutRun& run : attribute.Runs) {
        // No more than the value still wants, in whole clusters.
        const uint64_t wanted = static_cast<uint64_t>(attribute.DataSize) - value->size();
        const uint64_t clusters = std::min<uint64_t>(static_cast<uint64_t>(run.Length),
                                                     (wanted + static_cast<uint64_t>(clusterSize) - 1) / clusterSize);
        std::vector<uint8_t> bytes(static_cast<size_t>(clusters) * static_cast<size_t>(clusterSize), 0);
        if (!run.Hole) {
            int64_t sector = Wrap(static_cast<uint64_t>(run.Lcn) * static_cast<uint64_t>(sectorsPerCluster));
            int done = 0;
            const int count = static_cast<int>(clusters) * sectorsPerCluster;
            const unsigned int code = storage->ReadSectors(bytes.data(), &sector, count, &done, nullptr);
            if (code != ERROR_SUCCESS) return code;
            if (done != count) return ERROR_IO_DEVICE;
        }
        value->insert(value->end(), bytes.begin(), bytes.end());
        if (value->size() >= static_cast<uint64_t>(attribute.DataSize)) break;
    }
    if (value->size() < static_cast<uint64_t>(attribute.DataSize)) return ERROR_FILE_CORRUPT;
    value->resize(static_cast<size_t>(attribute.DataSize));
    return ERROR_SUCCESS;
}

}  // namespace

std::vector<const LayoutAttribute*> FileLayout::DataPieces() const {
    std::vector<const LayoutAttribute*> pieces;
    for (const LayoutAttribute& attribute : Attributes) {
        if (attribute.Type == kTypeData && attribute.Name.empty()) pieces.push_back(&attribute);
    }
    std::stable_sort(pieces.begin(), pieces.end(),
                     [](const LayoutAttribute* a, const LayoutAttribute* b) { return a->LowestVcn < b->LowestVcn; });
    return pieces;
}

unsigned int LoadFileLayout(CNTFSVolume* volume, CStorage* storage, int64_t number, FileLayout* layout) {
    *layout = FileLayout();
    layout->Record = number;
    std::vector<uint8_t> image;
    unsigned int code = ReadRecord(volume, number, &image);
    if (code != ERROR_SUCCESS) return code;
    layout->Sequence = Get16(image.data() + 0x10);
    layout->LinkCount = Get16(image.data() + 0x12);
    layout->RecordFlags = Get16(image.data() + 0x16);
    std::vector<uint8_t> list;
    LayoutAttribute listAttribute;
    code = ParseRecord(image, number, layout, &list, &listAttribute);
    if (code != ERROR_SUCCESS) return code;
    if (listAttribute.Type != kTypeAttributeList) return ERROR_SUCCESS;
    if (listAttribute.NonResident) {
        code = ReadNonResident(volume, storage, listAttribute, &list);
        if (code != ERROR_SUCCESS) return code;
    }
    std::set<int64_t> extensions;
    for (size_t offset = 0; offset + 0x1A <= list.size();) {
        const uint16_t length = Get16(list.data() + offset + 4);
        if (length < 0x1A) return ERROR_FILE_CORRUPT;
        const int64_t record = Get64(list.data() + offset + 0x10) & kRecordMask;
        if (record != number) extensions.insert(record);
        offset += length;
    }
    for (const int64_t extension : extensions) {
        code = ReadRecord(volume, extension, &image);
        if (code != ERROR_SUCCESS) return code;
        // A record that names another base is not this file's.
        if ((Get64(image.data() + 0x20) & kRecordMask) != number) return ERROR_FILE_CORRUPT;
        std::vector<uint8_t> ignored;
        LayoutAttribute ignoredList;
        code = ParseRecord(image, extension, layout, &ignored, &ignoredList);
        if (code != ERROR_SUCCESS) return code;
        layout->Extensions.push_back(extension);
    }
    return ERROR_SUCCESS;
}

const char* ReadDifferenceReason(ReadDifferenceKind kind) {
    switch (kind) {
        case ReadDifferenceKind::HoleFromEarlierUnit:
            return "a sparse hole entered from an earlier compression unit ends inside a later one; the read "
                   "fills the hole's whole length from there, so the data behind it comes out as zeros or shifted";
        case ReadDifferenceKind::UnitPastLastRun:
            return "a compression unit runs past the last run of the file; the read stops there with a corrupt-file "
                   "failure";
        case ReadDifferenceKind::BeyondInitializedSize:
            return "bytes behind the initialized size are read from the clusters as they are instead of as zeros";
    }
    return "unknown";
}

namespace {

// Where one cluster's bytes come from in a read: a device cluster, or zeros.
struct Source {
    int64_t Lcn;  // -1: zeros
    bool operator==(const Source& other) const { return Lcn == other.Lcn; }
};

// The volume's run cursor over the pieces of one attribute, step for step
// as the read moves it (a fresh one per read call).
class CursorModel {
public:
    CursorModel(const std::vector<const LayoutAttribute*>& pieces, int64_t vcn)
        : Pieces(pieces), Vcn(vcn), RunOffset(vcn), Highest(pieces.front()->HighestVcn) {}

    // Brings the cursor to the run that holds Vcn; false where the read
    // would fail (behind the last run or piece).
    bool Advance() {
        if (Vcn > Highest) {
            do {
                if (++Piece >= static_cast<int>(Pieces.size())) return false;
                Highest = Pieces[Piece]->HighestVcn;
                RunOffset = Wrap(static_cast<uint64_t>(Vcn) - static_cast<uint64_t>(Pieces[Piece]->LowestVcn));
            } while (Vcn > Highest);
            Run = 0;
        }
        while (RunOffset >= RunLength()) {
            if (Run >= Pieces[Piece]->Runs.size()) return false;
            RunOffset -= RunLength();
            ++Run;
        }
        return true;
    }
    const LayoutRun& Current() const { return Pieces[Piece]->Runs[Run]; }

    const std::vector<const LayoutAttribute*>& Pieces;
    int Piece = 0;
    size_t Run = 0;
    int64_t Vcn;
    int64_t RunOffset;
    int64_t Highest;

private:
    int64_t RunLength() const {
        const auto& runs = Pieces[Piece]->Runs;
        return Run < runs.size() ? runs[Run].Length : 0;
    }
};

// What one unit's read gathers: the sources of its clusters in order, and
// whether it is taken for compressed. False when the read fails in it.
bool ModelUnit(CursorModel* cursor, int64_t unitClusters, int clusterSize, std::vector<Source>* sources,
               bool* compressed) {
    sources->clear();
    int64_t remaining = unitClusters;
    int64_t real = 0;
    bool first = true;
    *compressed = false;
    while (remaining > 0) {
        if (!cursor->Advance()) return false;
        const LayoutRun& run = cursor->Current();
        if (first) *compressed = run.Length - cursor->RunOffset < unitClusters;
        first = false;
        int64_t take;
        if (!run.Hole) {
            take = std::min(run.Length - cursor->RunOffset, remaining);
            for (int64_t k = 0; k < take; ++k)
                sources->push_back(
                    {Wrap(static_cast<uint64_t>(run.Lcn) + static_cast<uint64_t>(cursor->RunOffset + k))});
            real += take;
        } else {
            // The hole's whole length in 32-bit bytes, whatever part of it
            // lies behind the cursor.
            const uint32_t bytes =
                static_cast<uint32_t>(static_cast<uint64_t>(run.Length) * static_cast<uint64_t>(clusterSize));
            take = std::min<int64_t>(bytes / static_cast<uint32_t>(clusterSize), remaining);
            if (take == 0) return false;
            for (int64_t k = 0; k < take; ++k) sources->push_back({-1});
        }
        cursor->RunOffset += take;
        cursor->Vcn += take;
        remaining -= take;
    }
    if (real == 0 || real == unitClusters) *compressed = false;
    return true;
}

// The file as it is on disk: the source of each cluster of a unit, and
// whether the unit is stored compressed.
void TrueUnit(const std::vector<LayoutRun>& runs, int64_t first, int64_t unitClusters, std::vector<Source>* sources,
              bool* compressed) {
    sources->assign(static_cast<size_t>(unitClusters), Source{-1});
    int64_t real = 0;
    // The first run that ends behind `first`; runs are in VCN order.
    auto run = std::upper_bound(runs.begin(), runs.end(), first,
                                [](int64_t vcn, const LayoutRun& r) { return vcn < r.Vcn + r.Length; });
    for (; run != runs.end() && run->Vcn < first + unitClusters; ++run) {
        if (run->Hole) continue;
        const int64_t from = std::max(run->Vcn, first);
        const int64_t to = std::min(run->Vcn + run->Length, first + unitClusters);
        for (int64_t vcn = from; vcn < to; ++vcn)
            (*sources)[static_cast<size_t>(vcn - first)].Lcn =
                Wrap(static_cast<uint64_t>(run->Lcn) + static_cast<uint64_t>(vcn - run->Vcn));
        real += to - from;
    }
    *compressed = real > 0 && real < unitClusters;
}

void AddDifference(std::vector<ReadDifference>* differences, ReadDifferenceKind kind, uint64_t offset, uint64_t end) {
    if (!differences->empty()) {
        ReadDifference& last = differences->back();
        if (last.Kind == kind && last.Offset + last.Length == offset) {
            last.Length = end - last.Offset;
            return;
        }
    }
    differences->push_back({kind, offset, end - offset});
}

}  // namespace

std::vector<ReadDifference> FindReadDifferences(const FileLayout& layout, int clusterSize, uint32_t callBytes) {
    std::vector<ReadDifference> differences;
    const std::vector<const LayoutAttribute*> pieces = layout.DataPieces();
    if (pieces.empty() || !pieces.front()->NonResident || clusterSize <= 0) return differences;
    const LayoutAttribute& head = *pieces.front();
    for (const LayoutAttribute* piece : pieces) {
        if (!piece->NonResident) return differences;  // a mixed list: the read's own checks answer
    }
    const uint64_t size = static_cast<uint64_t>(head.DataSize);
    // A unit exponent beyond any writer's is damage, which the read's own
    // checks answer: not modelled here.
    if (head.UnitExponent > kLargestUnitExponent) return differences;
    const int64_t unitClusters = (head.Flags & kUnitFlags) != 0 ? (int64_t{1} << head.UnitExponent) : 1;
    const uint64_t unitBytes = static_cast<uint64_t>(unitClusters) * static_cast<uint64_t>(clusterSize);
    const bool decompresses = (head.Flags & kCompressionFlags) != 0;
    const uint64_t call = std::max<uint64_t>(unitBytes, callBytes / unitBytes * unitBytes);
    // The file as it is on disk: every run of every piece, in VCN order.
    std::vector<LayoutRun> runs;
    for (const LayoutAttribute* piece : pieces) runs.insert(runs.end(), piece->Runs.begin(), piece->Runs.end());
    std::stable_sort(runs.begin(), runs.end(), [](const LayoutRun& a, const LayoutRun& b) { return a.Vcn < b.Vcn; });
    std::vector<Source> delivered;
    std::vector<Source> stored;
    for (uint64_t start = 0; start < size; start += call) {
        const uint64_t end = std::min(size, start + call);
        CursorModel cursor(pieces, static_cast<int64_t>(start / static_cast<uint64_t>(clusterSize)));
        for (uint64_t unit = start; unit < end; unit += unitBytes) {
            const uint64_t unitEnd = std::min(end, unit + unitBytes);
            bool readCompressed = false;
            if (!ModelUnit(&cursor, unitClusters, clusterSize, &delivered, &readCompressed)) {
                AddDifference(&differences, ReadDifferenceKind::UnitPastLastRun, unit, size);
                return differences;
            }
            bool storedCompressed = false;
            TrueUnit(runs, static_cast<int64_t>(unit / static_cast<uint64_t>(clusterSize)), unitClusters, &stored,
                     &storedCompressed);
            if (decompresses && (readCompressed || storedCompressed)) {
                // A compressed unit's bytes are the expansion of its stored
                // clusters: the same clusters in the same order expand alike,
                // else the whole unit counts.
                if (readCompressed != storedCompressed || delivered != stored) {
                    AddDifference(&differences, ReadDifferenceKind::HoleFromEarlierUnit, unit, unitEnd);
                }
                continue;
            }
            // Only the clusters the call hands out count: the range from the
            // first to the last that comes from elsewhere.
            const size_t count = static_cast<size_t>((unitEnd - unit + clusterSize - 1) / clusterSize);
            size_t first = count;
            size_t last = 0;
            for (size_t k = 0; k < count; ++k) {
                if (delivered[k] == stored[k]) continue;
                first = std::min(first, k);
                last = k;
            }
            if (first < count) {
                const uint64_t cluster = static_cast<uint64_t>(clusterSize);
                AddDifference(&differences, ReadDifferenceKind::HoleFromEarlierUnit, unit + first * cluster,
                              std::min<uint64_t>(unitEnd, unit + (last + 1) * cluster));
            }
        }
    }
    if (head.InitializedSize < head.DataSize) {
        const uint64_t from = static_cast<uint64_t>(std::max<int64_t>(head.InitializedSize, 0));
        // Only real clusters behind the initialized size can hand out stale bytes.
        bool real = false;
        for (const LayoutAttribute* piece : pieces) {
            for (const LayoutRun& run : piece->Runs) {
                const uint64_t runEnd =
                    static_cast<uint64_t>(run.Vcn + run.Length) * static_cast<uint64_t>(clusterSize);
                if (!run.Hole && runEnd > from) real = true;
            }
        }
        if (real) differences.push_back({ReadDifferenceKind::BeyondInitializedSize, from, size - from});
    }
    return differences;
}

}  // namespace ntfs
