#include "voxPara.h"

#include <algorithm>
#include <cmath>
#include <iostream>
#include <iterator>
#include <limits>
#include <utility>

#include "arguments.h"
#include "detail/voxValues.h"

namespace {

/// `value` truncated to int; what does not fit, not-a-number included, becomes the largest int.
int heldInInt(double value) {
  constexpr int kMax = std::numeric_limits<int>::max();
  return value > -kMax && value < kMax ? static_cast<int>(value) : kMax;
}

}  // namespace

int* calextension(int size, int dn) {
  const double d = std::pow(2.0, dn);
  const double pad = d * std::ceil(size / d) - size;
  const double before = std::floor(pad * 0.5);
  return new int[2]{heldInInt(before), heldInInt(pad - before)};
}

voxPara::~voxPara() {
  using tavrel::clear;
  using tavrel::leave;
  delete[] max_iter;
  clear(max_iter, mask_fn, ori_fn, SS_fn, template_fn);
  for (int* type : {&mask_datatype, &ori_datatype, &SS_datatype, &template_datatype}) {
    leave(*type, -1);
  }
  clear(sizeX, sizeY, sizeZ, dnX, dnY, dnZ, seg_dn, Xn, Xp, Yn, Yp, Zn, Zp);
  clear(gamma, seedxmin, seedxmax, seedymin, seedymax, seedzmin, seedzmax);
  clear(w1, w2, w3, w4, w5, w6, w7);
}

int voxPara::levels() const { return std::clamp(seg_dn, -1, 31) + 1; }

void voxPara::setupBalloonParameters(char* tempFn, char* maskFn, char* ssFn, int nTempDataType,
                                     int nMaskDataType, int nSSDataType, int nSizeX, int nSizeY,
                                     int nSizeZ, int nDnX, int nDnY, int nDnZ, int nSegDn,
                                     double dGamma, double dXMin, double dXMax, double dYMin,
                                     double dYMax, double dZMin, double dZMax, double dW1,
                                     double dW2, double dW3, double dW4, double dW5, double dW6,
                                     double dW7, int nMaxIter0, int nMaxIter1, int nMaxIter2) {
  ori_fn = tempFn;
  mask_fn = maskFn;
  SS_fn = ssFn;
  ori_datatype = nTempDataType;
  mask_datatype = nMaskDataType;
  SS_datatype = nSSDataType;
  sizeX = nSizeX;
  sizeY = nSizeY;
  sizeZ = nSizeZ;
  dnX = nDnX;
  dnY = nDnY;
  dnZ = nDnZ;
  seg_dn = nSegDn;
  gamma = dGamma;
  seedxmin = dXMin;
  seedxmax = dXMax;
  seedymin = dYMin;
  seedymax = dYMax;
  seedzmin = dZMin;
  seedzmax = dZMax;
  w1 = dW1;
  w2 = dW2;
  w3 = dW3;
  w4 = dW4;
  w5 = dW5;
  w6 = dW6;
  w7 = dW7;

  const int limits[] = {nMaxIter0, nMaxIter1, nMaxIter2};
  newLimits();
  for (int y = 0; y < levels(); ++y) max_iter[y] = limits[std::min(y, 2)];
  tavrel::setPadding(*this);
}

void voxPara::setup2VolumeParameters(char* targFn, char* maskFn, char* ssFn, char* tempMaskFn,
                                     int nTargDataType, int nMaskDataType, int nSSDataType,
                                     int nTempMaskDataType, int nSizeX, int nSizeY, int nSizeZ,
                                     int nDnX, int nDnY, int nDnZ, int nSegDn, double dGamma,
                                     double dXMin, double dXMax, double dYMin, double dYMax,
                                     double dZMin, double dZMax, double dW1, double dW2, double dW3,
                                     double dW4, double dW5, double dW6, double dW7, int nMaxIter0,
                                     int nMaxIter1, int nMaxIter2) {
  template_fn = tempMaskFn;
  template_datatype = nTempMaskDataType;
  setupBalloonParameters(targFn, maskFn, ssFn, nTargDataType, nMaskDataType, nSSDataType, nSizeX,
                         nSizeY, nSizeZ, nDnX, nDnY, nDnZ, nSegDn, dGamma, dXMin, dXMax, dYMin,
                         dYMax, dZMin, dZMax, dW1, dW2, dW3, dW4, dW5, dW6, dW7, nMaxIter0,
                         nMaxIter1, nMaxIter2);
}

