#include "scan/nifti/scan.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <limits>
#include <numeric>

#include "nifti_files.h"
#include "scan/nifti/datatype.h"

namespace {

using namespace tavrel::scan;
using namespace test_files;

std::vector<double> values(const Scan& scan) {
  std::vector<double> result(voxelCount(scan.header.size));
  intensities(scan, result);
  return result;
}

/// The reason why a file is refused, or "" if it is read.
std::string refusal(const fs::path& path, std::optional<std::int64_t> volume = {}) {
  try {
    readScan(path, volume);
    return "";
  } catch (const ScanError& error) {
    return error.what();
  }
}

constexpr int kDatatypes[] = {NIFTI_TYPE_UINT8,   NIFTI_TYPE_INT8,    NIFTI_TYPE_INT16,
                              NIFTI_TYPE_UINT16,  NIFTI_TYPE_INT32,   NIFTI_TYPE_UINT32,
                              NIFTI_TYPE_INT64,   NIFTI_TYPE_UINT64,  NIFTI_TYPE_FLOAT32,
                              NIFTI_TYPE_FLOAT64, NIFTI_TYPE_FLOAT128};

TEST(Scan, EveryDatatypeVersionAndByteOrderGivesTheVoxelsThatWereWritten) {
  const TemporaryFolder folder;
  for (const int datatype : kDatatypes)
    for (const int fileType : {NIFTI_FTYPE_NIFTI1_1, NIFTI_FTYPE_NIFTI2_1})
      withVoxelType(datatype, [&]<class T>(std::type_identity<T>) {
        const FileLayout layout{.datatype = datatype, .fileType = fileType};
        std::vector<T> voxels(120);
        for (int v = 0; v < 120; ++v)
          voxels[std::size_t(v)] = std::is_signed_v<T> ? T(v - 60) : T(v + 100);
        voxels[3] = std::numeric_limits<T>::lowest();
        voxels[4] = std::numeric_limits<T>::max();
        const auto path = folder / "a.nii";
        const std::vector<double> expected(voxels.begin(), voxels.end());
        for (const bool swapped : {false, true}) {
          writeNifti(path, layout, voxels);
          if (swapped) swapByteOrder(path, sizeof(T));
          const Scan scan = readScan(path);
          EXPECT_EQ(scan.header.swapped, swapped);
          EXPECT_EQ(scan.header.size, (Size{4, 5, 6}));
          EXPECT_EQ(values(scan), expected) << "datatype " << datatype << " swapped " << swapped;
        }
      });
}

TEST(Scan, PairsAndCompressedFilesAreFoundByEitherNameOrTheStem) {
  const TemporaryFolder folder;
  std::vector<std::int16_t> voxels(120);
  std::iota(voxels.begin(), voxels.end(), std::int16_t(-7));
  const std::vector<double> expected(voxels.begin(), voxels.end());
  for (const int fileType : {NIFTI_FTYPE_NIFTI1_2, NIFTI_FTYPE_NIFTI2_2}) {
    writeNifti(folder / "pair.hdr", {.fileType = fileType}, voxels);
    for (const char* name : {"pair.hdr", "pair.img", "pair"}) {
      const Scan scan = readScan(folder / name);
      EXPECT_TRUE(scan.header.pair);
      EXPECT_EQ(scan.imagePath, folder / "pair.img");
      EXPECT_EQ(values(scan), expected) << name;
    }
  }
  writeNifti(folder / "zipped.hdr.gz", {.fileType = NIFTI_FTYPE_NIFTI1_2}, voxels);
  EXPECT_EQ(values(readScan(folder / "zipped.hdr.gz")), expected);
  writeNifti(folder / "one.nii.gz", {}, voxels);
  EXPECT_EQ(values(readScan(folder / "one.nii.gz")), expected);

  fs::remove(folder / "pair.img");
  EXPECT_EQ(refusal(folder / "pair.hdr"), "has no image file (.img) beside it");
  fs::rename(folder / "pair.hdr", folder / "other.img");
  EXPECT_EQ(refusal(folder / "other.img"), "has no header file (.hdr) beside it");
}

TEST(Scan, GeometryComesInMillimetresWithOrientation) {
  const TemporaryFolder folder;
  const auto path = folder / "a.nii";
  writeNifti(path, {}, std::vector<std::int16_t>(120));
  Header header = readScan(path).header;
  EXPECT_FLOAT_EQ(float(header.spacing[1]), 0.9f);
  ASSERT_TRUE(header.orientation);  // the sform's first axis runs to the patient's left
  EXPECT_EQ(header.orientation->axis, (std::array{0, 1, 2}));
  EXPECT_EQ(header.orientation->ascending, (std::array{true, true, true}));

  const auto parsedAfter = [&](auto change) {
    auto fields = std::get<nifti_1_header>(header.fields);
    change(fields);
    return parseHeader(std::as_bytes(std::span(&fields, 1)));
  };
  EXPECT_NEAR(parsedAfter([](auto& h) { h.xyzt_units = NIFTI_UNITS_MICRON; }).spacing[1], 9e-4,
              1e-9);
  EXPECT_FALSE(parsedAfter([](auto& h) { h.sform_code = h.qform_code = 0; }).orientation);
  const Header sagittal = parsedAfter([](auto& h) {  // x to the back, y to the top, z to the right
    h.srow_x[0] = 0, h.srow_x[1] = 0, h.srow_x[2] = 1;
    h.srow_y[0] = -1, h.srow_y[1] = 0, h.srow_y[2] = 0;
    h.srow_z[0] = 0, h.srow_z[1] = 1, h.srow_z[2] = 0;
  });
  ASSERT_TRUE(sagittal.orientation);
  EXPECT_EQ(sagittal.orientation->axis, (std::array{2, 0, 1}));
  EXPECT_EQ(sagittal.orientation->ascending, (std::array{false, false, true}));

  const Header odd = parsedAfter([](auto& h) {
    h.pixdim[2] = std::nanf("");
    h.pixdim[3] = -2;
  });
  EXPECT_EQ(odd.spacing[1], 1);
  EXPECT_EQ(odd.spacing[2], 2);
  EXPECT_EQ(odd.notices.size(), 1u);
}

TEST(Scan, ScalingIsAppliedWhereItChangesComparisons) {
  const TemporaryFolder folder;
  const auto path = folder / "a.nii";
  const std::vector<std::int16_t> voxels = {0, 1, 2, -3, 100, 32767};
  struct Case {
    double slope, inter;
    std::vector<double> expected;
    std::int16_t zero;  // stored value that stands for 0
  };
  const double nan = std::nan("");
  for (const Case& c :
       {Case{0, 5, {0, 1, 2, -3, 100, 32767}, 0},
        {2.5, 0, {0, 1, 2, -3, 100, 32767}, 0},
        {nan, nan, {0, 1, 2, -3, 100, 32767}, 0},
        {-1, 0, {0, -1, -2, 3, -100, -32767}, 0},
        {0.5, -1024, {-1024, -1023.5, -1023, -1025.5, -974, 15359.5}, 2048},
        {1, 1e9, {1e9, 1e9 + 1, 1e9 + 2, 1e9 - 3, 1e9 + 100, 1e9 + 32767}, -32768}}) {
    writeNifti(path, {.size = {6, 1, 1}, .slope = c.slope, .inter = c.inter}, voxels);
    const Scan scan = readScan(path);
    EXPECT_EQ(values(scan), c.expected) << c.slope;
    EXPECT_EQ(loadVoxel<std::int16_t>(storedZero(scan.header).data(), false), c.zero) << c.slope;
  }
}

TEST(Scan, OneVolumeOfSeveralIsChosen) {
  const TemporaryFolder folder;
  const auto path = folder / "a.nii.gz";
  std::vector<std::int16_t> voxels(360);
  std::iota(voxels.begin(), voxels.end(), std::int16_t(0));
  writeNifti(path, {.volumes = 3}, voxels);
  EXPECT_EQ(refusal(path), "holds 3 volumes; choose one with --volume 0 to 2");
  EXPECT_EQ(refusal(path, 3), "has no volume 3; it holds 3 volumes, counted from 0");
  EXPECT_EQ(refusal(path, -1), "has no volume -1; it holds 3 volumes, counted from 0");
  for (const int volume : {0, 1, 2}) EXPECT_EQ(values(readScan(path, volume))[5], 120 * volume + 5);
  writeNifti(path, {.volumes = 1}, voxels);
  EXPECT_EQ(refusal(path), "");
}

TEST(Scan, EveryTruncationIsNoticed) {
  const TemporaryFolder folder;
  std::vector<std::int16_t> voxels(120);
  for (std::size_t v = 0; v < voxels.size(); ++v) voxels[v] = std::int16_t(v * v * 7919);
  for (const char* name : {"a.nii", "a.nii.gz"}) {
    writeNifti(folder / name, {}, voxels);
    const Bytes whole = readBytes(folder / name);
    for (std::size_t part = 0; part < 40; ++part) {
      const std::size_t size = part < 30 ? whole.size() * part / 30 : whole.size() - (40 - part);
      writeBytes(folder / name, Bytes(whole.begin(), whole.begin() + std::ptrdiff_t(size)));
      const std::string reason = refusal(folder / name);
      if (size == 0)
        EXPECT_EQ(reason, "is empty");
      else
        EXPECT_TRUE(reason.starts_with("is truncated") || reason == "is not a NIfTI file")
            << size << " of " << whole.size() << ": " << reason;
    }
    Bytes damaged = whole;
    damaged[damaged.size() - 6] ^= 1;  // the checksum of the compressed file
    writeBytes(folder / name, damaged);
    const bool compressed = std::string(name).ends_with(".gz");
    EXPECT_EQ(refusal(folder / name).starts_with("is damaged"), compressed)
        << refusal(folder / name);
  }
}

TEST(Scan, UnusableHeadersAreRefusedWithAReason) {
  const TemporaryFolder folder;
  const auto path = folder / "a.nii";
  writeNifti(path, {}, std::vector<std::int16_t>(120));
  const Bytes file = readBytes(path);
  const auto refusalAfter = [&](auto change) {
    Bytes bytes = file;
    nifti_1_header header;
    std::memcpy(&header, bytes.data(), sizeof header);
    change(header);
    std::memcpy(bytes.data(), &header, sizeof header);
    writeBytes(path, bytes);
    return refusal(path);
  };
  const auto setDims = [](auto& h, std::initializer_list<int> dims) {
    std::transform(dims.begin(), dims.end(), h.dim, [](int n) { return short(n); });
  };
  EXPECT_EQ(refusalAfter([&](auto& h) {
              setDims(h, {2, 4, 30});
            }),
            "has 2 dimensions; a head needs three");
  EXPECT_EQ(refusalAfter([&](auto& h) { setDims(h, {9}); }),
            "has an impossible number of dimensions, 9");
  EXPECT_EQ(refusalAfter([&](auto& h) {
              setDims(h, {3, 4, -5, 6});
            }),
            "has an impossible size, -5 along dimension 2");
  EXPECT_EQ(refusalAfter([&](auto& h) {
              setDims(h, {3, 1290, 1290, 1290});  // with the padding
            }),
            "has more voxels than fit the 32-bit sizes of the method");
  EXPECT_EQ(refusalAfter([&](auto& h) {
              setDims(h, {7, 4, 5, 6, 32767, 32767, 32767, 32767});
            }),
            "has an absurd number of volumes");
  // Two billion voxels that the file does not have: refused before they are allocated.
  EXPECT_TRUE(refusalAfter([&](auto& h) {
                setDims(h, {3, 1200, 1300, 1300});
              }).starts_with("is truncated (its header announces"));
  EXPECT_EQ(refusalAfter([](auto& h) { h.datatype = NIFTI_TYPE_COMPLEX64; }),
            "holds voxels of type COMPLEX64 (code 32), not real numbers");
  EXPECT_EQ(refusalAfter([](auto& h) { h.datatype = NIFTI_TYPE_RGB24; }),
            "holds voxels of type RGB24 (code 128), not real numbers");
  EXPECT_EQ(refusalAfter([](auto& h) { h.magic[0] = 0; }).substr(0, 17), "is an ANALYZE 7.5");
  EXPECT_EQ(refusalAfter([](auto& h) { h.magic[0] = 'x'; }), "is not a NIfTI file (wrong magic)");
  EXPECT_EQ(refusalAfter([](auto& h) { h.sizeof_hdr = 42; }), "is not a NIfTI file");
  for (const float offset : {-1.0f, 3.0f, 400.5f, 1e30f, std::nanf("")})
    EXPECT_TRUE(refusalAfter([&](auto& h) {
                  h.vox_offset = offset;
                }).starts_with("has an impossible data offset"))
        << offset;
  EXPECT_TRUE(refusalAfter([](auto& h) { h.vox_offset = 1e9f; }).starts_with("carries more than"));

  nifti_2_header large = {};
  large.sizeof_hdr = sizeof large;
  std::memcpy(large.magic, "n+2", 4);
  large.dim[0] = 3;
  large.dim[1] = large.dim[2] = large.dim[3] = std::numeric_limits<std::int64_t>::max();
  EXPECT_THROW(parseHeader(std::as_bytes(std::span(&large, 1))), ScanError);

  mkfifo((folder / "pipe.nii").c_str(), 0600);
  EXPECT_EQ(refusal(folder / "pipe.nii"), "is not a regular file");
  EXPECT_EQ(refusal(folder / "missing.nii"), "does not exist");
  EXPECT_EQ(refusal(folder.path()), "is a folder");
  writeBytes(folder / "text.txt", {'h', 'i'});
  EXPECT_EQ(refusal(folder / "text.txt"), "does not end in .nii, .nii.gz, .hdr or .img");
}

TEST(Header, DerivedHeadersDifferOnlyWhereTheyMust) {
  const TemporaryFolder folder;
  for (const int fileType : {NIFTI_FTYPE_NIFTI1_1, NIFTI_FTYPE_NIFTI2_1})
    for (const bool swapped : {false, true}) {
      const auto path = folder / "a.nii";
      writeNifti(path, {.fileType = fileType}, std::vector<std::int16_t>(120));
      if (swapped) swapByteOrder(path, 2);
      const Scan scan = readScan(path);
      const Bytes file = readBytes(path);
      const auto asChars = [](const std::vector<std::byte>& bytes) {
        const auto* first = reinterpret_cast<const char*>(bytes.data());
        return Bytes(first, first + bytes.size());
      };
      const Bytes original(file.begin(), file.end() - 240);
      Bytes again = asChars(headerBytes(oneVolumeHeader(scan.header, scan.extensions.size())));
      const Bytes extensions = asChars(scan.extensions);
      again.insert(again.end(), extensions.begin(), extensions.end());
      EXPECT_EQ(again, original);

      const Header mask =
          parseHeader(headerBytes(derivedHeader(scan.header, NIFTI_TYPE_UINT8, 0, 1)));
      EXPECT_EQ(mask.datatype, NIFTI_TYPE_UINT8);
      EXPECT_EQ(mask.swapped, swapped);
      EXPECT_EQ(mask.dataOffset, fileType == NIFTI_FTYPE_NIFTI1_1 ? 352 : 544);
      EXPECT_EQ(mask.spacing, scan.header.spacing);
    }
}

}  // namespace
