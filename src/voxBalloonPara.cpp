#include "voxBalloonPara.h"

#include <iostream>

#include "arguments.h"
#include "detail/voxValues.h"

voxBalloonPara::voxBalloonPara(char** argv) {
  tavrel::ArgumentReader read(argv);
  read(fn, datatype, sizeX, sizeY, sizeZ, dnX, dnY, dnZ, seg_dn, gamma, out_fn, out_datatype);
  tavrel::setPadding(*this);
  printPara();
}

voxBalloonPara::~voxBalloonPara() {
  tavrel::clear(fn, sizeX, sizeY, sizeZ);
  tavrel::leave(datatype, -1);
}

void voxBalloonPara::printPara() const {
  std::cout << "displaying parameters:" << std::endl;
  if (!fn) {
    std::cout << "object is empty" << std::endl;
    return;
  }
  std::cout << "dataname:" << fn << std::endl;
  std::cout << "format:" << datatype << std::endl;
  tavrel::printGeometry(*this, "seg dn");
}
