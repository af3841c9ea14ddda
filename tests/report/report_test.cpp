#include "report/report.h"

#include <gtest/gtest.h>

#include <fstream>

#include "cohort.h"
#include "process.h"
#include "report/assets.h"
#include "report/escape.h"
#include "report/files.h"
#include "scan/nifti/scan.h"

namespace {

namespace fs = std::filesystem;
using namespace tavrel;
using tavrel::test::readFile;
using Report = test::FolderTest;

constexpr scan::Size kSize = {20, 24, 18};

TEST(Escape, LeavesNoNameAMeaning) {
  EXPECT_EQ(report::html("<b a=\"'&\n\xff\xc3\xa9"), "&lt;b a=&quot;&#39;&amp;\\x0a\\xff\u00e9");
  EXPECT_EQ(report::scriptJson({{"</script>", "<!--&\u2028\xff"}}),
            "{\"\\u003c/script\\u003e\":\"\\u003c!--\\u0026\\u2028\\ufffd\"}");
  EXPECT_EQ(report::url("sub-1/a b%?#:\xc3\n.html"), "sub-1/a%20b%25%3F%23%3A%C3%0A.html");
  const auto base64 = [](std::string_view text) {
    return report::base64(std::as_bytes(std::span(text)));
  };
  EXPECT_EQ(base64("light work."), "bGlnaHQgd29yay4=");
  EXPECT_EQ(base64("light work"), "bGlnaHQgd29yaw==");
  EXPECT_EQ(base64("\xff\xfe\xfd"), "//79");
  const auto value = [](const std::string& name) { return name == "a" ? "{{b}}" : "1"; };
  EXPECT_EQ(report::filled("x{{a}}{{b}}y", value), "x{{b}}1y") << "values are not templates";
}

/// A file's bytes read back as a scan.
scan::Scan parse(const std::vector<std::byte>& file) {
  auto rest = std::span(file);
  const auto read = [&](std::span<std::byte> bytes) {
    const std::size_t got = std::min(bytes.size(), rest.size());
    std::copy_n(rest.begin(), got, bytes.begin());
    rest = rest.subspan(got);
    return got;
  };
  return scan::readScan({read, file.size()}, {});
}

/// Where a voxel lies by the sform or the qform.
std::array<double, 3> place(const scan::Header& header, bool byQform,
                            const std::array<double, 3>& voxel) {
  const auto& f = std::get<nifti_1_header>(header.fields);
  const auto q =
      nifti_quatern_to_dmat44(f.quatern_b, f.quatern_c, f.quatern_d, f.qoffset_x, f.qoffset_y,
                              f.qoffset_z, f.pixdim[1], f.pixdim[2], f.pixdim[3], f.pixdim[0]);
  const float* rows[] = {f.srow_x, f.srow_y, f.srow_z};
  std::array<double, 3> mm;
  for (int r = 0; r < 3; ++r) {
    const auto m = [&](int c) { return byQform ? q.m[r][c] : rows[r][c]; };
    mm[r] = m(0) * voxel[0] + m(1) * voxel[1] + m(2) * voxel[2] + m(3);
  }
  return mm;
}

TEST(Preview, HasBlockMeansWhereTheBlocksLie) {
  // Factors 3, 1 and 2; the last blocks along x and z are cut short.
  const scan::Size size = {259, 3, 129};
  ASSERT_EQ(report::previewFactors(size), (scan::Size{3, 1, 2}));
  ASSERT_EQ(report::previewSize(size), (scan::Size{87, 3, 65}));
  std::vector<double> values(scan::voxelCount(size));
  for (std::size_t v = 0; v < values.size(); ++v) values[v] = double(v % 259);
  values[0] = std::nan("");
  const scan::Scan scan = test_cohort::makeScan(size, std::vector<double>(values.size(), 0));
  const scan::Scan preview = parse(report::previewFile(scan::readerOf(values), scan.header));
  EXPECT_EQ(preview.header.size, (scan::Size{87, 3, 65}));
  EXPECT_EQ(preview.header.spacing, (scan::Spacing{6, 2.5, 4}));
  for (const bool byQform : {false, true})
    for (const std::array<double, 3> block : {std::array{0., 0., 0.}, {86, 2, 64}, {40, 1, 7}}) {
      const auto expected =
          place(scan.header, byQform, {3 * block[0] + 1, block[1], 2 * block[2] + 0.5});
      const auto found = place(preview.header, byQform, block);
      for (int r = 0; r < 3; ++r) EXPECT_NEAR(found[r], expected[r], 1e-3);
    }
  // Means along x are 1.5 (the NaN left out), 4, 7 .. and grow to white.
  const auto* grey = reinterpret_cast<const unsigned char*>(preview.stored.data());
  EXPECT_TRUE(std::is_sorted(grey, grey + 87));
  EXPECT_EQ(grey[0], 0);
  EXPECT_EQ(grey[86], 255);
  EXPECT_NEAR(grey[43], 127.5, 2);
  EXPECT_TRUE(std::equal(grey + 87, grey + 174, grey + 174));
}

TEST(Preview, StaysSmallForNoiseAndPlainForNothing) {
  const scan::Size size = {128, 128, 128};
  std::vector<double> values(scan::voxelCount(size));
  for (std::size_t v = 0; v < values.size(); ++v) values[v] = uniformAt(1, v);
  const scan::Scan scan = test_cohort::makeScan(size, std::vector<double>(values.size(), 0));
  test::Folder folder;
  const fs::path file = folder.path("preview.nii.gz");
  test_cohort::writeBytes(file, report::previewFile(scan::readerOf(values), scan.header));
  EXPECT_LE(fs::file_size(file), 1'500'000u);
  EXPECT_GE(fs::file_size(file), 1'000'000u);
  for (const double value : {0.0, std::nan("")}) {
    values.assign(values.size(), value);
    const auto flat = parse(report::previewFile(scan::readerOf(values), scan.header));
    EXPECT_EQ(flat.stored, std::vector(values.size(), std::byte{0}));
  }
}

TEST(Preview, ReducesMasksByMajority) {
  const scan::Size size = {257, 1, 1};  // blocks of 3, the last one of 2
  std::vector<char> mask(257);
  mask[0] = mask[1] = mask[5] = mask[255] = 1;
  const std::vector<char> reduced = report::reducedMask(mask, size);
  ASSERT_EQ(reduced.size(), 86u);
  EXPECT_EQ(std::count(reduced.begin(), reduced.end(), 1), 2);
  EXPECT_TRUE(reduced[0] && reduced[85]);
}

/// Everything below a folder with its inode, which another file in its place would change.
std::map<std::string, std::pair<ino_t, std::string>> contents(const fs::path& folder) {
  std::map<std::string, std::pair<ino_t, std::string>> result;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    struct stat status = {};
    if (!entry.is_regular_file() || stat(entry.path().c_str(), &status) != 0) continue;
    result[entry.path().lexically_relative(folder)] = {status.st_ino, readFile(entry.path())};
  }
  return result;
}

