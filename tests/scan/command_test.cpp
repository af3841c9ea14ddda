#include "command.h"

#include <sys/resource.h>

#include "scan/checksum.h"

namespace {

using namespace test_files;

constexpr std::ptrdiff_t kData = 352, kVoxels = 37 * 42 * 40;  // of the small head's outputs

/// Stored voxels at the end of a file, and those of `other` where a mask file holds 0.
Bytes masked(Bytes file, const Bytes& mask, std::size_t voxels, std::array<char, 2> other) {
  for (std::size_t v = 1; v <= voxels; ++v)
    if (!mask[mask.size() - v]) std::copy_n(other.begin(), 2, &file[file.size() - 2 * v]);
  return file;
}

TEST_F(Command, WritesBrainMaskAndPictureBesideTheScan) {
  const Result result = strip("scan.nii.gz --evolution exact --w5 1.0 --phi phi.nii");
  EXPECT_EQ(files(), (std::set<std::string>{"phi.nii", "scan.nii.gz", "scan_brain.nii.gz",
                                            "scan_brain_mask.nii.gz", "scan_brain_qc.png"}));
  // One line a level and one for the scan.
  EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 4) << result.out;
  EXPECT_NE(result.out.find("W5 1.00, level 3, 40 x 44 x 40"), std::string::npos) << result.out;

  const Bytes scan = inflate("scan.nii.gz"), mask = inflate("scan_brain_mask.nii.gz"),
              phi = readBytes("phi.nii");
  ASSERT_EQ(mask.size(), kData + kVoxels);
  ASSERT_EQ(phi.size(), kData + 4 * kVoxels);
  // The header and the extensions of the brain are the scan's.
  EXPECT_TRUE(inflate("scan_brain.nii.gz") == masked(scan, mask, kVoxels, {0, 0}));
  std::vector<float> values(kVoxels);
  std::memcpy(values.data(), &phi[kData], 4 * kVoxels);
  const auto inside = std::count(mask.begin() + kData, mask.end(), 1),
             negative = std::count_if(values.begin(), values.end(), [](float f) { return f < 0; });
  EXPECT_GT(inside, kVoxels / 10);
  EXPECT_GT(negative, inside / 2);
  EXPECT_LT(negative, kVoxels / 2);
  // The geometry of the mask and the function is the scan's, byte for byte.
  for (const Bytes& other : {mask, phi})
    for (const auto& [first, end] : {std::pair{40, 56}, {76, 108}, {123, 124}, {252, 328}})
      EXPECT_TRUE(std::equal(scan.begin() + first, scan.begin() + end, other.begin() + first));
}

TEST_F(Command, WithoutFinishingGivesExactlyTavrelsMask) {
  const auto compare = [&]<class T>(const std::string& format, int datatype, std::type_identity<T>,
                                    bool swapped) {
    const FileLayout layout{
        .size = kSmall, .datatype = datatype, .swapped = swapped, .slope = 3, .mm = kSmallMm};
    auto voxels = phantom<T>(layout, 180);
    if constexpr (std::is_floating_point_v<T>) voxels[77] = NAN;
    writeNifti("a.nii", layout, voxels);
    strip("a.nii --evolution exact --w5 1.1 --finish none --force");
    const char* first = reinterpret_cast<const char*>(voxels.data());
    writeBytes("raw", Bytes(first, first + voxels.size() * sizeof(T)));
    Process(TAVREL_COMMAND, {"1.1", "37", "42", "40", "raw", format, "mask", "ss", "phi"}).wait();
    const Bytes mask = readBytes("a_brain_mask.nii"), expected = readBytes("mask");
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), mask.begin() + kData, mask.end()))
        << format;
    EXPECT_GT(std::count(expected.begin(), expected.end(), 1), 1000);
  };
  compare("byte", NIFTI_TYPE_UINT8, std::type_identity<std::uint8_t>{}, false);
  compare("word", NIFTI_TYPE_INT16, std::type_identity<std::int16_t>{}, true);
  compare("float", NIFTI_TYPE_FLOAT32, std::type_identity<float>{}, false);
}

