// "vexa-host send": sends bytes and shows what comes back.
#pragma once

#include "CommandLine.h"

AddCommand AddSendCommand;
