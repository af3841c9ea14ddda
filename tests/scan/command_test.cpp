#include "command.h"

#include <sys/resource.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "scan/checksum.h"

namespace {

using namespace test_files;

template <class Fields>
Fields headerOf(const fs::path& path) {
  Fields fields;
  std::memcpy(&fields, inflate(path).data(), sizeof fields);
  return fields;
}

TEST_F(Command, WritesBrainMaskAndPictureBesideTheScan) {
  const Result result =
      run({name("scan.nii.gz"), "--evolution", "exact", "--w5", "1.0", "--phi", name("phi.nii")});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(folder_.list(),
            (std::vector<std::string>{"phi.nii", "scan.nii.gz", "scan_brain.nii.gz",
                                      "scan_brain_mask.nii.gz", "scan_brain_qc.png"}));
  // One line a level and one for the scan.
  EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 4) << result.out;
  EXPECT_NE(result.out.find("W5 1.00, level 3, 40 x 44 x 40"), std::string::npos) << result.out;

  const Bytes scan = inflate(name("scan.nii.gz")), brain = inflate(name("scan_brain.nii.gz")),
              mask = inflate(name("scan_brain_mask.nii.gz")), phi = readBytes(name("phi.nii"));
  const std::size_t voxels = 37 * 42 * 40, scanData = scan.size() - 2 * voxels;
  ASSERT_EQ(brain.size(), scan.size());
  ASSERT_EQ(mask.size(), 352 + voxels);
  ASSERT_EQ(phi.size(), 352 + 4 * voxels);
  EXPECT_TRUE(std::equal(scan.begin(), scan.begin() + std::ptrdiff_t(scanData), brain.begin()))
      << "the brain's header and extensions are the scan's";
  std::size_t inside = 0, negative = 0;
  for (std::size_t v = 0; v < voxels; ++v) {
    const char *stored = &scan[scanData + 2 * v], *kept = &brain[scanData + 2 * v];
    inside += std::size_t(mask[352 + v]);
    const char zero[2] = {};
    ASSERT_EQ(std::memcmp(kept, mask[352 + v] ? stored : zero, 2), 0);
    float value;
    std::memcpy(&value, &phi[352 + 4 * v], 4);
    negative += value < 0;
  }
  EXPECT_GT(inside, voxels / 10);
  EXPECT_GT(double(negative), 0.5 * double(inside));
  EXPECT_LT(negative, voxels / 2);

  // The geometry of the mask and the function is the scan's, byte for byte.
  for (const Bytes& other : {mask, phi})
    for (const auto& [first, end] : {std::pair{40, 56}, {76, 108}, {123, 124}, {252, 328}})
      EXPECT_TRUE(std::equal(&scan[std::size_t(first)], &scan[std::size_t(end)],
                             &other[std::size_t(first)]));
}

/// Runs Tavrel on raw voxels and returns its mask.
Bytes rawMask(const TemporaryFolder& folder, const char* format, const void* voxels,
              std::size_t bytes) {
  const char* first = static_cast<const char*>(voxels);
  writeBytes(folder / "raw", Bytes(first, first + bytes));
  Process(TAVREL_COMMAND, {"1.1", "37", "42", "40", folder / "raw", format, folder / "raw_mask",
                           folder / "raw_ss", folder / "raw_phi"})
      .wait();
  return readBytes(folder / "raw_mask");
}

TEST_F(Command, WithoutFinishingGivesExactlyTavrelsMask) {
  const auto compare = [&]<class T>(const char* format, int datatype, std::type_identity<T>,
                                    bool swapped) {
    const FileLayout layout{.size = kSmall, .datatype = datatype, .slope = 3, .mm = kSmallMm};
    auto voxels = phantom<T>(layout, 180);
    if constexpr (std::is_floating_point_v<T>) voxels[77] = NAN;
    writeNifti(folder_ / "a.nii", layout, voxels);
    if (swapped) swapByteOrder(folder_ / "a.nii", sizeof(T));
    const Result result =
        run({name("a.nii"), "--evolution", "exact", "--w5", "1.1", "--finish", "none", "--force"});
    ASSERT_EQ(result.status, 0) << result.err;
    const Bytes mask = readBytes(folder_ / "a_brain_mask.nii");
    const Bytes expected = rawMask(folder_, format, voxels.data(), voxels.size() * sizeof(T));
    ASSERT_EQ(expected.size(), voxels.size());
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), mask.begin() + 352)) << format;
    EXPECT_GT(std::count(expected.begin(), expected.end(), 1), 1000);
  };
  compare("byte", NIFTI_TYPE_UINT8, std::type_identity<std::uint8_t>{}, false);
  compare("word", NIFTI_TYPE_INT16, std::type_identity<std::int16_t>{}, true);
  compare("float", NIFTI_TYPE_FLOAT32, std::type_identity<float>{}, false);
}

