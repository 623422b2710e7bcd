// Marks what the stand-in libraries use of the model's library; all else stays inside it.
#pragma once

#define VEXA_UNIT_EXPORT __attribute__((visibility("default")))
