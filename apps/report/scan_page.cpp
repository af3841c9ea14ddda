#include <algorithm>
#include <cctype>
#include <nlohmann/json.hpp>

#include "assets.h"
#include "escape.h"
#include "files.h"
#include "methods.h"
#include "pages.h"
#include "preview.h"
#include "scan/format.h"

namespace tavrel::report {
namespace {

namespace fs = std::filesystem;
using json = nlohmann::ordered_json;
using scan::print;
using scan::text;

std::string tableRow(const std::string& name, const std::string& value) {
  return text("<tr><th scope=\"row\">", html(name), "</th><td>", html(value), "</td></tr>\n");
}

/// A value as people read it: strings bare, lists with a sign between their elements.
std::string plain(const json& value, const char* between = ", ") {
  if (value.is_string()) return value.get<std::string>();
  if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
  if (value.is_null()) return "none";
  if (value.is_number_float()) return print("%.6g", value.get<double>());
  if (!value.is_array()) return value.dump(-1, ' ', false, json::error_handler_t::replace);
  std::string result;
  for (const json& element : value) result += (result.empty() ? "" : between) + plain(element);
  return result;
}

/// What a page is made from.
struct Material {
  const ReportInput& input;
  const cohort::Row& row;
  std::size_t place;  // of the row in the table
  ScanFiles files;
  json record;  // null without one

