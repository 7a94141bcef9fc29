#ifndef PLATFORM_DLOG_STANDARDERROR_H
#define PLATFORM_DLOG_STANDARDERROR_H

#include <cstddef>
#include <string_view>

// Writes to standard error without blocking: its reader may have stopped.

// A pipe takes this much whole or not at all, even when others write to it.
inline constexpr std::size_t kMaxLineBytes = 4096;

// Writes a line of at most kMaxLineBytes, its line feed included. False when not all of it could be
// written: at once when there is an error or when the line before could not be written either, else
// after 10 ms. A line of which only a part was written is ended before the next one.
//
// For any thread. There is no lock. Sets errno.
bool WriteLineToStandardError(std::string_view line);

#endif  // PLATFORM_DLOG_STANDARDERROR_H
