#include "model/ApplicationProgram.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <system_error>

#include "model/UnitSocket.h"
#include "testkit/ChildProcess.h"

namespace vexa::unit {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kLook{10};
constexpr milliseconds kLastWords{500};  // after SIGTERM, before SIGKILL
constexpr std::size_t kKeptOutput = 65536;
constexpr milliseconds kOutputEnd{200};  // after its end; what it started may keep its output open

void Print(const std::string& application, testkit::OutputLog& log) {
    for (const auto& line : log.TakeLines()) {
        std::fprintf(stderr, "vexa-unit: %s: %s\n", application.c_str(), line.c_str());
    }
}

}  // namespace

std::vector<std::string> CommandFor(const ProgramSettings& program, std::uint32_t command) {
    switch (command) {
        case 1:
            return program.activate;
        case 2:
            return program.deactivate;
        case 3:
            return program.query;
        case 4:
            return program.notify;
        default:
            return {};
    }
}

std::int32_t RunApplication(const std::string& application, const std::vector<std::string>& words,
                            std::uint32_t timeoutMs, const std::atomic<bool>& isCancelled) {
    sigset_t none;
    sigemptyset(&none);
    testkit::ProcessCall call;
    call.command = words;
    // It is no part of the unit: the stand-ins are not for it.
    for (const char* variable :
         {"LD_PRELOAD", "LD_LIBRARY_PATH", kScenarioVariable, kCallLogVariable, kFolderVariable,
          kHostSocketVariable, kControlSocketVariable}) {
        call.environment.emplace_back(variable, "");
    }
    call.keptOutput = kKeptOutput;
    call.ownGroup = true;
    call.leavesGroup = true;
    call.withoutInput = true;
    call.deathSignal = 0;  // a service that is killed leaves what it has begun
    call.mask = &none;
    try {
        testkit::ChildProcess program(call);
        const auto end = std::chrono::steady_clock::now() + milliseconds(timeoutMs);
        std::optional<int> status;
        do {
            const auto left =
                std::chrono::ceil<milliseconds>(end - std::chrono::steady_clock::now());
            status = program.Wait(std::clamp(left, milliseconds(0), kLook));
            Print(application, program.Log());
        } while (!status && !isCancelled && std::chrono::steady_clock::now() < end);
        if (status) {
            (void)program.Log().WaitForEnd(kOutputEnd);
            Print(application, program.Log());
            return *status == 0 ? 1 : 0;
        }
        std::fprintf(stderr, "vexa-unit: %s: %s %s; it is ended\n", application.c_str(),
                     words.front().c_str(),
                     isCancelled
                         ? "runs while its session ends"
                         : ("has not ended within " + std::to_string(timeoutMs) + " ms").c_str());
        ::kill(-program.Id(), SIGTERM);
        (void)program.Wait(kLastWords);
        ::kill(-program.Id(), SIGKILL);
        Print(application, program.Log());
        return -1;
    } catch (const std::system_error& error) {
        std::fprintf(stderr, "vexa-unit: %s: %s\n", application.c_str(), error.what());
        return 0;
    }
}

}  // namespace vexa::unit
