#include "record.h"

#include <cctype>
#include <cmath>
#include <fstream>

#include "layout.h"
#include "scan/format.h"
#include "scan/report.h"

namespace tavrel::cohort {
namespace {

namespace fs = std::filesystem;
using json = nlohmann::ordered_json;

/// The name of a file as a BIDS URI knows it.
std::string uri(const std::string& dataset, const std::string& path) {
  std::string encoded;
  for (const unsigned char c : path)
    encoded += std::isalnum(c) || std::string_view("-._~/+").find(char(c)) != std::string::npos
                   ? std::string(1, char(c))
                   : scan::print("%%%02X", unsigned(c));
  return "bids:" + dataset + ":" + encoded;
}

std::string dump(const json& info) {
  return info.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

json number(double value) { return std::isfinite(value) ? json(value) : json(); }

std::optional<double> numberIn(const json& object, const char* name) {
  const auto entry = object.find(name);
  return entry != object.end() && entry->is_number() ? std::optional(entry->get<double>())
                                                     : std::nullopt;
}

Row rowOf(const json& facts, const Source& source, bool manual) {
  Row row;
  row.participant = source.participant;
  row.session = source.session;
  row.scan = source.stem;
  row.status = facts.at("Status");
  row.manual = manual;
  row.volumeMl = numberIn(facts, "VolumeMl");
  row.w5 = numberIn(facts, "W5");
  row.confidence = numberIn(facts, "Confidence");
  row.seconds = numberIn(facts, "Seconds");
  row.peakMemoryMb = numberIn(facts, "PeakMemoryMb");
  for (const json& flag : facts.at("Flags"))
    row.flags.emplace_back(flag.at("Code"), flag.at("Text"));
  for (const auto& notice : facts.at("Notices"))
    row.reason += (row.reason.empty() ? "" : "; ") + notice.get<std::string>();
  return row;
}

}  // namespace

std::optional<Record> readRecord(const fs::path& maskInfo) {
  std::ifstream in(maskInfo);
  const json info = json::parse(in, nullptr, false);
  if (!info.is_object()) return std::nullopt;
  try {
    const json& facts = info.at("Tavrel");
    Record record{.version = facts.at("Version"),
                  .settings = facts.at("Settings"),
                  .inputSha256 = facts.at("InputSha256"),
                  .maskSha256 = facts.at("MaskSha256"),
                  .madeForSha256 = facts.value("MaskMadeForSha256", ""),
                  .givenSha256 = facts.value("GivenMaskSha256", ""),
                  .manual = info.at("Manual"),
                  .row = {}};
    record.row = rowOf(facts, sourceOf(facts.at("Source")), record.manual);
    return record;
  } catch (const json::exception&) {
    return std::nullopt;
  }
}

json settingsOf(const Study& study) {
  json settings = scan::newReport("", study.strip, study.volume)["settings"];
  settings.erase("threads");
  return settings;
}

std::string maskInfo(const Study& study, const Source& source, const scan::ScanResult& result,
                     const Record& record) {
  json flags = json::array();
  for (const scan::Flag& flag : result.flags)
    flags.push_back({{"Code", flag.code}, {"Text", flag.text}});
  json facts = {{"Version", record.version},
                {"Settings", record.settings},
                {"CommandLine", study.command + " --participant-label " +
                                    withoutPrefix(source.participant, "sub-")},
                {"Source", source.path},
                {"InputSha256", record.inputSha256},
                {"MaskSha256", record.maskSha256}};
  if (!record.madeForSha256.empty()) facts["MaskMadeForSha256"] = record.madeForSha256;
  if (!record.givenSha256.empty()) facts["GivenMaskSha256"] = record.givenSha256;
  facts.update({{"Status", "done"},
                {"Size", result.size},
                {"VoxelMm", result.spacing},
                {"VolumeMl", result.volumeMl},
                {"W5", number(result.w5)},
                {"Confidence", record.manual ? json() : number(result.confidence)},
                {"Flags", flags},
                {"Notices", result.notices},
                {"Seconds", number(*record.row.seconds)},
                {"PeakMemoryMb", number(*record.row.peakMemoryMb)}});
  return dump({{"Type", "Brain"},
               {"Description", "Brain mask: 1 inside, 0 outside"},
               {"Sources", {uri("raw", source.path)}},
               {"Manual", record.manual},
               {"Tavrel", facts}});
}

std::string brainInfo(const Source& source) {
  const fs::path mask = filesOf("", source).mask;
  return dump({{"SkullStripped", true},
               {"Description",
                "The scan inside the brain mask; outside, the value that stands "
                "for 0"},
               {"Sources", {uri("raw", source.path), uri("", mask.generic_string())}}});
}

}  // namespace tavrel::cohort
