// "vexa-host sync": brings the unit in step, and no more.
#pragma once

#include "CommandLine.h"

AddCommand AddSyncCommand;