TEST_F(Report, WritesOnlyPagesThatHaveChanged) {
  report::ReportInput input{path(""), {}, "1.0.0", "study"};
  for (const int i : {1, 2, 3}) input.rows.push_back(test_cohort::makeRow(i));
  for (const auto& row : input.rows) test_cohort::writeScan(input.output, row, kSize);
  writeReports(input);
  const auto first = contents(input.output);
  EXPECT_TRUE(first.contains("sub-0001/figures/sub-0001_desc-brain_thumbnail.png"));
  // Temporary files of a process that is no more are left by whoever was killed between writing a
  // thumbnail and putting it in place.
  for (const char* target : {"index.html", "sub-0001/figures/sub-0001_desc-brain_thumbnail.png"}) {
    std::string stale = scan::writePending(path(target), {}, 0600).temporary();
    std::ofstream(stale.replace(stale.size() - 12, 8, "0123abcd")) << "torn";
  }
  writeReports(input);
  EXPECT_EQ(contents(input.output), first);

  input.rows[1].rating = "fail";
  fs::remove(path("sub-0003.html"));
  writeReports(input);
  auto second = contents(input.output);
  for (const char* page : {"index.html", "sub-0002.html"}) EXPECT_NE(second[page], first.at(page));
  EXPECT_EQ(second["sub-0001.html"], first.at("sub-0001.html"));
  EXPECT_EQ(second["sub-0003.html"].second, first.at("sub-0003.html").second);
}

