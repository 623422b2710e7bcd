#include "Journal.h"

#include <algorithm>
#include <fstream>
#include <thread>

#include "../Interrupt.h"

Journal::Journal(std::string filePath) : path(std::move(filePath)) {}

bool Journal::WaitFor(std::string_view text, std::chrono::milliseconds timeout) {
    constexpr std::chrono::milliseconds kPoll{10};
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        Read();
        const auto holds = [&](const std::string& line) { return line.find(text) != line.npos; };
        if (std::ranges::any_of(lines, holds)) return true;
        if (std::chrono::steady_clock::now() >= deadline || IsInterrupted()) return false;
        std::this_thread::sleep_for(kPoll);
    }
}

std::vector<std::string> Journal::Take() {
    Read();
    std::vector<std::string> taken;
    taken.swap(lines);
    return taken;
}

void Journal::Read() {
    std::ifstream file(path, std::ios::binary);
    if (!file || !file.seekg(readTo)) return;
    std::string line;
    // The last line may be half written: one that ends with the file instead of a line feed is
    // left.
    while (std::getline(file, line) && !file.eof()) {
        readTo += static_cast<long>(line.size()) + 1;
        lines.push_back(line);
    }
}
