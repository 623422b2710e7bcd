// The application-session library's behaviour. Its C face is vexcri.cpp.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "model/CriSession.h"
#include "model/Export.h"
#include "model/Scenario.h"
#include "vexcri.h"

namespace vexa::unit {

// All calls from any thread. Session handles are never used again.
class VEXA_UNIT_EXPORT CriLibrary {
  public:
    explicit CriLibrary(const ApplicationMap& settings);

    // Handle of a session with the application of that name; 0 when there is none or it will not.
    // `witness` is told of each answer just before the callback is.
    [[nodiscard]] std::uint32_t Init(std::string_view name, CriCallback callback, void* context,
                                     CriSession::Witness witness);

    // False when there is no such session or the application refuses the command.
    [[nodiscard]] bool Command(std::uint32_t session, std::uint32_t command);

    // Name of the application of the session that has ended; nothing when there is none.
    [[nodiscard]] std::optional<std::string> Terminate(std::uint32_t session);

    [[nodiscard]] std::optional<std::string> ApplicationName(std::uint32_t session) const;

    // All applications as they are now.
    [[nodiscard]] ApplicationMap Applications() const;
    // The application of that name, which there must be, behaves in this way from now on.
    void ChangeApplication(std::string_view name, const ApplicationSettings& settings);

  private:
    [[nodiscard]] std::shared_ptr<CriSession> Find(std::uint32_t session) const;

    // Never changed after construction, so that sessions may refer to its elements.
    std::map<std::string, Application, std::less<>> applications;
    mutable std::mutex mutex;  // guards all below; never held during a callback
    std::uint32_t lastHandle = 0;
    std::map<std::uint32_t, std::shared_ptr<CriSession>> sessions;
};

}  // namespace vexa::unit
