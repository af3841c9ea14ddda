#include "strip_one.h"

#include <sys/resource.h>

#include <algorithm>
#include <chrono>

#include "layout.h"
#include "ledger.h"
#include "oddities.h"
#include "record.h"
#include "report/preview.h"
#include "scan/checksum.h"
#include "scan/format.h"
#include "scan/interrupt.h"
#include "scan/nifti/scan.h"
#include "scan/output.h"
#include "scan/report.h"
#include "text_file.h"

namespace tavrel::cohort {
namespace {

namespace fs = std::filesystem;
using scan::OutputError;
using scan::PendingFile;
using scan::text;

constexpr char kInterrupted[] = "was interrupted; the next run does it";

bool isThere(const fs::path& file) {
  std::error_code failure;
  return fs::exists(file, failure);
}

std::string checksumIfThere(const fs::path& file) {
  return isThere(file) ? scan::sha256(file) : "";
}

double peakMemoryMb() {
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  return double(usage.ru_maxrss) / 1024;
}

/// A scan held against what is there.
struct Judgement {
  Record record;          ///< of the outputs as they will be
  fs::path fromMask;      ///< to be used instead of stripping; or empty
  bool keepMask = false;  ///< it is the mask in the output folder
  bool finished = false;
};

Judgement judge(const Study& study, const Source& source, const ScanFiles& files,
                const std::optional<Unfinished>& note) {
  Judgement result;
  result.record = {.version = scan::kVersion,
                   .settings = settingsOf(study),
                   .inputSha256 = scan::sha256(study.dataset / source.path),
                   .maskSha256 = checksumIfThere(files.mask),
                   .madeForSha256 = {},
                   .givenSha256 = {},
                   .manual = false,
                   .row = {}};
  const auto old = readRecord(files.maskInfo);
  const std::string& mask = result.record.maskSha256;
  const bool recorded = old && old->maskSha256 == mask;
  const bool ours = recorded || (note && std::count(note->masks.begin(), note->masks.end(), mask));
  const bool edited =
      !mask.empty() && (!ours || (recorded && old->manual && old->givenSha256.empty()));
  const fs::path given = edited ? fs::path() : givenMask(study, source);
  if (!given.empty()) {
    result.fromMask = given;
    result.record.givenSha256 = scan::sha256(given);
  } else if (edited || (recorded && old->manual)) {
    result.fromMask = files.mask;
    result.keepMask = true;
    // A mask that was changed now was changed for the scan as it was at the last call.
    const bool known = recorded && !old->madeForSha256.empty();
    result.record.madeForSha256 = known ? old->madeForSha256
                                  : old ? old->inputSha256
                                        : result.record.inputSha256;
    if (recorded) result.record.givenSha256 = old->givenSha256;
  }
  result.record.manual = !result.fromMask.empty();
  result.finished =
      !study.force && !note && recorded && old->version == scan::kVersion &&
      old->inputSha256 == result.record.inputSha256 && old->manual == result.record.manual &&
      old->givenSha256 == result.record.givenSha256 &&
      (old->manual || old->settings == result.record.settings) && isThere(files.brain) &&
      isThere(files.brainInfo) && isThere(files.mosaic) && isThere(files.preview);
  return result;
}

/// A scan that this process has taken.
class Work {
 public:
  Work(const Study& study, const Source& source, const ScanFiles& files, Claim& claim)
      : study_(study), source_(source), files_(files), claim_(claim) {}

  Outcome operator()() {
    if (claim_.note()) masks_ = claim_.note()->masks;
    try {
      if (!source_.problem.empty()) throw scan::ScanError(source_.problem);
      if (const auto reason = absence(study_.dataset / source_.path); !reason.empty())
        throw scan::ScanError(reason);
      judgement_ = judge(study_, source_, files_, claim_.note());
      if (judgement_.finished) return {Outcome::Kind::finished, "", {}};
      return strip();
    } catch (const scan::Interrupted&) {
      throw;
    } catch (const std::exception& error) {
      claim_.write(source_, {error.what(), masks_});
      return {Outcome::Kind::failed, error.what(), {}};
    }
  }

 private:
  Outcome strip() {
    claim_.write(source_, {kInterrupted, masks_});
    for (const fs::path& file : {files_.mask, files_.mosaic}) makeFolder(file.parent_path());
    scan::JobObserver observer;
    observer.onWritten = [this](const scan::Scan& scan, const scan::ScanResult& result,
                                std::vector<PendingFile>& files) { addInfo(scan, result, files); };
    scan::ScanResult result = scan::stripFile(job(), observer);
    if (!result.done) throw scan::ScanError(result.reason);
    claim_.finish();
    return {Outcome::Kind::done, figures(result), notices_};
  }

