#include <sys/file.h>

#include "cohort.h"
#include "scan/checksum.h"

namespace {

using namespace test_cohort;

/// What changes when a file is written again, even with the same content.
std::map<std::string, std::pair<ino_t, long>> stamps(const fs::path& folder) {
  std::map<std::string, std::pair<ino_t, long>> result;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    struct stat status = {};
    lstat(entry.path().c_str(), &status);
    if (!entry.is_directory()) result[entry.path()] = {status.st_ino, status.st_mtim.tv_nsec};
  }
  return result;
}

TEST_F(Cohort, LeavesADatasetOfDerivatives) {
  addScan("sub-01/anat/sub-01_T1w.nii.gz", 1);
  addScan("sub-02/ses-a/anat/sub-02_ses-a_acq-hi_run-1_T1w.nii", 2);
  addScan("sub-02/ses-a/anat/sub-02_ses-a_acq-hi_run-2_T1w.nii.gz", 3);
  addScan("sub-02/ses-a/anat/sub-02_ses-a_T2w.nii.gz", 3);
  const Tree before = treeOf(raw_);
  const Result result = bids();
  ASSERT_EQ(result.status, 0) << result.err;

  Tree after = treeOf(raw_);
  std::erase_if(after, [](const auto& file) { return file.first.starts_with("derivatives"); });
  EXPECT_EQ(after, before) << "the dataset is not written to";
  std::set<std::string> names;
  for (const auto& [name, content] : treeOf(out_)) names.insert(name);
  std::set<std::string> expected = {".bidsignore",      "README",      "dataset_description.json",
                                    "descriptions.tsv", "tavrel.json", "tavrel.tsv"};
  expected.insert("index.html");
  for (const auto& [folder, scan] : {std::pair<std::string, std::string>{"sub-01", "sub-01"},
                                     {"sub-02/ses-a", "sub-02_ses-a_acq-hi_run-1"},
                                     {"sub-02/ses-a", "sub-02_ses-a_acq-hi_run-2"}}) {
    for (const char* end : {"T1w.json", "T1w.nii.gz", "mask.json", "mask.nii.gz"})
      expected.insert(folder + "/anat/" + scan + "_desc-brain_" + end);
    for (const char* figure : {"brain_mosaic.png", "brain_thumbnail.png", "preview_T1w.nii.gz"})
      expected.insert(folder + "/figures/" + scan + "_desc-" + figure);
    expected.insert(scan + ".html");
  }
  EXPECT_EQ(names, expected);

  // The volumes are those of the command for single scans, and carry neither name nor time.
  run({raw_ / "sub-01/anat/sub-01_T1w.nii.gz", "--out-dir", folder_.path()});
  EXPECT_EQ(readBytes(folder_ / "sub-01_T1w_brain_mask.nii.gz"),
            readBytes(anat("sub-01_desc-brain_mask.nii.gz")));
  EXPECT_EQ(readBytes(folder_ / "sub-01_T1w_brain.nii.gz"),
            readBytes(anat("sub-01_desc-brain_T1w.nii.gz")));
  EXPECT_EQ(readText(anat("sub-01_desc-brain_mask.nii.gz")).substr(3, 5), std::string(5, '\0'));

  const json mask = info("sub-01"), facts = mask["Tavrel"];
  EXPECT_EQ(mask["Type"], "Brain");
  EXPECT_EQ(mask["Manual"], false);
  EXPECT_EQ(mask["Sources"], json({"bids:raw:sub-01/anat/sub-01_T1w.nii.gz"}));
  EXPECT_EQ(facts["InputSha256"], tavrel::scan::sha256(raw_ / "sub-01/anat/sub-01_T1w.nii.gz"));
  EXPECT_EQ(facts["MaskSha256"], tavrel::scan::sha256(anat("sub-01_desc-brain_mask.nii.gz")));
  const json brain = json::parse(readText(anat("sub-01_desc-brain_T1w.json")));
  EXPECT_EQ(brain["SkullStripped"], true);
  EXPECT_EQ(brain["Sources"][1], "bids::sub-01/anat/sub-01_desc-brain_mask.nii.gz");
  const json description = json::parse(readText(out_ / "dataset_description.json"));
  EXPECT_EQ(description["DatasetType"], "derivative");
  EXPECT_EQ(description["GeneratedBy"][0]["Name"], "tavrel");
  EXPECT_EQ(description["DatasetLinks"]["raw"], "../..");

  const std::string head =
      "participant_id\tsession_id\tscan\tstatus\treason\tmanual\tvolume_ml\tw5\tconfidence\tflags\t"
      "z_volume\tseconds\tpeak_memory_mb\trating\tcomment\n";
  EXPECT_EQ(readText(out_ / "tavrel.tsv").substr(0, head.size()), head);
  double sum = 0, squares = 0;
  for (const auto& [scan, row] : table()) {
    EXPECT_EQ(row.at("status"), "done");
    EXPECT_NE(row.at("reason").find("oblique"), std::string::npos);
    EXPECT_NE(row.at("reason").find("qform and sform disagree"), std::string::npos);
    sum += std::stod(row.at("z_volume"));
    squares += std::pow(std::stod(row.at("z_volume")), 2);
  }
  EXPECT_NEAR(sum, 0, 0.02);
  EXPECT_NEAR(squares, 2, 0.05);  // a variance of 1, with n - 1
  const json columns = json::parse(readText(out_ / "tavrel.json"));
  EXPECT_EQ(columns.size(), 15u);
  EXPECT_EQ(columns["volume_ml"]["Units"], "mL");
}

