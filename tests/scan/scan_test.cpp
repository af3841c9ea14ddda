#include "scan/nifti/scan.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <functional>
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

/// So many different voxels.
std::vector<std::int16_t> counting(std::size_t count) {
  std::vector<std::int16_t> voxels(count);
  std::iota(voxels.begin(), voxels.end(), std::int16_t(-7));
  return voxels;
}

class ScanFile : public testing::Test {
 protected:
  TemporaryFolder folder_;
  const fs::path path_ = folder_ / "a.nii";
};

TEST_F(ScanFile, EveryDatatypeVersionAndByteOrderGivesTheVoxelsThatWereWritten) {
  for (const int datatype : kDatatypes)
    for (const int version : {1, 2})
      withVoxelType(datatype, [&]<class T>(std::type_identity<T>) {
        std::vector<T> voxels(120);
        for (int v = 0; v < 120; ++v)
          voxels[std::size_t(v)] = std::is_signed_v<T> ? T(v - 60) : T(v + 100);
        voxels[3] = std::numeric_limits<T>::lowest();
        voxels[4] = std::numeric_limits<T>::max();
        const std::vector<double> expected(voxels.begin(), voxels.end());
        for (const bool swapped : {false, true}) {
          writeNifti(path_, {.datatype = datatype, .version = version, .swapped = swapped}, voxels);
          const Scan scan = readScan(path_);
          EXPECT_EQ(scan.header.swapped, swapped);
          EXPECT_EQ(scan.header.size, (Size{4, 5, 6}));
          EXPECT_EQ(values(scan), expected) << "datatype " << datatype << " swapped " << swapped;
        }
      });
}

TEST_F(ScanFile, IsFoundByItsNameItsStemAndThatOfItsSecondFile) {
  const auto voxels = counting(120);
  const std::vector<double> expected(voxels.begin(), voxels.end());
  const auto expectAll = [&](std::initializer_list<const char*> names, const char* image) {
    for (const char* name : names) {
      const Scan scan = readScan(folder_ / name);
      EXPECT_EQ(scan.header.pair, *image != '\0');
      EXPECT_EQ(scan.imagePath, *image ? (folder_ / image).string() : "");
      EXPECT_EQ(values(scan), expected) << name;
    }
  };
  for (const int version : {1, 2}) {
    writeNifti(folder_ / "pair.hdr", {.version = version, .pair = true}, voxels);
    expectAll({"pair.hdr", "pair.img", "pair"}, "pair.img");
  }
  writeNifti(folder_ / "zipped.hdr.gz", {.pair = true}, voxels);
  expectAll({"zipped.hdr.gz", "zipped.img.gz", "zipped"}, "zipped.img.gz");
  writeNifti(folder_ / "one.nii.gz", {}, voxels);
  expectAll({"one.nii.gz", "one"}, "");
  fs::rename(folder_ / "one.nii.gz", folder_ / "BIG.NII.GZ");
  expectAll({"BIG.NII.GZ", "BIG"}, "");

  fs::remove(folder_ / "pair.img");
  EXPECT_EQ(refusal(folder_ / "pair.hdr"), "has no image file (.img) beside it");
  fs::rename(folder_ / "pair.hdr", folder_ / "other.img");
  EXPECT_EQ(refusal(folder_ / "other.img"), "has no header file (.hdr) beside it");
  mkfifo((folder_ / "pipe.nii").c_str(), 0600);
  EXPECT_EQ(refusal(folder_ / "pipe.nii"), "is not a regular file");
  EXPECT_EQ(refusal(folder_ / "missing.nii"), "does not exist");
  EXPECT_EQ(refusal(folder_.path()), "is a folder");
  writeBytes(folder_ / "text.txt", {'h', 'i'});
  EXPECT_EQ(refusal(folder_ / "text.txt"), "does not end in .nii, .nii.gz, .hdr or .img");
}

