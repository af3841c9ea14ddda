// One step of a narrow-band level-set evolution of a 3-D function Phi.
//
// Solves Phi_t + F |grad Phi| = 0 near the zero level of Phi, with Phi re-initialised as a signed
// distance at every step: S. Osher, J. A. Sethian, J. Comput. Phys. 79 (1988) 12-49; narrow band:
// D. Adalsteinsson, J. A. Sethian, J. Comput. Phys. 118 (1995) 269-277. Phi is negative inside and
// a positive speed grows the inside. Units are voxels; x varies fastest, then y, then z.
// The class is the definition of the method, in its plain form; its stages are those of
// detail/voxLevelSetMethod.h and its twin's. Whole volumes are evolved by faster code that gives
// the same bits.
#pragma once

#include "detail/voxLevelSetMethod.h"
#include "vox3DMat.h"

/// Working state of one evolution step. Use an object once: construct, UpdatePhi, destroy.
///
/// The object owns what its pointers hold: arrays made with new[], of the lengths given here, and
/// matrices made with new. They may be replaced by others of that kind, or filled by hand: every
/// stage works from the fields alone.
/// Grid index: x + y*sizeX + z*mxn. Band order: positive edge, negative edge, positive test,
/// negative test voxels, each in increasing grid index; slots n_nbt and n_nbt + 1 of the Spar_
/// arrays stand for the voxels outside the band on the negative and the positive side. `label` is
/// +-1 at edge voxels (a face neighbour is on the other side), +-2 at the band's other voxels and
/// +-3 outside the band; positive where Phi > 0.
template <typename T, typename U>
class vox3DLevelSet {
 public:
  int sizeX = 0;
  int sizeY = 0;
  int sizeZ = 0;
  int mxn = 0;
  char* mask_p = nullptr;                    ///< not used
  vox3DMat<char, void>* label = nullptr;     ///< label code of every voxel
  vox3DMat<char, void>* mask_nbt = nullptr;  ///< 1 in the band
  char* mask_ptest = nullptr;                ///< not used
  char* mask_ntest = nullptr;                ///< not used
  int* ori_pedge_ind = nullptr;              ///< [n_pedge] grid indices of the positive edge voxels
  int n_pedge = 0;
  int* ori_nedge_ind = nullptr;  ///< [n_nedge] of the negative edge voxels
  int n_nedge = 0;
  int* ori_ptest_ind = nullptr;  ///< [n_ptest] of the positive test voxels
  int n_ptest = 0;
  int* ori_ntest_ind = nullptr;  ///< [n_ntest] of the negative test voxels
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
  vox3DLevelSet(const vox3DLevelSet&) = delete;
  vox3DLevelSet& operator=(const vox3DLevelSet&) = delete;
  /// Releases everything; an object without sizes only says so on standard output.
  ~vox3DLevelSet() {
    using namespace tavrel::plain;
    if (sizeX == 0) {
      std::cout << "empty vox3DLevelSet destructed" << std::endl;
      return;
    }
    releaseMatrix(label);
    releaseMatrix(mask_nbt);
    releaseMatrix(mask_indices);
    for (char** field : {&mask_p, &mask_ptest, &mask_ntest}) releaseArray(*field);
    for (int** field : {&ori_pedge_ind, &ori_nedge_ind, &ori_ptest_ind, &ori_ntest_ind,
                        &ori_nbt_ind, &ori_nbt_sub, &ori_nbt_6neigh_ind, &spar_nbt_6neigh_ind})
      releaseArray(*field);
    for (T** field : {&Spar_Phi, &Spar_F, &Spar_Fext, &Spar_exact, &Spar_usdf, &Spar_sdf})
      releaseArray(*field);
  }

