// The two searches for free items of a CBitmapData. Both start at the first
// bit of the cached unit, so a series of allocations does not rescan the head
// of the bitmap, and both wrap from the end of the bitmap to item 0 and stop
// when they are back where they started.
#include "data/bitmap_data.h"
#include "data/bitmap_tables.h"
#include "foundation/log.h"

namespace ntfs {

namespace {
const bitmap_tables::ByteTables& T = bitmap_tables::kTables;
}

unsigned int CBitmapData::SearchSingleUnit(int64_t* start, int ignoreExclusions) {
    int64_t startPosition = UnitBase * 8;
    unsigned int code = LoadUnit(&startPosition);
    if (code != ERROR_SUCCESS) return code;
    const int64_t limit = ScanUnitLimit();
    for (int64_t visited = 0; visited < limit; ++visited) {
        int index = 0;
        uint8_t mask = 0;  // bits of one byte treated as set (behind an exclusion)
        while (index < ValidBytes) {
            const uint8_t value = static_cast<uint8_t>(Buffer[index] | mask);
            mask = 0;
            if (value == 0xFF) {
                ++index;
                continue;
            }
            const int64_t candidate = (UnitBase + index) * 8 + T.FirstFree[value];
            int64_t last = 0;
            if (!ignoreExclusions && IsExcluded(candidate, &last)) {
                // Go on behind the range: the bits of that byte up to Last count as set.
                const int64_t nextIndex = (last + 1) / 8 - UnitBase;
                if (nextIndex < index) break;
                index = static_cast<int>(nextIndex);
                const int bits = static_cast<int>((last + 1) % 8);
                mask = static_cast<uint8_t>((1u << bits) - 1u);
                continue;
            }
            if (candidate >= ItemCount) break;
            *start = candidate;
            return ERROR_SUCCESS;
        }
        int64_t next = NextUnitPosition();
        if (next == startPosition) return ERROR_HANDLE_DISK_FULL;
        code = LoadUnit(&next);
        if (code != ERROR_SUCCESS) return code;
    }
    return ERROR_HANDLE_DISK_FULL;
}

namespace {

// The state of the first-fit scan, carried over unit ends and the wrap.
struct RunScan {
    int wanted;
    int64_t itemCount;
    int64_t run = 0;
    int64_t runStart = 0;
    int64_t longest = 0;
    uint8_t carry = 0;
    int spanned = 0;

    void KeepLongest() {
        if (run > longest) longest = run;
    }

    // Examines one byte at item position `bitPosition`. Returns true when the
    // run is found; `again` asks for the same byte once more (with `carry`).
    bool Examine(uint8_t byte, int64_t bitPosition, bool* again) {
        *again = false;
        const uint8_t b = static_cast<uint8_t>(carry | byte);
        carry = 0;
        const int trailing = T.TrailingFree[b];
        const bool broke = trailing == 0;
        if (broke) {
            run = 0;
            spanned = 0;
        }
        if (b != 0xFF && (broke || run == 0)) runStart = T.FirstFree[b] + bitPosition;
        run += trailing;
        if (b == 0) return false;
        if (run >= wanted && runStart < itemCount) return true;
        if (b != 0xFF) {
            const int longestInside = T.LongestFree[b];
            const int top = T.LeadingFree[b];
            if (top != 0 && top >= longestInside) {
                run = top;
                runStart = bitPosition + 8 - top;
            } else if (longestInside != 0 && longestInside >= run) {
                run = longestInside;
                runStart = bitPosition + T.LongestStart[b];
                const int end = T.LongestStart[b] + longestInside;
                carry = static_cast<uint8_t>(end >= 8 ? 0xFF : (1u << end) - 1u);
                *again = true;
            } else {
                KeepLongest();
                run = 0;
            }
            KeepLongest();
        }
        return false;
    }
};

}  // namespace

unsigned int CBitmapData::SearchSpareUnits(int wanted, int64_t* start, int* got, int) {
    if (wanted <= 0) {
        *got = 0;
        return ERROR_HANDLE_DISK_FULL;
    }
    RunScan scan{wanted, ItemCount};
    int64_t startPosition = UnitBase * 8;
    unsigned int code = LoadUnit(&startPosition);
    if (code != ERROR_SUCCESS) {
        *got = static_cast<int>(scan.run);
        return code;
    }
    bool found = false;
    const int64_t limit = ScanUnitLimit();
    for (int64_t visited = 0; visited < limit && !found; ++visited) {
        int index = 0;
        while (index < ValidBytes) {
            if (scan.run >= wanted) {
                found = true;
                break;
            }
            bool again = false;
            if (scan.Examine(Buffer[index], (UnitBase + index) * 8, &again)) {
                found = true;
                break;
            }
            if (!again) ++index;
        }
        if (found) break;
        if (scan.run >= wanted && scan.runStart < ItemCount) {
            found = true;
            break;
        }
        if (scan.run > 0 && ValidBytes > 0 && (Buffer[ValidBytes - 1] & 0x80) == 0) ++scan.spanned;
        int64_t next = NextUnitPosition();
        if (next == startPosition) break;
        code = LoadUnit(&next);
        if (code != ERROR_SUCCESS) {
            *got = static_cast<int>(scan.run);
            return code;
        }
    }
    *start = scan.runStart;
    if (found) {
        *got = static_cast<int>(scan.run);
        return ERROR_SUCCESS;
    }
    *got = static_cast<int>(scan.longest);
    return ERROR_HANDLE_DISK_FULL;
}

}  // namespace ntfs