TEST_F(Cohort, DoesAgainWhatIsMissingAndNothingElse) {
  addSubjects(3);
  ASSERT_EQ(bids().status, 0);
  const Tree first = treeOf(out_);
  const auto before = stamps(out_);
  fs::last_write_time(raw_ / scanOf(1), fs::file_time_type::clock::now());
  EXPECT_EQ(bids().status, 0);
  EXPECT_EQ(bids({}, "group").status, 0);
  EXPECT_EQ(stamps(out_), before) << "a file was written though nothing had changed";

  const auto changed = [&](const std::vector<std::string>& options) {
    std::set<std::string> subjects;
    const auto old = stamps(out_);
    EXPECT_EQ(bids(options).status, 0);
    for (const auto& [path, stamp] : stamps(out_)) {
      const std::string name = fs::path(path).filename();
      if (name.ends_with("_desc-brain_mask.json") && (!old.contains(path) || old.at(path) != stamp))
        subjects.insert(name.substr(0, 6));
    }
    return subjects;
  };
  using Subjects = std::set<std::string>;
  fs::remove(anat("sub-02_desc-brain_T1w.nii.gz"));
  EXPECT_EQ(changed({}), Subjects{"sub-02"});
  EXPECT_EQ(differences(reproducible(treeOf(out_)), reproducible(first)), "");
  fs::remove(anat("sub-03_desc-brain_mask.json"));
  fs::remove(anat("sub-03_desc-brain_mask.nii.gz"));
  EXPECT_EQ(changed({}), Subjects{"sub-03"});
  addScan(scanOf(1), 77);
  EXPECT_EQ(changed({}), Subjects{"sub-01"});
  const Subjects all = {"sub-01", "sub-02", "sub-03"};
  EXPECT_EQ(changed({"--w5", "1.0"}), all);
  EXPECT_EQ(changed({"--w5", "1.0", "--no-fill-holes"}), all);
  EXPECT_EQ(changed({"--no-fill-holes", "--w5=1", "--jobs", "3", "--threads", "2"}), Subjects{});
}

