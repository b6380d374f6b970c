// Subcommands of the clubtrack tool. Each registers itself on the app; its
// callback stores the process exit status in `exitStatus`.
#pragma once

#include <CLI/CLI.hpp>

void AddSynthCommand(CLI::App& app, int& exitStatus);
void AddRunCommand(CLI::App& app, int& exitStatus);
void AddDemoCommand(CLI::App& app, int& exitStatus);
