#pragma once

#include <istream>
#include <string>

namespace vexa {

// Reads a text stream line by line, whatever ends the lines: "\n", "\r\n" or "\r". The stream is
// borrowed and must outlive the reader. One thread at a time.
class LineReader {
  public:
    explicit LineReader(std::istream& stream) : input(stream) {}

    // Takes the next line, without its end, into `line`. False when there is none left; a last line
    // without an end counts.
    bool Next(std::string& line);

    // Lines taken so far: the number of the line that Next gave last, from 1.
    [[nodiscard]] int LineNumber() const { return lineNumber; }

  private:
    std::istream& input;
    int lineNumber = 0;
};

}  // namespace vexa
