// What a check of a unit finds, in words, a line each.
#pragma once

#include <functional>
#include <string>

namespace vexa::unit {

// Prints each finding as it comes, flushed: the next call may be the last thing that happens here.
class Report {
  public:
    Report();
    ~Report();
    Report(const Report&) = delete;
    Report& operator=(const Report&) = delete;

    void Ok(const std::string& text);
    // Something that the service needs is not there.
    void Missing(const std::string& text);
    // Something is there, and does not do what the service relies on.
    void Odd(const std::string& text);

    [[nodiscard]] bool IsGood() const { return good; }

    // Names the library call that is made next, for the case that it does not return.
    void Calling(const char* name);

    // Runs a part of the check in a process of its own, as what it calls may crash, end the process
    // or never return; such an end is a finding about `subject`.
    void Apart(const std::string& subject, const std::function<void()>& part);

  private:
    void Print(const char* verdict, const std::string& text) const;
    void PrintEnd(const std::string& subject, int status);

    bool good = true;
    char* const call;  // name of the call under way, empty if none; shared with the part's process
};

}  // namespace vexa::unit