  scan::ScanJob job() const {
    return {.input = (study_.dataset / source_.path).string(),
            .volume = study_.volume,
            .fromMask = judgement_.fromMask.string(),
            .outputs = {.brain = files_.brain,
                        .mask = judgement_.keepMask ? fs::path() : files_.mask,
                        .phi = {},
                        .qc = files_.mosaic},
            .strip = study_.strip,
            .force = true};
  }

  std::string figures(const scan::ScanResult& result) const {
    return text(scan::print("%.0f mL, ", result.volumeMl),
                judgement_.record.manual ? "mask as given" : scan::weight(result.w5),
                scan::print(", %.1f s", result.seconds));
  }

  /// The preview and the sidecars, to be put in place with the volumes.
  void addInfo(const scan::Scan& scan, scan::ScanResult result, std::vector<PendingFile>& files) {
    Record& record = judgement_.record;
    for (const PendingFile& file : files)
      if (file.target() == files_.mask) takeMask(scan::sha256(file.temporary()));
    if (judgement_.keepMask && checksumIfThere(files_.mask) != record.maskSha256)
      throw OutputError("its mask was changed while it was read; run again");
    noteOddities(scan, result);
    if (record.madeForSha256 != record.inputSha256 && !record.madeForSha256.empty())
      result.notices.push_back("the scan has changed since its mask was made by hand");
    notices_ = result.notices;
    for (const scan::Flag& flag : result.flags) notices_.push_back(flag.text);
    record.row.seconds = std::chrono::duration<double>(Clock::now() - start_).count();
    record.row.peakMemoryMb = peakMemoryMb();
    const auto read = [&](std::size_t first, std::span<float> values) {
      scan::intensities(scan, first, values);
    };
    add(files_.preview, report::previewFile(read, scan.header), scan.permissions, files);
    add(files_.brainInfo, bytesOf(brainInfo(source_)), scan.permissions, files);
    add(files_.maskInfo, bytesOf(maskInfo(study_, source_, result, record)), scan.permissions,
        files);
  }

  /// Remembers a mask of ours before it is in place: should the process be killed before its record
  /// is, nobody will take it for a person's.
  void takeMask(const std::string& checksum) {
    if (checksumIfThere(files_.mask) != judgement_.record.maskSha256)
      throw OutputError("its mask was changed while it was stripped; run again");
    judgement_.record.maskSha256 = checksum;
    masks_.push_back(checksum);
    claim_.write(source_, {kInterrupted, masks_});
  }

  static std::span<const std::byte> bytesOf(const std::string& text) {
    return std::as_bytes(std::span(text));
  }

  static void add(const fs::path& target, std::span<const std::byte> content, mode_t mode,
                  std::vector<PendingFile>& files) {
    scan::checkTarget(target, true);
    files.push_back(scan::writePending(target, content, mode));
  }

  using Clock = std::chrono::steady_clock;

  const Study& study_;
  const Source& source_;
  const ScanFiles& files_;
  Claim& claim_;
  Judgement judgement_;
  std::vector<std::string> masks_;    // of ours that may be in place
  std::vector<std::string> notices_;  // and flags, in words
  Clock::time_point start_ = Clock::now();
};

}  // namespace

// By BIDS, in the folder itself or as in a dataset.
fs::path givenMask(const Study& study, const Source& source) {
  if (study.masks.empty()) return {};
  const fs::path below = fs::path(source.participant) / source.session / "anat";
  for (const fs::path& folder : {study.masks, study.masks / below})
    for (const char* ending : {kMask, "_desc-brain_mask.nii", "_mask.nii.gz", "_mask.nii"})
      if (fs::path file = folder / (source.stem + ending); isThere(file)) return file;
  return {};
}

Outcome stripOne(const Study& study, const Source& source) {
  const ScanFiles files = filesOf(study.output, source);
  try {
    auto claim = Claim::take(files.unfinished);
    if (!claim) return {Outcome::Kind::claimed, "", {}};
    return Work(study, source, files, *claim)();
  } catch (const std::exception& error) {  // not even the failure could be noted
    return {Outcome::Kind::failed, error.what(), {}};
  }
}

bool isFinished(const Study& study, const Source& source) {
  const ScanFiles files = filesOf(study.output, source);
  try {
    if (!source.problem.empty() || !isThere(files.maskInfo) || isThere(files.unfinished))
      return false;
    return judge(study, source, files, {}).finished;
  } catch (const std::exception&) {
    return false;
  }
}

void noteFailure(const Study& study, const Source& source, const std::string& reason) {
  auto claim = Claim::take(filesOf(study.output, source).unfinished);
  if (!claim) return;
  const auto masks = claim->note() ? claim->note()->masks : std::vector<std::string>();
  claim->write(source, {reason, masks});
}

}  // namespace tavrel::cohort
