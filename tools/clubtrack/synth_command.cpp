#include "commands.h"

void AddSynthCommand(CLI::App& app, int& exitStatus) {
  (void)app;
  (void)exitStatus;
}
