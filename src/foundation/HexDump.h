#pragma once

namespace vexa {

// Prints "title - tag:", " %02x" for each byte and a newline on standard output, with one call, so
// that lines of two threads never mix. The count is truncated to a signed 16-bit value; 0 or less
// prints no bytes. Nothing is allocated; the line is built on the stack (98 KiB). Any thread.
void HexDump(const char* title, const char* tag, const unsigned char* data, int count);

}  // namespace vexa
