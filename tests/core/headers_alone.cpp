// Every header of include/ stands alone: the build compiles each one as a source of its own, with
// warnings as errors, and links them with the parameter records only. This program then takes one
// step of an evolution that way.
#include <cstdlib>

#include "vox2DLevelSet.h"
#include "vox3DLevelSet.h"
#include "voxRawVolumeData.h"

int main() {
  vox3DMat<double, char> Phi(9, 9, 9), image(9, 9, 9);
  for (int i = 0; i < 9 * Phi.mxn; ++i) Phi.p[i] = i % 9 - 4.25;
  image = 1.0;
  vox3DLevelSet<double, char> engine;
  engine.UpdatePhi(&Phi, 2, &image, 1, 0, 0, 0, 0, 0, 0, &Phi);
  return Phi.p[4] == -1.25 && Phi.p[5] == -0.25 ? EXIT_SUCCESS : EXIT_FAILURE;
}
