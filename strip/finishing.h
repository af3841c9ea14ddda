// From a mask that follows grey matter to one of the whole brain, with its sulci and ventricles.
//
// Opening with a ball (erosion, then dilation) cuts bridges to the optic nerves, the dura, the
// face; the largest piece of what is left between the two is the brain. Closing with a ball takes
// in the sulci, and filling takes in the ventricles. Radii are in millimetres between voxel
// centres. What lies beyond the volume counts as neither inside nor outside, so that a brain cut
// off by the field of view keeps its cut.
#pragma once

#include "morphology.h"

namespace tavrel::strip {

/// What finishMask() does, in this order.
struct FinishSettings {
  double openMm = 0;      ///< radius of the ball to open with; 0 leaves the step out
  bool largest = true;    ///< keep the largest piece, see openMask()
  double closeMm = 0;     ///< radius of the ball to close with; 0 leaves the step out
  bool fillHoles = true;  ///< fill what is not connected over faces to the volume's border
};

/// Removes what a ball of this radius cannot reach from within, and if `largest` is set all pieces
/// but the largest that its centre can roam without a break over faces. In place.
void openMask(BitVolume& mask, const Spacing& spacing, double radius, bool largest);
/// Adds what a ball of this radius cannot reach from without. In place.
void closeMask(BitVolume& mask, const Spacing& spacing, double radius);

/// All steps of the settings.
void finishMask(BitVolume& mask, const Spacing& spacing, const FinishSettings& settings,
                const Checkpoint& checkpoint = {});

}  // namespace tavrel::strip
