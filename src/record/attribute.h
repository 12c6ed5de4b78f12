// CAttribute: one attribute header and body, either inside a record's working
// copy or in memory of its own. It holds all knowledge of the attribute's
// layout, of its name, of data run encoding and of the flip between resident
// and non-resident form.
//
// Ownership: an object made by the constructor or by Clone owns its memory and
// is deleted by its creator; the memory goes with it when Valid and not
// InRecord. An in-record object is made and destroyed by its record's
// BuildAttributeTable, so it lives only until the next insertion or removal in
// that record, and any pointer to it is stale after that.
//
// Marking: every change of an in-record attribute sets Modified of its record
// and of the record's full record (Mark), so the record knows it must be
// written.
//
// Locking: none of its own. An in-record attribute is guarded by the shared and
// exclusive locks of the full record that holds its record.
#pragma once

#include <cstdint>

namespace ntfs {

class CFileRecord;

class CAttribute {
public:
    // Builds a new attribute of `size` bytes (rounded up to 8) in zeroed memory
    // of its own, in the asked form, with `name` (NUL-terminated, may be null)
    // in place. The object is invalid when the memory cannot be had or the
    // size cannot hold the header of that form and the name.
    CAttribute(int size, int resident, const char16_t* name);
    // An attribute at `header` inside `record`'s working copy, `size` bytes
    // long; valid, unmodified. Used by CFileRecord::BuildAttributeTable.
    CAttribute(uint8_t* header, CFileRecord* record, int size);
    ~CAttribute();
    CAttribute(const CAttribute&) = delete;
    CAttribute& operator=(const CAttribute&) = delete;

    // Read accessors. Each answers the "not valid" value when Valid is clear.
    uint32_t GetType() const;   // 0 when not valid
    int GetNameLength() const;  // -1 when not valid
    bool IsResident() const;    // non-resident byte 0
    uint16_t GetNameOffset() const;
    // Header plus the run list offset (non-resident) or the value offset
    // (resident); null when not valid or when that offset lies past the end.
    uint8_t* GetValue() const;
    // Data size field (non-resident) or value length (resident); 0 if invalid.
    int64_t GetDataSize() const;
    // Non-resident only; -1 for a resident or invalid attribute.
    int64_t GetLowestVcn() const;
    int64_t GetHighestVcn() const;
    // Unit `i` of the name, read at the name offset. REQUIRES: NameFits().
    char16_t GetNameUnit(int i) const;
    // True when the name lies inside the attribute's Size bytes.
    bool NameFits() const;
    // True when the body the header describes lies inside Size bytes: the
    // resident value, or the run list offset. Readers of the body test this
    // before trusting the header of an attribute read from disk.
    bool BodyFits() const;

    // A new own-memory copy of Size bytes in the same form with the same name,
    // the header fields and body copied over it. Null when this object is not
    // valid or the copy cannot be allocated. The caller deletes it.
    [[nodiscard]] CAttribute* Clone() const;

    // Decodes the run list into a new array of (LCN, length) pairs, freed by
    // the caller with std::free. `*count` gets the number of pairs. A sparse
    // run comes out with the LCN of the run before it. Null with `*count` 0
    // for a resident or invalid attribute, a damaged list, or no memory.
    [[nodiscard]] int64_t* GetRunList(int* count) const;

    // Grows or shrinks the attribute to `size` rounded up to 8. Returns 0,
    // ERROR_INVALID_PARAMETER (below 24 bytes, or not valid),
    // ERROR_INTERNAL_ERROR (record not valid), ERROR_FILE_CORRUPT (not in its
    // record's table), ERROR_INSUFFICIENT_BUFFER (no room in the record) or
    // ERROR_NOT_ENOUGH_MEMORY. In a record the following attributes move, so
    // their objects stay good; the table is not rebuilt and the size fields of
    // the body are left alone. `*result` always receives this.
    [[nodiscard]] unsigned int SetSize(int size, CAttribute** result);

    // Moves the Size bytes of the attribute by `delta` inside its memory and
    // follows with Header. REQUIRES: the destination lies in that memory.
    void MoveAttribute(int delta);

    // Writes the resident value, or the run area of a non-resident attribute,
    // and for a resident one sets the value length. Returns 1, or 0 when the
    // data does not fit or the object is not valid.
    int SetValue(const void* data, int size);

    // Changes form without moving any value or run list: the caller moves the
    // data. The value offset is aligned to 8, the run list offset to 4.
    // Returns 1 (also when the form is already the asked one), or 0 when not
    // valid or when the header of the new form and the name do not fit.
    int SetResident(int resident);

    // Puts `length` units of `name` in place and sets the body offset from the
    // length in characters (so a name of 8 characters or more ends up with a
    // body offset inside it; meant for newly built attributes). Returns the
    // shift applied to the body, or 0 when not valid or the name cannot fit.
    int SetName(const char16_t* name, int length);

    // Splits a non-resident attribute: the clusters from `vcnOffset` on
    // (counted from its lowest VCN) go to a new own-memory attribute, which is
    // returned, and this one keeps the runs before. `compressedHeader` nonzero
    // means this may be the first extent of a compressed attribute, whose
    // 8-byte compressed size the new piece does not get. REQUIRES: `vcnOffset`
    // lies inside the list and in front of a following run. Null when not
    // valid, resident, the list is damaged, or no memory.
    [[nodiscard]] CAttribute* SplitAttribute(int64_t vcnOffset, int compressedHeader);

    // Adds `count` clusters at `lcn` at the end of the run list: into the last
    // run when they follow on, else as a new run; the attribute grows as
    // needed. Sizes and highest VCN are the caller's. Returns 0,
    // ERROR_INTERNAL_ERROR (resident or not valid), ERROR_FILE_CORRUPT (list
    // without an end inside the attribute) or a code of SetSize. `*result`
    // always receives this.
    [[nodiscard]] unsigned int AppendRun(int64_t lcn, int count, CAttribute** result);

    // Writes the run (`count`, `*delta`) and the end byte into `buffer`
    // (kMaxEncodedRunSize bytes). Returns the bytes written, end included.
    static int EncodeRun(const int64_t* delta, int count, uint8_t* buffer);

    // The marking rule: marks the record and its full record when in a
    // record, then this object.
    void Mark();

    uint8_t* Header;      // the attribute; in a record's working copy or owned
    int Modified;         // set by any change
    int Valid;            // nonzero if Header is usable
    int InRecord;         // nonzero if Header points into Record's working copy
    CFileRecord* Record;  // the record, when InRecord
    int Size;             // bytes of the attribute: the object's copy of the length field

private:
    int LengthField() const;
    int RunListOffset() const;
    // Offset of the end byte of the run list, walking no further than
    // `limit`; -1 when there is none.
    int FindRunListEnd(int limit) const;
    // Copies `bytes` from `source` to offset `at`, clipped to Size.
    void WriteBytes(int at, const uint8_t* source, int bytes);
};

}  // namespace ntfs