  json of(const char* key) const { return record.is_object() ? record.value(key, json()) : json(); }
};

std::string figures(const Material& m) {
  std::string rows;
  const auto number = [&](const char* name, const std::optional<double>& value,
                          const char* format) {
    if (value) rows += tableRow(name, print(format, *value));
  };
  const auto recorded = [&](const char* name, const char* key, const char* between,
                            const char* unit) {
    if (const json value = m.of(key); !value.is_null())
      rows += tableRow(name, plain(value, between) + unit);
  };
  number("Brain volume", m.row.volumeMl, "%.1f mL");
  number("Volume within the cohort", m.row.zVolume, "%+.2f SD");
  number("W5", m.row.w5, "%.2f");
  number("Confidence", m.row.confidence, "%.2f");
  recorded("Voxels", "Size", " \u00d7 ", "");
  recorded("Voxel size", "VoxelMm", " \u00d7 ", " mm");
  number("Time", m.row.seconds, "%.1f s");
  number("Peak memory", m.row.peakMemoryMb, "%.0f MB");
  if (m.row.status != "failed")
    rows += tableRow("Mask", m.row.manual ? "changed by hand" : "as computed");
  return rows;
}

/// Everything that makes one look twice: failure, flags, oddities of the file.
std::string remarks(const Material& m) {
  std::string items;
  if (m.row.status == "failed")
    items += text("<li class=\"failed\"><b>Not done:</b> ", html(m.row.reason), "</li>\n");
  for (const auto& [code, words] : m.row.flags)
    items += text("<li class=\"flag\"><b>", html(code), "</b> ", html(words), "</li>\n");
  const auto notice = [&](const std::string& words) {
    items += text("<li class=\"notice\"><b>notice</b> ", html(words), "</li>\n");
  };
  const json notices = m.of("Notices");
  for (const json& words : notices) notice(plain(words));
  // The table tells of the scan's notices in one line, unless it has something else to tell.
  const bool told = m.row.status == "failed" || m.row.reason.empty();
  if (!told && m.row.reason != plain(notices, "; ")) notice(m.row.reason);
  if (items.empty()) items = "<li class=\"good\">No flags.</li>\n";
  return items;
}

/// Rows of settings that are set; the names of nested ones are joined: "Finish: open mm".
std::string settings(const json& value, const std::string& name = "") {
  if (!value.is_object()) return value.is_null() ? "" : tableRow(name, plain(value));
  std::string rows;
  for (const auto& [key, inner] : value.items()) {
    std::string words = key;
    std::replace(words.begin(), words.end(), '_', ' ');
    if (name.empty() && !words.empty()) words[0] = char(std::toupper(words[0]));
    rows += settings(inner, name.empty() ? words : name + ": " + words);
  }
  return rows;
}

std::string provenance(const Material& m) {
  std::string rows =
      tableRow("Version", m.of("Version").is_null() ? m.input.version : plain(m.of("Version")));
  rows += settings(m.of("Settings"));
  for (const auto& [name, key] :
       {std::pair{"Input SHA-256", "InputSha256"}, {"Mask SHA-256", "MaskSha256"}})
    if (const json value = m.of(key); !value.is_null()) rows += tableRow(name, plain(value));
  return rows;
}

std::string literature(const Methods& methods) {
  std::string items;
  for (const std::string& reference : methods.literature)
    items += text("<li>", html(reference), "</li>\n");
  return items;
}

std::string mosaic(const Material& m) {
  const auto png = readFile(m.input.output / m.files.mosaic);
  if (!png)
    return m.row.status == "failed"
               ? ""
               : "<p class=\"absent\">The picture of the mask is not there.</p>";
  const std::string alt =
      text("Axial, coronal and sagittal cuts of ", m.row.scan, " with the contour of the mask",
           m.row.volumeMl ? print(", %.0f mL", *m.row.volumeMl) : "");
  return text("<img src=\"data:image/png;base64,", base64(*png), "\" alt=\"", html(alt), "\">");
}

std::string dataElement(const char* id, std::span<const std::byte> bytes) {
  return text("<script type=\"text/plain\" id=\"", id, "\">", base64(bytes), "</script>\n");
}

/// What the viewer shows, or why there is nothing to show.
struct Viewer {
  std::string elements;  // scan, mask and program
  std::string absence;
  json mask;  // its grid
};

Viewer viewer(const Material& m) try {
  if (viewerScript().empty())
    return {"", "This report was written by a program that was built without its 3-D viewer.", {}};
  const auto preview = readFile(m.input.output / m.files.preview);
  if (!preview) return {"", "There is no preview of the scan to show in 3-D.", {}};
  const PageMask mask = readMask(m.input.output / m.files.mask);
  return {dataElement("preview", *preview) + dataElement("mask", mask.file) +
              dataElement("viewer-code", std::as_bytes(std::span(viewerScript()))),
          "",
          {{"size", mask.size},
           {"factors", previewFactors(mask.size)},
           {"offset", mask.dataOffset},
           {"file", m.files.mask.filename().string()}}};
} catch (const scan::ScanError& error) {
  return {"", text("The mask ", error.what(), "."), {}};
}

std::string neighbour(const ReportInput& input, std::size_t place) {
  return place < input.rows.size() ? url(filesOf(input.rows[place]).page) : "";
}

json pageData(const Material& m, const json& mask) {
  return {{"cohort", m.input.datasetName},
          {"scan", m.row.scan},
          {"participant", m.row.participant},
          {"session", m.row.session},
          {"maskSha256", m.row.maskSha256},
          {"rating", m.row.rating},
          {"former", m.row.former},
          {"comment", m.row.comment},
          {"previous", neighbour(m.input, m.place - 1)},
          {"next", neighbour(m.input, m.place + 1)},
          {"mask", mask}};
}

std::string pageOf(const Material& m) {
  const Viewer shown = viewer(m);
  const bool failed = m.row.status == "failed";
  const Methods methods = failed ? Methods() : methodsOf(m.record, m.row, m.input.version);
  const json command = m.of("CommandLine");
  return filled(scanTemplate(), [&](const std::string& name) -> std::string {
    if (name == "style") return std::string(styleSheet());
    if (name == "script") return text(sharedScript(), scanScript());
    if (name == "scan") return html(m.row.scan);
    if (name == "status") return html(m.row.status);
    if (name == "dataset") return html(m.input.datasetName);
    if (name == "version") return html(m.input.version);
    if (name == "mosaic") return mosaic(m);
    if (name == "remarks") return remarks(m);
    if (name == "figures") return figures(m);
    if (name == "provenance") return provenance(m);
    if (name == "command") return command.is_null() ? "" : html(plain(command, " "));
    if (name == "methods") return html(methods.text);
    if (name == "literature") return literature(methods);
    if (name == "viewer-absence") return html(shown.absence);
    if (name == "viewer-elements") return shown.elements;
    if (name == "data") return scriptJson(pageData(m, shown.mask));
    throw std::out_of_range(name);
  });
}

}  // namespace

std::string scanPage(const ReportInput& input, std::size_t place) {
  const cohort::Row& row = input.rows[place];
  const Material bare{input, row, place, filesOf(row), {}};
  Material complete = bare;
  complete.record = readRecord(input.output / bare.files.record);
  try {
    return pageOf(complete);
  } catch (const json::exception&) {  // somebody has changed the record beyond understanding
    return pageOf(bare);
  }
}

}  // namespace tavrel::report
