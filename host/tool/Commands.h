// The commands of vexa-host. Each function adds one to the program; when it is chosen it runs and
// puts its exit code into `exitCode`.
#pragma once

namespace CLI {
class App;
}

void AddSyncCommand(CLI::App& program, int& exitCode);
void AddQueryCommand(CLI::App& program, int& exitCode);
void AddStreamCommand(CLI::App& program, int& exitCode);
void AddDemoCommand(CLI::App& program, int& exitCode);
