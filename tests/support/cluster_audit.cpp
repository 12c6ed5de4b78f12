#include "support/cluster_audit.h"

#include <cstdlib>
#include <vector>

#include "data/bitmap_data.h"
#include "foundation/endian.h"
#include "record/file_record.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "record/run_list.h"

namespace ntfs::test {

namespace {

void Note(ClusterAudit* audit, const std::string& what) {
    if (audit->First.empty()) audit->First = what;
}

// Adds the clusters of every non-resident attribute of `record` to `owners`.
void CountRuns(CFileRecord* record, std::vector<uint8_t>* owners, ClusterAudit* audit) {
    for (int i = 0; i < record->Attributes.GetCount(); ++i) {
        CAttribute* attribute = record->Attributes.At<CAttribute>(i);
        if (attribute->IsResident()) continue;
        int position = ReadU16(attribute->Header, kNonResidentRunListOffsetOffset);
        int64_t lcn = 0;
        const bool unitFlags = (ReadU16(attribute->Header, kAttributeFlagsOffset) & kAttributeUnitFlagsMask) != 0;
        _DATA_RUN run{};
        while (DecodeDataRun(attribute->Header, position, attribute->Size, &run) == 1) {
            lcn += run.Offset;
            // In sparse or compressed data a run whose LCN field holds 0 owns
            // no clusters: it repeats the LCN of the run before it (a hole or
            // reserved address space). $Boot's first run starts at cluster 0.
            if (run.OffsetBytes != 0 && !(unitFlags && run.Offset == 0)) {
                for (int64_t c = lcn; c < lcn + run.Length; ++c) {
                    if (c < 0 || c >= static_cast<int64_t>(owners->size())) {
                        Note(audit, "record " + std::to_string(record->RecordNumber) + " maps cluster " +
                                        std::to_string(c) + " outside the volume");
                        ++audit->OwnedButFree;
                        continue;
                    }
                    if ((*owners)[static_cast<size_t>(c)]++ != 0) {
                        ++audit->OwnedTwice;
                        Note(audit, "cluster " + std::to_string(c) + " owned twice, again by record " +
                                        std::to_string(record->RecordNumber));
                    }
                }
            }
            position += run.Bytes;
        }
    }
}

// The whole value of a bitmap attribute, written back first when its
// cached unit is dirty.
std::vector<uint8_t> ReadBitmap(CBitmapData* bitmap) {
    if (bitmap->IsDirty()) (void)bitmap->FlushBitmap();
    CFullFileRecord* owner = bitmap->GetOwner();
    const int64_t size =
        owner->GetAttributeDataSize(bitmap->GetAttributeType(), bitmap->GetAttributeName(), bitmap->GetNameLength());
    std::vector<uint8_t> bytes(static_cast<size_t>(size > 0 ? size : 0));
    int64_t offset = 0;
    uint32_t read = 0;
    (void)owner->ReadAttribute(bitmap->GetAttributeType(), bitmap->GetAttributeName(), bitmap->GetNameLength(), &offset,
                               static_cast<uint32_t>(bytes.size()), bytes.data(), &read);
    bytes.resize(read);
    return bytes;
}

bool BitSet(const std::vector<uint8_t>& bits, int64_t item) {
    const auto byte = static_cast<size_t>(item / 8);
    return byte < bits.size() && (bits[byte] & (1u << (item & 7))) != 0;
}

}  // namespace

ClusterAudit AuditClusters(CNTFSVolume* volume) {
    ClusterAudit audit;
    CClusterBitmap* clusters = volume->GetClusterBitmap();
    CFileRecordBitmap* records = volume->GetMftBitmap();
    const std::vector<uint8_t> clusterBits = ReadBitmap(clusters);
    const std::vector<uint8_t> recordBits = ReadBitmap(records);
    std::vector<uint8_t> owners(static_cast<size_t>(clusters->GetItemCount()), 0);
    const int recordSize = volume->GetFileRecordSize();
    for (int64_t number = 0; number < records->GetItemCount(); ++number) {
        void* buffer = std::malloc(static_cast<size_t>(recordSize));
        int64_t at = number;
        if (volume->ReadFileRecord(&at, buffer) != 0) {
            std::free(buffer);
            Note(&audit, "record " + std::to_string(number) + " unreadable");
            ++audit.RecordMismatches;
            continue;
        }
        const bool inUse = ReadU32(static_cast<uint8_t*>(buffer), kFileMagicOffset) == kFileRecordMagic &&
                           (ReadU16(static_cast<uint8_t*>(buffer), kFileFlagsOffset) & kFileRecordInUse) != 0;
        if (BitSet(recordBits, number) != inUse) {
            ++audit.RecordMismatches;
            Note(&audit, "record " + std::to_string(number) + (inUse ? " in use, bit clear" : " free, bit set"));
        }
        CFileRecord record(number, static_cast<_FILE_RECORD_HEADER*>(buffer), nullptr, nullptr);
        if (inUse && record.IsValid()) CountRuns(&record, &owners, &audit);
    }
    for (int64_t c = 0; c < static_cast<int64_t>(owners.size()); ++c) {
        const bool set = BitSet(clusterBits, c);
        if (!set) ++audit.FreeClusters;
        if (owners[static_cast<size_t>(c)] != 0 && !set) {
            ++audit.OwnedButFree;
            Note(&audit, "cluster " + std::to_string(c) + " owned but free");
        }
        if (owners[static_cast<size_t>(c)] == 0 && set) {
            ++audit.Leaked;
            Note(&audit, "cluster " + std::to_string(c) + " set but owned by nobody");
        }
    }
    return audit;
}

}  // namespace ntfs::test
