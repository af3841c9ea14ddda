// What the two levels leave, do again, take and refuse.
#include "cohort.h"
#include "scan/checksum.h"

namespace {

using namespace test_cohort;
using tavrel::scan::sha256;

constexpr std::ptrdiff_t kHeader = 352;  // bytes before the voxels of a mask

TEST_F(Cohort, LeavesADatasetOfDerivatives) {
  addScan("sub-01/anat/sub-01_T1w.nii.gz", 1);
  addScan("sub-02/ses-a/anat/sub-02_ses-a_acq-hi_run-1_T1w.nii", 2);
  addScan("sub-02/ses-a/anat/sub-02_ses-a_acq-hi_run-2_T1w.nii.gz", 3);
  addScan("sub-02/ses-a/anat/sub-02_ses-a_T2w.nii.gz", 3);
  const Tree before = treeOf(raw_);
  const Result result = bids();
  ASSERT_EQ(result.status, 0) << result.err;

  Names expected = {".bidsignore",      "README",     "dataset_description.json",
                    "descriptions.tsv", "index.html", "tavrel.json",
                    "tavrel.tsv"};
  for (const auto& [folder, scan] : {std::pair<std::string, std::string>{"sub-01/", "sub-01"},
                                     {"sub-02/ses-a/", "sub-02_ses-a_acq-hi_run-1"},
                                     {"sub-02/ses-a/", "sub-02_ses-a_acq-hi_run-2"}}) {
    expected.insert(scan + ".html");
    for (const char* end : {"T1w.json", "T1w.nii.gz", "mask.json", "mask.nii.gz"})
      expected.insert(folder + "anat/" + scan + "_desc-brain_" + end);
    for (const char* end : {"brain_mosaic.png", "brain_thumbnail.png", "preview_T1w.nii.gz"})
      expected.insert(folder + "figures/" + scan + "_desc-" + end);
  }
  EXPECT_EQ(differences(treeOf(out_), {}), expected);
  Tree after = treeOf(raw_);
  std::erase_if(after, [](const auto& file) { return file.first.starts_with("derivatives"); });
  EXPECT_EQ(after, before) << "the dataset is not written to";

  // The volumes are those of the command for single scans, and carry neither name nor time.
  const fs::path scan = raw_ / "sub-01/anat/sub-01_T1w.nii.gz",
                 maskFile = anat("sub-01_desc-brain_mask.nii.gz");
  run({scan, "--out-dir", folder_.path()});
  EXPECT_EQ(readText(folder_ / "sub-01_T1w_brain_mask.nii.gz"), readText(maskFile));
  EXPECT_EQ(readText(folder_ / "sub-01_T1w_brain.nii.gz"),
            readText(anat("sub-01_desc-brain_T1w.nii.gz")));
  EXPECT_EQ(readText(maskFile).substr(3, 5), std::string(5, '\0'));

  const auto expectIn = [](const fs::path& file, const json& part) {
    json patched = reportIn(file);
    patched.merge_patch(part);
    EXPECT_EQ(reportIn(file), patched);
  };
  const json source = "bids:raw:sub-01/anat/sub-01_T1w.nii.gz",
             sums = {{"InputSha256", sha256(scan)}, {"MaskSha256", sha256(maskFile)}};
  expectIn(anat("sub-01_desc-brain_mask.json"),
           {{"Type", "Brain"}, {"Manual", false}, {"Sources", {source}}, {"Tavrel", sums}});
  expectIn(anat("sub-01_desc-brain_T1w.json"),
           {{"SkullStripped", true},
            {"Sources", {source, "bids::sub-01/anat/sub-01_desc-brain_mask.nii.gz"}}});
  expectIn(out_ / "dataset_description.json",
           {{"DatasetType", "derivative"}, {"DatasetLinks", {{"raw", "../.."}}}});
  expectIn(out_ / "tavrel.json", {{"volume_ml", {{"Units", "mL"}}}});

  const std::string head =
      "participant_id\tsession_id\tscan\tstatus\treason\tmanual\tvolume_ml\tw5\tconfidence\tflags\t"
      "z_volume\tseconds\tpeak_memory_mb\trating\tcomment\n";
  EXPECT_TRUE(readText(out_ / "tavrel.tsv").starts_with(head));
  double sum = 0, squares = 0;
  for (const auto& [name, row] : table()) {
    EXPECT_EQ(row.at("status"), "done");
    EXPECT_NE(row.at("reason").find("oblique"), std::string::npos);
    EXPECT_NE(row.at("reason").find("qform and sform disagree"), std::string::npos);
    const double z = std::stod(row.at("z_volume"));
    sum += z, squares += z * z;
  }
  EXPECT_NEAR(sum, 0, 0.02);
  EXPECT_NEAR(squares, 2, 0.05);  // a variance of 1, with n - 1
}

TEST_F(Cohort, DoesAgainWhatIsMissingAndNothingElse) {
  addSubjects(3);
  ASSERT_EQ(bids().status, 0);
  const Tree first = treeOf(out_);
  const Stamps before = stampsOf(out_);
  fs::last_write_time(raw_ / scanOf(1), fs::file_time_type::clock::now());
  EXPECT_EQ(bids().status, 0);
  EXPECT_EQ(bids({}, "group").status, 0);
  EXPECT_EQ(differences(stampsOf(out_), before), Names()) << "nothing had changed";

  const auto changed = [&](const std::vector<std::string>& options) {
    const Stamps old = stampsOf(out_);
    EXPECT_EQ(bids(options).status, 0);
    Names subjects;
    for (const std::string& name : differences(stampsOf(out_), old))
      if (name.ends_with("_desc-brain_mask.json")) subjects.insert(name.substr(0, 6));
    return subjects;
  };
  fs::remove(anat("sub-02_desc-brain_T1w.nii.gz"));
  EXPECT_EQ(changed({}), Names{"sub-02"});
  EXPECT_EQ(differences(reproducible(treeOf(out_)), reproducible(first)), Names());
  fs::remove(anat("sub-03_desc-brain_mask.json"));
  fs::remove(anat("sub-03_desc-brain_mask.nii.gz"));
  EXPECT_EQ(changed({}), Names{"sub-03"});
  addScan(scanOf(1), 77);
  EXPECT_EQ(changed({}), Names{"sub-01"});
  const Names all = {"sub-01", "sub-02", "sub-03"};
  EXPECT_EQ(changed({"--w5", "1.0"}), all);
  EXPECT_EQ(changed({"--w5", "1.0", "--no-fill-holes"}), all);
  EXPECT_EQ(changed({"--no-fill-holes", "--w5=1", "--jobs", "3", "--threads", "2"}), Names());
}

TEST_F(Cohort, TakesTheScansThatAreAskedFor) {
  const std::string one = "sub-01_ses-1", run = "sub-01_ses-1_acq-lo_run-01", two = "sub-01_ses-2",
                    other = "sub-02_run-2";
  for (const std::string& scan : {"ses-1/anat/" + one, "ses-1/anat/" + run, "ses-2/anat/" + two})
    put("sub-01/" + scan + "_T1w.nii.gz", "");
  put("sub-02/anat/" + other + "_T1w.nii", "");
  const auto listed = [&](std::vector<std::string> options) {
    options.push_back("--dry-run");
    const std::string list = bids(options).out;
    std::vector<std::string> names;
    static const std::regex name("([^/]*)_T1w.nii");
    for (std::sregex_iterator match(list.begin(), list.end(), name), end; match != end; ++match)
      names.push_back((*match)[1]);
    return names;
  };
  const auto filtered = [&](const std::string& conditions) {
    put("filter.json", "{\"bold\": {\"x\": 1}, \"t1w\": " + conditions + "}");
    return listed({"--bids-filter-file", raw_ / "filter.json"});
  };
  using List = std::vector<std::string>;
  EXPECT_EQ(listed({}), (List{one, run, two, other}));
  EXPECT_EQ(listed({"--participant-label", "02"}), List{other});
  EXPECT_EQ(listed({"--participant_label", "sub-02", "01", "--session-label", "ses-2"}), List{two});
  EXPECT_EQ(listed({"--session_label", "1"}), (List{one, run}));
  EXPECT_EQ(filtered(R"({"acquisition": null, "session": "ses-1"})"), List{one});
  EXPECT_EQ(filtered(R"({"run": [1, 2]})"), (List{run, other}));
  EXPECT_EQ(filtered(R"({"acq": "*"})"), List{run});
  EXPECT_EQ(filtered(R"({"extension": ".nii", "suffix": "T1w"})"), List{other});

  const Result none = bids({"--participant-label", "09"});
  EXPECT_EQ(none.status, 18);
  EXPECT_NE(none.err.find("no subject sub-09"), std::string::npos) << none.err;
  EXPECT_FALSE(fs::exists(out_)) << "nothing was to be done";
}

TEST_F(Cohort, EndsWithTheStatusThatTells) {
  addSubjects(1);
  const std::string raw = raw_, out = out_, other = folder_ / "other";
  fs::create_directory(other);
  std::ofstream(other + "/dataset_description.json") << R"({"Name": "another"})";
  const std::pair<int, std::vector<std::string>> calls[] = {
      {0, {"--version"}},
      {0, {"--help"}},
      {64, {}},
      {64, {raw, out, "session"}},
      {64, {raw, out, "participant", "--w5", "x"}},
      {64, {raw, out, "participant", "--participant-label", "../01"}},
      {64, {raw, out, "participant", "--bids-filter-file", raw + "/none"}},
      {64, {raw, raw, "participant"}},
      {64, {raw, raw + "/sub-01/anat/new", "participant"}},
      {16, {raw + "/sub-01", out, "participant"}},
      {16, {raw + "/none", out, "participant"}},
      {18, {raw + "/sub-01", out, "participant", "--skip-bids-validation"}},
      {18, {raw, out, "group"}},
      {73, {raw, raw + "/dataset_description.json/out", "participant"}},
      {73, {raw, "/proc/none", "participant"}},
      {73, {raw, other, "participant"}}};
  for (const auto& [status, words] : calls) {
    const Result result = Process(TAVREL_BIDS_COMMAND, words).wait();
    EXPECT_EQ(result.status, status) << testing::PrintToString(words) << result;
    EXPECT_EQ(result.err.empty(), status == 0);
  }
  EXPECT_FALSE(fs::exists(out_));
}

TEST_F(Cohort, HasARowForEveryScanThatCannotBeDone) {
  addSubjects(1);
  const auto broken = [&](const std::string& name) {
    const fs::path folder = raw_ / name.substr(0, name.find('_')) / "anat";
    fs::create_directories(folder);
    return folder / name;
  };
  fs::create_symlink("../../.git/annex/objects/a/b/SHA256E-s1.nii.gz", broken("sub-a_T1w.nii.gz"));
  std::ofstream(broken("sub-b_T1w.nii.gz")) << "/annex/objects/SHA256E-s1--a.nii.gz\n";
  writeNifti(broken("sub-c_T1w.nii.gz"), {.volumes = 2}, std::vector<std::int16_t>(240));
  Bytes bytes = readBytes(raw_ / scanOf(1));
  bytes[bytes.size() / 2] ^= 0x55;
  writeBytes(broken("sub-d_T1w.nii.gz"), bytes);
  addScan("sub-e/anat/sub-e_T1w.nii", 2), addScan("sub-e/anat/sub-e_T1w.nii.gz", 3);
  std::ofstream(broken("sub-f_x_T1w.nii.gz"));
  fs::create_directory(broken("sub-g_T1w.nii.gz"));
  std::ofstream(broken("sub-h_run-1\n<b>\t_T1w.nii.gz"));
  fs::create_symlink("nowhere", broken("sub-i_T1w.nii.gz"));
  fs::create_symlink("sub-j", raw_ / "sub-j");  // a circle
  fs::create_directory(raw_ / "sub-m");
  fs::create_directory_symlink("nowhere", raw_ / "sub-m/anat");

  // Without transforms: not refused, but flagged.
  bytes = inflate(raw_ / scanOf(1));
  std::fill_n(&bytes[252], 4, 0);
  writeBytes(broken("sub-k_T1w.nii"), bytes);

  const Result result = bids({"--quiet"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  const Table rows = table();
  for (const auto& [scan, reason] : std::map<std::string, std::string>{
           {"sub-a", "not fetched; \"datalad get\""},
           {"sub-b", "not fetched"},
           {"sub-c", "holds 2 volumes; choose one with --volume"},
           {"sub-d", "damaged"},
           {"sub-e", "would write the same names as sub-e/anat/sub-e_T1w.nii"},
           {"sub-e'", "would write the same names as sub-e/anat/sub-e_T1w.nii"},
           {"sub-f_x_T1w.nii.gz", "no BIDS name"},
           {"sub-g", "is a folder"},
           {"sub-h_run-1\\x0a<b>\\x09", "control characters"},
           {"sub-i", "a link that leads nowhere"},
           {"sub-m_anat", "a link that leads nowhere"}}) {
    ASSERT_TRUE(rows.contains(scan)) << scan << "\n" << readText(out_ / "tavrel.tsv");
    EXPECT_EQ(rows.at(scan).at("status"), "failed");
    EXPECT_NE(rows.at(scan).at("reason").find(reason), std::string::npos)
        << scan << ": " << rows.at(scan).at("reason");
  }
  EXPECT_EQ(rows.at("sub-01").at("status"), "done");
  EXPECT_NE(rows.at("sub-k").at("flags").find("no-affine"), std::string::npos);
  EXPECT_EQ(bids({}, "group").status, 1);
  EXPECT_EQ(table(), rows);
  // Mended, and gone: the table knows.
  addScan("sub-d/anat/sub-d_T1w.nii.gz", 5);
  fs::remove(raw_ / "sub-i/anat/sub-i_T1w.nii.gz");
  fs::copy_file(anat("sub-01_desc-brain_T1w.nii.gz"), broken("sub-l_T1w.nii.gz"));
  EXPECT_EQ(bids().status, 1);
  EXPECT_EQ(cell("sub-d", "status"), "done");
  EXPECT_NE(cell("sub-l", "flags").find("stripped"), std::string::npos);
  EXPECT_FALSE(table().contains("sub-i"));
}

TEST_F(Cohort, KeepsMasksThatAPersonHasChanged) {
  addSubjects(2);
  ASSERT_EQ(bids().status, 0);
  const fs::path mask = anat("sub-01_desc-brain_mask.nii.gz"),
                 brain = anat("sub-01_desc-brain_T1w.nii.gz");
  const Bytes oldBrain = readBytes(brain);
  Bytes voxels = inflate(mask);
  std::fill(voxels.begin() + kHeader + 32 * 38 * 18, voxels.end(), 0);  // half the head
  deflate(mask, voxels);
  const Bytes edited = readBytes(mask);
  EXPECT_EQ(bids({}, "group").status, 0);
  EXPECT_NE(cell("sub-01", "reason").find("mask was changed"), std::string::npos);
  const double volume = std::stod(cell("sub-01", "volume_ml"));
  for (const std::vector<std::string>& options :
       {std::vector<std::string>{}, {"--w5", "0.9"}, {"--force"}}) {
    ASSERT_EQ(bids(options).status, 0);
    EXPECT_EQ(readBytes(mask), edited);
    EXPECT_EQ(info("sub-01")["Tavrel"]["MaskSha256"], sha256(mask));
    EXPECT_EQ(cell("sub-01", "manual"), "true");
    EXPECT_LT(std::stod(cell("sub-01", "volume_ml")), 0.8 * volume);
    EXPECT_EQ(cell("sub-02", "manual"), "false");
  }
  EXPECT_NE(readBytes(brain), oldBrain);
  const Stamps before = stampsOf(out_);
  ASSERT_EQ(bids().status, 0);
  EXPECT_EQ(stampsOf(out_), before);

  addScan(scanOf(1), 7);
  ASSERT_EQ(bids().status, 0);
  EXPECT_EQ(readBytes(mask), edited);
  EXPECT_NE(cell("sub-01", "reason").find("has changed since its mask"), std::string::npos);

  // Changed again, to something that does not fit; and taken away.
  voxels[42] = 23;
  deflate(mask, voxels);
  EXPECT_EQ(bids().status, 1);
  EXPECT_NE(cell("sub-01", "reason").find("grid"), std::string::npos) << cell("sub-01", "reason");
  fs::remove(mask);
  EXPECT_EQ(bids().status, 0);
  EXPECT_NE(readBytes(mask), edited);
  EXPECT_EQ(info("sub-01")["Manual"], false);
}

TEST_F(Cohort, TakesMasksFromAFolder) {
  addSubjects(3);
  const fs::path masks = folder_ / "masks";
  fs::create_directories(masks / "sub-02/anat");
  const FileLayout layout = layoutOf(kTiny, NIFTI_TYPE_UINT8);
  std::vector<std::uint8_t> given(32 * 38 * 36);
  std::fill_n(given.begin(), 20000, 7);
  writeNifti(masks / "sub-01_desc-brain_mask.nii.gz", layout, given);
  writeNifti(masks / "sub-02/anat/sub-02_mask.nii", layout, given);
  const auto inside = [&](const std::string& scan) {
    EXPECT_EQ(info(scan)["Manual"], true);
    const Bytes mask = inflate(anat(scan + "_desc-brain_mask.nii.gz"));
    return std::count(mask.begin() + kHeader, mask.end(), 1);
  };
  const std::vector<std::string> options = {"--masks", masks};
  ASSERT_EQ(bids(options).status, 0);
  EXPECT_EQ(inside("sub-01"), 20000);
  EXPECT_EQ(inside("sub-02"), 20000);
  EXPECT_EQ(info("sub-03")["Manual"], false);
  const Stamps before = stampsOf(out_);
  ASSERT_EQ(bids(options).status, 0);
  ASSERT_EQ(bids().status, 0);
  EXPECT_EQ(stampsOf(out_), before) << "a mask that was brought in stays without the option, too";
  std::fill_n(given.begin(), 1000, 0);
  writeNifti(masks / "sub-01_desc-brain_mask.nii.gz", layout, given);
  ASSERT_EQ(bids(options).status, 0);
  EXPECT_EQ(inside("sub-01"), 19000);
  EXPECT_EQ(bids({"--masks", masks / "sub-01"}).status, 64);
}

TEST_F(Cohort, ReadsRatingsBackIntoTheTable) {
  addSubjects(2);
  ASSERT_EQ(bids().status, 0);
  const std::string mask = info("sub-01")["Tavrel"]["MaskSha256"];
  const auto rate = [&](const char* file, const std::string& lines) {
    std::ofstream(out_ / file) << "scan\trating\tcomment\tmask_sha256\n" << lines;
    EXPECT_EQ(bids({}, "group").status, 0);
  };
  const auto expect = [&](const std::string& scan, const char* rating, const char* comment) {
    EXPECT_EQ(cell(scan, "rating"), rating);
    EXPECT_EQ(cell(scan, "comment"), comment);
  };
  rate("tavrel_ratings.tsv", "sub-01\tpass\tfine\r\nsub-02\tmaybe\r\n");
  const Stamps before = stampsOf(out_);
  rate("tavrel_ratings(1).tsv", "sub-01\tfail\teyes \x1b[31m\n");
  const Names written = differences(stampsOf(out_), before);
  EXPECT_TRUE(written.contains("index.html") && written.contains("sub-01.html"));
  EXPECT_FALSE(written.contains("sub-02.html"));
  expect("sub-01", "fail", "eyes \\x1b[31m");
  expect("sub-02", "maybe", "n/a");
  // Of the mask that is there, and of another one.
  rate("tavrel_ratings(1).tsv",
       "sub-01\tpass\tgood\t" + mask + "\nsub-02\tpass\tgood\t" + mask + "\n");
  expect("sub-01", "pass", "good");
  expect("sub-02", "n/a", "good");
  EXPECT_NE(cell("sub-02", "reason").find("pass, was given to another mask"), std::string::npos);
  EXPECT_NE(readText(out_ / "index.html").find(R"("former":"pass")"), std::string::npos);
  // As others write such files, and files that are none.
  for (const auto& [content, note] : std::map<std::string, std::string>{
           {"\xef\xbb\xbfscan\trating\nsub-02\tfail\nsub-09\tfail\n",
            "rates scans that are not here: 1"},
           {"scan,rating\nsub-02,pass\n", "has no column \"scan\""},
           {"scan\trating\nsub-02\tgood\n", "rates sub-02 \"good\""}}) {
    std::ofstream(out_ / "tavrel_ratings_late.tsv") << content;
    EXPECT_NE(bids({}, "group").err.find(note), std::string::npos) << content;
    EXPECT_EQ(cell("sub-02", "rating"), content[0] == '\xef' ? "fail" : "n/a");
  }
}

}  // namespace
