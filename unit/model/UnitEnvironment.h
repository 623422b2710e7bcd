// How vexa-unit tells the stand-ins in the program's process about the unit.
#pragma once

namespace vexa::unit {

inline constexpr char kFolderVariable[] = "VEXA_UNIT_DIR";                // where the sockets are
inline constexpr char kScenarioVariable[] = "VEXA_UNIT_SCENARIO";         // file; unset: built in
inline constexpr char kJournalVariable[] = "VEXA_UNIT_JOURNAL";           // file; unset: none
inline constexpr char kHostSocketVariable[] = "VEXA_UNIT_HOST_FD";        // inherited, listening
inline constexpr char kControlSocketVariable[] = "VEXA_UNIT_CONTROL_FD";  // likewise

}  // namespace vexa::unit
