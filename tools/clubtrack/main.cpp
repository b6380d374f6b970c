// clubtrack: render synthetic swings and replay recorded ones.
#include <exception>
#include <iostream>

#include "commands.h"

int main(int argc, char** argv) {
  CLI::App app{"clubtrack: measure a golf swing from two synchronised high-speed cameras"};
  app.require_subcommand(1);
  int exitStatus = 0;
  AddSynthCommand(app, exitStatus);
  AddRunCommand(app, exitStatus);
  AddDemoCommand(app, exitStatus);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::cerr << "clubtrack: " << e.what() << " (see clubtrack --help)\n";
    return 2;
  } catch (const std::exception& e) {
    std::cerr << "clubtrack: " << e.what() << "\n";
    return 1;
  }
  return exitStatus;
}
