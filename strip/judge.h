// Whether a mask can be believed.
#pragma once

#include <string>
#include <vector>

namespace tavrel::strip {

/// Volumes of a brain with its ventricles and sulci, in mL.
struct VolumeRange {
  double least = 700, most = 2200;
};

/// Something that makes a mask doubtful.
struct Flag {
  std::string code;  ///< one word, for programs: "leak"
  std::string text;  ///< for people
};

/// What speaks against a mask.
struct Judgement {
  std::vector<Flag> flags;  ///< empty: nothing
  double confidence = 1;    ///< 0 to 1
};

}  // namespace tavrel::strip