TEST(Header, GivesMillimetresAndOrientation) {
  const auto parsedAfter = [&](auto change) {
    auto fields = headerOf<nifti_1_header>({}, 4);
    change(fields);
    return parseHeader(std::as_bytes(std::span(&fields, 1)));
  };
  const Header header = parsedAfter([](auto&) {});
  EXPECT_FLOAT_EQ(float(header.spacing[1]), 0.9f);
  ASSERT_TRUE(header.orientation);  // the sform's first axis runs to the patient's left
  EXPECT_EQ(header.orientation->axis, (std::array{0, 1, 2}));
  EXPECT_EQ(header.orientation->ascending, (std::array{true, true, true}));
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

  Header odd = parsedAfter([](auto& h) { h.pixdim[2] = std::nanf(""), h.pixdim[3] = -1.4f; });
  EXPECT_NEAR(odd.spacing[1], 0.9, 0.02) << "as in the sform";
  EXPECT_FLOAT_EQ(float(odd.spacing[2]), 1.4f);
  EXPECT_EQ(odd.notices.size(), 1u);
  EXPECT_EQ(odd.distortion, "");
  odd = parsedAfter([](auto& h) { h.pixdim[2] = 1e9f, h.sform_code = 0; });
  EXPECT_EQ(odd.spacing[1], 1);
  EXPECT_EQ(odd.distortion, "the voxel size along axis 2 is not known");
  odd = parsedAfter([](auto& h) { h.pixdim[3] = 2, h.qform_code = 0; });
  EXPECT_NE(odd.distortion.find("axis 3 is taken as 2 mm, but is 1.4"), std::string::npos);
  odd = parsedAfter([](auto& h) { h.srow_y[0] = 0.5, h.sform_code = 1; });
  EXPECT_NE(odd.distortion.find("right angles"), std::string::npos);
  odd = parsedAfter([](auto& h) { h.srow_x[0] = h.srow_y[0] = h.srow_z[0] = 0; });
  EXPECT_TRUE(odd.orientation) << "of the qform";
  EXPECT_EQ(odd.distortion, "");
  EXPECT_EQ(odd.transforms.size(), 1u);
}

TEST_F(ScanFile, ScalingIsAppliedWhereItChangesComparisons) {
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
        {nan, 5, {0, 1, 2, -3, 100, 32767}, 0},
        {-1, 0, {0, -1, -2, 3, -100, -32767}, 0},
        {0.5, -1024, {-1024, -1023.5, -1023, -1025.5, -974, 15359.5}, 2048},
        {1, 1e9, {1e9, 1e9 + 1, 1e9 + 2, 1e9 - 3, 1e9 + 100, 1e9 + 32767}, -32768}}) {
    writeNifti(path_, {.size = {6, 1, 1}, .slope = c.slope, .inter = c.inter}, voxels);
    const Scan scan = readScan(path_);
    EXPECT_EQ(values(scan), c.expected) << c.slope;
    EXPECT_EQ(loadVoxel<std::int16_t>(storedZero(scan.header).data(), false), c.zero) << c.slope;
  }
}

TEST_F(ScanFile, OneVolumeOfSeveralIsChosen) {
  writeNifti(path_, {.volumes = 3}, counting(360));
  EXPECT_EQ(refusal(path_), "holds 3 volumes; choose one with --volume 0 to 2");
  EXPECT_EQ(refusal(path_, 3), "has no volume 3; it holds 3 volumes, counted from 0");
  EXPECT_EQ(refusal(path_, -1), "has no volume -1; it holds 3 volumes, counted from 0");
  for (const int volume : {0, 1, 2})
    EXPECT_EQ(values(readScan(path_, volume))[5], 120 * volume - 2);
  writeNifti(path_, {.volumes = 1}, counting(120));
  EXPECT_EQ(refusal(path_), "");
}

TEST_F(ScanFile, EveryTruncationIsNoticed) {
  std::vector<std::int16_t> voxels(120);
  for (std::size_t v = 0; v < voxels.size(); ++v) voxels[v] = std::int16_t(v * v * 7919);
  for (const char* name : {"a.nii", "a.nii.gz"}) {
    writeNifti(folder_ / name, {}, voxels);
    const Bytes whole = readBytes(folder_ / name);
    for (std::size_t part = 0; part < 40; ++part) {
      const std::size_t size = part < 30 ? whole.size() * part / 30 : whole.size() - (40 - part);
      writeBytes(folder_ / name, Bytes(whole.begin(), whole.begin() + std::ptrdiff_t(size)));
      const std::string reason = refusal(folder_ / name);
      EXPECT_TRUE(size == 0 ? reason == "is empty"
                            : reason.starts_with("is truncated") || reason == "is not a NIfTI file")
          << size << " of " << whole.size() << ": " << reason;
    }
    Bytes damaged = whole;
    damaged[damaged.size() - 6] ^= 1;  // the checksum of the compressed file
    writeBytes(folder_ / name, damaged);
    EXPECT_EQ(refusal(folder_ / name).starts_with("is damaged"), whole[0] == '\x1f');
  }
}

