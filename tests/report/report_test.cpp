#include "report/report.h"

#include "cohort/cohort.h"
#include "report/assets.h"
#include "report/escape.h"
#include "report/files.h"
#include "report/preview.h"
#include "scan/nifti/scan.h"
#include "scan/output.h"

namespace {

using namespace tavrel;
using namespace test_cohort;

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

scan::Header headerOf(const FileLayout& layout) {
  const auto fields = test_files::headerOf<nifti_1_header>(layout, 4);
  return scan::parseHeader(std::as_bytes(std::span(&fields, 1)));
}

/// Writes a file, compressed if its name says so, and reads it again.
scan::Scan written(const fs::path& path, std::span<const std::byte> bytes) {
  std::vector<scan::PendingFile> file;
  file.push_back(scan::writePending(path, bytes, scan::kOpenToAll));
  commitTogether(file, true);
  return scan::readScan(path.string());
}

/// Where a voxel lies by the qform and by the sform.
std::array<double, 6> places(const scan::Header& header, const std::array<double, 3>& voxel) {
  const auto& f = std::get<nifti_1_header>(header.fields);
  const auto q =
      nifti_quatern_to_dmat44(f.quatern_b, f.quatern_c, f.quatern_d, f.qoffset_x, f.qoffset_y,
                              f.qoffset_z, f.pixdim[1], f.pixdim[2], f.pixdim[3], f.pixdim[0]);
  const float* s[] = {f.srow_x, f.srow_y, f.srow_z};
  std::array<double, 6> mm = {};
  for (std::size_t r = 0; r < 3; ++r)
    for (std::size_t c = 0; c < 4; ++c) {
      mm[r] += q.m[r][c] * (c < 3 ? voxel[c] : 1);
      mm[r + 3] += s[r][c] * (c < 3 ? voxel[c] : 1);
    }
  return mm;
}

using Preview = test::FolderTest;

TEST_F(Preview, HasBlockMeansWhereTheBlocksLie) {
  // Factors 3, 1 and 2; the last blocks along x and z are cut short.
  const scan::Header header = headerOf({.size = {259, 3, 129}, .mm = {2, 2.5, 2}});
  std::vector<double> values(scan::voxelCount(header.size));
  for (std::size_t v = 0; v < values.size(); ++v) values[v] = double(v % 259);
  values[0] = std::nan("");
  const scan::Scan preview =
      written(path("preview.nii"), report::previewFile(scan::readerOf(values), header));
  EXPECT_EQ(preview.header.size, (scan::Size{87, 3, 65}));
  EXPECT_EQ(preview.header.spacing, (scan::Spacing{6, 2.5, 4}));
  for (const std::array<double, 3> block : {std::array{0., 0., 0.}, {86, 2, 64}, {40, 1, 7}}) {
    const auto found = places(preview.header, block),
               expected = places(header, {3 * block[0] + 1, block[1], 2 * block[2] + 0.5});
    for (std::size_t r = 0; r < 6; ++r) EXPECT_NEAR(found[r], expected[r], 1e-3);
  }
  // Means along x are 1.5 (the NaN left out), 4, 7 .. and grow to white.
  const auto* grey = reinterpret_cast<const unsigned char*>(preview.stored.data());
  EXPECT_TRUE(std::is_sorted(grey, grey + 87));
  EXPECT_EQ(grey[0], 0);
  EXPECT_EQ(grey[86], 255);
  EXPECT_NEAR(grey[43], 127.5, 2);
  EXPECT_TRUE(std::equal(grey + 87, grey + 174, grey + 174));
}

TEST_F(Preview, StaysSmallForNoiseAndPlainForNothing) {
  const scan::Header header = headerOf({.size = {128, 128, 128}});
  std::vector<double> values(scan::voxelCount(header.size));
  for (std::size_t v = 0; v < values.size(); ++v) values[v] = uniformAt(1, v);
  const std::string file = path("preview.nii.gz");
  written(file, report::previewFile(scan::readerOf(values), header));
  EXPECT_LE(fs::file_size(file), 1'500'000u);
  EXPECT_GE(fs::file_size(file), 1'000'000u);
  for (const double value : {0.0, std::nan("")}) {
    values.assign(values.size(), value);
    const scan::Scan flat = written(file, report::previewFile(scan::readerOf(values), header));
    EXPECT_EQ(flat.stored, std::vector(values.size(), std::byte{0}));
  }
}

TEST_F(Preview, ReducesMasksByMajority) {
  std::vector<char> mask(257);  // blocks of 3, the last one of 2
  mask[0] = mask[1] = mask[5] = mask[255] = 1;
  std::vector<char> expected(86);
  expected[0] = expected[85] = 1;
  EXPECT_EQ(report::reducedMask(mask, {257, 1, 1}), expected);
}

TEST_F(Preview, CarriesMasksOfAllKindsAsPlainBytesOnTheirGrid) {
  const std::string file = path("mask.nii.gz");
  writeNifti(file, {.datatype = NIFTI_TYPE_UINT8}, std::vector<std::uint8_t>(120, 1));
  EXPECT_EQ(report::readMask(file).file, *report::readFile(file)) << "its own as they are";
  std::vector<float> edited(120);
  edited[7] = 0.5f;
  writeNifti(file, {.datatype = NIFTI_TYPE_FLOAT32}, edited);
  const scan::Header header = scan::readScan(file).header;
  const report::PageMask mask = report::readMask(file);
  EXPECT_EQ(mask.size, header.size);
  const scan::Scan plain = written(path("plain.nii"), mask.file);
  std::vector<std::byte> expected(120);
  expected[7] = std::byte{1};
  EXPECT_EQ(plain.stored, expected);
  EXPECT_EQ(plain.header.dataOffset, mask.dataOffset);
  EXPECT_EQ(places(plain.header, {1, 2, 3}), places(header, {1, 2, 3}));
}

class Report : public Cohort {};

TEST_F(Report, TellsWhatIsMissingAndGoesOn) {
  addSubjects(4);
  ASSERT_EQ(bids().status, 0);
  const Tree first = treeOf(out_);
  std::ofstream(anat("sub-01_desc-brain_mask.nii.gz")) << "no mask";
  json record = info("sub-02");
  record["Tavrel"]["Settings"] = {1};
  std::ofstream(anat("sub-02_desc-brain_mask.json")) << record;
  fs::remove(out_ / "sub-03/figures/sub-03_desc-brain_mosaic.png");
  fs::remove(out_ / "sub-04.html");
  put(out_ / "logs/unfinished/x.json",
      R"({"Source": "sub-05/anat/sub-05_T1w.nii", "Reason": "takes <too> long"})");
  // Temporary files of a process that is no more are left by whoever was killed between writing a
  // file and putting it in place.
  for (const char* target : {"index.html", "sub-04/figures/sub-04_desc-brain_thumbnail.png"}) {
    std::string stale = scan::writePending(out_ / target, {}, 0600).temporary();
    put(stale.replace(stale.size() - 12, 8, "0123abcd"), "torn");
  }
  EXPECT_EQ(bids({}, "group").status, 1);
  const bool shows = !report::viewerScript().empty();
  for (const auto& [page, words] : std::map<std::string, std::string>{
           {"sub-01", shows ? "The mask is not a NIfTI file" : "without its 3-D viewer"},
           {"sub-02", "Brain volume"},
           {"sub-03", "picture of the mask is not there"},
           {"sub-05", "<b>Not done:</b> takes &lt;too&gt; long"}})
    EXPECT_NE(readText(out_ / (page + ".html")).find(words), std::string::npos) << page;
  const Names changed = differences(treeOf(out_), first);
  EXPECT_TRUE(std::none_of(changed.begin(), changed.end(),
                           [](const std::string& name) { return name.ends_with(".tmp"); }));

  fs::remove(out_ / "sub-04.html");
  fs::create_directory(out_ / "sub-04.html");
  EXPECT_EQ(bids({}, "group").status, 73);
}

}  // namespace
