// "vexa-host replay": does a unit still answer as it did?
#pragma once

#include "CommandLine.h"

AddCommand AddReplayCommand;
