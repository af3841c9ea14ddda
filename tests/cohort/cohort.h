// A small BIDS dataset of phantoms and the real command on it.
#pragma once

#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>

#include "scan/command.h"

namespace test_cohort {

using namespace test_files;
using nlohmann::json;

/// Voxels of a small head; every seed gives another.
inline std::vector<std::int16_t> head(const std::array<std::int64_t, 3>& size, std::uint64_t seed) {
  std::vector<std::int16_t> voxels;
  for (const double v : tavrel::makePhantom(int(size[0]), int(size[1]), int(size[2]), seed).image)
    voxels.push_back(std::int16_t(std::lround(std::max(0.0, v) * 200)));
  return voxels;
}

/// Writes voxels on the grid of a phantom: turned by 10 degrees in the sform, straight in the
/// qform.
template <class T>
void writeVolume(const fs::path& path, const std::array<std::int64_t, 3>& size,
                 const std::vector<T>& voxels) {
  nifti_1_header header = {};
  header.sizeof_hdr = 348;
  header.dim[0] = 3;
  header.datatype = sizeof(T) == 1 ? NIFTI_TYPE_UINT8 : NIFTI_TYPE_INT16;
  header.bitpix = 8 * sizeof(T);
  header.vox_offset = 352;
  header.xyzt_units = NIFTI_UNITS_MM;
  header.qform_code = header.sform_code = NIFTI_XFORM_SCANNER_ANAT;
  std::memcpy(header.magic, "n+1", 4);
  const float mm = float(std::max({164. / size[0], 200. / size[1], 184. / size[2]}));
  header.pixdim[0] = 1;
  for (int d = 0; d < 3; ++d) {
    header.dim[d + 1] = short(size[std::size_t(d)]);
    header.pixdim[d + 1] = mm;
  }
  header.srow_x[0] = mm;
  header.srow_y[1] = header.srow_z[2] = mm * 0.985f;
  header.srow_y[2] = mm * -0.174f, header.srow_z[1] = mm * 0.174f;
  Bytes bytes(352 + voxels.size() * sizeof(T));
  std::memcpy(bytes.data(), &header, sizeof header);
  std::memcpy(bytes.data() + 352, voxels.data(), voxels.size() * sizeof(T));
  const gzFile file = gzopen(path.c_str(), path.extension() == ".gz" ? "wb1" : "wbT");
  gzwrite(file, bytes.data(), unsigned(bytes.size()));
  gzclose(file);
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

/// Names of the files in which two trees differ.
inline std::string differences(const Tree& one, const Tree& other) {
  std::string names;
  for (const auto& [a, b] : {std::pair(&one, &other), std::pair(&other, &one)})
    for (const auto& [name, content] : *a)
      if (!b->contains(name) || b->at(name) != content) names += name + " ";
  return names;
}

/// The table, by scan and column.
using Table = std::map<std::string, std::map<std::string, std::string>>;

inline Table tableOf(const fs::path& file) {
  std::istringstream lines(readText(file));
  std::vector<std::string> names;
  Table table;
  for (std::string line; std::getline(lines, line);) {
    std::vector<std::string> cells;
    std::istringstream in(line);
    for (std::string cell; std::getline(in, cell, '\t');) cells.push_back(cell);
    if (names.empty()) {
      names = cells;
      continue;
    }
    EXPECT_EQ(cells.size(), names.size()) << line;
    std::string key = cells.at(2);
    while (table.contains(key)) key += "'";
    for (std::size_t i = 0; i < cells.size(); ++i) table[key][names[i]] = cells[i];
  }
  return table;
}

inline constexpr std::array<std::int64_t, 3> kTiny = {32, 38, 36}, kLarger = {60, 72, 66};

class Cohort : public testing::Test {
 protected:
  Cohort() { put("dataset_description.json", R"({"Name": "Heads", "BIDSVersion": "1.10.0"})"); }

  void put(const std::string& path, const std::string& content) {
    fs::create_directories((raw_ / path).parent_path());
    std::ofstream(raw_ / path) << content;
  }
  void addScan(const std::string& path, std::uint64_t seed = 1,
               const std::array<std::int64_t, 3>& size = kTiny) {
    fs::create_directories((raw_ / path).parent_path());
    writeVolume(raw_ / path, size, head(size, seed));
  }
  /// Subjects 01, 02, ... with a scan each.
  void addSubjects(int count, const std::array<std::int64_t, 3>& size = kTiny) {
    for (int i = 1; i <= count; ++i) addScan(scanOf(i), std::uint64_t(i), size);
  }
  static std::string subject(int i) { return (i < 10 ? "sub-0" : "sub-") + std::to_string(i); }
  static std::string scanOf(int i) { return subject(i) + "/anat/" + subject(i) + "_T1w.nii.gz"; }

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
