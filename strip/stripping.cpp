#include "stripping.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "coarse_to_fine.h"
#include "head.h"
#include "work_image.h"

namespace tavrel::strip {
namespace {

/// A scan and its settings as if the head were an adult's: all lengths of the method are for those.
struct AdultSized {
  AdultSized(const ScanView& given, const StripSettings& givenSettings)
      : scale(lengthScale(givenSettings.volumes)), scan(given), settings(givenSettings) {
    if (scale == 1) return;
    for (double& mm : scan.grid.spacing) mm /= scale;
    if (settings.resampleMm) *settings.resampleMm /= scale;
    settings.volumes.least /= givenMl(1);
    settings.volumes.most /= givenMl(1);
  }
  double givenMl(double adultMl) const { return adultMl * scale * scale * scale; }

  double scale;
  ScanView scan;
  StripSettings settings;
};

/// Refuses a head far beyond the brains that are looked for: its grid would be out of all
/// proportion.
void checkWidth(const Head& head, const AdultSized& adult, const VolumeRange& volumes) {
  constexpr double kWidest = 600;  // an adult with the shoulders, and some more
  const double width = head.box.size()[0] * Axes(adult.scan).anatomical().spacing[0];
  if (width <= kWidest) return;
  char why[160];
  std::snprintf(why, sizeof why,
                "holds a head %.0f mm wide, far too wide for a brain of %g to %g mL",
                adult.scale * width, volumes.least, volumes.most);
  throw NoHead(why);
}

/// Why a scan in which no head was found has none.
std::string whyNoHead(const ScanView& scan) {
  std::vector<float> plane(std::size_t(scan.grid.size[0]) * scan.grid.size[1]);
  for (int z = 0; z < scan.grid.size[2]; ++z) {
    scan.read(std::size_t(z) * plane.size(), plane);
    if (std::any_of(plane.begin(), plane.end(), [](float v) { return std::isinf(v); }))
      return "holds no head, but values that are too large for a 32-bit float";
  }
  return "holds no head";
}

}  // namespace

Grid largestWorkGrid(const ScanView& scan, const StripSettings& settings) {
  const AdultSized adult(scan, settings);
  Grid grid = WorkGrid(adult.scan, largestWorkBox(adult.scan), adult.settings.resampleMm).grid();
  for (double& mm : grid.spacing) mm *= adult.scale;
  return grid;
}

Stripped stripScan(const ScanView& given, const StripSettings& givenSettings,
                   const StripObserver& observer) {
  const auto stage = [&](const char* name, double done) {
    pass(observer.checkpoint);
    if (observer.onStage) observer.onStage(name, done);
  };
  const AdultSized adult(given, givenSettings);
  const ScanView& scan = adult.scan;
  const StripSettings& settings = adult.settings;
  stage("finding the head", 0);
  const auto head = findHead(scan, settings.threads);
  if (!head) throw NoHead(whyNoHead(scan));
  checkWidth(*head, adult, givenSettings.volumes);
  const WorkGrid work(scan, head->box, settings.resampleMm);
  constexpr double kHeadroom = 1.3;  // above the bright tissue's intensity
  Intensities image = work.image(scan, head->low, head->low + kHeadroom * (head->high - head->low),
                                 settings.threads);
  minimumFilter(image);
  stage("trying weights", 0.2);
  CoarseToFine levels(std::move(image), work.fromScan(head->centre), settings, observer);
  stage("finest level", 0.7);
  const BitVolume mask = levels.finest();
  Evidence evidence = levels.evidence();
  const FieldOfViewCut cut = work.cut(mask);
  evidence.cutCm2 = cut.elsewhere;
  evidence.cutBelowCm2 = cut.below;
  evidence.scale = adult.scale;
  evidence.otherPiece = head->otherPiece;
  evidence.voxelMm3 = 1000 * millilitres(1, scan.grid.spacing);
  evidence.headWidthMm = head->widthMm();
  Stripped result;
  result.mask = work.toScan(scan, mask, settings.threads);
  evidence.volumeMl = millilitres(double(std::count(result.mask.begin(), result.mask.end(), 1)),
                                  given.grid.spacing);
  result.w5 = levels.w5();
  result.trials = levels.records();
  for (TrialRecord& trial : result.trials) trial.ml = adult.givenMl(trial.ml);
  result.judgement = judge(evidence, givenSettings.volumes);
  return result;
}

}  // namespace tavrel::strip
