// The evolution that scans are stripped with: one resolution, one surface, moved step by step.
//
// It solves the equation of the exact evolution with the same weights,
//
//   d Phi / d t = -F |grad Phi|,
//   F = -w3 * curvature - |I - mean inside| + w5 * |I - mean outside|,
//
// with Phi the signed distance in voxels (negative inside) and the means taken over windows of
// about 21 voxels around every point of the surface. It differs from the exact evolution in this:
//
// - Only the voxels next to the surface (edge voxels: a face neighbour is on the other side) and
//   the layer of face neighbours around those are carried. Distances of edge voxels come from where
//   the surface crosses the grid's axes, those of the layer from the Eikonal equation on the edge
//   voxels (first order upwind; Sethian, "Level Set Methods and Fast Marching Methods", 1999,
//   chapter 8).
// - Speeds are 32-bit, and speeds off the surface are taken from its nearest point as far as the
//   two voxels of a crossing tell (Adalsteinsson and Sethian, "The Fast Construction of Extension
//   Velocities in Level Set Methods", J. Comput. Phys. 148, 1999).
// - Curvature is the Laplacian of the distance, held between -3 and 3.
// - The means are of whole blocks of voxels, as exact integer sums; a voxel that changes sides
//   changes the sum of its block.
// - The surface may be held inside a given region, and the number of steps is bounded.
//
// A step moves the fastest point of the surface by one voxel. All arithmetic is a voxel's own or in
// integers, so that results do not depend on instruction sets or threads.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "exact/instruction_set.h"
#include "level_image.h"

namespace tavrel::strip {

/// How a surface is moved on one level.
struct FrontSettings {
  double w3 = 0.01;           ///< weight of the curvature
  double w5 = 1;              ///< weight of the outside mean
  int mostSteps = 12;         ///< end after so many steps
  double converged = 0.0002;  ///< or when the inside changes by less than this share in a step
  int threads = 1;
  InstructionSet instructions = widestInstructionSet();
};

/// Arrays of the band: edge voxels first by grid index, then the layer. All have one entry a voxel.
struct FrontBand {
  std::vector<int> voxels;                          ///< index in the level's volume
  std::vector<int> blocks;                          ///< of edge voxels: index of the block
  std::vector<float> intensity;                     ///< of edge voxels: 0 to 1
  std::vector<float> nearestX, nearestY, nearestZ;  ///< of edge voxels: offset to the surface
  std::vector<float> distance;                      ///< signed
  std::vector<float> speed;
  std::vector<int> source;  ///< of layer voxels: the edge voxel that gives their speed

  void resize(std::size_t edges, std::size_t all) {
    for (auto* array : {&intensity, &nearestX, &nearestY, &nearestZ}) array->resize(edges);
    blocks.resize(edges);
    for (auto* array : {&distance, &speed}) array->resize(all);
    for (auto* array : {&voxels, &source}) array->resize(all);
  }
};

/// A surface on one level; can be used for one mask after another.
class Front {
 public:
  explicit Front(const LevelImage& image);

  /// Moves the surface of `inside`, a mask with the image's border.
  /// @param domain  voxels that may become inside; with the border, within image.domain()
  /// @return the number of steps done
  int evolve(BitVolume& inside, const BitVolume& domain, const FrontSettings& settings,
             const Checkpoint& checkpoint = {});

 private:
  void begin(const BitVolume& inside, int threads);
  void findBand(const BitVolume& inside, const BitVolume& domain, int threads);
  std::size_t listEdges(BitVolume::Word word, int x0, int y, int z, std::size_t k);
  std::size_t listLayer(BitVolume::Word word, int x0, int y, int z, std::size_t k);
  void updateMeans();
  long step(BitVolume& inside, const FrontSettings& settings, int threads);
  long takeOver(BitVolume& inside, int threads);
  long takeOverPart(BitVolume& inside, std::size_t first, std::size_t end);

  const LevelImage& image_;
  std::unique_ptr<float[]> phi_, distance_, speed_;  // per voxel of the level; see kernels
  std::vector<CountedSum> inBlocks_, inWindows_;
  std::vector<float> meanInside_, meanOutside_;  // per block
  WindowSums windowSums_;
  BitVolume edgeBits_, layerBits_;
  FrontBand band_;
  std::size_t edges_ = 0;
  Box box_;  // around the band
};

}  // namespace tavrel::strip
