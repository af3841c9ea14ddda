// --bids-filter-file: which scans to take, by their entities.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "names.h"

namespace tavrel::cohort {

/// Conditions on the entities of a scan, all of which have to hold.
class Filter {
 public:
  /// Takes every scan.
  Filter() = default;
  /// Reads the part "t1w" of a JSON file, as fMRIPrep knows it:
  ///   {"t1w": {"session": "02", "acquisition": null, "run": [1, 2]}}
  /// null stands for an entity that is absent, "*" for any label. Parts for other kinds of scans
  /// are skipped. @throws std::runtime_error with the reason, naming the file
  explicit Filter(const std::filesystem::path& file);

  bool takes(const Name& name) const;

 private:
  /// One of these labels; nothing stands for an absent entity.
  using Choices = std::vector<std::optional<std::string>>;
  std::map<std::string, Choices> conditions_;  // by short key, "suffix" or "extension"
};

}  // namespace tavrel::cohort