TEST_F(Command, KeepsVersionByteOrderScalingAndBackground) {
  // A scaled, shifted NIfTI-2 pair in which air is stored as -32000 and stands for about 0.
  const FileLayout layout{.size = kSmall,
                          .fileType = NIFTI_FTYPE_NIFTI2_2,
                          .slope = 0.01,
                          .inter = 320,
                          .mm = kSmallMm};
  auto voxels = phantom<std::int16_t>(layout, 20000);
  for (auto& v : voxels) v = std::int16_t(v - 32000);
  writeNifti(folder_ / "pair.hdr", layout, voxels);
  ASSERT_EQ(run({name("pair.img"), "--w5", "1.0"}).status, 0);
  const auto in = headerOf<nifti_2_header>(folder_ / "pair.hdr");
  const auto out = headerOf<nifti_2_header>(folder_ / "pair_brain.nii.gz");
  EXPECT_EQ(std::string(out.magic), "n+2");
  EXPECT_EQ(out.scl_slope, 0.01);
  EXPECT_EQ(out.scl_inter, 320);
  EXPECT_EQ(std::memcmp(in.pixdim, out.pixdim, sizeof in.pixdim), 0);
  EXPECT_EQ(
      std::memcmp(&in.qform_code, &out.qform_code,
                  offsetof(nifti_2_header, slice_code) - offsetof(nifti_2_header, qform_code)),
      0);
  const Bytes brain = inflate(folder_ / "pair_brain.nii.gz");
  std::int16_t corner;
  std::memcpy(&corner, &brain[std::size_t(out.vox_offset)], 2);
  EXPECT_EQ(corner, -32000);

  writeNifti(folder_ / "big.nii", kHead, phantom<std::int16_t>(kHead, 200));
  swapByteOrder(folder_ / "big.nii", 2);
  ASSERT_EQ(run({name("big.nii"), "--w5", "1.0"}).status, 0);
  ASSERT_EQ(run({name("scan.nii.gz"), "--w5", "1.0"}).status, 0);
  const Bytes bigMask = readBytes(folder_ / "big_brain_mask.nii");
  EXPECT_EQ(bigMask[3], 348 & 0xff);
  const Bytes mask = inflate(folder_ / "scan_brain_mask.nii.gz");
  EXPECT_TRUE(std::equal(mask.begin() + 352, mask.end(), bigMask.begin() + 352, bigMask.end()));
}

