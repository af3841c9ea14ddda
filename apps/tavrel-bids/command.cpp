#include "command.h"

#include <algorithm>
#include <iostream>

#include "derivatives.h"
#include "group.h"
#include "ledger.h"
#include "participant.h"
#include "scan/descriptor.h"
#include "scan/format.h"
#include "scan/interrupt.h"
#include "scan/output.h"
#include "slurm.h"
#include "strip_one.h"
#include "task_list.h"

namespace tavrel::cohort {
namespace {

using scan::print;
using scan::printable;
using scan::text;

void complain(const std::string& line) {
  std::cerr << "tavrel-bids: " << printable(line) << std::endl;
}

int statusOf(const std::vector<Row>& rows) {
  std::size_t failed = 0;
  std::string list;
  for (const Row& row : rows)
    if (row.status != "done") {
      ++failed;
      list += "\n  " + printable(row.scan + ": " + row.reason);
    }
  if (failed == 0) return kAllDone;
  std::cerr << text("tavrel-bids: ", failed, " of ", rows.size(), " scans failed:", list)
            << std::endl;
  return kSomeFailed;
}

void noteRatings(const std::string& line) { complain("note: " + line); }

int runGroup(const Options& options) {
  const auto& output = options.study.output;
  if (outputName(output).empty()) {
    complain(output.string() + " holds nothing that the participant level has left");
    return kNothingMatched;
  }
  const auto rows = writeGroup(output, noteRatings);
  if (rows.empty()) {
    complain(output.string() + " holds no scan");
    return kNothingMatched;
  }
  return statusOf(rows);
}

void listScans(const Options& options, const std::vector<Source>& scans) {
  std::size_t number = 0;
  for (const Source& source : scans) {
    std::string facts = source.problem;
    if (facts.empty()) facts = absence(options.study.dataset / source.path);
    if (const auto known = facts.empty() ? estimate(options.study, source) : std::nullopt)
      facts = text(known->size[0], " x ", known->size[1], " x ", known->size[2],
                   print(", %.0f MB", double(known->memory) / 1e6));
    else if (facts.empty())
      facts = "cannot be read";
    std::cout << text(++number, "  ", printable(source.path), "  ", printable(facts)) << '\n';
  }
}

std::vector<Source> chosenScans(const Options& options) {
  if (!options.scanList.empty()) {
    auto scans = listedScans(options.scanList, options.task);
    markTwins(scans);
    return scans;
  }
  std::vector<std::string> unknown;
  auto scans = findScans(options.study.dataset, options.selection, unknown);
  for (const std::string& name : unknown)
    complain("note: there is no subject " + name + " in " + options.study.dataset.string());
  return scans;
}

/// Strips here and, unless that is left to a later call, tells of the whole output folder.
int stripHere(const Options& options, const std::vector<Source>& scans) {
  const std::size_t failed = stripAll(options, scans);
  forgetVanished(options.study.output, options.study.dataset);
  if (!options.noGroup) writeGroup(options.study.output, noteRatings);
  if (failed == 0) return kAllDone;
  complain(text(failed, " of ", scans.size(), " scans failed; see ",
                (options.study.output / "tavrel.tsv").string()));
  return kSomeFailed;
}

int runParticipant(const Options& options) {
  const auto& [dataset, output] = std::tie(options.study.dataset, options.study.output);
  const DatasetInfo info = options.anyFolder ? DatasetInfo{} : readDataset(dataset);
  checkPlaces(dataset, output);
  const auto scans = chosenScans(options);
  if (scans.empty()) {
    complain("no T1w scan in " + dataset.string() + " matches");
    return kNothingMatched;
  }
  if (options.dryRun) {
    listScans(options, scans);
    return kAllDone;
  }
  const auto hasMask = [&](const Source& scan) { return !givenMask(options.study, scan).empty(); };
  if (!options.study.masks.empty() && options.scanList.empty() &&
      std::none_of(scans.begin(), scans.end(), hasMask))
    complain("note: no mask in " + options.study.masks.string() +
             " is named as one of the chosen scans");
  if (!options.slurm.dryRun) prepareOutput(dataset, output, info);
  return options.slurm.submit ? stripOnCluster(options, scans) : stripHere(options, scans);
}

}  // namespace

int runCommand(const Options& options) {
  scan::openStandardStreams();
  scan::catchSignals("tavrel-bids");
  try {
    return options.group ? runGroup(options) : runParticipant(options);
  } catch (const scan::Interrupted& interrupted) {
    complain("interrupted; the same call goes on from here");
    return 128 + interrupted.signal;
  } catch (const NoDataset& error) {
    complain(error.what());
    return kNoDataset;
  } catch (const scan::OutputError& error) {
    complain(error.what());
    return kCannotWrite;
  } catch (const std::invalid_argument& error) {
    complain(error.what());
    return kUsage;
  } catch (const std::exception& error) {
    complain(error.what());
    return kSomeFailed;
  }
}

}  // namespace tavrel::cohort