TEST_F(Cohort, TakesTheScansThatAreAskedFor) {
  for (const char* path :
       {"sub-01/ses-1/anat/sub-01_ses-1_T1w.nii.gz",
        "sub-01/ses-1/anat/sub-01_ses-1_acq-lo_run-01_T1w.nii.gz",
        "sub-01/ses-2/anat/sub-01_ses-2_T1w.nii.gz", "sub-02/anat/sub-02_run-2_T1w.nii"})
    put(path, "");
  const auto listed = [&](std::vector<std::string> options) {
    options.push_back("--dry-run");
    const Result result = bids(options);
    EXPECT_EQ(result.status, 0) << result.err;
    std::string names;
    std::istringstream lines(result.out);
    for (std::string number, path, line; lines >> number >> path && std::getline(lines, line);)
      names += path.substr(path.rfind('/') + 1) + " ";
    return std::regex_replace(names, std::regex("_T1w.nii(.gz)? $|_T1w.nii(.gz)?"), "");
  };
  const auto filtered = [&](const std::string& conditions) {
    put("filter.json", "{\"bold\": {\"x\": 1}, \"t1w\": " + conditions + "}");
    return listed({"--bids-filter-file", raw_ / "filter.json"});
  };
  EXPECT_EQ(listed({}), "sub-01_ses-1 sub-01_ses-1_acq-lo_run-01 sub-01_ses-2 sub-02_run-2");
  EXPECT_EQ(listed({"--participant-label", "02"}), "sub-02_run-2");
  EXPECT_EQ(listed({"--participant_label", "sub-02", "01", "--session-label", "ses-2"}),
            "sub-01_ses-2");
  EXPECT_EQ(listed({"--session_label", "1"}), "sub-01_ses-1 sub-01_ses-1_acq-lo_run-01");
  EXPECT_EQ(filtered(R"({"acquisition": null, "session": "ses-1"})"), "sub-01_ses-1");
  EXPECT_EQ(filtered(R"({"run": [1, 2]})"), "sub-01_ses-1_acq-lo_run-01 sub-02_run-2");
  EXPECT_EQ(filtered(R"({"acq": "*"})"), "sub-01_ses-1_acq-lo_run-01");
  EXPECT_EQ(filtered(R"({"extension": ".nii", "suffix": "T1w"})"), "sub-02_run-2");

  const Result none = bids({"--participant-label", "09"});
  EXPECT_EQ(none.status, 18);
  EXPECT_NE(none.err.find("no subject sub-09"), std::string::npos) << none.err;
  EXPECT_FALSE(fs::exists(out_)) << "nothing was to be done";
}

TEST_F(Cohort, EndsWithTheStatusThatTells) {
  addSubjects(1);
  const auto status = [](const std::vector<std::string>& words) {
    const Result result = Process(TAVREL_BIDS_COMMAND, words).wait();
    EXPECT_EQ(result.err.empty(), result.status == 0);
    return result.status;
  };
  const std::string raw = raw_, out = out_;
  EXPECT_EQ(status({"--version"}), 0);
  EXPECT_EQ(status({"--help"}), 0);
  EXPECT_EQ(status({}), 64);
  EXPECT_EQ(status({raw, out, "session"}), 64);
  EXPECT_EQ(status({raw, out, "participant", "--w5", "x"}), 64);
  EXPECT_EQ(status({raw, out, "participant", "--participant-label", "../01"}), 64);
  EXPECT_EQ(status({raw, out, "participant", "--bids-filter-file", raw + "/none"}), 64);
  EXPECT_EQ(status({raw, raw, "participant"}), 64);
  EXPECT_EQ(status({raw, raw + "/sub-01", "participant"}), 64);
  EXPECT_EQ(status({raw, raw + "/sub-01/anat/new", "participant"}), 64);
  EXPECT_EQ(status({raw + "/sub-01", out, "participant"}), 16);
  EXPECT_EQ(status({raw + "/none", out, "participant"}), 16);
  EXPECT_EQ(status({raw + "/sub-01", out, "participant", "--skip-bids-validation"}), 18);
  EXPECT_EQ(status({raw, out, "group"}), 18);
  EXPECT_EQ(status({raw, raw + "/dataset_description.json/out", "participant"}), 73);
  EXPECT_EQ(status({raw, "/proc/none", "participant"}), 73);
  fs::create_directory(folder_ / "other");
  std::ofstream(folder_ / "other/dataset_description.json") << R"({"Name": "another"})";
  EXPECT_EQ(status({raw, folder_ / "other", "participant"}), 73);
  EXPECT_FALSE(fs::exists(out_));
}