TEST_F(Command, ReportsEveryScanAndGoesOnAfterAFailure) {
  writeBytes(folder_ / "bad.nii.gz", {'n', 'o', 't', ' ', 'a', ' ', 's', 'c', 'a', 'n'});
  writeNifti(folder_ / "four.nii", {.size = kSmall, .volumes = 1, .mm = kSmallMm},
             phantom<std::int16_t>(kHead, 200));
  const Result result =
      run({name("bad.nii.gz"), name("scan.nii.gz"), name("missing.nii"), name("four.nii"),
           "--out-dir", name("out"), "--json", name("report.json"), "--w5", "1.0", "--quiet"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "tavrel-nifti: " + name("bad.nii.gz") + ": is not a NIfTI file\n" +
                            "tavrel-nifti: " + name("missing.nii") + ": does not exist\n" +
                            "tavrel-nifti: 2 of 4 failed: " + name("bad.nii.gz") + " " +
                            name("missing.nii") + "\n");
  const auto report = nlohmann::json::parse(readText(folder_ / "report.json"));
  ASSERT_EQ(report["scans"].size(), 4u);
  EXPECT_EQ(report["scans"][0]["error"], "is not a NIfTI file");
  EXPECT_EQ(report["settings"]["w5"], 1.0);
  const auto& scan = report["scans"][1];
  EXPECT_EQ(scan["sha256"], tavrel::scan::sha256(folder_ / "scan.nii.gz"));
  EXPECT_EQ(scan["trials"].size(), 1u);
  ASSERT_EQ(scan["flags"].size(), 1u) << scan["flags"];
  EXPECT_EQ(scan["flags"][0]["code"], "resolution");
  EXPECT_LT(scan["confidence"], 0.5);
  const Bytes mask = inflate(folder_ / "out/scan_brain_mask.nii.gz");
  const auto voxels = std::count(mask.begin() + 352, mask.end(), 1);
  EXPECT_EQ(scan["voxels"], voxels);
  EXPECT_NEAR(scan["volume_ml"], double(voxels) * std::pow(kSmallMm[0], 3) / 1000, 1e-3);
  EXPECT_EQ(report["scans"][3]["volume_ml"], scan["volume_ml"]);
}

TEST(Report, ChecksumIsTheStandardOne) {
  const TemporaryFolder folder;
  writeBytes(folder / "abc", {'a', 'b', 'c'});
  EXPECT_EQ(tavrel::scan::sha256(folder / "abc"),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST_F(Command, DoesNotOverwriteUnlessForced) {
  writeBytes(folder_ / "scan_brain_mask.nii.gz", {'m', 'i', 'n', 'e'});
  const auto before = folder_.list();
  const Result result = run({name("scan.nii.gz"), "--w5", "1.0"});
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find("scan_brain_mask.nii.gz exists; --force overwrites it"),
            std::string::npos);
  EXPECT_EQ(folder_.list(), before);
  EXPECT_EQ(readText(folder_ / "scan_brain_mask.nii.gz"), "mine");
  EXPECT_EQ(run({name("scan.nii.gz"), "--w5", "1.0", "--force"}).status, 0);
  EXPECT_GT(inflate(folder_ / "scan_brain_mask.nii.gz").size(), 37u * 42 * 40);
}

TEST_F(Command, LeavesNothingBehindWhereItCannotWrite) {
  const Result missing =
      run({name("scan.nii.gz"), "--w5", "1.0", "--brain", name("no/such/brain.nii")});
  EXPECT_EQ(missing.status, 2);
  EXPECT_NE(missing.err.find("is not a folder"), std::string::npos) << missing.err;
  const Result unwritable = run({name("scan.nii.gz"), "--w5", "1.0", "--mask", "/proc/mask.nii"});
  EXPECT_EQ(unwritable.status, 2);
  EXPECT_NE(unwritable.err.find("/proc"), std::string::npos) << unwritable.err;
  EXPECT_EQ(run({name("scan.nii.gz"), "--mask", name(std::string(300, 'm') + ".nii")}).status, 2);
  EXPECT_EQ(folder_.list(), onlyScan_);
  if (geteuid() != 0) {
    fs::permissions(folder_.path(), fs::perms::owner_read | fs::perms::owner_exec);
    const Result readOnly = run({name("scan.nii.gz"), "--w5", "1.0"});
    fs::permissions(folder_.path(), fs::perms::owner_all);
    EXPECT_EQ(readOnly.status, 2);
    EXPECT_NE(readOnly.err.find("is not writable"), std::string::npos);
  }
  // A limit on file sizes stands for a full disk: the write fails in its middle.
  const Result full = run({name("scan.nii.gz"), "--w5", "1.0"}, [] {
    const rlimit limit = {4096, 4096};
    setrlimit(RLIMIT_FSIZE, &limit);
  });
  EXPECT_EQ(full.status, 2);
  EXPECT_NE(full.err.find("scan_brain.nii.gz cannot be written: File too large"), std::string::npos)
      << full.err;
  EXPECT_EQ(folder_.list(), onlyScan_);
}

TEST_F(Command, CtrlCLeavesNoFile) {
  const FileLayout layout{.size = {120, 130, 120}};
  writeNifti(folder_ / "large.nii", layout, phantom<std::int16_t>(layout, 200));
  const auto before = folder_.list();
  Process process(TAVREL_NIFTI_COMMAND, {name("large.nii"), "--evolution", "exact", "--w5", "1.0"},
                  [] { signal(SIGHUP, SIG_IGN); });  // as nohup starts it
  process.waitForOutput();
  ASSERT_NE(process.out().find("level 1"), std::string::npos);
  kill(process.id(), SIGHUP);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  kill(process.id(), SIGINT);
  const Result result = process.wait();
  EXPECT_EQ(result.status, 130);
  EXPECT_EQ(result.err, "tavrel-nifti: interrupted\n");
  EXPECT_EQ(folder_.list(), before);
}

TEST_F(Command, WrongUsageHasStatusOneAndDoesNothing) {
  const std::string scan = name("scan.nii.gz");
  const std::vector<std::vector<std::string>> wrong = {
      {},
      {scan, "--w5", "much"},
      {scan, "--w5", "1.0x"},
      {scan, "--w5", "nan"},
      {scan, "--finish", "some"},
      {scan, "--finish", "none", "--open", "2"},
      {scan, "--open", "-1"},
      {scan, "--resample", "0"},
      {scan, "--threads", "0"},
      {scan, "--evolution", "quick"},
      {scan, "--phi", name("phi.nii")},  // goes with the exact evolution alone
      {scan, "--volume-range", "900", "300"},
      {scan, "--volume-range", "-5", "300"},
      {scan, "--nonsense"},
      {scan, "--mask", "mask.img"},
      {scan, "--qc", "picture.jpg"},
      {scan, "--mask", name("same.nii"), "--brain", name("same.nii")},
      {scan, "--force", "--brain", scan},
      {scan, name("other.nii"), "--brain", name("b.nii")},
      {scan, name("x/scan.nii.gz"), "--out-dir", name("out")},
  };
  for (const auto& arguments : wrong) {
    const Result result = run(arguments);
    EXPECT_EQ(result.status, 1) << result.err;
    EXPECT_NE(result.err, "");
  }
  EXPECT_EQ(folder_.list(), onlyScan_);
  const Result help = run({"--help"});
  EXPECT_EQ(help.status, 0);
  for (const char* option :
       {"--out-dir", "--w5", "--finish", "--resample", "--threads", "--json", "Examples"})
    EXPECT_NE(help.out.find(option), std::string::npos) << option;
  EXPECT_EQ(run({"--version"}).out, "tavrel-nifti 1.0.0\n");
}

TEST_F(Command, MakesBrainAndPictureAgainFromAGivenMask) {
  const std::string scan = name("scan.nii.gz"), mask = name("scan_brain_mask.nii.gz");
  ASSERT_EQ(run({scan, "--w5", "1.0"}).status, 0);
  const Bytes brain = inflate(name("scan_brain.nii.gz")), given = readBytes(mask);
  ASSERT_EQ(run({scan, "--from-mask", mask, "--force"}).status, 0);
  EXPECT_EQ(inflate(name("scan_brain.nii.gz")), brain);
  EXPECT_EQ(readBytes(mask), given);

  // Outputs are written at the same time, or one after another.
  for (const std::string threads : {"1", "3"})
    ASSERT_EQ(run({scan, "--from-mask", mask, "--threads", threads, "--out-dir", name(threads),
                   "--mask", name(threads + "/mask.nii.gz")})
                  .status,
              0);
  for (const char* file : {"mask.nii.gz", "scan_brain.nii.gz", "scan_brain_qc.png"})
    EXPECT_EQ(readBytes(folder_ / "1" / file), readBytes(folder_ / "3" / file));

  // Corrected by hand: one half is cut away, and the voxels inside hold 255.
  Bytes edited = inflate(mask);
  std::fill(edited.begin() + 352, edited.begin() + 352 + 37 * 42 * 20, '\0');
  for (char& v : edited) v = &v - edited.data() >= 352 && v ? '\xff' : v;
  writeBytes(name("edited.nii"), edited);
  ASSERT_EQ(run({scan, "--from-mask", name("edited.nii"), "--force", "--mask", name("m.nii"),
                 "--json", name("report.json")})
                .status,
            0);
  const Bytes again = readBytes(name("m.nii")), cut = inflate(name("scan_brain.nii.gz"));
  const auto inside = std::count(edited.begin() + 352, edited.end(), '\xff');
  EXPECT_EQ(std::count(again.begin() + 352, again.end(), 1), inside);
  EXPECT_EQ(std::count(cut.end() - 2 * 37 * 42 * 40, cut.end() - 2 * 37 * 42 * 20, '\0'),
            2 * 37 * 42 * 20);
  const auto entry = nlohmann::json::parse(readText(name("report.json")))["scans"][0];
  EXPECT_EQ(entry["voxels"], inside);
  EXPECT_TRUE(entry["w5"].is_null());

  writeNifti(name("other.nii"), {}, std::vector<std::int16_t>(120));
  EXPECT_NE(run({scan, "--from-mask", name("other.nii"), "--force"}).err.find("grid"),
            std::string::npos);
  EXPECT_EQ(run({scan, "--from-mask", mask, "--w5", "1"}).status, 1);
}

TEST_F(Command, FindsTheBrainWithItsDefaultsAndTellsWhatItDoubts) {
  // A phantom in a larger field of view.
  const FileLayout layout{.size = {66, 76, 70}, .mm = {3.125, 3.125, 3.125}};
  const auto head = tavrel::makePhantom(55, 64, 60);
  std::vector<std::int16_t> voxels, inverted;
  Bytes brain(352);
  for (int z = 0; z < 70; ++z)
    for (int y = 0; y < 76; ++y)
      for (int x = 0; x < 66; ++x) {
        const bool within = x >= 5 && x < 60 && y >= 6 && y < 70 && z >= 5 && z < 65;
        const auto v = std::size_t(within ? ((z - 5) * 64 + y - 6) * 55 + x - 5 : 0);
        voxels.push_back(std::int16_t(1000 * std::max(0.0, head.image[v])));
        inverted.push_back(std::int16_t(1200 - voxels.back()));
        brain.push_back(char(within && head.brain[v]));
      }
  writeNifti(name("good.nii.gz"), layout, voxels);
  writeNifti(name("inverted.nii"), layout, inverted);
  writeNifti(name("same.nii"), layout, std::vector<std::int16_t>(voxels.size(), 7));
  const auto strip = [&](std::vector<std::string> arguments) {
    arguments[0] = name(arguments[0]);
    for (const std::string& more : {std::string("--json"), name("r.json"), std::string("--force")})
      arguments.push_back(more);
    return run(arguments);
  };
  const auto entry = [&] { return reportIn(name("r.json"))["scans"][0]; };

  EXPECT_EQ(strip({"good.nii.gz", "--strict"}).status, 0);
  EXPECT_TRUE(entry()["flags"].empty()) << entry()["flags"];
  EXPECT_GT(entry()["confidence"], 0.5);
  EXPECT_GE(entry()["trials"].size(), 6u);
  EXPECT_GT(dice(inflate(name("good_brain_mask.nii.gz")), brain), 0.92);

  const Result small = strip({"good.nii.gz", "--volume-range", "300", "900"});
  EXPECT_EQ(small.status, 0);
  EXPECT_NE(small.err.find("mL is outside 300 to 900; look at the picture"), std::string::npos);
  EXPECT_EQ(entry()["flags"][0]["code"], "volume");
  EXPECT_EQ(strip({"good.nii.gz", "--volume-range", "300", "900", "--strict"}).status, 3);
  EXPECT_EQ(strip({"inverted.nii", "--strict"}).status, 3);
  EXPECT_LT(entry()["confidence"], 0.5);
  EXPECT_TRUE(fs::exists(name("inverted_brain_mask.nii")));
  EXPECT_EQ(strip({"same.nii", "--strict"}).status, 2);
  EXPECT_EQ(entry()["error"], "holds no head");
}

TEST_F(Command, ResamplesAndThreadsWithoutChangingTheGrid) {
  const std::string scan = name("scan.nii.gz");
  const Result result = run({scan, "--evolution", "exact", "--w5", "1.0", "--brain", "none", "--qc",
                             "none", "--resample", "3", "--phi", name("phi.nii.gz")});
  ASSERT_EQ(result.status, 0);
  // The volume of a level is that of the finer grid: near the mask's, not several times as much.
  const auto millilitres = [&](std::size_t from) {
    std::istringstream words(result.out.substr(from));
    std::string last, word;
    while (words >> word && !word.starts_with("mL")) last = word;
    return std::stod(last);
  };
  const double level = millilitres(result.out.find("level 3")),
               mask = millilitres(result.out.rfind(name("scan.nii.gz: ")));
  EXPECT_GT(level, 0.4 * mask);
  EXPECT_LT(level, 1.2 * mask);
  const Bytes resampled = inflate(name("scan_brain_mask.nii.gz"));
  EXPECT_EQ(inflate(name("phi.nii.gz")).size(), 352 + 4u * 37 * 42 * 40);
  for (const char* evolution : {"exact", "scan"}) {
    const auto maskWith = [&](const char* threads) {
      setenv("TAVREL_THREADS", threads, 1);
      EXPECT_EQ(run({scan, "--evolution", evolution, "--force", "--json", name("r.json")}).status,
                0);
      unsetenv("TAVREL_THREADS");
      EXPECT_EQ(std::to_string(reportIn(name("r.json"))["settings"]["threads"].get<int>()),
                threads);
      return inflate(name("scan_brain_mask.nii.gz"));
    };
    const Bytes own = maskWith("1");
    EXPECT_EQ(maskWith("3"), own);
    EXPECT_GT(dice(own, resampled), 0.9) << evolution;
  }
}

}  // namespace
