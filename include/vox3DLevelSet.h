// One step of a narrow-band level-set evolution of a 3-D function Phi.
//
// Solves Phi_t + F |grad Phi| = 0 near the zero level of Phi, with Phi re-initialised as a signed
// distance at every step: S. Osher, J. A. Sethian, J. Comput. Phys. 79 (1988) 12-49; narrow band:
// D. Adalsteinsson, J. A. Sethian, J. Comput. Phys. 118 (1995) 269-277. Phi is negative inside and
// a positive speed grows the inside. Units are voxels; x varies fastest, then y, then z.
#pragma once

#include <algorithm>
#include <iostream>
#include <memory>

#include "vox3DMat.h"
#include "voxLevelSetStages.h"

/// Working state of one evolution step. Use an object once: construct, UpdatePhi, destroy.
///
/// The public pointers are views: the object (or the Memory it was given) owns what they point to.
/// Grid index: x + y*sizeX + z*mxn. Band order: positive edge, negative edge, positive test,
/// negative test voxels, each in increasing grid index; slots n_nbt and n_nbt + 1 of the Spar_
/// arrays stand for the voxels outside the band on the negative and the positive side. `label` is
/// +-1 at edge voxels (a face neighbour is on the other side), +-2 at the band's other voxels and
/// +-3 outside the band; positive where Phi > 0.
template <typename T, typename U>
class vox3DLevelSet {
 public:
  using Memory = tavrel::LevelSetMemory<vox3DMat<char, void>, vox3DMat<int, void>>;
  static constexpr int axes = 3;

  int sizeX = 0;
  int sizeY = 0;
  int sizeZ = 0;
  int mxn = 0;
  char* mask_p = nullptr;                    ///< not used
  vox3DMat<char, void>* label = nullptr;     ///< label code of every voxel
  vox3DMat<char, void>* mask_nbt = nullptr;  ///< 1 in the band
  char* mask_ptest = nullptr;                ///< not used
  char* mask_ntest = nullptr;                ///< not used
  int* ori_pedge_ind = nullptr;              ///< grid indices of the positive edge voxels
  int n_pedge = 0;
  int* ori_nedge_ind = nullptr;
  int n_nedge = 0;
  int* ori_ptest_ind = nullptr;
  int n_ptest = 0;
  int* ori_ntest_ind = nullptr;
  int n_ntest = 0;
  int* ori_nbt_ind = nullptr;  ///< [n_nbt] grid index, in band order
  int n_edge = 0;
  int n_nbt = 0;
  int* ori_nbt_sub = nullptr;                   ///< [3*n_nbt] coordinates x, y, z
  vox3DMat<int, void>* mask_indices = nullptr;  ///< band index, or the slot of the voxel's side
  int* ori_nbt_6neigh_ind = nullptr;            ///< not used
  int* spar_nbt_6neigh_ind = nullptr;           ///< [6*n_nbt] band index at +x, -x, +y, -y, +z, -z
  T* Spar_Phi = nullptr;                        ///< [n_nbt] Phi when the band was built
  T* Spar_F = nullptr;                          ///< [n_nbt+1] speed
  T* Spar_Fext = nullptr;                       ///< [n_nbt+2] extension velocity
  T* Spar_exact = nullptr;                      ///< [3*n_nbt+6] nearest interface point
  T* Spar_usdf = nullptr;                       ///< [n_nbt+2] unsigned distance
  T* Spar_sdf = nullptr;                        ///< [n_nbt+2] signed distance

  vox3DLevelSet() = default;
  /// Borrows `memory`, which must outlive the object, and works on `threads` threads.
  explicit vox3DLevelSet(Memory& memory, int threads = 1) : memory_(&memory), threads_(threads) {}
  vox3DLevelSet(const vox3DLevelSet&) = delete;
  vox3DLevelSet& operator=(const vox3DLevelSet&) = delete;
  /// Says so on standard output if the object was never initialised.
  ~vox3DLevelSet() {
    if (sizeX == 0) std::cout << "empty vox3DLevelSet destructed" << std::endl;
  }