TEST_F(ScanFile, UnusableHeadersAreRefusedWithAReason) {
  using Fields = nifti_1_header;
  const auto dims = [](std::initializer_list<short> sizes) {
    return
        [sizes = std::vector(sizes)](Fields& h) { std::copy(sizes.begin(), sizes.end(), h.dim); };
  };
  const auto offset = [](float to) { return [to](Fields& h) { h.vox_offset = to; }; };
  const auto datatype = [](short to) { return [to](Fields& h) { h.datatype = to; }; };
  const auto magic = [](char first) { return [first](Fields& h) { h.magic[0] = first; }; };
  struct Case {
    std::function<void(Fields&)> change;
    std::string reason;  // its beginning
  };
  const std::string badOffset = "has an impossible data offset, ";
  for (const auto& [change, reason] :
       {Case{dims({2, 4, 30}), "has 2 dimensions; a head needs three"},
        {dims({9}), "has an impossible number of dimensions, 9"},
        {dims({3, 4, -5, 6}), "has an impossible size, -5 along dimension 2"},
        // With the padding of the method.
        {dims({3, 1290, 1290, 1290}), "has more voxels than fit the 32-bit sizes of the method"},
        {dims({7, 4, 5, 6, 32767, 32767, 32767, 32767}), "has an absurd number of volumes"},
        // Two billion voxels that the file does not have: refused before they are allocated.
        {dims({3, 1200, 1300, 1300}), "is truncated (its header announces"},
        {datatype(NIFTI_TYPE_COMPLEX64),
         "holds voxels of type COMPLEX64 (code 32), not real numbers"},
        {datatype(NIFTI_TYPE_RGB24), "holds voxels of type RGB24 (code 128), not real numbers"},
        {magic(0), "is an ANALYZE 7.5"},
        {magic('x'), "is not a NIfTI file (wrong magic)"},
        {[](Fields& h) { h.sizeof_hdr = 42; }, "is not a NIfTI file"},
        {offset(-1), badOffset},
        {offset(3), badOffset},
        {offset(400.5), badOffset},
        {offset(1e30f), badOffset},
        {offset(std::nanf("")), badOffset},
        {offset(1e9f), "carries more than"}}) {
    writeNifti(path_, {}, counting(120));
    Bytes bytes = readBytes(path_);
    auto header = headerOf<Fields>({}, 20);
    change(header);
    std::memcpy(bytes.data(), &header, sizeof header);
    writeBytes(path_, bytes);
    EXPECT_TRUE(refusal(path_).starts_with(reason)) << refusal(path_) << ", not " << reason;
  }
  auto large = headerOf<nifti_2_header>({.version = 2}, 4);
  large.dim[1] = large.dim[2] = large.dim[3] = std::numeric_limits<std::int64_t>::max();
  EXPECT_THROW(parseHeader(std::as_bytes(std::span(&large, 1))), ScanError);
}

TEST_F(ScanFile, HeadersOfOutputsDifferOnlyWhereTheyMust) {
  const auto bytesOf = [](const Header& header) {
    const auto bytes = headerBytes(header);
    const auto* first = reinterpret_cast<const char*>(bytes.data());
    return Bytes(first, first + bytes.size());
  };
  for (const int version : {1, 2})
    for (const bool swapped : {false, true}) {
      FileLayout layout{
          .volumes = 3, .version = version, .swapped = swapped, .slope = 2, .inter = 1};
      writeNifti(path_, layout, counting(360));
      const Scan scan = readScan(path_, 1);
      layout.volumes = 0;
      writeNifti(path_, layout, counting(120));
      const Bytes one = readBytes(path_);
      const Bytes header = bytesOf(oneVolumeHeader(scan.header, scan.extensions.size()));
      EXPECT_TRUE(std::equal(header.begin(), header.end(), one.begin()));
      EXPECT_EQ(std::memcmp(&one[header.size()], scan.extensions.data(), 20), 0);

      const Header mask =
          parseHeader(headerBytes(derivedHeader(scan.header, NIFTI_TYPE_UINT8, 0, 1)));
      EXPECT_EQ(mask.datatype, NIFTI_TYPE_UINT8);
      EXPECT_EQ(mask.slope, 1);
      EXPECT_EQ(mask.inter, 0);
      EXPECT_EQ(mask.volumes, 1);
      EXPECT_EQ(mask.swapped, swapped);
      EXPECT_EQ(mask.dataOffset, version == 1 ? 352 : 544);
      EXPECT_EQ(mask.spacing, scan.header.spacing);
    }
}

}  // namespace
