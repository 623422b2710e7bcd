// "vexa-host query": who holds the acquisition hardware.
#pragma once

#include "CommandLine.h"

AddCommand AddQueryCommand;
