// Random sequences of events go to the service's main loop and to a model of it: the outcome of
// each event must be the same. A sequence that shows a difference is cut down to the events that
// matter.
//
//   model_tests [SEQUENCES [FIRST_SEED]]
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "core/Service.h"
#include "model/ModelUnit.h"
#include "support/QueuedHostLink.h"

namespace vexa::test {
namespace {

std::uint32_t sequences = 10000;
std::uint32_t firstSeed = 1;

// The service over scripted libraries and a queued link.
class RealService {
  public:
    RealService() {
        ScriptedLibraries::Reset();
        for (std::uint32_t type = 0; type < 12; ++type) {
            script.types[std::string(1, static_cast<char>('a' + type))] = type;
            script.attached[type] = DeviceName(type);
        }
        script.types[kLongestName] = 8;
        script.daqAnswer = DaqSyncAnswer();
        stdout = ::open_memstream(&printed, &printedSize);
        queued = &link.state;
        service.StartUp([] {
            HostLink_Use(queued);
            return 1;
        });
        Collect();
    }
    ~RealService() {
        std::fclose(stdout);
        stdout = console;
        std::free(printed);  // NOLINT(cppcoreguidelines-no-malloc): open_memstream allocates so
    }
    RealService(const RealService&) = delete;
    RealService& operator=(const RealService&) = delete;

    Outcome Play(const Event& event) {
        Apply(event, script);
        std::int32_t result = 0;
        if (event.kind == EventKind::kHostSends) {
            link.HostSends(event.bytes);
        } else if (event.kind == EventKind::kPasses) {
            for (std::uint32_t pass = 0; pass < event.number; ++pass) result = service.Pass();
        } else if (event.kind == EventKind::kStreamSends && !script.streams.empty()) {
            const auto nth = static_cast<long>(event.which % script.streams.size());
            result = script.Send(std::next(script.streams.begin(), nth)->first, event.bytes);
        } else if (event.kind == EventKind::kAnswer) {
            static constexpr const char* kApplications[] = {"DAQ", "SPLASH", "FGEN"};
            script.Answer(kApplications[event.which], event.number, event.response);
        } else if (event.kind == EventKind::kLink) {
            link.Device().linkUp = event.number != 0;
        }
        Outcome outcome = Collect();
        outcome.result = result;
        return outcome;
    }

  private:
    // All that has come out since the last call. The host reads while the cable is in.
    Outcome Collect() {
        std::fflush(stdout);
        const std::size_t seen = std::exchange(printedSeen, printedSize);
        return {link.Device().linkUp ? link.TakeBytes() : Bytes(), script.TakeCalls(),
                std::exchange(script.writes, {}), std::string(printed + seen, printedSize - seen)};
    }

    static inline HostLinkState* queued = nullptr;
    FILE* const console = stdout;
    char* printed = nullptr;
    std::size_t printedSize = 0;
    std::size_t printedSeen = 0;
    ScriptedLibraries& script = ScriptedLibraries::Get();
    QueuedHostLink link;
    Service service;
};

std::string Text(const Outcome& outcome) {
    std::string text = "    to the host: " + ToHex(outcome.toHost);
    for (const auto& call : outcome.calls) text += "\n    call: " + call;
    for (const auto& write : outcome.writes) text += "\n    write: " + write;
    return text + "\n    result: " + std::to_string(outcome.result) +
           "\n    printed: " + outcome.printed + "\n";
}

// The first difference; empty when there is none.
std::string Difference(const Sequence& sequence) {
    RealService real;
    ModelUnit model(ScriptedLibraries::Get());
    for (std::size_t at = 0; at < sequence.size(); ++at) {
        const Outcome is = real.Play(sequence[at]);
        const Outcome expected = model.Play(sequence[at]);
        if (is == expected) continue;
        return "after event " + std::to_string(at + 1) + " the service gives\n" + Text(is) +
               "  the model gives\n" + Text(expected);
    }
    return "";
}

// Leaves out events, and bytes of the remaining ones, as long as there is a difference.
Sequence CutDown(Sequence sequence) {
    const auto keepIfDifferent = [&](const Sequence& smaller) {
        const bool differs = !Difference(smaller).empty();
        if (differs) sequence = smaller;
        return differs;
    };
    for (bool shrank = true; shrank;) {
        shrank = false;
        for (std::size_t at = sequence.size(); at-- > 0;) {
            Sequence smaller = sequence;
            smaller.erase(smaller.begin() + static_cast<std::ptrdiff_t>(at));
            if (keepIfDifferent(smaller)) {
                shrank = true;
                continue;
            }
            for (std::size_t byte = sequence[at].bytes.size(); byte-- > 0;) {
                smaller = sequence;
                Bytes& bytes = smaller[at].bytes;
                bytes.erase(bytes.begin() + static_cast<std::ptrdiff_t>(byte));
                shrank = keepIfDifferent(smaller) || shrank;
            }
        }
    }
    return sequence;
}

TEST(Model, AgreesWithTheService) {
    std::size_t events = 0;
    for (std::uint32_t seed = firstSeed; seed < firstSeed + sequences; ++seed) {
        const Sequence sequence = MakeSequence(seed);
        events += sequence.size();
        if (Difference(sequence).empty()) continue;
        const Sequence least = CutDown(sequence);
        FAIL() << "seed " << seed << ", cut down:\n" << Text(least) << Difference(least);
    }
    std::printf("%u sequences, %zu events: no difference\n", sequences, events);
}

}  // namespace
}  // namespace vexa::test

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    const auto number = [](const char* text) {
        return static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10));
    };
    if (argc > 1) vexa::test::sequences = number(argv[1]);
    if (argc > 2) vexa::test::firstSeed = number(argv[2]);
    return RUN_ALL_TESTS();
}
