#include "command.h"

int main(int argc, char** argv) {
  try {
    return tavrel::scan::runCommand(tavrel::scan::parseOptions(argc, argv));
  } catch (const tavrel::scan::ExitNow& exit) {
    return exit.status;
  }
}