/// What an argument vector holds.
struct voxPara::Layout {
  const char* name;
  bool hasTemplate;
  bool hasZ;
  bool hasSeed;
};

void voxPara::setupBalloon(char** argv) { setup(argv, {"Balloon", false, true, true}); }
void voxPara::setup2Volume(char** argv) { setup(argv, {"2Volume", true, true, true}); }
void voxPara::setup2DBalloon(char** argv) { setup(argv, {"2DBalloon", false, false, true}); }
void voxPara::setup2D2Volume(char** argv) { setup(argv, {"2D2Volume", true, false, false}); }

void voxPara::setup(char** argv, const Layout& layout) {
  std::cout << layout.name << " setup called" << std::endl;
  tavrel::ArgumentReader read(argv);
  read(ori_fn, mask_fn, SS_fn);
  if (layout.hasTemplate) read(template_fn);
  read(ori_datatype, mask_datatype, SS_datatype);
  if (layout.hasTemplate) read(template_datatype);
  read(sizeX, sizeY);
  if (layout.hasZ) read(sizeZ);
  read(dnX, dnY);
  if (layout.hasZ) read(dnZ);
  read(seg_dn, gamma);
  if (layout.hasSeed) read(seedxmin, seedxmax, seedymin, seedymax);
  if (layout.hasSeed && layout.hasZ) read(seedzmin, seedzmax);
  read(w1, w2, w3, w4, w5, w6, w7);
  newLimits();
  for (int y = 0; y < levels(); ++y) read(max_iter[y]);

  tavrel::setPadding(sizeX, dnX, seg_dn, Xn, Xp);
  tavrel::setPadding(sizeY, dnY, seg_dn, Yn, Yp);
  if (layout.hasZ) tavrel::setPadding(sizeZ, dnZ, seg_dn, Zn, Zp);
  printPara();
}

void voxPara::newLimits() {
  delete[] std::exchange(max_iter, nullptr);
  max_iter = new int[static_cast<std::size_t>(levels())];
}

void voxPara::printPara() const {
  using tavrel::printable;
  std::cout << "displaying parameters:" << std::endl;
  if (!ori_fn) {
    std::cout << "object is empty" << std::endl;
    return;
  }
  std::cout << "original data file name:" << ori_fn << std::endl;
  std::cout << "mask file name:" << printable(mask_fn) << std::endl;
  std::cout << "SS file name:" << printable(SS_fn) << std::endl;
  if (template_fn) std::cout << "template file name:" << template_fn << std::endl;
  std::cout << "ori format:" << ori_datatype << std::endl;
  std::cout << "mask format:" << mask_datatype << std::endl;
  std::cout << "SS format:" << SS_datatype << std::endl;
  std::cout << "template format:" << template_datatype << std::endl;
  tavrel::printGeometry(*this, "seg dn:");
  std::cout << "seed: " << seedxmin << " " << seedxmax << " " << seedymin << " " << seedymax << " "
            << seedzmin << " " << seedzmax << " " << std::endl;
  std::cout << "weighting: " << w1 << " " << w2 << " " << w3 << " " << w4 << " " << w5 << " " << w6
            << " " << w7 << std::endl;
  std::cout << "max_iter: ";
  std::copy_n(max_iter, max_iter ? levels() : 0, std::ostream_iterator<int>(std::cout, " "));
  std::cout << std::endl;
}
