// "vexa-host close": closes a child or the controller.
#pragma once

#include "CommandLine.h"

AddCommand AddCloseCommand;
