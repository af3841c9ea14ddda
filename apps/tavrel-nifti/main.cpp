#include "command.h"
#include "scan/memory.h"

int main(int argc, char** argv) {
  tavrel::scan::keepFreedMemory();
  try {
    return tavrel::scan::runCommand(tavrel::scan::parseOptions(argc, argv));
  } catch (const tavrel::scan::ExitNow& exit) {
    return exit.status;
  }
}
