// Log formatting. Text reaches standard output as plain text: the formatted
// line is never used again as a format string, so a '%' in a logged name
// cannot be misread.
#include "foundation/log.h"

#include <cstdarg>
#include <cstdio>

#include "foundation/platform.h"

namespace ntfs {

namespace {

int FormatList(char* buffer, int64_t size, const char* format, va_list args) {
    if (buffer == nullptr || size <= 0) return -1;
    buffer[0] = 0;
    const int written = std::vsnprintf(buffer, static_cast<size_t>(size), format, args);
    if (written < 0 || written >= size) return -1;
    return written;
}

void PrintPlain(const char* text) {
    std::fputs(text, stdout);
    std::fflush(stdout);
}

}  // namespace

int LogFormat(char* buffer, int64_t size, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int written = FormatList(buffer, size, format, args);
    va_end(args);
    return written;
}

void LogMessage(const char* format, ...) {
    char buffer[kLogBufferSize];
    va_list args;
    va_start(args, format);
    FormatList(buffer, sizeof(buffer), format, args);
    va_end(args);
    PrintPlain(buffer);
}

unsigned int LogFailure(const char* format, unsigned int code, ...) {
    char buffer[kLogBufferSize];
    va_list args;
    va_start(args, code);
    FormatList(buffer, sizeof(buffer), format, args);
    va_end(args);
    OutputDebugStringA(buffer);
    PrintPlain(buffer);
    LogFormat(buffer, sizeof(buffer), " ErrorCode = %08XH.\n", code);
    OutputDebugStringA(buffer);
    PrintPlain(buffer);
    return code;
}

}  // namespace ntfs