TEST_F(Command, KeepsVersionByteOrderScalingAndBackground) {
  // A scaled, shifted NIfTI-2 pair in which air is stored as -32000 and stands for about 0.
  auto voxels = phantom<std::int16_t>(kHead, 20000);
  for (auto& v : voxels) v = std::int16_t(v - 32000);
  FileLayout layout = kHead;
  layout.version = 2;
  layout.slope = 0.01;
  layout.inter = 320;
  for (const bool swapped : {false, true}) {
    layout.swapped = swapped;
    layout.pair = true;
    writeNifti("pair.hdr", layout, voxels);
    layout.pair = false;
    writeNifti("one.nii", layout, voxels);
    strip("pair.img --w5 1.0 --force");
    const std::array<char, 2> air =
        swapped ? std::array{'\x83', '\0'} : std::array{'\0', '\x83'};  // -32000
    EXPECT_TRUE(inflate("pair_brain.nii.gz") ==
                masked(readBytes("one.nii"), inflate("pair_brain_mask.nii.gz"), kVoxels, air));
  }
}

TEST_F(Command, ReportsEveryScanAndGoesOnAfterAFailure) {
  writeBytes("bad.nii.gz", {'n', 'o', 't', ' ', 'a', ' ', 's', 'c', 'a', 'n'});
  writeNifti("four.nii", {.size = kSmall, .volumes = 1, .mm = kSmallMm},
             phantom<std::int16_t>(kHead, 200));
  EXPECT_EQ(strip("bad.nii.gz scan.nii.gz missing.nii four.nii --out-dir out --json r.json "
                  "--w5 1.0 --quiet",
                  2),
            (Result{2, "",
                    "tavrel-nifti: bad.nii.gz: is not a NIfTI file\n"
                    "tavrel-nifti: missing.nii: does not exist\n"
                    "tavrel-nifti: 2 of 4 failed: bad.nii.gz missing.nii\n"}));
  const auto report = reportIn("r.json");
  ASSERT_EQ(report["scans"].size(), 4u);
  EXPECT_EQ(report["scans"][0]["error"], "is not a NIfTI file");
  EXPECT_EQ(report["settings"]["w5"], 1.0);
  const auto& scan = report["scans"][1];
  EXPECT_EQ(scan["sha256"], tavrel::scan::sha256("scan.nii.gz"));
  EXPECT_EQ(scan["trials"].size(), 1u);
  ASSERT_EQ(scan["flags"].size(), 1u) << scan["flags"];
  EXPECT_EQ(scan["flags"][0]["code"], "resolution");
  EXPECT_LT(scan["confidence"], 0.5);
  const Bytes mask = inflate("out/scan_brain_mask.nii.gz");
  const auto voxels = std::count(mask.begin() + kData, mask.end(), 1);
  EXPECT_EQ(scan["voxels"], voxels);
  EXPECT_NEAR(scan["volume_ml"], double(voxels) * std::pow(kSmallMm[0], 3) / 1000, 1e-3);
  EXPECT_EQ(report["scans"][3]["volume_ml"], scan["volume_ml"]);
}

