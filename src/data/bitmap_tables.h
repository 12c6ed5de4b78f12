// Byte tables for the bitmap scans. In every table bit 0 of the index byte
// stands for the lowest of its eight items; a clear bit is a free item.
#pragma once

#include <array>
#include <cstdint>

namespace ntfs::bitmap_tables {

struct ByteTables {
    std::array<uint8_t, 256> TrailingFree;  // clear bits below the lowest set bit (8 for 0)
    std::array<uint8_t, 256> LeadingFree;   // clear bits above the highest set bit (8 for 0)
    std::array<uint8_t, 256> LongestFree;   // longest run of clear bits
    std::array<uint8_t, 256> LongestStart;  // lowest start of such a run (0 for 0)
    std::array<uint8_t, 256> FirstFree;     // lowest clear bit (8 for 255)
    std::array<uint8_t, 256> FreeBits;      // clear bits in the byte
};

constexpr ByteTables MakeTables() {
    ByteTables t{};
    for (int b = 0; b < 256; ++b) {
        int trailing = 0;
        while (trailing < 8 && !(b & (1 << trailing))) ++trailing;
        int leading = 0;
        while (leading < 8 && !(b & (0x80 >> leading))) ++leading;
        int longest = 0, longestStart = 0, run = 0, runStart = 0, firstFree = 8, freeBits = 0;
        for (int bit = 0; bit < 8; ++bit) {
            if (b & (1 << bit)) {
                run = 0;
                continue;
            }
            ++freeBits;
            if (firstFree == 8) firstFree = bit;
            if (run == 0) runStart = bit;
            ++run;
            if (run > longest) {
                longest = run;
                longestStart = runStart;
            }
        }
        t.TrailingFree[b] = static_cast<uint8_t>(trailing);
        t.LeadingFree[b] = static_cast<uint8_t>(leading);
        t.LongestFree[b] = static_cast<uint8_t>(longest);
        t.LongestStart[b] = static_cast<uint8_t>(longestStart);
        t.FirstFree[b] = static_cast<uint8_t>(firstFree);
        t.FreeBits[b] = static_cast<uint8_t>(freeBits);
    }
    return t;
}

inline constexpr ByteTables kTables = MakeTables();

}  // namespace ntfs::bitmap_tables
