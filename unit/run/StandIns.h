// Where the stand-in libraries are, and the environment that makes a program use them.
#pragma once

#include <map>
#include <string>

namespace vexa::unit {

// Changes to a program's environment; an empty value removes the variable.
using EnvironmentChanges = std::map<std::string, std::string>;

// Folder of the running program, absolute.
[[nodiscard]] std::string ProgramFolder();

// Folder of the stand-in libraries: "lib" beside the program's folder, as built, or their own, as
// installed. Throws UserError when they are in neither.
[[nodiscard]] std::string StandInFolder();

// Puts the stand-ins of `folder` before the libraries that the program would find otherwise.
void PreferStandIns(const std::string& folder, EnvironmentChanges& changes);

}  // namespace vexa::unit