TEST_F(Report, TellsWhatIsMissingAndGoesOn) {
  report::ReportInput input{path(""), {}, "1.0.0", "study"};
  for (const int i : {1, 2, 3, 4}) input.rows.push_back(test_cohort::makeRow(i));
  for (const auto& row : input.rows) test_cohort::writeScan(input.output, row, kSize);
  const auto write = [&](const std::string& name, const std::string& text) {
    std::ofstream(path(name)) << text;
  };
  write("sub-0001/anat/sub-0001_desc-brain_mask.nii.gz", "no mask");
  write("sub-0002/anat/sub-0002_desc-brain_mask.json",
        R"({"Tavrel": {"Settings": [1], "Notices": 7, "Version": {}}})");
  fs::remove(path("sub-0003/figures/sub-0003_desc-brain_mosaic.png"));
  input.rows[3].status = "failed";
  input.rows[3].reason = "takes <too> long";
  writeReports(input);
  const std::string viewer =
      report::viewerScript().empty() ? "without its 3-D viewer" : "The mask is not a NIfTI file";
  EXPECT_NE(readFile(path("sub-0001.html")).find(viewer), std::string::npos);
  EXPECT_NE(readFile(path("sub-0002.html")).find("Brain volume"), std::string::npos);
  EXPECT_NE(readFile(path("sub-0003.html")).find("picture of the mask is not there"),
            std::string::npos);
  EXPECT_NE(readFile(path("sub-0004.html")).find("<b>Not done:</b> takes &lt;too&gt; long"),
            std::string::npos);
  EXPECT_LT(fs::file_size(path("sub-0001.html")), 6'000'000u);

  fs::create_directory(path("sub-0009.html"));
  input.rows.push_back(test_cohort::makeRow(9));
  EXPECT_THROW(writeReports(input), scan::OutputError);
}

TEST_F(Report, CarriesEditedMasksAsPlainBytesOnTheirGrid) {
  const auto row = test_cohort::makeRow(1);
  test_cohort::writeScan(path(""), row, kSize);
  const fs::path file = path("sub-0001/anat/sub-0001_desc-brain_mask.nii.gz");
  const scan::Scan computed = scan::readScan(file.string());
  EXPECT_EQ(report::readMask(file).file, *report::readFile(file)) << "its own as they are";

  std::vector<float> edited;
  for (const std::byte voxel : computed.stored) edited.push_back(voxel == std::byte{1} ? 0.5f : 0);
  std::vector<scan::PendingFile> pending;
  pending.push_back(scan::writeFloats(file, computed, edited));
  commitTogether(pending, true);
  const report::PageMask mask = report::readMask(file);
  EXPECT_EQ(mask.size, kSize);
  std::ofstream(file, std::ios::binary)
      .write(reinterpret_cast<const char*>(mask.file.data()), std::streamsize(mask.file.size()));
  const scan::Scan plain = scan::readScan(file.string());
  EXPECT_EQ(plain.stored, computed.stored);
  EXPECT_EQ(scan::headerBytes(plain.header), scan::headerBytes(computed.header));
  EXPECT_EQ(plain.header.dataOffset, mask.dataOffset);
}

}  // namespace
