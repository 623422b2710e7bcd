// "vexa-host ping": round-trip times through the service and a sensor.
#pragma once

#include "CommandLine.h"

AddCommand AddPingCommand;
