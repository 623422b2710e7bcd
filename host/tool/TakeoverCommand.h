// "vexa-host takeover": takes the acquisition hardware from the unit's applications.
#pragma once

#include "CommandLine.h"

AddCommand AddTakeoverCommand;
