// "vexa-host record": a recording of what any host program and its unit say to each other.
#pragma once

#include "CommandLine.h"

AddCommand AddRecordCommand;
