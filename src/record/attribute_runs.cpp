// CAttribute: the run list operations. Decoding, appending clusters and
// splitting an attribute in two; all walks go through DecodeDataRun and stop
// at the attribute's Size, so a list without an end byte or with impossible
// field sizes is reported instead of being read past.
#include <cstdlib>
#include <cstring>
#include <new>

#include "foundation/endian.h"
#include "foundation/log.h"
#include "record/attribute.h"
#include "record/layout.h"
#include "record/run_list.h"

namespace ntfs {

namespace {

// Sums of values decoded from disk wrap instead of overflowing: damaged runs
// give wrong numbers, which the cluster layer refuses, never undefined
// behaviour.
int64_t WrapAdd(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}
int64_t WrapSubtract(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}

}  // namespace

int CAttribute::EncodeRun(const int64_t* delta, int count, uint8_t* buffer) {
    return EncodeDataRun(static_cast<int64_t>(count), *delta, buffer);
}

int CAttribute::FindRunListEnd(int limit) const {
    _DATA_RUN run;
    int position = RunListOffset();
    for (;;) {
        const int found = DecodeDataRun(Header, position, limit, &run);
        if (found == 0) return position;
        if (found < 0) return -1;
        position += run.Bytes;
    }
}

int64_t* CAttribute::GetRunList(int* count) const {
    *count = 0;
    if (!Valid || IsResident()) return nullptr;

    _DATA_RUN run;
    int runs = 0;
    int position = RunListOffset();
    for (;;) {
        const int found = DecodeDataRun(Header, position, Size, &run);
        if (found < 0) return nullptr;
        if (found == 0) break;
        ++runs;
        position += run.Bytes;
    }
    if (runs == 0) return nullptr;

    auto* pairs = static_cast<int64_t*>(std::malloc(sizeof(int64_t) * 2 * static_cast<size_t>(runs)));
    if (pairs == nullptr) return nullptr;
    int64_t lcn = 0;
    position = RunListOffset();
    for (int i = 0; i < runs; ++i) {
        if (DecodeDataRun(Header, position, Size, &run) != 1) break;
        lcn = WrapAdd(lcn, run.Offset);
        pairs[2 * i] = lcn;
        pairs[2 * i + 1] = run.Length;
        position += run.Bytes;
    }
    *count = runs;
    return pairs;
}

unsigned int CAttribute::AppendRun(int64_t lcn, int count, CAttribute** result) {
    *result = this;
    if (!Valid || IsResident()) return ERROR_INTERNAL_ERROR;
    const int runOffset = RunListOffset();
    const int walkLimit = LengthField() < Size ? LengthField() : Size;

    // The last run: its place, its fields, and the LCN it reaches (the sum of
    // all offsets). An empty list leaves the place at the list's start.
    _DATA_RUN run;
    _DATA_RUN last = {runOffset, 0, 0, 0, 0, 0};
    int64_t lastLcn = 0;
    int position = runOffset;
    for (;;) {
        const int found = DecodeDataRun(Header, position, walkLimit, &run);
        if (found < 0) return ERROR_FILE_CORRUPT;
        if (found == 0) break;
        last = run;
        lastLcn = WrapAdd(lastLcn, run.Offset);
        position += run.Bytes;
    }

    uint8_t encoded[kMaxEncodedRunSize];
    const int64_t delta = WrapSubtract(lcn, lastLcn);
    if (delta != last.Length) {
        // The clusters do not follow on: a new run behind the last one.
        const int bytes = EncodeRun(&delta, count, encoded);
        const int nameBytes = 2 * ReadU8(Header, kAttributeNameLengthOffset);
        int endLimit = runOffset + Size - (nameBytes + kNonResidentHeaderSize);
        if (endLimit > Size) endLimit = Size;
        int end = FindRunListEnd(endLimit);
        if (end < 0) return ERROR_FILE_CORRUPT;
        CAttribute* self;
        const unsigned int code = SetSize(((end - runOffset + 7 + bytes) & ~7) + runOffset, &self);
        if (code != ERROR_SUCCESS) return code;
        end = FindRunListEnd(Size);
        if (end < 0) return ERROR_FILE_CORRUPT;
        WriteBytes(end, encoded, bytes);
        Mark();
        return ERROR_SUCCESS;
    }

    // The clusters extend the last run; its length is kept as a 32-bit value.
    const int64_t merged = static_cast<int32_t>(static_cast<uint32_t>(WrapAdd(last.Length, count)));
    const int bytes = EncodeDataRun(merged, last.Offset, encoded);
    if (encoded[0] == ReadU8(Header, static_cast<size_t>(last.Position))) {
        WriteBytes(last.Position, encoded, bytes - 1);
        Mark();
        return ERROR_SUCCESS;
    }
    // The run has grown; the attribute grows with it when the run and the
    // end byte no longer fit. A failed growth leaves the list untouched.
    unsigned int code = ERROR_SUCCESS;
    if (last.Position + bytes > Size) {
        CAttribute* self;
        code = SetSize(last.Position + bytes, &self);
        if (code != ERROR_SUCCESS) return code;
    }
    WriteBytes(last.Position, encoded, bytes);
    Mark();
    return code;
}

namespace {

// The first runs of the new attribute made by SplitAttribute, and how far the
// old list was consumed to make them.
struct _SPLIT_HEAD {
    uint8_t Bytes[2 * kMaxEncodedRunSize];
    int Length;       // bytes of runs, without an end byte
    int ConsumedEnd;  // offset in the old attribute behind the runs consumed
};

// Appends the run (`length`, `delta`) to the head, without its end byte.
void AddHeadRun(_SPLIT_HEAD* head, int64_t length, int64_t delta) {
    head->Length += EncodeDataRun(length, delta, head->Bytes + head->Length) - 1;
}

}  // namespace

CAttribute* CAttribute::SplitAttribute(int64_t vcnOffset, int compressedHeader) {
    if (!Valid || IsResident()) return nullptr;
    const int runOffset = RunListOffset();

    // 1. The run holding the split point: its place and fields, the
    //    remainder inside it, and the LCN its offset counts from.
    _DATA_RUN split;
    int64_t remainder = vcnOffset;
    int64_t before = 0;
    int position = runOffset;
    for (;;) {
        if (DecodeDataRun(Header, position, Size, &split) != 1) return nullptr;
        if (remainder < split.Length) break;
        remainder = WrapSubtract(remainder, split.Length);
        before = WrapAdd(before, split.Offset);
        position += split.Bytes;
    }

    // 2. The head of the new list, restarting from LCN 0.
    _SPLIT_HEAD head;
    head.Length = 0;
    head.ConsumedEnd = split.Position + split.Bytes;
    _DATA_RUN next;
    int found = DecodeDataRun(Header, head.ConsumedEnd, Size, &next);
    if (split.Offset == 0) {
        // A run without clusters of its own: it and the runs like it that
        // follow make one run written with a one-byte offset 0; a following
        // real run is then given its absolute LCN.
        int64_t total = WrapSubtract(split.Length, remainder);
        while (found == 1 && next.Offset == 0) {
            total = WrapAdd(total, next.Length);
            head.ConsumedEnd += next.Bytes;
            found = DecodeDataRun(Header, head.ConsumedEnd, Size, &next);
        }
        AddHeadRun(&head, total, 0);
        if (found == 1) {
            AddHeadRun(&head, next.Length, WrapAdd(before, next.Offset));
            head.ConsumedEnd += next.Bytes;
        }
    } else {
        // The split point's absolute LCN; the next run counted from the
        // run's start, which has moved by the remainder.
        AddHeadRun(&head, WrapSubtract(split.Length, remainder), WrapAdd(WrapAdd(before, split.Offset), remainder));
        if (found == 1) {
            AddHeadRun(&head, next.Length, WrapSubtract(next.Offset, remainder));
            head.ConsumedEnd += next.Bytes;
        }
    }
    if (found < 0) return nullptr;

    // 3. The rest of the old list, end byte included.
    int end = head.ConsumedEnd;
    for (;;) {
        found = DecodeDataRun(Header, end, Size, &next);
        if (found < 0) return nullptr;
        if (found == 0) break;
        end += next.Bytes;
    }
    const int rest = end + 1 - head.ConsumedEnd;

    // 4. and 5. The new attribute. Only the first extent of a compressed
    //    attribute carries the compressed size, so the new one is 8 smaller.
    int size = runOffset + head.Length + rest;
    if (compressedHeader && GetLowestVcn() == 0) size -= 8;
    char16_t name[kMaxAttributeNameLength + 1];
    const int nameLength = NameFits() ? GetNameLength() : 0;
    for (int i = 0; i < nameLength; ++i) name[i] = GetNameUnit(i);
    name[nameLength] = 0;

    auto* piece = new (std::nothrow) CAttribute(size, 0, nameLength > 0 ? name : nullptr);
    if (piece == nullptr) return nullptr;
    const int pieceRunOffset = piece->Valid ? piece->RunListOffset() : 0;
    CAttribute* self;
    if (!piece->Valid || (pieceRunOffset + head.Length + rest > piece->Size &&
                          piece->SetSize(pieceRunOffset + head.Length + rest, &self) != ERROR_SUCCESS)) {
        delete piece;
        return nullptr;
    }
    const uint32_t type = GetType();
    WriteU32(piece->Header, kAttributeTypeOffset, type);
    if (type == AttributeFileName) {
        WriteU16(piece->Header, kAttributeNameOffsetOffset, kResidentHeaderSize);
    }
    const int64_t pieceLowest = WrapAdd(GetLowestVcn(), vcnOffset);
    WriteU64(piece->Header, kNonResidentLowestVcnOffset, static_cast<uint64_t>(pieceLowest));
    WriteU64(piece->Header, kNonResidentHighestVcnOffset, static_cast<uint64_t>(GetHighestVcn()));
    piece->WriteBytes(pieceRunOffset, head.Bytes, head.Length);
    piece->WriteBytes(pieceRunOffset + head.Length, Header + head.ConsumedEnd, rest);

    // 6. Cut the old list at the split run: nothing of it stays when the
    //    split is at its start, else its first `remainder` clusters do.
    uint8_t cut[kMaxEncodedRunSize];
    int cutBytes = 1;
    cut[0] = 0;
    if (remainder != 0) cutBytes = EncodeDataRun(remainder, split.Offset, cut);
    if (split.Position + cutBytes > Size && SetSize(split.Position + cutBytes, &self) != 0) {
        delete piece;
        return nullptr;
    }
    WriteU64(Header, kNonResidentHighestVcnOffset, static_cast<uint64_t>(WrapSubtract(pieceLowest, 1)));
    WriteBytes(split.Position, cut, cutBytes);
    // The shrink can only fail for an attribute that has left its record's
    // table; the cut list stands all the same.
    static_cast<void>(SetSize(split.Position + cutBytes, &self));
    Mark();
    piece->Mark();
    return piece;
}

}  // namespace ntfs
