// The service has no caller: it belongs to the interface.
#pragma once

#include <istream>
#include <string>

namespace vexa {

// Reads a text stream line by line. A line ends in "\n", "\r\n" or "\r". The stream is borrowed and
// must outlive the reader. One thread at a time.
class LineReader {
  public:
    explicit LineReader(std::istream& stream) : input(stream) {}

    // Reads the next line, without its end, into `line`. False when there is none left. A last line
    // without an end counts.
    bool Next(std::string& line);

    // Lines read so far: the number of the last line, counted from 1.
    [[nodiscard]] int LineNumber() const { return lineNumber; }

  private:
    std::istream& input;
    int lineNumber = 0;
};

}  // namespace vexa
