// The platform layer on the C++ standard library and, for the critical
// section's sleep and wake, the Linux futex.
#include "foundation/platform.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>

namespace ntfs {

namespace {

// The futex word is the atomic's own int.
int* FutexWord(std::atomic<int>* state) {
    static_assert(sizeof(std::atomic<int>) == sizeof(int), "a futex needs a plain int");
    return reinterpret_cast<int*>(state);
}

void SleepWhile(std::atomic<int>* state, int value) {
    syscall(SYS_futex, FutexWord(state), FUTEX_WAIT_PRIVATE, value, nullptr, nullptr, 0);
}

void WakeOne(std::atomic<int>* state) {
    syscall(SYS_futex, FutexWord(state), FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

}  // namespace

void InitializeCriticalSection(CRITICAL_SECTION* section) {
    section->State.store(0);
    section->Owner.store(std::thread::id());
    section->RecursionCount = 0;
    section->LockCount.store(0);
}

void DeleteCriticalSection(CRITICAL_SECTION*) {}

void EnterCriticalSection(CRITICAL_SECTION* section) {
    const std::thread::id self = std::this_thread::get_id();
    if (section->Owner.load(std::memory_order_relaxed) == self) {
        ++section->RecursionCount;
        return;
    }
    int expected = 0;
    if (!section->State.compare_exchange_strong(expected, 1, std::memory_order_acquire, std::memory_order_relaxed)) {
        section->LockCount.fetch_add(1);
        while (section->State.exchange(2, std::memory_order_acquire) != 0) SleepWhile(&section->State, 2);
        section->LockCount.fetch_sub(1);
    }
    section->Owner.store(self, std::memory_order_relaxed);
    section->RecursionCount = 1;
}

int TryEnterCriticalSection(CRITICAL_SECTION* section) {
    const std::thread::id self = std::this_thread::get_id();
    if (section->Owner.load(std::memory_order_relaxed) == self) {
        ++section->RecursionCount;
        return 1;
    }
    int expected = 0;
    if (!section->State.compare_exchange_strong(expected, 1, std::memory_order_acquire, std::memory_order_relaxed)) {
        return 0;
    }
    section->Owner.store(self, std::memory_order_relaxed);
    section->RecursionCount = 1;
    return 1;
}

void LeaveCriticalSection(CRITICAL_SECTION* section) {
    // Only the owner leaves; a leave without an entry changes nothing.
    if (section->Owner.load(std::memory_order_relaxed) != std::this_thread::get_id() || section->RecursionCount == 0) {
        return;
    }
    if (--section->RecursionCount == 0) {
        section->Owner.store(std::thread::id(), std::memory_order_relaxed);
        if (section->State.exchange(0, std::memory_order_release) == 2) WakeOne(&section->State);
    }
}

int CriticalSectionWaiters(CRITICAL_SECTION* section) {
    return section->LockCount.load();
}

namespace {

constexpr int64_t kTicksPerMillisecond = 10000;
constexpr int64_t kTicksPerDay = 86400LL * 1000 * kTicksPerMillisecond;
// Days from 1601-01-01 to 1970-01-01.
constexpr int64_t kDaysTo1970 = 134774;

bool IsLeapYear(int64_t year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int DaysInMonth(int64_t year, int month) {
    static const int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && IsLeapYear(year) ? 29 : kDays[month - 1];
}

// Days since 1601-01-01 of a proleptic Gregorian date (civil-from-days inverse).
int64_t DaysFromCivil(int64_t year, int64_t month, int64_t day) {
    year -= month <= 2;
    const int64_t era = (year >= 0 ? year : year - 399) / 400;
    const int64_t yearOfEra = year - era * 400;
    const int64_t dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + dayOfEra - 719468 + kDaysTo1970;
}

void CivilFromDays(int64_t days, int64_t* year, int* month, int* day) {
    const int64_t z = days - kDaysTo1970 + 719468;
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const int64_t dayOfEra = z - era * 146097;
    const int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const int64_t mp = (5 * dayOfYear + 2) / 153;
    *day = static_cast<int>(dayOfYear - (153 * mp + 2) / 5 + 1);
    *month = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
    *year = yearOfEra + era * 400 + (*month <= 2);
}

}  // namespace

void GetSystemTime(_SYSTEMTIME* time) {
    using namespace std::chrono;
    const int64_t unixTicks = duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count() / 100;
    _LARGE_INTEGER fileTime;
    fileTime.QuadPart = unixTicks + kDaysTo1970 * kTicksPerDay;
    FileTimeToSystemTime(&fileTime, time);
}

int SystemTimeToFileTime(const _SYSTEMTIME* time, _LARGE_INTEGER* result) {
    if (time->wYear < 1601 || time->wYear > 30827 || time->wMonth < 1 || time->wMonth > 12 || time->wDay < 1 ||
        time->wDay > DaysInMonth(time->wYear, time->wMonth) || time->wHour > 23 || time->wMinute > 59 ||
        time->wSecond > 59 || time->wMilliseconds > 999) {
        return 0;
    }
    const int64_t days = DaysFromCivil(time->wYear, time->wMonth, time->wDay);
    const int64_t milliseconds =
        ((time->wHour * 60LL + time->wMinute) * 60 + time->wSecond) * 1000 + time->wMilliseconds;
    result->QuadPart = days * kTicksPerDay + milliseconds * kTicksPerMillisecond;
    return 1;
}

int FileTimeToSystemTime(const _LARGE_INTEGER* time, _SYSTEMTIME* result) {
    if (time->QuadPart < 0) return 0;
    const int64_t days = time->QuadPart / kTicksPerDay;
    int64_t rest = (time->QuadPart % kTicksPerDay) / kTicksPerMillisecond;
    int64_t year = 0;
    int month = 0;
    int day = 0;
    CivilFromDays(days, &year, &month, &day);
    result->wYear = static_cast<u16>(year);
    result->wMonth = static_cast<u16>(month);
    result->wDay = static_cast<u16>(day);
    // 1601-01-01 was a Monday.
    result->wDayOfWeek = static_cast<u16>((days + 1) % 7);
    result->wMilliseconds = static_cast<u16>(rest % 1000);
    rest /= 1000;
    result->wSecond = static_cast<u16>(rest % 60);
    rest /= 60;
    result->wMinute = static_cast<u16>(rest % 60);
    result->wHour = static_cast<u16>(rest / 60);
    return 1;
}

int lstrlenW(const char16_t* text) {
    if (text == nullptr) return 0;
    int length = 0;
    while (text[length] != 0) ++length;
    return length;
}

char16_t* lstrcpyW(char16_t* target, const char16_t* source) {
    char16_t* out = target;
    while ((*out++ = *source++) != 0) {
    }
    return target;
}

char16_t* lstrcatW(char16_t* target, const char16_t* source) {
    lstrcpyW(target + lstrlenW(target), source);
    return target;
}

int lstrcmpiW(const char16_t* a, const char16_t* b) {
    auto fold = [](char16_t unit) -> int { return unit >= u'a' && unit <= u'z' ? unit - (u'a' - u'A') : unit; };
    for (;; ++a, ++b) {
        const int left = fold(*a);
        const int right = fold(*b);
        if (left != right) return left < right ? -1 : 1;
        if (left == 0) return 0;
    }
}

int lstrlenA(const char* text) {
    if (text == nullptr) return 0;
    int length = 0;
    while (text[length] != 0) ++length;
    return length;
}

namespace {
std::atomic<DebugSink> g_debugSink{nullptr};
}

DebugSink SetDebugSink(DebugSink sink) {
    return g_debugSink.exchange(sink);
}

void OutputDebugStringA(const char* text) {
    if (DebugSink sink = g_debugSink.load()) sink(text);
}

}  // namespace ntfs
