// The verbs of vexa-host, each in a file of its name.
#pragma once

#include "tool/CommandLine.h"

namespace vexahost::tool {

Verb SyncVerb();
Verb QueryVerb();
Verb TakeoverVerb();
Verb OpenVerb();
Verb CloseVerb();
Verb SendVerb();
Verb StreamVerb();
Verb PingVerb();
Verb ShellVerb();
Verb RecordVerb();
Verb DecodeVerb();
Verb ReplayVerb();
Verb ServeVerb();
Verb DemoVerb();
Verb DevicesVerb();

}  // namespace vexahost::tool
