// What a GET is answered with: the page's files, the metrics, the recording. Event loop's thread
// only.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "page/Access.h"

namespace vexahost::page {

// What a request for a file still has to be sent.
struct Download;

// The results of these calls are those of the library's callback.
class Files {
  public:
    // `recording` is the session's file, or empty. `metrics` tells their text.
    Files(const Access& access, std::string recording, std::function<std::string()> metrics);

    // Begins the answer to a request for `path`; `download` becomes what is left of it.
    int Answer(lws* wsi, Download*& download, std::string_view path);

    // Sends the next piece of it.
    static int SendMore(lws* wsi, Download*& download);

    // The connection has ended.
    static void Forget(Download*& download);

  private:
    int AnswerRecording(lws* wsi, Download*& download);

    const Access& access;
    const std::string recording;
    const std::function<std::string()> metrics;
};

}  // namespace vexahost::page
