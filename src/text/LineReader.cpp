#include "text/LineReader.h"

namespace vexa {

bool LineReader::Next(std::string& line) {
    line.clear();
    bool any = false;
    char character = 0;
    while (input.get(character)) {
        any = true;
        if (character == '\n') break;
        if (character == '\r') {
            if (input.peek() == '\n') input.get();
            break;
        }
        line += character;
    }
    if (any) ++lineNumber;
    return any;
}

}  // namespace vexa
