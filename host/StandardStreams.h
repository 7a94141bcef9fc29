#ifndef HOST_STANDARDSTREAMS_H
#define HOST_STANDARDSTREAMS_H

#include <string_view>

namespace QivoThing {

// Writes a line to standard output or error (a descriptor), without the C library's buffers. One
// that cannot be written within 10 ms, because nobody reads or a disk is full, is left out: whoever
// has stopped reading must not stop the host. Any thread.
void WriteLine(int descriptor, std::string_view line) noexcept;

}  // namespace QivoThing

#endif  // HOST_STANDARDSTREAMS_H
