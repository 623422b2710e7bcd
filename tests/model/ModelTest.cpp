// Sequences of events, made up at random, go to the service's main loop and to a model of it: what
// comes out is the same after each event. What differs is cut down to the events that matter.
//
//   model_tests [--sequences N] [--first NUMBER]
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string_view>

#include "model/ModelUnit.h"
#include "model/RealService.h"

namespace vexa::test {
namespace {

std::uint32_t sequences = 10000;
std::uint32_t firstNumber = 1;

std::string Lines(const std::vector<std::string>& lines) {
    std::string text;
    for (const auto& line : lines) text += "\n      " + line;
    return text;
}

std::string Text(const Outcome& outcome) {
    return "    to the host: " + ToHex(outcome.toHost) + "\n    calls:" + Lines(outcome.calls) +
           "\n    writes:" + Lines(outcome.writes) +
           "\n    taken: " + std::to_string(outcome.taken) + "\n    printed: " + outcome.printed +
           "\n";
}

// What differs first; empty when nothing does.
std::string Difference(const Sequence& sequence) {
    RealService real;
    ModelUnit model;
    for (std::size_t at = 0; at < sequence.size(); ++at) {
        const Outcome is = real.Take(sequence[at]);
        const Outcome expected = model.Take(sequence[at]);
        if (is == expected) continue;
        return "after event " + std::to_string(at + 1) + " the service gives\n" + Text(is) +
               "  the model gives\n" + Text(expected);
    }
    return "";
}

// Leaves out events, and bytes of those that are left, as long as there is a difference.
Sequence CutDown(Sequence sequence) {
    const auto keepIfDifferent = [&](const Sequence& smaller) {
        if (Difference(smaller).empty()) return false;
        sequence = smaller;
        return true;
    };
    for (bool shrank = true; shrank;) {
        shrank = false;
        for (std::size_t at = sequence.size(); at-- > 0;) {
            Sequence smaller = sequence;
            smaller.erase(smaller.begin() + static_cast<std::ptrdiff_t>(at));
            shrank = keepIfDifferent(smaller) || shrank;
        }
        for (std::size_t at = 0; at < sequence.size(); ++at) {
            for (std::size_t step = sequence[at].bytes.size(); step > 0; step /= 2) {
                for (std::size_t from = 0; from + step <= sequence[at].bytes.size();) {
                    Sequence smaller = sequence;
                    const auto begin =
                        smaller[at].bytes.begin() + static_cast<std::ptrdiff_t>(from);
                    smaller[at].bytes.erase(begin, begin + static_cast<std::ptrdiff_t>(step));
                    if (keepIfDifferent(smaller)) {
                        shrank = true;
                    } else {
                        from += step;
                    }
                }
            }
        }
    }
    return sequence;
}

TEST(Model, AgreesWithTheService) {
    std::size_t events = 0;
    for (std::uint32_t number = firstNumber; number < firstNumber + sequences; ++number) {
        const Sequence sequence = MakeSequence(number);
        events += sequence.size();
        if (Difference(sequence).empty()) continue;
        const Sequence least = CutDown(sequence);
        FAIL() << "sequence " << number << ", cut down:\n" << Text(least) << Difference(least);
    }
    RecordProperty("events", static_cast<int>(events));
    std::printf("%u sequences, %zu events: no difference\n", sequences, events);
}

}  // namespace
}  // namespace vexa::test

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string_view option = argv[i];
        const auto value = static_cast<std::uint32_t>(std::strtoul(argv[i + 1], nullptr, 10));
        if (option == "--sequences") vexa::test::sequences = value;
        if (option == "--first") vexa::test::firstNumber = value;
    }
    return RUN_ALL_TESTS();
}
