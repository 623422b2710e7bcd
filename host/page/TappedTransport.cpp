#include "page/TappedTransport.h"

#include <utility>

namespace vexahost::page {

TransportFactory Tapped(TransportFactory factory, LinkTap& tap) {
    return vexahost::Tapped(std::move(factory),
                            std::shared_ptr<LinkTap>(std::shared_ptr<void>(), &tap));
}

TransportFactory Recorded(TransportFactory factory, std::shared_ptr<SessionRecorder> recorder) {
    return vexahost::Tapped(std::move(factory), std::move(recorder));
}

}  // namespace vexahost::page
