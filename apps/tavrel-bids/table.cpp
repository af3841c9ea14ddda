#include "table.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "layout.h"
#include "ledger.h"
#include "record.h"
#include "scan/checksum.h"
#include "scan/format.h"
#include "task_list.h"
#include "text_file.h"

namespace tavrel::cohort {
namespace {

namespace fs = std::filesystem;
using json = nlohmann::ordered_json;

constexpr char kAbsent[] = "n/a";
constexpr char kChanged[] =
    "the mask was changed since; the participant level makes the brain from it";

std::vector<fs::path> entries(const fs::path& folder) {
  std::vector<fs::path> paths;
  std::error_code failure;
  for (fs::directory_iterator entry(folder, failure), end; !failure && entry != end;
       entry.increment(failure))
    paths.push_back(entry->path());
  return paths;
}

bool beginsWith(const fs::path& path, const char* prefix) {
  return path.filename().string().starts_with(prefix);
}

void readFolder(const fs::path& folder, std::vector<Row>& rows) {
  for (const fs::path& file : entries(folder)) {
    const std::string name = file.filename().string();
    if (!name.ends_with(kMaskInfo)) continue;
    auto record = readRecord(file);
    if (!record) continue;
    const fs::path mask = folder / (record->row.scan + kMask);
    try {
      record->row.maskSha256 = scan::sha256(mask);
      if (record->row.maskSha256 != record->maskSha256) {
        record->row.manual = true;
        record->row.reason = kChanged;
      }
    } catch (const std::exception& error) {
      record->row.status = "failed";
      record->row.reason = scan::text("its mask ", error.what());
    }
    rows.push_back(record->row);
  }
}

std::vector<Row> doneRows(const fs::path& output) {
  std::vector<Row> rows;
  for (const fs::path& subject : entries(output)) {
    if (!beginsWith(subject, "sub-")) continue;
    readFolder(subject / "anat", rows);
    for (const fs::path& session : entries(subject))
      if (beginsWith(session, "ses-")) readFolder(session / "anat", rows);
  }
  return rows;
}

std::vector<std::string> cells(const std::string& line) {
  std::vector<std::string> result;
  std::istringstream in(line);
  for (std::string cell; std::getline(in, cell, '\t');) result.push_back(cell);
  return result;
}

struct Rating {
  std::string rating, comment;
  std::string maskSha256;  // of the mask that was rated; empty if that is not told
};
using Ratings = std::map<std::string, Rating>;

bool isRating(const std::string& word) {
  return word.empty() || word == "pass" || word == "fail" || word == "maybe";
}

/// Reads one file of ratings. What is wrong with it is thrown.
Ratings readRatings(const fs::path& file) {
  std::ifstream in(file);
  std::vector<std::string> names;
  Ratings ratings;
  for (std::string line; std::getline(in, line);) {
    if (line.ends_with('\r')) line.pop_back();
    if (names.empty()) {
      constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";
      if (line.starts_with(kByteOrderMark)) line.erase(0, kByteOrderMark.size());
      names = cells(line);
      for (const char* needed : {"scan", "rating"})
        if (std::find(names.begin(), names.end(), needed) == names.end())
          throw std::runtime_error(scan::text("has no column \"", needed, "\""));
      continue;
    }
    const auto values = cells(line);
    const auto value = [&](const char* name) -> std::string {
      const auto at = std::size_t(std::find(names.begin(), names.end(), name) - names.begin());
      return at < values.size() && values[at] != kAbsent ? values[at] : "";
    };
    if (!isRating(value("rating")))
      throw std::runtime_error(scan::text("rates ", value("scan"), " \"", value("rating"),
                                          "\", not pass, fail or maybe"));
    if (!value("scan").empty())
      ratings[value("scan")] = {value("rating"), value("comment"), value("mask_sha256")};
  }
  if (names.empty()) throw std::runtime_error("cannot be read or is empty");
  return ratings;
}

/// All files of ratings in the folder. A browser numbers those that it saves again, "(1)": of two
/// names the longer or later one counts.
Ratings allRatings(const fs::path& output, const std::set<std::string>& scans, const Note& note) {
  std::set<std::pair<std::size_t, fs::path>> files;
  for (const fs::path& file : entries(output))
    if (beginsWith(file, "tavrel_ratings") && file.extension() == ".tsv")
      files.emplace(file.string().size(), file);
  Ratings ratings;
  const auto tell = [&](const fs::path& file, const auto&... words) {
    if (note) note(scan::text(file.string(), " ", words...));
  };
  for (const auto& [length, file] : files) try {
      std::size_t unknown = 0;
      for (const auto& [scan, rating] : readRatings(file))
        if (scans.contains(scan))
          ratings[scan] = rating;
        else
          ++unknown;
      if (unknown) tell(file, "rates scans that are not here: ", unknown);
    } catch (const std::runtime_error& error) {
      tell(file, error.what(), "; none of its ratings is taken");
    }
  return ratings;
}

/// Takes a rating over, unless it was given to a mask that has been changed or made anew since.
void rate(Row& row, const Rating& given) {
  row.comment = given.comment;
  const bool same = given.maskSha256.empty() || given.maskSha256 == row.maskSha256;
  (same ? row.rating : row.former) = given.rating;
  if (!row.former.empty())
    row.reason += scan::text(row.reason.empty() ? "" : "; ", "its rating, ", row.former,
                             ", was given to another mask: rate it again");
}

/// Whether a row has a brain's volume; an empty mask has none.
bool isCounted(const Row& row) { return row.status == "done" && row.volumeMl && *row.volumeMl > 0; }

void setScores(std::vector<Row>& rows) {
  std::vector<double> volumes;
  for (const Row& row : rows)
    if (isCounted(row)) volumes.push_back(*row.volumeMl);
  if (volumes.size() < 2) return;
  double mean = 0, square = 0;
  for (const double v : volumes) mean += v / double(volumes.size());
  for (const double v : volumes) square += (v - mean) * (v - mean) / double(volumes.size() - 1);
  if (!(square > 0)) return;
  for (Row& row : rows)
    if (isCounted(row)) row.zVolume = (*row.volumeMl - mean) / std::sqrt(square);
}

std::string cell(const std::string& text) { return text.empty() ? kAbsent : scan::printable(text); }

std::string cell(const std::optional<double>& value, const char* format) {
  return value ? scan::print(format, *value) : kAbsent;
}

struct Column {
  const char* name;
  json info;
  std::string (*text)(const Row&);
};

std::string codes(const Row& row) {
  std::string list;
  for (const auto& [code, text] : row.flags) list += (list.empty() ? "" : ";") + code;
  return list;
}

const std::vector<Column>& columns() {
  const auto described = [](const char* text) { return json{{"Description", text}}; };
  const auto in = [](const char* unit, const char* text) {
    return json{{"Description", text}, {"Units", unit}};
  };
  const auto levels = [](const char* text, const json& list) {
    return json{{"Description", text}, {"Levels", list}};
  };
  static const std::vector<Column> list = {
      {"participant_id", described("Participant"),
       [](const Row& r) { return cell(r.participant); }},
      {"session_id", described("Session"), [](const Row& r) { return cell(r.session); }},
      {"scan", described("Entities of the scan, which its files begin with"),
       [](const Row& r) { return cell(r.scan); }},
      {"status",
       levels("What came of the scan",
              {{"done", "Stripped"}, {"failed", "Not stripped, or its outputs are not whole"}}),
       [](const Row& r) { return cell(r.status); }},
      {"reason", described("Why it failed, or what is odd about the scan"),
       [](const Row& r) { return cell(r.reason); }},
      {"manual",
       levels("Whether the mask was made or changed by a person",
              {{"true", "By a person"}, {"false", "By the method"}}),
       [](const Row& r) { return std::string(r.manual ? "true" : "false"); }},
      {"volume_ml", in("mL", "Volume of the mask"),
       [](const Row& r) { return cell(r.volumeMl, "%.2f"); }},
      {"w5", described("Weight of the comparison with the surroundings that was used"),
       [](const Row& r) { return cell(r.w5, "%.2f"); }},
      {"confidence", described("Confidence in the mask, 0 to 1"),
       [](const Row& r) { return cell(r.confidence, "%.2f"); }},
      {"flags", described("Codes of what makes the mask doubtful, joined by semicolons"),
       [](const Row& r) { return cell(codes(r)); }},
      {"z_volume", described("Volume in standard deviations from the mean of the cohort"),
       [](const Row& r) { return cell(r.zVolume, "%.2f"); }},
      {"seconds", in("s", "Time that the scan took"),
       [](const Row& r) { return cell(r.seconds, "%.1f"); }},
      {"peak_memory_mb", in("MB", "Largest memory of the process that stripped the scan"),
       [](const Row& r) { return cell(r.peakMemoryMb, "%.0f"); }},
      {"rating",
       levels("Judgement of whoever looked at the mask",
              {{"pass", "Usable"}, {"fail", "Not usable"}, {"maybe", "To be seen again"}}),
       [](const Row& r) { return cell(r.rating); }},
      {"comment", described("Remark of whoever looked at the mask"),
       [](const Row& r) { return cell(r.comment); }}};
  return list;
}

}  // namespace

std::vector<Row> readRows(const fs::path& output, const Note& note) {
  std::vector<Row> rows = unfinishedRows(output);
  std::set<std::string> known;
  for (const Row& row : rows) known.insert(row.scan);
  const auto addNew = [&](const std::vector<Row>& more) {
    for (const Row& row : more)
      if (known.insert(row.scan).second) rows.push_back(row);
  };
  addNew(doneRows(output));
  std::vector<Row> planned;
  for (const Source& source : plannedScans(output))
    planned.push_back(failedRow(source, "was not run"));
  addNew(planned);
  std::stable_sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) {
    return std::tie(a.participant, a.session, a.scan, a.reason) <
           std::tie(b.participant, b.session, b.scan, b.reason);
  });
  setScores(rows);
  const Ratings ratings = allRatings(output, known, note);
  for (Row& row : rows)
    if (const auto rated = ratings.find(row.scan); rated != ratings.end()) rate(row, rated->second);
  return rows;
}

void writeTable(const fs::path& output, const std::vector<Row>& rows) {
  std::string table;
  json info;
  for (const Column& column : columns()) {
    table += (table.empty() ? "" : "\t") + std::string(column.name);
    info[column.name] = column.info;
  }
  for (const Row& row : rows) {
    char before = '\n';
    for (const Column& column : columns()) table += std::exchange(before, '\t') + column.text(row);
  }
  writeText(output / kTable, table + "\n");
  writeText(output / kTableInfo, info.dump(2) + "\n");
}

}  // namespace tavrel::cohort
