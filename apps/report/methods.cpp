#include "methods.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "scan/format.h"

namespace tavrel::report {
namespace {

using json = nlohmann::ordered_json;
using scan::text;

constexpr char kLevelSets[] =
    "Osher S, Sethian JA. Fronts propagating with curvature-dependent speed: algorithms based on "
    "Hamilton-Jacobi formulations. J Comput Phys 79 (1988) 12-49.";
constexpr char kRegions[] =
    "Chan TF, Vese LA. Active contours without edges. IEEE Trans Image Process 10 (2001) 266-277.";
constexpr char kLocalRegions[] =
    "Lankton S, Tannenbaum A. Localizing region-based active contours. IEEE Trans Image Process 17 "
    "(2008) 2029-2039.";
constexpr char kNarrowBand[] =
    "Adalsteinsson D, Sethian JA. A fast level set method for propagating interfaces. J Comput "
    "Phys "
    "118 (1995) 269-277.";
constexpr char kExtension[] =
    "Adalsteinsson D, Sethian JA. The fast construction of extension velocities in level set "
    "methods. J Comput Phys 148 (1999) 2-22.";
constexpr char kMarching[] =
    "Sethian JA. Level Set Methods and Fast Marching Methods. Cambridge University Press, 1999.";
constexpr char kDistance[] =
    "Tsai Y-HR. Rapid and accurate computation of the distance function using grids. J Comput Phys "
    "178 (2002) 175-195.";
constexpr char kSweeping[] =
    "Zhao H. A fast sweeping method for Eikonal equations. Math Comp 74 (2005) 603-627.";
constexpr char kStability[] =
    "Matas J, Chum O, Urban M, Pajdla T. Robust wide-baseline stereo from maximally stable "
    "extremal "
    "regions. Image Vis Comput 22 (2004) 761-767.";

/// Text on its way, with its references numbered as they come.
class Writer {
 public:
  Writer& say(const std::string& words) {
    result_.text += words;
    return *this;
  }

  Writer& cite(const char* reference) {
    auto& all = result_.literature;
    auto place = std::find(all.begin(), all.end(), reference);
    if (place == all.end()) place = all.insert(place, reference);
    return say(text(" [", place - all.begin() + 1, "]"));
  }

  Methods result() && { return std::move(result_); }

 private:
  Methods result_;
};

void writeEvolution(Writer& out, bool exact) {
  out.say(" It moves a closed surface, the zero level of a signed distance function")
      .cite(kLevelSets)
      .say(
          ", from the middle of the head to the border of the brain, from coarse to fine "
          "resolution. The surface is driven by how much intensities differ from the means inside "
          "and outside it")
      .cite(kRegions)
      .say(", taken over 21 voxels around each of its points")
      .cite(kLocalRegions)
      .say(". Only a band around the surface is computed")
      .cite(kNarrowBand)
      .say(", with distances");
  if (exact)
    out.cite(kDistance).say(" by fast sweeping").cite(kSweeping);
  else
    out.say(" from the Eikonal equation").cite(kMarching);
  out.say(" and speeds extended along normals").cite(kExtension).say(".");
}

void writeWeight(Writer& out, const cohort::Row& row, bool exact, bool chosen) {
  if (!row.w5) return;
  out.say(scan::print(" The weight of the outside mean, W5, was %.2f", *row.w5));
  if (chosen && exact) out.say(", chosen for this scan");
  if (chosen && !exact)
    out.say(", chosen for this scan as the least weight around which the mask is stable")
        .cite(kStability);
  out.say(".");
  if (!exact)
    out.say(
        " Fat of the orbits, brighter than the white matter around it, was left out of the mask.");
}

/// What was done to the mask after the evolution, as far as the settings tell.
void writeFinishing(Writer& out, const json& finish) {
  if (!finish.is_object()) return;
  std::vector<std::string> steps;
  for (const auto& [key, done] : {std::pair{"open_mm", "opened with a ball of "},
                                  {"largest", "reduced to its largest piece"},
                                  {"close_mm", "closed with a ball of "},
                                  {"fill_holes", "freed of holes"}}) {
    const json value = finish.value(key, json());
    if (value.is_number() && value > 0)
      steps.push_back(text(done, value.get<double>(), " mm radius"));
    else if (value == true)
      steps.push_back(done);
  }
  for (std::size_t i = 0; i < steps.size(); ++i)
    out.say(i == 0 ? " The mask was then " : i + 1 < steps.size() ? ", " : " and ").say(steps[i]);
  if (!steps.empty()) out.say(".");
}

}  // namespace

Methods methodsOf(const json& record, const cohort::Row& row, const std::string& version) {
  const json known = record.is_object() ? record : json::object();
  const json settings = known.value("Settings", json::object());
  const std::string program = "Tavrel " + known.value("Version", version);
  Writer out;
  if (row.manual) {
    out.say("The brain mask was made or changed by hand, and applied to the scan by " + program +
            ".");
  } else {
    const bool exact = settings.value("evolution", "") == "exact";
    out.say("The skull and other non-brain tissue were removed with " + program + ".");
    writeEvolution(out, exact);
    writeWeight(out, row, exact, settings.value("w5", json()) == "auto");
    writeFinishing(out, settings.value("finish", json()));
  }
  if (row.volumeMl) out.say(scan::print(" The mask has a volume of %.1f mL.", *row.volumeMl));
  return std::move(out).result();
}

}  // namespace tavrel::report
