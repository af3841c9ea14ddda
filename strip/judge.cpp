#include "judge.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "morphology.h"

namespace tavrel::strip {
namespace {

// Lengths in mm.
constexpr double kGapReach = 8;     // a dark gap behind the surface is no farther
constexpr double kDarkShare = 0.6;  // of the brain's usual intensity
constexpr double kAirShare = 0.06;
constexpr double kCoreDepth = 10, kRimDepth = 4;
constexpr double kAround = 10;

/// Intensities of the voxels of a mask, in steps of the 12 bits.
class Histogram {
 public:
  Histogram(const Intensities& image, const BitVolume& mask) : counts_(kFullScale + 1, 0) {
    const Size& size = mask.size();
    for (int z = 0; z < size[2]; ++z)
      for (int y = 0; y < size[1]; ++y) {
        const std::uint16_t* row = image.values.data() + (std::size_t(z) * size[1] + y) * size[0];
        for (int w = 0; w < mask.wordsInRow(); ++w)
          forBits(mask.row(y, z)[w], w * BitVolume::kBits, [&](int x) {
            ++counts_[row[x]];
            ++all_;
          });
      }
  }

  /// The intensity below which a share of the voxels lies.
  int percentile(double share) const {
    std::size_t below = 0;
    for (int i = 0; i <= kFullScale; ++i)
      if (double(below += counts_[i]) > share * double(all_)) return i;
    return 0;
  }
  /// The share of the voxels below an intensity.
  double below(double intensity) const {
    std::size_t sum = 0;
    for (int i = 0; i <= kFullScale && i < intensity; ++i) sum += counts_[i];
    return all_ ? double(sum) / double(all_) : 0;
  }

 private:
  std::vector<std::size_t> counts_;
  std::size_t all_ = 0;
};

BitVolume eroded(BitVolume mask, const Spacing& spacing, double mm) {
  erode(mask, spacing, mm);
  return mask;
}

BitVolume dilated(BitVolume mask, const Spacing& spacing, double mm) {
  dilate(mask, spacing, mm);
  return mask;
}

BitVolume darkVoxels(const Intensities& image, double limit) {
  BitVolume dark(image.grid.size);
  const std::uint16_t* v = image.values.data();
  const auto& [X, Y, Z] = image.grid.size;
  for (int z = 0; z < Z; ++z)
    for (int y = 0; y < Y; ++y, v += X)
      for (int x = 0; x < X; ++x)
        if (v[x] < limit) dark.set(x, y, z);
  return dark;
}

double share(std::size_t part, std::size_t whole) {
  return whole ? double(part) / double(whole) : 0;
}

/// 1 at `sound` and beyond, one half at `limit`, 0 as far again.
double rate(double value, double sound, double limit) {
  return std::clamp(1 - 0.5 * (value - sound) / (limit - sound), 0.0, 1.0);
}

template <class... Args>
std::string print(const char* format, Args... args) {
  char line[120];
  std::snprintf(line, sizeof line, format, args...);
  return line;
}

/// Whole, or with three digits where it is small.
std::string number(double value) { return print(value < 10 ? "%.3g" : "%.0f", value); }

}  // namespace

double lengthScale(const VolumeRange& volumes) {
  constexpr VolumeRange kAdult;
  const double middle = std::sqrt(volumes.least * volumes.most);
  if (!(middle > 0) || (middle >= kAdult.least && middle <= kAdult.most)) return 1;
  const double scale = std::cbrt(middle / std::sqrt(kAdult.least * kAdult.most));
  return std::max(std::round(1000 * scale), 1.0) / 1000;
}

void examine(const Trial& trial, Evidence& e) {
  const Spacing& mm = trial.image.grid.spacing;
  const BitVolume& mask = trial.mask;
  const int usual = Histogram(trial.image, mask).percentile(0.5);
  const BitVolume surface = without(mask, eroded(mask, mm, 1.01 * mm[0]));
  const BitVolume gap =
      dilated(without(darkVoxels(trial.image, kDarkShare * usual), mask), mm, kGapReach);
  e.gapless = 1 - share(countBoth(surface, gap), surface.count());
  const Histogram core(trial.image, eroded(mask, mm, kCoreDepth));
  const Histogram rim(trial.image, without(mask, eroded(mask, mm, kRimDepth)));
  e.whiteOverGrey = core.percentile(0.75) / std::max(1.0, double(rim.percentile(0.5)));
  const Histogram around(trial.image,
                         without(dilated(mask, mm, kAround), dilated(mask, mm, 1.01 * mm[0])));
  e.emptyAround = around.below(kAirShare * usual);
  e.seedInside = share(countBoth(trial.seed, mask), trial.seed.count());
  const Size size = boundingBox(mask).size();
  e.widthMm = size[0] * mm[0];
  e.lengthMm = size[1] * mm[1];
  e.heightMm = size[2] * mm[2];
}

namespace {

/// Rules applied one after the other.
class Rules {
 public:
  void operator()(double value, double sound, double limit, const char* code,
                  const std::string& text) {
    const double rating = rate(value, sound, limit);
    judgement.confidence *= rating;
    if (rating < 0.5) judgement.flags.push_back({code, text});
  }
  void volume(double ml, const VolumeRange& range) {
    const std::string text =
        print("volume %s mL is outside %g to %g", number(ml).c_str(), range.least, range.most);
    if (range.least > 0) (*this)(ml, 1.1 * range.least, range.least, "volume", text);
    (*this)(ml, 0.95 * range.most, range.most, "volume", text);
  }

