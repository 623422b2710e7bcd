// Standard output of a command-line program.
#pragma once

namespace vexa::testkit {

// Keeps the numbers of standard input, output and error from being used for other files when one
// of them is closed: what is written to it fails as before. At the start of the program.
void KeepStandardNumbers();

// True when the reader of standard output, a pipe, has left.
[[nodiscard]] bool HasReaderLeft();

// Writes out what is left to write. Returns `status`; when something could not be written and
// `status` is 0, `failure`. Then a message on standard error names `program`. A reader who has
// left, such as "head", is no failure.
[[nodiscard]] int CheckOutput(const char* program, int status, int failure);

}  // namespace vexa::testkit
