// A small BIDS dataset of phantoms and the real command on it.
#pragma once

#include <sys/stat.h>

#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>

#include "scan/command.h"

namespace test_cohort {

using namespace test_files;
using nlohmann::json;

using Names = std::set<std::string>;
using Size = std::array<std::int64_t, 3>;
inline constexpr Size kTiny = {32, 38, 36}, kLarger = {60, 72, 66};

/// Of a file with a head that fits into so many cubic voxels.
inline FileLayout layoutOf(const Size& size, int datatype = NIFTI_TYPE_INT16) {
  const double mm = std::max({164. / size[0], 200. / size[1], 184. / size[2]});
  return {.size = size, .datatype = datatype, .mm = {mm, mm, mm}};
}

/// Every file below a folder, with its content.
using Tree = std::map<std::string, std::string>;

inline Tree treeOf(const fs::path& folder) {
  Tree tree;
  for (const auto& entry : fs::recursive_directory_iterator(folder))
    if (!entry.is_directory())
      tree[entry.path().lexically_relative(folder)] = readText(entry.path());
  return tree;
}

/// A tree without what no two runs have in common: times and memory.
inline Tree reproducible(Tree tree) {
  static const std::regex figures(R"re("(Seconds|PeakMemoryMb)": [0-9.e+-]+)re");
  static const std::regex cells(R"re(\t[0-9.]+\t[0-9.]+(\t[^\t]*\t[^\t]*\n))re");
  for (auto& [name, content] : tree) {
    if (name.ends_with("mask.json")) content = std::regex_replace(content, figures, "$1");
    if (name == "tavrel.tsv") content = std::regex_replace(content, cells, "$1");
  }
  std::erase_if(tree, [](const auto& file) { return file.first.ends_with(".html"); });
  return tree;
}

/// Names of the files in which two folders differ, by their contents or by their stamps.
template <class Value>
Names differences(const std::map<std::string, Value>& one,
                  const std::map<std::string, Value>& other) {
  Names names;
  for (const auto& [a, b] : {std::pair(&one, &other), std::pair(&other, &one)})
    for (const auto& [name, value] : *a)
      if (!b->contains(name) || b->at(name) != value) names.insert(name);
  return names;
}

/// What changes when a file is written again, even with the same content.
using Stamps = std::map<std::string, std::pair<ino_t, long>>;

inline Stamps stampsOf(const fs::path& folder) {
  Stamps stamps;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    struct stat status = {};
    lstat(entry.path().c_str(), &status);
    if (!entry.is_directory())
      stamps[entry.path().lexically_relative(folder)] = {status.st_ino, status.st_mtim.tv_nsec};
  }
  return stamps;
}

/// The table, by scan and column.
using Table = std::map<std::string, std::map<std::string, std::string>>;

inline Table tableOf(const fs::path& file) {
  std::ifstream lines(file);
  const auto cellsOf = [](const std::string& line) {
    std::vector<std::string> cells;
    std::istringstream in(line);
    for (std::string cell; std::getline(in, cell, '\t');) cells.push_back(cell);
    return cells;
  };
  std::string line;
  std::getline(lines, line);
  const auto names = cellsOf(line);
  Table table;
  while (std::getline(lines, line)) {
    const auto cells = cellsOf(line);
    EXPECT_EQ(cells.size(), names.size()) << line;
    std::string key = cells.at(2);
    while (table.contains(key)) key += "'";
    for (std::size_t i = 0; i < cells.size(); ++i) table[key][names[i]] = cells[i];
  }
  return table;
}

class Cohort : public testing::Test {
 protected:
  Cohort() { put("dataset_description.json", R"({"Name": "Heads", "BIDSVersion": "1.10.0"})"); }

  void put(const std::string& path, const std::string& content) {
    fs::create_directories((raw_ / path).parent_path());
    std::ofstream(raw_ / path) << content;
  }
  void addScan(const std::string& path, std::uint64_t seed = 1, const Size& size = kTiny) {
    fs::create_directories((raw_ / path).parent_path());
    const FileLayout layout = layoutOf(size);
    writeNifti(raw_ / path, layout, phantom<std::int16_t>(layout, 200, seed));
  }
  /// Subjects 01, 02, ... with a scan each, 9 at most.
  void addSubjects(int count, const Size& size = kTiny) {
    for (int i = 1; i <= count; ++i) addScan(scanOf(i), std::uint64_t(i), size);
  }
  static std::string scanOf(int i) {
    const std::string subject = "sub-0" + std::to_string(i);
    return subject + "/anat/" + subject + "_T1w.nii.gz";
  }

  std::vector<std::string> call(const std::vector<std::string>& options,
                                const std::string& level = "participant") const {
    std::vector<std::string> words = {raw_, out_, level};
    words.insert(words.end(), options.begin(), options.end());
    return words;
  }
  Result bids(const std::vector<std::string>& options = {},
              const std::string& level = "participant") const {
    return Process(TAVREL_BIDS_COMMAND, call(options, level)).wait();
  }
  Table table() const { return tableOf(out_ / "tavrel.tsv"); }
  std::string cell(const std::string& scan, const std::string& column) const {
    return table().at(scan).at(column);
  }
  fs::path anat(const std::string& name) const {
    return out_ / name.substr(0, name.find('_')) / "anat" / name;
  }
  json info(const std::string& scan) const {
    return json::parse(readText(anat(scan + "_desc-brain_mask.json")));
  }

  TemporaryFolder folder_;
  const fs::path raw_ = folder_ / "raw", out_ = folder_ / "raw" / "derivatives" / "tavrel";
};

}  // namespace test_cohort
