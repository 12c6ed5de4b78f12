// The platform layer: the only place in the library that touches the operating
// system. Everything above it sees a recursive critical section, UTC wall-clock
// time in the Windows calendar form, a handful of wide-string helpers over
// 16-bit units, and a second log sink that a host may set.
//
// Thread safety: every function here is safe to call from any thread. A
// CRITICAL_SECTION must be initialised before use and deleted after its last
// use; entering a deleted section is a programming error.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

namespace ntfs {

using uint8 = uint8_t;
using u16 = uint16_t;
using u32 = uint32_t;
using i32 = int32_t;
using i64 = int64_t;

// A recursive mutual exclusion that knows how many threads are queued for it,
// which is what "refuse the lock when others are waiting" needs.
// The owner's own entries touch only its fields; a first entry takes State
// from 0 to 1 with one atomic operation when nobody holds it, a last leave
// gives it back. A thread that finds it held marks it 2 and sleeps on it (a
// futex); a leave that finds 2 wakes one sleeper.
struct CRITICAL_SECTION {
    std::atomic<int> State{0};             // 0 free, 1 held, 2 held and perhaps waited for
    std::atomic<std::thread::id> Owner{};  // owning thread, default id when free
    int RecursionCount = 0;                // entries of the owner not yet left; the owner's alone
    std::atomic<int> LockCount{0};         // threads blocked in EnterCriticalSection
};

void InitializeCriticalSection(CRITICAL_SECTION* section);
void DeleteCriticalSection(CRITICAL_SECTION* section);
void EnterCriticalSection(CRITICAL_SECTION* section);
// Enters without waiting; returns nonzero when the caller now owns the section.
int TryEnterCriticalSection(CRITICAL_SECTION* section);
void LeaveCriticalSection(CRITICAL_SECTION* section);
// Threads currently blocked waiting to enter; positive means others are queued.
int CriticalSectionWaiters(CRITICAL_SECTION* section);

// Calendar time with the Windows meaning: UTC, day of week 0 = Sunday.
struct _SYSTEMTIME {
    u16 wYear;
    u16 wMonth;
    u16 wDayOfWeek;
    u16 wDay;
    u16 wHour;
    u16 wMinute;
    u16 wSecond;
    u16 wMilliseconds;
};

// A 64-bit count of 100-nanosecond units since 1601-01-01 00:00 UTC.
union _LARGE_INTEGER {
    struct {
        u32 LowPart;
        i32 HighPart;
    } u;
    int64_t QuadPart;
};

void GetSystemTime(_SYSTEMTIME* time);
// Returns nonzero on success; fails (0) for fields out of their calendar range
// or a year before 1601.
int SystemTimeToFileTime(const _SYSTEMTIME* time, _LARGE_INTEGER* result);
// Returns nonzero on success; fails (0) for negative times.
int FileTimeToSystemTime(const _LARGE_INTEGER* time, _SYSTEMTIME* result);

// Wide strings are NUL-terminated arrays of 16-bit units.
int lstrlenW(const char16_t* text);
char16_t* lstrcpyW(char16_t* target, const char16_t* source);
char16_t* lstrcatW(char16_t* target, const char16_t* source);
// Zero when equal ignoring the case of 'a' to 'z'; otherwise the sign of the
// first differing folded unit.
int lstrcmpiW(const char16_t* a, const char16_t* b);
int lstrlenA(const char* text);

// The debugger sink of the log. Unset (the default), it writes nothing.
using DebugSink = void (*)(const char* text);
DebugSink SetDebugSink(DebugSink sink);
void OutputDebugStringA(const char* text);

}  // namespace ntfs
