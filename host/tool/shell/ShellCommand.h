// "vexa-host shell": a session by hand, or by a script.
#pragma once

#include "../CommandLine.h"

AddCommand AddShellCommand;