  Judgement judgement;
};

}  // namespace

void doubtGeometry(Judgement& judgement, const std::string& why) {
  judgement.flags.push_back({"geometry", why});
  judgement.confidence *= 0.4;  // below the half at which the other rules tell
}

Judgement judgeVolume(double volumeMl, const VolumeRange& volumes) {
  Rules rule;
  rule.volume(volumeMl, volumes);
  return rule.judgement;
}

Judgement judge(const Evidence& e, const VolumeRange& volumes) {
  Rules rule;
  rule.volume(e.volumeMl, volumes);
  const double scale = e.scale, area = scale * scale, volume = area * scale;
  // Limits between what was seen of sound masks (the worst of them in brackets) and of others; see
  // docs/accuracy.md.
  rule(e.agreement, 0.95, 0.92, "unstable",  // 0.939
       print("mask depends on W5 (agreement %.2f)", e.agreement));
  rule(e.shrinking, 0.5, 0.6, "unstable",  // 0.47
       print("mask loses %.0f %% of its volume when W5 grows", 100 * e.shrinking));
  rule(e.gapless, 0.1, 0.2, "gap",  // 0.01
       print("no dark gap behind %.0f %% of the surface", 100 * e.gapless));
  rule(
      e.whiteOverGrey, 1.2, 1.12, "contrast",  // 1.32
      print("contrast is not T1-like (core %.2f times as bright as the surface)", e.whiteOverGrey));
  rule(e.fatMl, 10, 20, "contrast",
       print("contrast is not T1-like (%s mL in front are brighter than white matter)",
             number(volume * e.fatMl).c_str()));
  rule(e.emptyAround, 0.8, 0.9, "stripped", "already stripped: nothing around the brain");  // 0.80
  rule(e.seedInside, 0.65, 0.5, "seed",                                                     // 0.81
       print("seed outside the brain (%.0f %% of it inside the mask)", 100 * e.seedInside));
  rule(e.cutCm2, 5, 10, "cut",  // 2.8
       print("cut by the field of view (%s cm2 of the mask at its border)",
             number(area * e.cutCm2).c_str()));
  rule(e.cutBelowCm2, 20, 30, "cut",  // 15
       print("cut by the field of view (%s cm2 of the mask at its bottom)",
             number(area * e.cutBelowCm2).c_str()));
  const auto leak = [&](double mm, double sound, double limit, const char* how) {
    rule(mm, sound, limit, "leak", print("leak: the mask is %.0f mm %s", scale * mm, how));
  };
  leak(e.widthMm, 165, 175, "wide");     // 152
  leak(e.lengthMm, 205, 215, "long");    // 180
  leak(e.heightMm, 180, 190, "high");    // 168
  rule(e.headWidthMm, 240, 270, "head",  // 224
       print("head is %.0f mm wide", scale * e.headWidthMm));
  rule(e.otherPiece, 0.15, 0.3, "head",
       print("another bright object of %.0f %% of the head's size", 100 * e.otherPiece));
  rule(e.voxelMm3, 27, 43, "resolution",
       print("voxels of %s mm3 are too large", number(volume * e.voxelMm3).c_str()));
  return rule.judgement;
}

}  // namespace tavrel::strip
