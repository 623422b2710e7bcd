// "vexa-host open": opens devices and holds them open.
#pragma once

#include "CommandLine.h"

AddCommand AddOpenCommand;