  /// One step of Phi in place: the band's values are replaced, those outside stay. Without an edge
  /// voxel Phi is unchanged.
  /// @param bwt      band width in voxels; below 1 works as 1
  /// @param voldata  image of Phi's sizes (not checked)
  /// @param w1,w3,w4,w5  pressure, curvature, inside and outside weights; w2 and w6 have no effect
  /// @param w7,tPhi  coupling to a reference function of Phi's sizes, read before Phi is written
  void UpdatePhi(vox3DMat<T, U>* Phi, int bwt, vox3DMat<T, U>* voldata, double w1, double w2,
                 double w3, double w4, double w5, double w6, double w7, vox3DMat<T, U>* tPhi) {
    Initialize(Phi, std::max(bwt, 1));
    if (n_edge == 0) return;
    sFindEdgeExact();
    sFindUsdf();
    sFindF(voldata, w1, w2, w3, w4, w5, w6, w7);
    sFindEdgeFext();
    sCalFext(w7, tPhi);
    SubstractPhi(Phi);
  }

  /// Builds the band state from Phi: LabelEdges, then Labelnbt.
  void Initialize(vox3DMat<T, U>* Phi, int bwt) {
    LabelEdges(Phi);
    Labelnbt(bwt, Phi);
  }

  /// Labels every voxel +-1 or +-3; mask_indices becomes 1 where Phi > 0, else 0.
  void LabelEdges(vox3DMat<T, U>* Phi) { stages().labelEdges(*Phi); }

  /// The band of `bwt` voxels around the voxels labelled +-1, and all its arrays. Sizes or an index
  /// map that do not belong together end the process with status 1.
  void Labelnbt(int bwt, vox3DMat<T, U>* Phi) { stages().labelnbt(bwt, *Phi); }

  /// Nearest interface point and distance of the edge voxels. Their neighbours have to be in the
  /// band: its width has to be 1 or more.
  void sFindEdgeExact() { stages().findEdgeExact(); }

  /// The same for the test voxels, by sweeps, and the signed distance of every slot.
  void sFindUsdf() { stages().findUsdf(); }

  /// Speed of the edge voxels; the region term only if w4 is not 0.
  void sFindF(vox3DMat<T, U>* voldata, double w1, double /*w2*/, double w3, double w4, double w5,
              double /*w6*/, double /*w7*/) {
    stages().findF(*voldata, w1, w3, w4, w5);
  }

  /// Speed at the interface points of the edge voxels.
  void sFindEdgeFext() { stages().findEdgeFext(); }

  /// Extension over the test voxels; then, if w7 is not 0, w7 * (signed distance - tPhi) is added
  /// at every band voxel.
  void sCalFext(double w7, vox3DMat<T, U>* tPhi) { stages().calFext(w7, tPhi); }

  /// Writes the advanced function back into Phi at the band voxels: signed distance - dt *
  /// extension velocity, with dt such that the fastest of them moves by one voxel.
  void SubstractPhi(vox3DMat<T, U>* Phi) { stages().substractPhi(*Phi); }

 private:
  tavrel::plain::Stages<vox3DLevelSet> stages() {
    return tavrel::plain::Stages<vox3DLevelSet>(*this);
  }
};

/// What tells this class from its twin.
template <typename T, typename U>
struct tavrel::plain::Face<vox3DLevelSet<T, U>> {
  using LevelSet = vox3DLevelSet<T, U>;
  using Value = T;
  static constexpr int axes = 3;

  template <class V>
  static vox3DMat<V, void>* newMap(Point size) {
    return new vox3DMat<V, void>(size[0], size[1], size[2]);
  }
  static void takeSizes(LevelSet& e, const vox3DMat<T, U>& Phi) {
    e.sizeX = Phi.sizeX;
    e.sizeY = Phi.sizeY;
    e.sizeZ = Phi.sizeZ;
    e.mxn = Phi.mxn;
  }
  static Point size(const LevelSet& e) { return {e.sizeX, e.sizeY, e.sizeZ}; }
  static int*& neighbours(LevelSet& e) { return e.spar_nbt_6neigh_ind; }
  static void dilate(vox3DMat<char, void>& mask, int passes) { mask.imdilate3D("box", passes); }
};
