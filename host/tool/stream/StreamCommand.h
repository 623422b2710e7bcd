// "vexa-host stream": what sensors send.
#pragma once

#include "../CommandLine.h"

AddCommand AddStreamCommand;