TEST_F(Cohort, HasARowForEveryScanThatCannotBeDone) {
  addSubjects(1);
  const auto broken = [&](const std::string& name) {
    const std::string sub = name.substr(0, name.find('_'));
    fs::create_directories(raw_ / sub / "anat");
    return raw_ / sub / "anat" / name;
  };
  fs::create_symlink("../../.git/annex/objects/a/b/SHA256E-s1.nii.gz", broken("sub-a_T1w.nii.gz"));
  std::ofstream(broken("sub-b_T1w.nii.gz")) << "/annex/objects/SHA256E-s1--a.nii.gz\n";
  writeNifti(broken("sub-c_T1w.nii.gz"), {.size = {4, 5, 6}, .volumes = 2},
             std::vector<std::int16_t>(240));
  Bytes bytes = readBytes(raw_ / scanOf(1));
  bytes[bytes.size() / 2] ^= 0x55;
  writeBytes(broken("sub-d_T1w.nii.gz"), bytes);
  addScan("sub-e/anat/sub-e_T1w.nii", 2), addScan("sub-e/anat/sub-e_T1w.nii.gz", 3);
  std::ofstream(broken("sub-f_x_T1w.nii.gz"));
  fs::create_directory(broken("sub-g_T1w.nii.gz"));
  std::ofstream(broken("sub-h_run-1\n<b>\t_T1w.nii.gz"));
  fs::create_symlink("nowhere", broken("sub-i_T1w.nii.gz"));
  fs::create_symlink("sub-j", raw_ / "sub-j");  // a circle
  // Without transforms: not refused, but flagged.
  bytes = inflate(raw_ / scanOf(1));
  for (const std::size_t code : {252, 253, 254, 255}) bytes[code] = 0;
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
           {"sub-i", "a link that leads nowhere"}}) {
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
  EXPECT_EQ(table().at("sub-d").at("status"), "done");
  EXPECT_NE(table().at("sub-l").at("flags").find("stripped"), std::string::npos);
  EXPECT_FALSE(table().contains("sub-i"));
}

TEST_F(Cohort, KeepsMasksThatAPersonHasChanged) {
  addSubjects(2);
  ASSERT_EQ(bids().status, 0);
  const fs::path mask = anat("sub-01_desc-brain_mask.nii.gz"),
                 brain = anat("sub-01_desc-brain_T1w.nii.gz");
  const Bytes original = readBytes(mask), oldBrain = readBytes(brain);
  Bytes voxels = inflate(mask);
  std::fill(voxels.begin() + 352 + 32 * 38 * 18, voxels.end(), 0);  // half the head
  const auto write = [&] {
    const gzFile file = gzopen(mask.c_str(), "wb1");
    gzwrite(file, voxels.data(), unsigned(voxels.size()));
    gzclose(file);
    return readBytes(mask);
  };
  const Bytes edited = write();
  EXPECT_EQ(bids({}, "group").status, 0);
  EXPECT_NE(table().at("sub-01").at("reason").find("mask was changed"), std::string::npos);
  const double volume = std::stod(table().at("sub-01").at("volume_ml"));
  for (const std::vector<std::string>& options :
       {std::vector<std::string>{}, {"--w5", "0.9"}, {"--force"}}) {
    ASSERT_EQ(bids(options).status, 0);
    EXPECT_EQ(readBytes(mask), edited);
    EXPECT_EQ(info("sub-01")["Manual"], true);
    EXPECT_EQ(info("sub-01")["Tavrel"]["MaskSha256"], tavrel::scan::sha256(mask));
    EXPECT_EQ(table().at("sub-01").at("manual"), "true");
    EXPECT_LT(std::stod(table().at("sub-01").at("volume_ml")), 0.8 * volume);
    EXPECT_EQ(table().at("sub-02").at("manual"), "false");
  }
  EXPECT_NE(readBytes(brain), oldBrain);
  const auto before = stamps(out_);
  ASSERT_EQ(bids().status, 0);
  EXPECT_EQ(stamps(out_), before);

  // Changed again, to something that does not fit; and taken away.
  voxels[42] = 23;
  write();
  EXPECT_EQ(bids().status, 1);
  EXPECT_NE(table().at("sub-01").at("reason").find("grid"), std::string::npos)
      << table().at("sub-01").at("reason");
  fs::remove(mask);
  EXPECT_EQ(bids().status, 0);
  EXPECT_EQ(readBytes(mask), original);
  EXPECT_EQ(info("sub-01")["Manual"], false);
}