TEST_F(Command, ChecksumIsTheStandardOne) {
  writeBytes("abc", {'a', 'b', 'c'});
  EXPECT_EQ(tavrel::scan::sha256("abc"),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST_F(Command, LeavesEverythingAsItIsWhereItCannotWrite) {
  writeBytes("mine.nii", {'m', 'i', 'n', 'e'});
  const auto before = files();
  const auto limited = [] {  // stands for a full disk: a write fails in its middle
    const rlimit limit = {4096, 4096};
    setrlimit(RLIMIT_FSIZE, &limit);
  };
  struct Case {
    std::string options, words;
    bool late = false;  // seen after the work alone
    std::function<void()> inChild = {};
  };
  for (const Case& c :
       {Case{"--brain no/such/brain.nii", "no/such is not a folder"},
        {"--mask " + std::string(300, 'm') + ".nii", "File name too long"},
        {"--mask mine.nii", "mine.nii exists; --force overwrites it"},
        {"--mask /proc/mask.nii", "/proc/mask.nii cannot be written", true},
        {"", "scan_brain.nii.gz cannot be written: File too large", true, limited}}) {
    const std::string line = "scan.nii.gz --evolution exact --w5 1 " + c.options;
    EXPECT_EQ(strip(line, 2, c.words, c.inChild).out.empty(), !c.late) << line;
    EXPECT_EQ(files(), before);
    EXPECT_EQ(readText("mine.nii"), "mine");
  }
  strip("scan.nii.gz --w5 1 --mask mine.nii --force");
  EXPECT_EQ(readBytes("mine.nii").size(), kData + kVoxels);
}

TEST_F(Command, CtrlCLeavesNoFile) {
  const FileLayout layout{.size = {120, 130, 120}};
  writeNifti("large.nii", layout, phantom<std::int16_t>(layout, 200));
  const auto before = files();
  Process process(TAVREL_NIFTI_COMMAND, {"large.nii", "--evolution", "exact", "--w5", "1.0"},
                  [] { signal(SIGHUP, SIG_IGN); });  // as nohup starts it
  process.waitForOutput();
  ASSERT_NE(process.out().find("level 1"), std::string::npos);
  kill(process.id(), SIGHUP);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  kill(process.id(), SIGINT);
  const Result result = process.wait();
  EXPECT_EQ(result.status, 130);
  EXPECT_EQ(result.err, "tavrel-nifti: interrupted\n");
  EXPECT_EQ(files(), before);

  // What was done before is kept and reported.
  Process second(TAVREL_NIFTI_COMMAND,
                 {"scan.nii.gz", "large.nii", "--evolution", "exact", "--w5", "1", "--json", "r"});
  second.waitForOutput("-> scan_brain");
  kill(second.id(), SIGTERM);
  EXPECT_EQ(second.wait().status, 143);
  EXPECT_TRUE(reportIn("r")["interrupted"]);
  ASSERT_EQ(reportIn("r")["scans"].size(), 1u);
  EXPECT_EQ(reportIn("r")["scans"][0]["input"], "scan.nii.gz");
  EXPECT_FALSE(fs::exists("large_brain.nii"));
}

TEST_F(Command, WrongUsageHasStatusOneAndDoesNothing) {
  const auto before = files();
  for (const char* options : {"--w5 much",
                              "--w5 1.0x",
                              "--w5 nan",
                              "--finish some",
                              "--finish none --open 2",
                              "--open -1",
                              "--resample 0",
                              "--w5 0",
                              "--resample 6",
                              "--threads 0",
                              "--evolution quick",
                              "--phi phi.nii",  // goes with the exact evolution alone
                              "--from-mask scan.nii.gz --w5 1",
                              "--volume-range 900 300",
                              "--volume-range -5 300",
                              "--nonsense",
                              "--mask mask.img",
                              "--qc picture.jpg",
                              "--mask same.nii --brain same.nii",
                              "--force --brain scan.nii.gz",
                              "other.nii --brain b.nii",
                              "x/scan.nii.gz --out-dir out"})
    EXPECT_NE(strip(std::string("scan.nii.gz ") + options, 1).err, "") << options;
  EXPECT_NE(strip("", 1).err, "");
  EXPECT_EQ(run({"scan.nii.gz", "--json", ""}).status, 1) << "a variable that is not set";
  const auto manyThreads = [] { setenv("TAVREL_THREADS", "all", 1); };
  strip("scan.nii.gz", 1, "TAVREL_THREADS: \"all\" is not a number from 1 to 1024", manyThreads);
  EXPECT_EQ(files(), before);
  const Result help = strip("--help", 0, "", manyThreads);
  for (const char* option : {"--out-dir", "--resample", "--json", "Examples"})
    EXPECT_NE(help.out.find(option), std::string::npos) << option;
  EXPECT_EQ(strip("--version").out, "tavrel-nifti 1.1.0\n");
}

TEST_F(Command, MakesBrainAndPictureAgainFromAGivenMask) {
  strip("scan.nii.gz --w5 1.0");
  const Bytes brain = inflate("scan_brain.nii.gz"), given = readBytes("scan_brain_mask.nii.gz");
  // Outputs are written at the same time, or one after another.
  for (const std::string n : {"1", "3"})
    strip("scan.nii.gz --from-mask scan_brain_mask.nii.gz --threads " + n + " --out-dir " + n +
          " --mask " + n + "/mask.nii.gz");
  for (const std::string file : {"mask.nii.gz", "scan_brain.nii.gz", "scan_brain_qc.png"})
    EXPECT_EQ(readBytes("1/" + file), readBytes("3/" + file));
  EXPECT_EQ(inflate("1/scan_brain.nii.gz"), brain);
  EXPECT_EQ(readBytes("1/mask.nii.gz"), given);

  // Corrected by hand: one half is cut away, and the voxels inside hold 255.
  Bytes expected = inflate("scan_brain_mask.nii.gz");
  std::fill_n(expected.begin() + kData, kVoxels / 2, '\0');
  Bytes edited = expected;
  std::replace(edited.begin() + kData, edited.end(), '\1', '\xff');
  writeBytes("edited.nii", edited);
  strip("scan.nii.gz --from-mask edited.nii --force --mask m.nii --json r.json");
  EXPECT_EQ(readBytes("m.nii"), expected);
  EXPECT_EQ(inflate("scan_brain.nii.gz"), masked(brain, expected, kVoxels, {0, 0}));
  const auto entry = reportIn("r.json")["scans"][0];
  EXPECT_EQ(entry["voxels"], std::count(edited.begin() + kData, edited.end(), '\xff'));
  EXPECT_TRUE(entry["w5"].is_null());

  // Elsewhere, without a voxel, and on another grid.
  const float left = -1000;
  std::memcpy(edited.data() + offsetof(nifti_1_header, srow_x) + 12, &left, 4);
  writeBytes("other.nii", edited);
  strip("scan.nii.gz --from-mask other.nii --force", 2, "mm beside it");
  std::fill(expected.begin() + kData, expected.end(), 0);
  writeBytes("other.nii", expected);
  strip("scan.nii.gz --from-mask other.nii --force --strict", 3, "the mask is empty");
  writeNifti("other.nii", {}, std::vector<std::int16_t>(120));
  strip("scan.nii.gz --from-mask other.nii --force", 2, "grid");
}

TEST_F(Command, FindsTheBrainWithItsDefaultsAndTellsWhatItDoubts) {
  // A phantom in a larger field of view.
  const FileLayout layout{.size = {66, 76, 70}, .mm = {3.125, 3.125, 3.125}};
  const auto head = tavrel::makePhantom(55, 64, 60);
  std::vector<std::int16_t> voxels, inverted;
  Bytes brain(kData);
  for (int z = -5; z < 65; ++z)
    for (int y = -6; y < 70; ++y)
      for (int x = -5; x < 61; ++x) {
        const bool within = std::min({x, y, z}) >= 0 && x < 55 && y < 64 && z < 60;
        const auto v = std::size_t(within ? (z * 64 + y) * 55 + x : 0);
        voxels.push_back(std::int16_t(1000 * std::max(0.0, head.image[v])));
        inverted.push_back(std::int16_t(1200 - voxels.back()));
        brain.push_back(char(within && head.brain[v]));
      }
  writeNifti("good.nii.gz", layout, voxels);
  writeNifti("inverted.nii", layout, inverted);
  writeNifti("same.nii", layout, std::vector<std::int16_t>(voxels.size(), 7));
  const auto entryOf = [](const std::string& options, int status, const char* words = "") {
    strip(options + " --json r.json --force", status, words);
    return reportIn("r.json")["scans"][0];
  };
  auto entry = entryOf("good.nii.gz --strict", 0);
  EXPECT_TRUE(entry["flags"].empty()) << entry["flags"];
  EXPECT_GT(entry["confidence"], 0.5);
  EXPECT_GE(entry["trials"].size(), 6u);
  const Bytes mask = inflate("good_brain_mask.nii.gz");
  EXPECT_GT(dice(mask, brain), 0.92);
  EXPECT_TRUE(inflate("good_brain.nii.gz") ==
              masked(inflate("good.nii.gz"), mask, voxels.size(), {0, 0}));

  entry = entryOf("good.nii.gz --volume-range 300 900", 0,
                  "mL is outside 300 to 900; look at the picture");
  EXPECT_EQ(entry["flags"][0]["code"], "volume");
  entryOf("good.nii.gz --volume-range 300 900 --strict", 3);
  EXPECT_LT(entryOf("inverted.nii --strict", 3)["confidence"], 0.5);
  EXPECT_TRUE(fs::exists("inverted_brain_mask.nii"));
  EXPECT_EQ(entryOf("same.nii --strict", 2)["error"], "holds no head");

  // Voxels of an unknown size.
  Bytes unknown = inflate("good.nii.gz");
  std::memset(unknown.data() + offsetof(nifti_1_header, pixdim) + 8, 0xff, 4);
  std::memset(unknown.data() + offsetof(nifti_1_header, qform_code), 0, 4);
  writeBytes("unknown.nii", unknown);
  entry = entryOf("unknown.nii --volume-range 100 2000 --strict", 3, "axis 2 is not known");
  EXPECT_EQ(entry["flags"].back()["code"], "geometry");
  EXPECT_LT(entry["confidence"], 0.5);
  std::vector<double> larger;
  for (const double v : voxels) larger.push_back(v * 1e306);
  FileLayout doubles = layout;
  doubles.datatype = NIFTI_TYPE_FLOAT64;
  writeNifti("larger.nii", doubles, larger);
  entryOf("larger.nii", 2, "too large for a 32-bit float");
}

TEST_F(Command, ResamplesAndThreadsWithoutChangingTheGrid) {
  const std::string out = strip(
                              "scan.nii.gz --evolution exact --w5 1.0 --brain none --qc none "
                              "--resample 3 --phi phi.nii.gz")
                              .out;
  // The volume of a level is that of the finer grid: near the mask's, not several times as much.
  const auto millilitres = [&](const std::string& line) {
    const std::size_t end = out.find(" mL", out.rfind(line));
    return std::stod(out.substr(out.rfind(' ', end - 1), end));
  };
  for (const char* level : {"level 2", "level 3"}) {
    EXPECT_GT(millilitres(level), 0.4 * millilitres("scan.nii.gz: ")) << out;
    EXPECT_LT(millilitres(level), 1.2 * millilitres("scan.nii.gz: ")) << out;
  }
  const Bytes resampled = inflate("scan_brain_mask.nii.gz");
  EXPECT_EQ(inflate("phi.nii.gz").size(), kData + 4 * kVoxels);
  for (const std::string evolution : {"exact", "scan"}) {
    const auto maskWith = [&](const char* threads) {
      strip("scan.nii.gz --force --json r.json --evolution " + evolution, 0, "",
            [&] { setenv("TAVREL_THREADS", threads, 1); });
      EXPECT_EQ(reportIn("r.json")["settings"]["threads"], std::stoi(threads));
      return inflate("scan_brain_mask.nii.gz");
    };
    const Bytes own = maskWith("1");
    EXPECT_EQ(maskWith("3"), own);
    EXPECT_GT(dice(own, resampled), 0.9) << evolution;
  }
}

}  // namespace
