// NTFS times (100-nanosecond units since 1601-01-01, UTC) as Unix times, for
// the command and the mount alike.
#pragma once

#include <cstdint>
#include <ctime>

namespace ntfs {

// 100-nanosecond units from 1601-01-01 to 1970-01-01.
constexpr int64_t kUnixEpochTicks = 116444736000000000LL;
constexpr int64_t kTicksPerSecond = 10000000;

inline timespec UnixTime(int64_t ntfsTime) {
    const int64_t sinceEpoch = ntfsTime - kUnixEpochTicks;
    int64_t seconds = sinceEpoch / kTicksPerSecond;
    int64_t ticks = sinceEpoch % kTicksPerSecond;
    if (ticks < 0) {
        ticks += kTicksPerSecond;
        --seconds;
    }
    timespec value{};
    value.tv_sec = static_cast<time_t>(seconds);
    value.tv_nsec = static_cast<long>(ticks * 100);
    return value;
}

}  // namespace ntfs
