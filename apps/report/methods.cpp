#include "methods.h"

#include <nlohmann/json.hpp>

#include "escape.h"
#include "scan/format.h"

namespace tavrel::report {
namespace {

using json = nlohmann::ordered_json;

constexpr const char* kLiterature[] = {
    "Osher S, Sethian JA. Fronts propagating with curvature-dependent speed: algorithms based on "
    "Hamilton-Jacobi formulations. J Comput Phys 79 (1988) 12-49.",
    "Adalsteinsson D, Sethian JA. A fast level set method for propagating interfaces. J Comput Phys "
    "118 (1995) 269-277.",
    "Chan TF, Vese LA. Active contours without edges. IEEE Trans Image Process 10 (2001) 266-277.",
    "Lankton S, Tannenbaum A. Localizing region-based active contours. IEEE Trans Image Process 17 "
    "(2008) 2029-2039.",
    "Zhao H. A fast sweeping method for Eikonal equations. Math Comp 74 (2005) 603-627.",
    "Tsai Y-HR. Rapid and accurate computation of the distance function using grids. J Comput Phys "
    "178 (2002) 175-195.",
    "Adalsteinsson D, Sethian JA. The fast construction of extension velocities in level set "
    "methods. J Comput Phys 148 (1999) 2-22."};

/// What was done to the mask after the evolution, as far as the settings tell.
std::string finishing(const json& settings) {
  const json finish = settings.is_object() ? settings.value("finish", json()) : json();
  if (!finish.is_object()) return "";
  const auto ball = [&](const char* key) {
    return finish.contains(key) && finish[key].is_number() ? finish[key].get<double>() : 0;
  };
  const auto is = [&](const char* key) { return finish.contains(key) && finish[key] == true; };
  std::vector<std::string> steps;
  if (const double mm = ball("open_mm"); mm > 0)
    steps.push_back(scan::text("opened with a ball of ", mm, " mm radius"));
  if (is("largest")) steps.push_back("reduced to its largest piece");
  if (const double mm = ball("close_mm"); mm > 0)
    steps.push_back(scan::text("closed with a ball of ", mm, " mm radius"));
  if (is("fill_holes")) steps.push_back("freed of holes");
  std::string words;
  for (std::size_t i = 0; i < steps.size(); ++i)
    words += (i == 0 ? "" : i + 1 < steps.size() ? ", " : " and ") + steps[i];
  return words.empty() ? "" : " The mask was then " + words + ".";
}

}  // namespace

std::string methodsText(const json& record, const cohort::Row& row, const std::string& version) {
  const json known = record.is_object() ? record : json::object();
  std::string words = scan::text(
      "The skull and other non-brain tissue were removed with Tavrel ",
      known.value("Version", version),
      ". It grows a closed surface, the zero level of a function on the voxel grid [1], in a narrow "
      "band [2] from the middle of the head to the border of the brain, over three resolutions. The "
      "surface is driven by how much each voxel differs from the mean intensities inside and outside "
      "the surface [3] nearby [4]; distances are computed by fast sweeping [5, 6], and speeds are "
      "extended along normals [7].");
  if (row.w5)
    words += scan::print(" The weight of the outside mean, W5, was %.2f for this scan.", *row.w5);
  words += finishing(known.value("Settings", json()));
  if (row.volumeMl) words += scan::print(" The mask has a volume of %.1f mL.", *row.volumeMl);
  if (row.manual) words += " The mask was edited by hand.";
  return words;
}

std::string literatureItems() {
  std::string items;
  for (const char* reference : kLiterature) items += scan::text("<li>", html(reference), "</li>\n");
  return items;
}

}  // namespace tavrel::report
