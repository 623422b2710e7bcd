// A shared library, loaded by name or path.
#pragma once

#include <memory>
#include <string>

#include "check/Report.h"

namespace vexa::unit {

class SharedLibrary {
  public:
    // Loads it, as the dynamic linker would for a program that is linked with `name` when `path` is
    // empty. Reports which file that is, or why it cannot be loaded.
    SharedLibrary(const std::string& name, const std::string& path, Report& report);

    // Puts the function `symbol` into `function`; reports one that is missing.
    template <typename Function>
    void Find(const char* symbol, Function*& function) {
        function = reinterpret_cast<Function*>(Symbol(symbol));
    }

    // Reports whether all functions were found, of which `header` tells. Null `function`s are left
    // when not.
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
