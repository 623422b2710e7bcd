#pragma once

namespace vexa {

// Prints "title - tag:", " %02x" for each byte and a newline on standard output, as one line also
// when other threads print. The count is taken as a signed 16-bit value; 0 or less prints no bytes.
// Nothing is allocated. Any thread.
void HexDump(const char* title, const char* tag, const unsigned char* data, int count);

}  // namespace vexa
