// "vexa-host demo": a whole host session against a virtual unit that it starts.
#pragma once

#include "CommandLine.h"

AddCommand AddDemoCommand;
