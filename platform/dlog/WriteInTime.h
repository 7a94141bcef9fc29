#ifndef PLATFORM_DLOG_WRITEINTIME_H
#define PLATFORM_DLOG_WRITEINTIME_H

#include <cstddef>
#include <string_view>

// Writes to standard output or error (a descriptor) without blocking the caller. When the
// descriptor takes no more, it is waited for once, 10 ms at most, and only if `mayWait`. Returns
// the number of bytes written: fewer than all of them when nobody reads or the system refuses.
//
// Any thread. There is no lock. Sets errno.
std::size_t WriteInTime(int descriptor, std::string_view text, bool mayWait = true) noexcept;

#endif  // PLATFORM_DLOG_WRITEINTIME_H
