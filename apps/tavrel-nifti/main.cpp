#include "command.h"

int main(int argc, char** argv) {
  try {
    return tavrel::nifti::runCommand(tavrel::nifti::parseOptions(argc, argv));
  } catch (const tavrel::nifti::ExitNow& exit) {
    return exit.status;
  }
}
