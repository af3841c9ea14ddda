#include "finishing.h"

namespace tavrel::strip {

void openMask(BitVolume& mask, const Spacing& spacing, double radius, bool largest) {
  erode(mask, spacing, radius);
  if (largest) keepLargest(mask);
  dilate(mask, spacing, radius);
}

void closeMask(BitVolume& mask, const Spacing& spacing, double radius) {
  dilate(mask, spacing, radius);
  erode(mask, spacing, radius);
}

void finishMask(BitVolume& mask, const Spacing& spacing, const FinishSettings& settings,
                const Checkpoint& checkpoint) {
  openMask(mask, spacing, settings.openMm, settings.largest);
  pass(checkpoint);
  closeMask(mask, spacing, settings.closeMm);
  pass(checkpoint);
  if (settings.fillHoles) fillHoles(mask);
}

}  // namespace tavrel::strip
