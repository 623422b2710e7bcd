// The findings of a check of a unit, and the libraries that it loads.
#pragma once

#include <functional>
#include <memory>
#include <string>

namespace vexa::unit {

// Prints each finding at once, as the next call may crash. One thread at a time.
class Report {
  public:
    Report();
    ~Report();
    Report(const Report&) = delete;
    Report& operator=(const Report&) = delete;

    void Ok(const std::string& text);
    // Something that the service needs is not there.
    void Missing(const std::string& text);
    // Something is there but does not do what the service relies on.
    void Odd(const std::string& text);

    [[nodiscard]] bool IsGood() const { return good; }

    // Names the library call that is made next, in case it does not return.
    void Calling(const char* name);

    // Runs a part of the check in a process of its own, as what it calls may crash, end the process
    // or never return. If it does, that is a finding about `subject`.
    void Apart(const std::string& subject, const std::function<void()>& part);

  private:
    void Print(const char* verdict, const std::string& text) const;
    void PrintEnd(const std::string& subject, int status);

    bool good = true;
    char* const call;  // name of the current call, shared with the part's process
};

// A shared library, loaded by name or path. One thread at a time.
class SharedLibrary {
  public:
    // Loads the file at `path`; if that is empty, the file that the dynamic linker finds for
    // `name`. Reports which file that is, or why it cannot be loaded.
    SharedLibrary(const std::string& name, const std::string& path, Report& report);

    // Looks `symbol` up; if it is missing, reports that and leaves `function` null.
    template <typename Function>
    void Find(const char* symbol, Function*& function) {
        function = reinterpret_cast<Function*>(Symbol(symbol));
    }

    // Reports whether all functions of `header` were found.
    [[nodiscard]] bool IsComplete(const std::string& header);

  private:
    struct Closer {
        void operator()(void* library) const;
    };

    void* Symbol(const char* symbol);

    Report& report;
    const std::string name;
    std::unique_ptr<void, Closer> handle;
    int found = 0;
    int missing = 0;
};

}  // namespace vexa::unit
