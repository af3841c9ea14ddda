// Output folders as the participant level leaves them, made of small phantoms.
#pragma once

#include <nifti/nifti2_io.h>

#include <cmath>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "phantom.h"
#include "report/preview.h"
#include "report/report.h"
#include "scan/nifti/writer.h"
#include "scan/picture.h"

namespace test_cohort {

namespace fs = std::filesystem;
using namespace tavrel;
using tavrel::cohort::Row;

/// A scan of 16-bit voxels whose axes lie obliquely in the patient, the first to the right.
inline scan::Scan makeScan(const scan::Size& size, const std::vector<double>& values) {
  nifti_1_header fields = {};
  fields.sizeof_hdr = sizeof fields;
  std::copy_n("n+1", 4, fields.magic);
  fields.dim[0] = 3;
  for (int d = 0; d < 3; ++d) fields.dim[d + 1] = short(size[d]);
  fields.datatype = NIFTI_TYPE_INT16;
  fields.bitpix = 16;
  fields.vox_offset = 352;
  fields.scl_slope = 1;
  fields.xyzt_units = NIFTI_UNITS_MM;
  const float spacing[] = {-1, 2, 2.5f, 2};  // with the sign of the third axis in front
  std::copy_n(spacing, 4, fields.pixdim);
  fields.qform_code = fields.sform_code = NIFTI_XFORM_SCANNER_ANAT;
  fields.quatern_b = 0.1f, fields.quatern_c = -0.05f, fields.quatern_d = 0.02f;
  fields.qoffset_x = -60, fields.qoffset_y = -80, fields.qoffset_z = 70;
  const auto q =
      nifti_quatern_to_dmat44(fields.quatern_b, fields.quatern_c, fields.quatern_d,
                              fields.qoffset_x, fields.qoffset_y, fields.qoffset_z, 2, 2.5, 2, -1);
  for (int c = 0; c < 4; ++c) {
    fields.srow_x[c] = float(q.m[0][c]);
    fields.srow_y[c] = float(q.m[1][c]);
    fields.srow_z[c] = float(q.m[2][c]);
  }
  scan::Scan result;
  const auto bytes = std::as_bytes(std::span(&fields, 1));
  result.header = scan::parseHeader(bytes);
  for (const double value : values) {
    const auto stored = std::int16_t(std::lround(value));
    const auto voxel = std::as_bytes(std::span(&stored, 1));
    result.stored.insert(result.stored.end(), voxel.begin(), voxel.end());
  }
  return result;
}

inline void writeBytes(const fs::path& path, std::span<const std::byte> bytes) {
  fs::create_directories(path.parent_path());
  std::vector<scan::PendingFile> file;
  file.push_back(scan::writePending(path, bytes, 0666));
  commitTogether(file, true);
}

/// A row with plausible figures that differ from scan to scan.
inline Row makeRow(int i) {
  const std::string number = std::to_string(10000 + i).substr(1);
  const double spread = std::sin(i * 12.9898) * 2;
  Row row;
  row.participant = "sub-" + number;
  row.scan = row.participant;
  row.status = "done";
  row.volumeMl = 1400 + 90 * spread;
  row.zVolume = spread;
  row.w5 = 1 + 0.1 * (i % 3);
  row.confidence = 0.95 - 0.1 * (i % 4);
  row.seconds = 1 + 0.1 * (i % 17);
  row.peakMemoryMb = 420 + i % 50;
  if (i % 10 == 3) row.flags = {{"leak", "the mask seems to leak out of the skull"}};
  return row;
}

/// Writes what the participant level leaves of a scan: the phantom and its own brain as mask.
inline void writeScan(const fs::path& output, const Row& row, const scan::Size& size) {
  Phantom phantom = makePhantom(size[0], size[1], size[2]);
  for (double& value : phantom.image) value = std::round(1000 * std::max(0.0, value));
  const scan::Scan scan = makeScan(size, phantom.image);
  const std::vector<char> mask(phantom.brain.begin(), phantom.brain.end());
  const fs::path folder = output / row.participant / row.session;
  const std::string anat = folder / "anat" / row.scan, figures = folder / "figures" / row.scan;
  fs::create_directories(folder / "anat");
  std::vector<scan::PendingFile> file;
  file.push_back(scan::writeMask(anat + "_desc-brain_mask.nii.gz", scan, mask));
  commitTogether(file, true);
  writeBytes(figures + "_desc-preview_T1w.nii.gz",
             report::previewFile(scan::readerOf(phantom.image), scan.header));
  writeBytes(figures + "_desc-brain_mosaic.png",
             scan::drawPicture({scan::readerOf(phantom.image), mask, size, scan.header.spacing,
                                scan.header.orientation, row.scan, "phantom"}));
  const nlohmann::ordered_json sidecar = {
      {"Type", "Brain"},
      {"Tavrel",
       {{"Version", "1.0.0"},
        {"Settings", {{"w5", "auto"}, {"finish", {{"open_mm", 2}, {"largest", true}}}}},
        {"CommandLine", "tavrel-bids /data/raw /data/out participant --jobs 4"},
        {"InputSha256", std::string(64, 'a')},
        {"Size", size},
        {"VoxelMm", scan.header.spacing},
        {"Notices", {"qform and sform differ by 0.4 mm; the sform is used"}}}}};
  const std::string text = sidecar.dump(2);
  writeBytes(anat + "_desc-brain_mask.json", std::as_bytes(std::span(text)));
}

}  // namespace test_cohort
