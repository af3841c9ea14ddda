// Whether a mask can be believed: what is known about brains and about masks that went wrong.
//
// Each rule rates one figure of the mask between 0 and 1: 1 where sound masks lie, one half at the
// limit beyond which the mask is told as doubtful. The confidence is the product of all ratings.
// Figures that rest on intensities are of the level on which the weights were tried.
#pragma once

#include <string>
#include <vector>

#include "head.h"
#include "level_image.h"
#include "weight_choice.h"

namespace tavrel::strip {

/// Volumes of a brain with its ventricles and sulci, in mL.
struct VolumeRange {
  double least = 700, most = 2200;
};

/// Lengths of heads with brains of these volumes over those of adults, to three decimals: 1 where
/// the range's (geometric) middle can be an adult's brain, else by the cube root of the volumes.
double lengthScale(const VolumeRange& volumes);

/// Something that makes a mask doubtful.
struct Flag {
  std::string code;  ///< one word, for programs: "volume"
  std::string text;  ///< for people: "volume 2911 mL is outside 700 to 2200"
};

/// What speaks against a mask.
struct Judgement {
  std::vector<Flag> flags;  ///< empty: nothing
  double confidence = 1;    ///< 0 to 1
};

/// The figures of a mask that the rules look at; but for its volume scaled to an adult's head.
struct Evidence {
  double scale = 1;          ///< of this head's lengths over those of an adult's
  double volumeMl = 0;       ///< of the final mask, not scaled
  double agreement = 1;      ///< of the mask with those of other weights, 0 to 1
  double shrinking = 0;      ///< largest share of the volume lost when W5 grows
  double gapless = 0;        ///< share of the surface with nothing dark behind it
  double whiteOverGrey = 2;  ///< bright intensity in the core over the usual one at the surface
  double fatMl = 0;          ///< of the trial's mask brighter than white matter, where orbits are
  double emptyAround = 0;    ///< share of the surroundings that is as dark as air
  double seedInside = 1;     ///< share of the seed that is in the mask
  double cutCm2 = 0;         ///< of the mask at the field of view's border, but for its bottom
  double cutBelowCm2 = 0;    ///< of the mask at its bottom
  double heightMm = 0, lengthMm = 0, widthMm = 0;  ///< of the mask
  double headWidthMm = 0;                          ///< of the head
  double otherPiece = 0;  ///< size of the largest bright object beside the head over the head's
  double voxelMm3 = 1;    ///< volume of a voxel of the scan
};

/// What a mask is rated on.
struct Trial {
  const Intensities& image;  ///< after the minimum filter
  const BitVolume& mask;     ///< finished
  const BitVolume& seed;     ///< on the same grid
};

/// Makes a mask doubtful whose voxels may be of another size than told.
void doubtGeometry(Judgement& judgement, const std::string& why);

/// Fills the figures that come from intensities and shape.
void examine(const Trial& trial, Evidence& evidence);

/// Rates a mask of which nothing but the volume is known.
Judgement judgeVolume(double volumeMl, const VolumeRange& volumes);

/// Rates the evidence.
Judgement judge(const Evidence& evidence, const VolumeRange& volumes);

}  // namespace tavrel::strip
