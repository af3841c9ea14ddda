#include <nlohmann/json.hpp>

#include "assets.h"
#include "escape.h"
#include "files.h"
#include "pages.h"
#include "scan/format.h"

namespace tavrel::report {
namespace {

using json = nlohmann::ordered_json;

json figure(const std::optional<double>& value) { return value ? json(*value) : json(); }

json entry(const ReportInput& input, const cohort::Row& row) {
  const ScanFiles files = filesOf(row);
  json flags = json::array();
  for (const auto& [code, text] : row.flags) flags.push_back({code, text});
  return {{"scan", row.scan},
          {"participant", row.participant},
          {"session", row.session},
          {"status", row.status},
          {"reason", row.reason},
          {"manual", row.manual},
          {"volume", figure(row.volumeMl)},
          {"z", figure(row.zVolume)},
          {"w5", figure(row.w5)},
          {"confidence", figure(row.confidence)},
          {"flags", flags},
          {"seconds", figure(row.seconds)},
          {"memory", figure(row.peakMemoryMb)},
          {"maskSha256", row.maskSha256},
          {"rating", row.rating},
          {"former", row.former},
          {"comment", row.comment},
          {"page", url(files.page)},
          {"thumbnail", exists(input.output / files.thumbnail) ? url(files.thumbnail) : ""}};
}

}  // namespace

std::string indexPage(const ReportInput& input) {
  json rows = json::array();
  for (const cohort::Row& row : input.rows) rows.push_back(entry(input, row));
  return filled(indexTemplate(), [&](const std::string& name) -> std::string {
    if (name == "style") return std::string(styleSheet());
    if (name == "script") return scan::text(sharedScript(), plotsScript(), indexScript());
    if (name == "dataset") return html(input.datasetName);
    if (name == "version") return html(input.version);
    if (name == "count") return std::to_string(input.rows.size());
    if (name == "data") return scriptJson({{"cohort", input.datasetName}, {"rows", rows}});
    throw std::out_of_range(name);
  });
}

}  // namespace tavrel::report
