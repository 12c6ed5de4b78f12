// The platform layer: calendar conversions against known instants, the
// recursive critical section and its count of waiters, wide strings.
#include "foundation/platform.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace ntfs {
namespace {

_SYSTEMTIME Make(int year, int month, int day, int hour = 0, int minute = 0, int second = 0, int ms = 0) {
    _SYSTEMTIME t{};
    t.wYear = static_cast<u16>(year);
    t.wMonth = static_cast<u16>(month);
    t.wDay = static_cast<u16>(day);
    t.wHour = static_cast<u16>(hour);
    t.wMinute = static_cast<u16>(minute);
    t.wSecond = static_cast<u16>(second);
    t.wMilliseconds = static_cast<u16>(ms);
    return t;
}

int64_t ToFileTime(const _SYSTEMTIME& t) {
    _LARGE_INTEGER out{};
    EXPECT_TRUE(SystemTimeToFileTime(&t, &out));
    return out.QuadPart;
}

TEST(PlatformTime, KnownInstants) {
    EXPECT_EQ(ToFileTime(Make(1601, 1, 1)), 0);
    EXPECT_EQ(ToFileTime(Make(1970, 1, 1)), 116444736000000000LL);
    // 2000-01-01 00:00:00 UTC is 946684800 s after the Unix epoch.
    EXPECT_EQ(ToFileTime(Make(2000, 1, 1)), 116444736000000000LL + 946684800LL * 10000000);
    EXPECT_EQ(ToFileTime(Make(1601, 1, 1, 0, 0, 0, 1)), 10000);
}

TEST(PlatformTime, LeapDays) {
    const int64_t day = 864000000000LL;
    // 1900 is not a leap year, 2000 and 2024 are.
    EXPECT_EQ(ToFileTime(Make(1900, 3, 1)) - ToFileTime(Make(1900, 2, 28)), day);
    EXPECT_EQ(ToFileTime(Make(2000, 3, 1)) - ToFileTime(Make(2000, 2, 28)), 2 * day);
    EXPECT_EQ(ToFileTime(Make(2024, 3, 1)) - ToFileTime(Make(2024, 2, 28)), 2 * day);
    _SYSTEMTIME feb29 = Make(1900, 2, 29);
    _LARGE_INTEGER out{};
    EXPECT_FALSE(SystemTimeToFileTime(&feb29, &out));
    feb29 = Make(2024, 2, 29, 12, 30, 15, 250);
    ASSERT_TRUE(SystemTimeToFileTime(&feb29, &out));
    _SYSTEMTIME back{};
    ASSERT_TRUE(FileTimeToSystemTime(&out, &back));
    EXPECT_EQ(back.wYear, 2024);
    EXPECT_EQ(back.wMonth, 2);
    EXPECT_EQ(back.wDay, 29);
    EXPECT_EQ(back.wHour, 12);
    EXPECT_EQ(back.wMinute, 30);
    EXPECT_EQ(back.wSecond, 15);
    EXPECT_EQ(back.wMilliseconds, 250);
    EXPECT_EQ(back.wDayOfWeek, 4);  // Thursday
}

TEST(PlatformTime, DayOfWeekAndRoundTrip) {
    _LARGE_INTEGER t{};
    _SYSTEMTIME s{};
    t.QuadPart = 0;
    ASSERT_TRUE(FileTimeToSystemTime(&t, &s));
    EXPECT_EQ(s.wDayOfWeek, 1);  // 1601-01-01 was a Monday
    t.QuadPart = 116444736000000000LL;
    ASSERT_TRUE(FileTimeToSystemTime(&t, &s));
    EXPECT_EQ(s.wDayOfWeek, 4);  // 1970-01-01 was a Thursday
    // Every 997th day over four centuries converts back to itself.
    for (int64_t days = 0; days < 146097 * 2; days += 997) {
        t.QuadPart = days * 864000000000LL + 123456789;
        ASSERT_TRUE(FileTimeToSystemTime(&t, &s));
        _LARGE_INTEGER back{};
        ASSERT_TRUE(SystemTimeToFileTime(&s, &back));
        EXPECT_EQ(back.QuadPart, t.QuadPart / 10000 * 10000);
    }
    t.QuadPart = -1;
    EXPECT_FALSE(FileTimeToSystemTime(&t, &s));
}

TEST(PlatformTime, SystemTimeIsNow) {
    _SYSTEMTIME now{};
    GetSystemTime(&now);
    EXPECT_GE(now.wYear, 2024);
    EXPECT_GE(now.wMonth, 1);
    EXPECT_LE(now.wMonth, 12);
}

TEST(PlatformLock, RecursiveAndTry) {
    CRITICAL_SECTION section;
    InitializeCriticalSection(&section);
    EnterCriticalSection(&section);
    EnterCriticalSection(&section);
    EXPECT_TRUE(TryEnterCriticalSection(&section));
    std::atomic<int> otherGot{-1};
    std::thread other([&] { otherGot = TryEnterCriticalSection(&section); });
    other.join();
    EXPECT_EQ(otherGot, 0);
    LeaveCriticalSection(&section);
    LeaveCriticalSection(&section);
    LeaveCriticalSection(&section);
    std::thread again([&] {
        otherGot = TryEnterCriticalSection(&section);
        if (otherGot) LeaveCriticalSection(&section);
    });
    again.join();
    EXPECT_EQ(otherGot, 1);
    DeleteCriticalSection(&section);
}

TEST(PlatformLock, CountsWaiters) {
    CRITICAL_SECTION section;
    InitializeCriticalSection(&section);
    EnterCriticalSection(&section);
    std::thread waiter([&] {
        EnterCriticalSection(&section);
        LeaveCriticalSection(&section);
    });
    while (CriticalSectionWaiters(&section) == 0) std::this_thread::yield();
    EXPECT_EQ(CriticalSectionWaiters(&section), 1);
    LeaveCriticalSection(&section);
    waiter.join();
    EXPECT_EQ(CriticalSectionWaiters(&section), 0);
    DeleteCriticalSection(&section);
}

// Four threads take the section in turn, nested, many times: no increment
// is lost (exclusion holds) and nobody sleeps forever (every leave that
// finds a sleeper wakes one).
TEST(PlatformLock, ContendedEntriesExcludeAndAllFinish) {
    CRITICAL_SECTION section;
    InitializeCriticalSection(&section);
    constexpr int kThreads = 4;
    constexpr int kRounds = 20000;
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                EnterCriticalSection(&section);
                EnterCriticalSection(&section);
                const long seen = counter;
                if (i % 64 == 0) std::this_thread::yield();
                counter = seen + 1;
                LeaveCriticalSection(&section);
                LeaveCriticalSection(&section);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(counter, static_cast<long>(kThreads) * kRounds);
    EXPECT_EQ(CriticalSectionWaiters(&section), 0);
    EXPECT_EQ(TryEnterCriticalSection(&section), 1);
    LeaveCriticalSection(&section);
    DeleteCriticalSection(&section);
}

TEST(PlatformStrings, WideHelpers) {
    char16_t buffer[32];
    lstrcpyW(buffer, u"\\dir");
    lstrcatW(buffer, u"\\a.txt");
    EXPECT_EQ(lstrlenW(buffer), 10);
    EXPECT_EQ(std::u16string(buffer), u"\\dir\\a.txt");
    EXPECT_EQ(lstrcmpiW(u"Hello.TXT", u"hELLO.txt"), 0);
    // Only a to z fold: a non-ASCII letter keeps its case.
    EXPECT_NE(lstrcmpiW(u"\u00e4", u"\u00c4"), 0);
    EXPECT_LT(lstrcmpiW(u"abc", u"abd"), 0);
    EXPECT_GT(lstrcmpiW(u"abcd", u"ABC"), 0);
    EXPECT_EQ(lstrlenA("abc"), 3);
    EXPECT_EQ(lstrlenW(nullptr), 0);
}

}  // namespace
}  // namespace ntfs
