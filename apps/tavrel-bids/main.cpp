#include "command.h"

int main(int argc, char** argv) {
  try {
    return tavrel::cohort::runCommand(tavrel::cohort::parseOptions(argc, argv));
  } catch (const tavrel::cohort::ExitNow& exit) {
    return exit.status;
  }
}