  /// One step of Phi in place: the band's values are replaced, those outside stay. Without an edge
  /// voxel Phi is unchanged.
  /// @param bwt      band width in voxels; below 1 works as 1
  /// @param voldata  image of Phi's sizes (not checked)
  /// @param w1,w3,w4,w5  pressure, curvature, inside and outside weights; w2 and w6 have no effect
  /// @param w7,tPhi  coupling to a reference function of Phi's sizes, read before Phi is written
  void UpdatePhi(vox3DMat<T, U>* Phi, int bwt, vox3DMat<T, U>* voldata, double w1, double w2,
                 double w3, double w4, double w5, double w6, double w7, vox3DMat<T, U>* tPhi) {
    takeSizes(Phi);
    stages().labelEdges(Phi, false);
    stages().buildBand(std::max(bwt, 1), Phi, true);
    if (n_edge == 0) return;
    sFindEdgeExact();
    stages().findUsdfAndSums(voldata, w4);
    sFindF(voldata, w1, w2, w3, w4, w5, w6, w7);
    sFindEdgeFext();
    sCalFext(w7, tPhi);
    SubstractPhi(Phi);
  }

  /// Builds the band state from Phi: LabelEdges, then Labelnbt.
  void Initialize(vox3DMat<T, U>* Phi, int bwt) {
    takeSizes(Phi);
    stages().labelEdges(Phi, false);
    Labelnbt(bwt, Phi);
  }

  /// Labels every voxel +-1 or +-3; mask_indices becomes 1 where Phi > 0, else 0.
  void LabelEdges(vox3DMat<T, U>* Phi) {
    takeSizes(Phi);
    stages().labelEdges(Phi, true);
  }

  /// Band of `bwt` voxels around the edge voxels of LabelEdges, and all its arrays.
  void Labelnbt(int bwt, vox3DMat<T, U>* Phi) { stages().buildBand(bwt, Phi, false); }

  /// Nearest interface point and distance of the edge voxels.
  void sFindEdgeExact() { stages().findEdgeExact(); }

  /// The same for the test voxels, by sweeps, and the signed distance of every slot.
  void sFindUsdf() { stages().findUsdf(); }

  /// Speed of the edge voxels; the region term only if w4 is not 0.
  void sFindF(vox3DMat<T, U>* voldata, double w1, double /*w2*/, double w3, double w4, double w5,
              double /*w6*/, double /*w7*/) {
    stages().findF(voldata, w1, w3, w4, w5);
  }

  /// Speed at the interface points of the edge voxels.
  void sFindEdgeFext() { stages().findEdgeFext(); }

  /// Extension over the test voxels; then, if w7 is not 0, w7 * (signed distance - tPhi) is added
  /// at every band voxel.
  void sCalFext(double w7, vox3DMat<T, U>* tPhi) {
    stages().calFext();
    if (w7 != 0) {
      for (int i = 0; i < n_nbt; ++i) {
        Spar_Fext[i] = (Spar_sdf[i] - tPhi->p[ori_nbt_ind[i]]) * w7 + Spar_Fext[i];
      }
    }
  }

  /// Writes the advanced function back into Phi at the band voxels.
  void SubstractPhi(vox3DMat<T, U>* Phi) { stages().substractPhi(Phi); }

  /// The neighbour table, under one name for both dimensions.
  int*& links() { return spar_nbt_6neigh_ind; }

 private:
  void takeSizes(const vox3DMat<T, U>* Phi) {
    sizeX = Phi->sizeX;
    sizeY = Phi->sizeY;
    sizeZ = Phi->sizeZ;
    mxn = Phi->mxn;
  }

  tavrel::Stages<vox3DLevelSet> stages() {
    if (!memory_) {
      own_ = std::make_unique<Memory>();
      memory_ = own_.get();
    }
    return {*this, *memory_, threads_};
  }

  std::unique_ptr<Memory> own_;
  Memory* memory_ = nullptr;
  int threads_ = 1;
};
