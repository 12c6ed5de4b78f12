// Tracing and the failure code space.
//
// Tracing is always on and has no levels: LogMessage prints to standard
// output; LogFailure prints to standard output and to the debugger sink of the
// platform layer, followed by a line with the code, and returns the code so a
// failing path can read `return LogFailure("...", code);`.
//
// A failure code is an unsigned int with the number of the matching Windows
// system error; 0 is success. Device codes pass through the library unchanged
// and share this number space. The library never spells a bare number where a
// name below exists.
//
// Thread safety: all functions format into buffers on the caller's stack; lines
// from two threads may interleave.
#pragma once

#include <cstdint>

namespace ntfs {

constexpr unsigned int ERROR_SUCCESS = 0;
// No such file, name or further entry.
constexpr unsigned int ERROR_FILE_NOT_FOUND = 2;
// Access refused: missing access bit, sharing conflict, object in use.
constexpr unsigned int ERROR_ACCESS_DENIED = 5;
// The handle is not one the volume handed out.
constexpr unsigned int ERROR_INVALID_HANDLE = 6;
// A memory allocation failed.
constexpr unsigned int ERROR_NOT_ENOUGH_MEMORY = 8;
// A record has a bad format.
constexpr unsigned int ERROR_BAD_FORMAT = 11;
// The device refuses writes (read-only host storage).
constexpr unsigned int ERROR_WRITE_PROTECT = 19;
// A sector outside the device (host storages).
constexpr unsigned int ERROR_SECTOR_NOT_FOUND = 27;
// No free space on the volume or in a bitmap.
constexpr unsigned int ERROR_HANDLE_DISK_FULL = 39;
// Operation not supported.
constexpr unsigned int ERROR_NOT_SUPPORTED = 50;
// The file exists.
constexpr unsigned int ERROR_FILE_EXISTS = 80;
// Invalid parameter.
constexpr unsigned int ERROR_INVALID_PARAMETER = 87;
// No room in the record: the internal signal to make room elsewhere.
constexpr unsigned int ERROR_INSUFFICIENT_BUFFER = 122;
// The directory is not empty.
constexpr unsigned int ERROR_DIR_NOT_EMPTY = 145;
// Malformed compressed stream.
constexpr unsigned int ERROR_BAD_COMPRESSION_BUFFER = 605;
// Compression format not supported.
constexpr unsigned int ERROR_UNSUPPORTED_COMPRESSION = 618;
// A transfer starts beyond the end of an attribute value.
constexpr unsigned int ERROR_BEYOND_END_OF_VALUE = 644;
// A note, not a failure: the data was all zero.
constexpr unsigned int ERROR_BUFFER_ALL_ZEROS = 754;
// The volume is not recognised.
constexpr unsigned int ERROR_UNRECOGNIZED_VOLUME = 1005;
// A device I/O error (the code the host storages report for a failed transfer).
constexpr unsigned int ERROR_IO_DEVICE = 1117;
// Internal error: an object is in a state that should not arise.
constexpr unsigned int ERROR_INTERNAL_ERROR = 1359;
// A file record or other on-disk structure is corrupt.
constexpr unsigned int ERROR_FILE_CORRUPT = 1392;

// The size of the formatting buffer of LogMessage and LogFailure.
constexpr int kLogBufferSize = 4096;

// Formats into `buffer`, writing at most `size` bytes including the NUL.
// Returns the count of characters written, or -1 when formatting fails or the
// text does not fit.
int LogFormat(char* buffer, int64_t size, const char* format, ...) __attribute__((format(printf, 3, 4)));

// Formats a line and prints it to standard output only.
void LogMessage(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Formats `format` with the arguments after `code`, sends the text to the
// debugger sink and to standard output, then sends " ErrorCode = %08XH.\n"
// with `code` to both sinks. Returns `code`.
unsigned int LogFailure(const char* format, unsigned int code, ...) __attribute__((format(printf, 1, 3)));

}  // namespace ntfs
