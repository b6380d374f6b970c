#include "commands.h"

void AddDemoCommand(CLI::App& app, int& exitStatus) {
  (void)app;
  (void)exitStatus;
}
