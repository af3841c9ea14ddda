#include "participant.h"

#include <deque>
#include <iostream>
#include <nlohmann/json.hpp>
#include <thread>

#include "pool.h"
#include "progress.h"
#include "scan/format.h"
#include "scan/interrupt.h"
#include "scan/nifti/scan.h"
#include "strip_one.h"

namespace tavrel::cohort {
namespace {

using Clock = std::chrono::steady_clock;
using nlohmann::json;

constexpr auto kClaimPause = std::chrono::seconds(1);  // until a scan of another call is looked at
constexpr auto kIdle = std::chrono::milliseconds(20);

/// An outcome on its way from process to process.
std::string packed(const Outcome& outcome) {
  return json({{"kind", int(outcome.kind)}, {"text", outcome.text}, {"notices", outcome.notices}})
      .dump(-1, ' ', false, json::error_handler_t::replace);
}

Outcome unpacked(const std::string& answer) {
  const json outcome = json::parse(answer);
  return {Outcome::Kind(outcome.at("kind").get<int>()), outcome.at("text"), outcome.at("notices")};
}

std::string nameOf(const Source& source) { return source.stem.empty() ? source.path : source.stem; }

/// A run over a list of scans.
class Run {
 public:
  Run(const Options& options, const std::vector<Source>& scans)
      : options_(options),
        scans_(scans),
        pool_(options.limits),
        progress_(scans.size(), options.quiet),
        told_(scans.size()) {
    for (std::size_t i = 0; i < scans.size(); ++i) waiting_.push_back({i, {}, Clock::now()});
  }

  std::size_t operator()() {
    const scan::Unfinished children;  // an alarm has to wait for their end
    try {
      while (!waiting_.empty() || pool_.running()) {
        scan::checkInterrupted();
        startScans();
        for (const Ended& ended : pool_.collect()) take(ended);
        progress_.show(pool_.running());
        // All that is left is in the hands of other calls.
        if (!pool_.running() && !waiting_.empty() && waiting_.front().notBefore > Clock::now())
          std::this_thread::sleep_for(kIdle);
      }
    } catch (...) {
      pool_.stop();
      throw;
    }
    progress_.summary();
    return progress_.failed();
  }

 private:
  struct Waiting {
    std::size_t index;
    std::optional<std::uint64_t> memory;  // once it is known
    Clock::time_point notBefore;
  };

  void startScans() {
    while (!waiting_.empty()) {
      Waiting& next = waiting_.front();
      if (next.notBefore > Clock::now()) return;
      const Source& source = scans_[next.index];
      if (!next.memory) {
        const auto known = estimate(options_.study, source);
        next.memory = known ? known->memory : 0;
      }
      if (*next.memory > options_.limits.memory) {
        const std::string reason =
            scan::text("needs about ", scan::amount(*next.memory), " of memory, more than the ",
                       scan::amount(options_.limits.memory), " that the run may take");
        fail(next.index, reason);
      } else if (pool_.hasRoom(*next.memory)) {
        pool_.start(next.index, *next.memory,
                    [&] { return packed(stripOne(options_.study, source)); });
      } else {
        return;
      }
      waiting_.pop_front();
    }
  }

  void fail(std::size_t index, const std::string& reason) {
    try {
      noteFailure(options_.study, scans_[index], reason);
    } catch (const std::exception& error) {
      progress_.note(nameOf(scans_[index]), error.what());
    }
    progress_.ended(nameOf(scans_[index]), Progress::End::failed, reason);
  }

  void take(const Ended& ended) {
    const std::string name = nameOf(scans_[ended.index]);
    if (!ended.trouble.empty()) return fail(ended.index, ended.trouble);
    const Outcome outcome = unpacked(ended.answer);
    if (!options_.quiet)
      for (const std::string& notice : outcome.notices) progress_.note(name, "note: " + notice);
    switch (outcome.kind) {
      case Outcome::Kind::done:
        return progress_.ended(name, Progress::End::done, outcome.text);
      case Outcome::Kind::finished:
        return progress_.ended(name, Progress::End::finishedBefore, "");
      case Outcome::Kind::failed:
        return progress_.ended(name, Progress::End::failed, outcome.text);
      case Outcome::Kind::claimed:
        if (!told_[ended.index] && !options_.quiet)
          progress_.note(name, "note: another call works on it; waiting for that");
        told_[ended.index] = true;
        waiting_.push_back({ended.index, {}, Clock::now() + kClaimPause});
    }
  }

  const Options& options_;
  const std::vector<Source>& scans_;
  Pool pool_;
  Progress progress_;
  std::deque<Waiting> waiting_;
  std::vector<bool> told_;  // that another call works on the scan
};

}  // namespace

std::optional<Estimate> estimate(const Study& study, const Source& source) {
  std::optional<Estimate> result;
  if (!source.problem.empty()) return result;
  struct Enough {};
  try {
    scan::readScan((study.dataset / source.path).string(), study.volume,
                   [&](const scan::Header& header) {
                     result = {header.size, scan::memoryNeed(header, study.strip)};
                     throw Enough();
                   });
  } catch (const Enough&) {
  } catch (const std::exception&) {
  }
  return result;
}

std::size_t stripAll(const Options& options, const std::vector<Source>& scans) {
  return Run(options, scans)();
}

std::vector<Source> missing(const Options& options, const std::vector<Source>& scans) {
  Pool pool({.jobs = options.limits.jobs, .memory = options.limits.memory, .timeout = {}});
  std::vector<bool> finished(scans.size());
  const scan::Unfinished children;
  for (std::size_t next = 0; next < scans.size() || pool.running();) {
    scan::checkInterrupted();
    for (; next < scans.size() && pool.hasRoom(0); ++next)
      pool.start(next, 0, [&] { return isFinished(options.study, scans[next]) ? "yes" : "no"; });
    for (const Ended& ended : pool.collect()) finished[ended.index] = ended.answer == "yes";
  }
  std::vector<Source> result;
  for (std::size_t i = 0; i < scans.size(); ++i)
    if (!finished[i]) result.push_back(scans[i]);
  return result;
}

}  // namespace tavrel::cohort