TEST_F(Cohort, TakesMasksFromAFolder) {
  addSubjects(3);
  const fs::path masks = folder_ / "masks";
  fs::create_directories(masks / "sub-02/anat");
  std::vector<std::uint8_t> half(32 * 38 * 36);
  std::fill(half.begin(), half.begin() + std::ptrdiff_t(half.size() / 2), 7);
  writeVolume(masks / "sub-01_desc-brain_mask.nii.gz", kTiny, half);
  writeVolume(masks / "sub-02/anat/sub-02_mask.nii", kTiny, half);
  const std::vector<std::string> options = {"--masks", masks};
  ASSERT_EQ(bids(options).status, 0);
  for (const char* scan : {"sub-01", "sub-02"}) {
    EXPECT_EQ(info(scan)["Manual"], true);
    const Bytes mask = inflate(anat(std::string(scan) + "_desc-brain_mask.nii.gz"));
    EXPECT_EQ(std::count(mask.begin() + 352, mask.end(), 1), long(half.size() / 2));
  }
  EXPECT_EQ(info("sub-03")["Manual"], false);
  const auto before = stamps(out_);
  ASSERT_EQ(bids(options).status, 0);
  ASSERT_EQ(bids().status, 0);
  EXPECT_EQ(stamps(out_), before) << "a mask that was brought in stays without the option, too";
  std::fill(half.begin(), half.begin() + 1000, 0);
  writeVolume(masks / "sub-01_desc-brain_mask.nii.gz", kTiny, half);
  ASSERT_EQ(bids(options).status, 0);
  const Bytes mask = inflate(anat("sub-01_desc-brain_mask.nii.gz"));
  EXPECT_EQ(std::count(mask.begin() + 352, mask.end(), 1), long(half.size() / 2 - 1000));
}

TEST_F(Cohort, ReadsRatingsBackIntoTheTable) {
  addSubjects(2);
  ASSERT_EQ(bids().status, 0);
  const std::string head = "participant_id\tsession_id\tscan\trating\tcomment\n";
  const auto rate = [&](const char* file, const std::string& lines) {
    std::ofstream(out_ / file) << head << lines;
  };
  rate("tavrel_ratings.tsv",
       "sub-01\tn/a\tsub-01\tpass\tfine\r\nsub-02\tn/a\tsub-02\tmaybe\tn/a\n");
  rate("tavrel_ratings(1).tsv", "sub-01\tn/a\tsub-01\tfail\teyes \x1b[31m\n");
  EXPECT_EQ(bids({}, "group").status, 0);
  EXPECT_EQ(table().at("sub-01").at("rating"), "fail");
  EXPECT_EQ(table().at("sub-01").at("comment"), "eyes \\x1b[31m");
  EXPECT_EQ(table().at("sub-02").at("rating"), "maybe");
  EXPECT_EQ(table().at("sub-02").at("comment"), "n/a");

  // Of the mask that is there, and of another one.
  const std::string mask = info("sub-01")["Tavrel"]["MaskSha256"];
  std::ofstream(out_ / "tavrel_ratings(1).tsv")
      << "scan\trating\tcomment\tmask_sha256\nsub-01\tpass\tgood\t" << mask
      << "\nsub-02\tpass\tgood\t" << mask << "\n";
  EXPECT_EQ(bids({}, "group").status, 0);
  EXPECT_EQ(table().at("sub-01").at("rating"), "pass");
  EXPECT_EQ(table().at("sub-02").at("rating"), "n/a");
  EXPECT_EQ(table().at("sub-02").at("comment"), "good");
  EXPECT_NE(table().at("sub-02").at("reason").find("pass, was given to another mask"),
            std::string::npos);
}

}  // namespace
