// "vexa-host decode": a recording in words.
#pragma once

#include "CommandLine.h"

AddCommand AddDecodeCommand;
