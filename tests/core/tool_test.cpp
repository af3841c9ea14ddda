// The raw-volume command from end to end: messages, statuses, files, and a whole run on a phantom.
#include <sys/resource.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <map>
#include <numeric>

#include "grids.h"
#include "phantom.h"
#include "process.h"

// The command's own source is part of this program too, with its main under another name.
bool Tavrel(int nImgWidth, int nImgHeight, int nImgSlices, char* sImgFilePath, int nImgFormat,
            double dW5, char* sImgMaskFilePath, char* sImgSSFilePath, char* sImgPhiFilePath);

namespace tavrel::test {
namespace {

const std::array<std::string, 3> kFormats{"byte", "word", "float"};

/// The bytes of a raw file of a format that holds `values`.
std::string rawBytes(const std::vector<double>& values, const std::string& format) {
  const auto bytes = [&](auto zero) {
    const std::vector<decltype(zero)> stored(values.begin(), values.end());
    return std::string(reinterpret_cast<const char*>(stored.data()), stored.size() * sizeof zero);
  };
  if (format == "byte") return bytes(std::uint8_t{});
  return format == "word" ? bytes(std::int16_t{}) : bytes(0.f);
}

using Sizes = std::array<int, 3>;
using Outputs = std::array<std::string, 3>;  ///< mask, stripped image, level-set function

class ToolTest : public FolderTest {
 protected:
  /// The nine arguments of a run on the file `image`.
  std::vector<std::string> arguments(const std::string& w5, const Sizes& sizes,
                                     const std::string& format = "byte") const {
    std::vector<std::string> all{w5};
    for (const int size : sizes) all.push_back(std::to_string(size));
    all.insert(all.end(), {path("image"), format, path("mask"), path("stripped"), path("phi")});
    return all;
  }

  static Finished tavrel(const std::vector<std::string>& args) { return run(TAVREL_COMMAND, args); }

  /// A run that has to succeed.
  Outputs strip(const std::vector<std::string>& args) const {
    const Finished finished = tavrel(args);
    EXPECT_EQ(finished.status, 0) << finished.out << finished.err;
    EXPECT_EQ(finished.err, "");
    return {readFile(args[6]), readFile(args[7]), readFile(args[8])};
  }

  /// Writes a small phantom of whole numbers from 0 to 255 in the given format.
  std::vector<double> writePhantom(const Sizes& sizes, const std::string& format = "byte") const {
    std::vector<double> values = makePhantom(sizes[0], sizes[1], sizes[2]).image;
    for (double& v : values) v = std::floor(std::clamp(230 * v, 0.0, 255.0));
    writeFile(path("image"), rawBytes(values, format));
    return values;
  }
};

/// What a run prints, up to its end or its first error.
std::string echo(const std::vector<std::string>& a, const std::string& w5,
                 const std::string& code) {
  const std::string paths = a[4] + '\n' + a[6] + '\n' + a[7] + '\n' + a[8] + '\n';
  return "nImgWidth\t" + a[1] + "\nnImgHeight\t" + a[2] + "\nnImgSlices\t" + a[3] +
         "\nsImgFilePath\t" + a[4] + "\nsImgMaskFilePath\t" + a[6] + "\nsImgSSFilePath\t" + a[7] +
         "\nsImgPhiFilePath\t" + a[8] + "\nW5\t" + w5 + "\nnImgFormat\t" + code + '\n' + a[1] +
         '\t' + a[2] + '\t' + a[3] + '\n' + code + '\n' + w5 + '\n' + paths + paths;
}

const std::string kSorting = "double sorting called\ndouble sorting called\n";

TEST_F(ToolTest, WrongArgumentsAreRefusedBeforeAnything) {
  const std::string usage =
      "Usuage:Tavrel [W5] [ImgWidth] [ImgHeight] [ImgSlices] [RawImageFileName] "
      "[ImageDataFormat: byte, word or float]\n"
      "                          [RawMaskFileName] [RawSSFileName] [RawPhiFileName]\n";
  std::vector<std::string> eight = arguments("1", {8, 8, 8});
  eight.pop_back();
  for (const auto& args : {std::vector<std::string>{}, {"--help"}, {"-h"}, eight})
    EXPECT_EQ(tavrel(args), (Finished{1, usage, ""}));
  const std::string formats = "For data format, please enter: byte, word or float.\n";
  for (const std::string word : {"Byte", "bytes", "double", "", " word", "0"})
    EXPECT_EQ(tavrel(arguments("1", {8, 8, 8}, word)), (Finished{1, formats, ""})) << word;
  constexpr int most = std::numeric_limits<int>::max();
  // The last ones have 1292 x 1292 x 1288 voxels with their padding, or more than can be counted.
  for (const Sizes& sizes :
       {Sizes{-1, 8, 8}, {8, 8, -8}, {-1, 0, 8}, {1290, 1290, 1286}, {most, 1, 1}}) {
    const Finished finished = tavrel(arguments("1", sizes));
    EXPECT_TRUE(finished.out.starts_with("Image sizes must not be negative, and")) << finished;
    EXPECT_EQ(std::count(finished.out.begin(), finished.out.end(), '\n'), 1) << finished;
    EXPECT_EQ(finished.err, "");
    EXPECT_EQ(finished.status, 1);
  }
  // The function is given a code where the command is given a word.
  std::vector<std::string> args = arguments("1.25", {8, 9, 10});
  for (const int code : {3, -1, std::numeric_limits<int>::min()}) {
    testing::internal::CaptureStdout();
    EXPECT_FALSE(Tavrel(8, 9, 10, args[4].data(), code, 1.25, args[6].data(), args[7].data(),
                        args[8].data()));
    const std::string whole = echo(args, "1.25", std::to_string(code));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              whole.substr(0, whole.find("\n8\t9\t10\n") + 1) +
                  "Skull stripping only works on grayscale images.\n");
  }
  EXPECT_TRUE(files().empty());
}

TEST_F(ToolTest, RunEchoesItsArgumentsInOrder) {
  const Sizes sizes{12, 9, 11};
  for (std::size_t code = 0; code < kFormats.size(); ++code) {
    writePhantom(sizes, kFormats[code]);
    const auto args = arguments("1.23456789", sizes, kFormats[code]);
    const std::string out = echo(args, "1.23457", std::to_string(code)) + kSorting;
    EXPECT_EQ(tavrel(args), (Finished{0, out, ""}));
  }
  // Text after numbers and further arguments are ignored.
  for (const auto& [text, echoed] : {std::pair{"abc", "0"}, {"1e-7x", "1e-07"}, {"-2", "-2"}}) {
    auto args = arguments(text, sizes, "float");
    const std::string out = echo(args, echoed, "2") + kSorting;
    args[1] += "px";
    args.insert(args.end(), {"more", path("never"), ""});
    EXPECT_EQ(tavrel(args), (Finished{0, out, ""}));
  }
  EXPECT_EQ(files(), (std::set<std::string>{"image", "mask", "phi", "stripped"}));
}

TEST_F(ToolTest, ReaderTellsOfZeroSizesAndMissingFiles) {
  for (const Sizes& sizes : {Sizes{0, 10, 10}, {10, 0, 10}, {10, 10, 0}}) {
    const auto args = arguments("1", sizes);
    const std::string line = "object not initialized or input size incorrect, can't read file \n";
    EXPECT_EQ(tavrel(args), (Finished{0, echo(args, "1", "0") + line, ""}));
  }
  // Also where the machine could not hold the volume.
  for (const Sizes& sizes : {Sizes{8, 8, 8}, {1288, 1288, 1288}}) {
    const auto args = arguments("1", sizes);
    const std::string line = "  Error opening file " + path("image") + " for reading in data \n";
    EXPECT_EQ(tavrel(args), (Finished{0, echo(args, "1", "0"), line}));
  }
  EXPECT_TRUE(files().empty());
}

TEST_F(ToolTest, LackOfMemoryIsReported) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "AddressSanitizer needs more address space than the limit leaves";
#endif
  writeFile(path("image"), "");
  const auto args = arguments("1", {300, 300, 300});
  const Finished finished = Process(TAVREL_COMMAND, args, [] {
                              const rlimit memory = {200 << 20, 200 << 20};
                              setrlimit(RLIMIT_AS, &memory);
                            }).wait();
  const std::string line = "Not enough memory for a volume of 300 x 300 x 300 voxels.\n";
  EXPECT_EQ(finished, (Finished{1, echo(args, "1", "0") + line, ""}));
  EXPECT_EQ(files(), std::set<std::string>{"image"});
}

TEST_F(ToolTest, FailedWritesEndTheRunAndKeepEarlierFiles) {
  writePhantom({9, 10, 11});
  std::filesystem::create_symlink("elsewhere", path("link"));
  // A limit on the size of files stands for the full disk. A link is the user's, and stays.
  for (const std::string& phi : {std::string("/dev/full"), path("phi"), path("link")}) {
    auto args = arguments("1", {9, 10, 11});
    args[8] = phi;
    const Finished finished = Process(TAVREL_COMMAND, args, [] {
                                const rlimit fileSize = {4096, 4096};
                                setrlimit(RLIMIT_FSIZE, &fileSize);
                              }).wait();
    EXPECT_EQ(finished.err, "  Error writing file " + phi + " \n");
    EXPECT_EQ(finished.status, 1);
  }
  std::set<std::string> left{"elsewhere", "image", "link"};
  for (const auto& [position, name] : {std::pair{8, "phi"}, {6, "mask"}, {7, "stripped"}}) {
    auto args = arguments("1", {9, 10, 11});
    args[position] = path("no-such-folder/file");
    const Finished finished = tavrel(args);
    EXPECT_EQ(finished.err,
              "  Inside  AnalyzeImage::saveAnalyzeImageData() \n  Error opening file " +
                  args[position] + " for reading in data \n");
    EXPECT_EQ(finished.status, 0);
    EXPECT_EQ(files(), left);
    left.insert(name);
  }
}

TEST_F(ToolTest, StrippedImageIsTheImageTimesTheMask) {
  const Sizes sizes{22, 24, 23};
  std::vector<double> values = writePhantom(sizes);
  std::map<std::string, Outputs> outputs;
  for (const std::string& format : kFormats) {
    // A shift and a scale that are exact in the other formats, with negative values.
    for (double& v : values) v = format == "word" ? 4 * v - 100 : v;
    writeFile(path("image"), rawBytes(values, format));
    for (const char* name : {"mask", "stripped", "phi"})  // to be replaced
      writeFile(path(name), std::string(200000, 'x'));
    const auto& [mask, stripped, phi] = outputs[format] = strip(arguments("0.8", sizes, format));
    ASSERT_EQ(mask.size(), values.size());
    EXPECT_EQ(mask.find_first_not_of(std::string("\0\1", 2)), std::string::npos);
    EXPECT_EQ(phi.size(), 24u * 24 * 24 * sizeof(float));
    std::vector<double> product = values;  // with negative zeros where a negative float goes
    for (std::size_t n = 0; n < values.size(); ++n) product[n] *= mask[n];
    EXPECT_EQ(stripped, rawBytes(product, format));
  }
  EXPECT_EQ(outputs["word"][0], outputs["float"][0]);
  EXPECT_EQ(outputs["word"][2], outputs["float"][2]);
}

TEST_F(ToolTest, FindsTheBrainOfAPhantom) {
  const Sizes sizes{48, 56, 51};
  writePhantom(sizes);
  const std::vector<unsigned char> brain = makePhantom(48, 56, 51).brain;
  const double brainVoxels = std::accumulate(brain.begin(), brain.end(), 0.0);
  double smaller = 0;
  for (const char* w5 : {"0.8", "1.0", "1.2"}) {
    const std::string mask = strip(arguments(w5, sizes))[0];
    ASSERT_EQ(mask.size(), brain.size());
    const double voxels = std::accumulate(mask.begin(), mask.end(), 0.0);
    const double common = std::inner_product(mask.begin(), mask.end(), brain.begin(), 0.0);
    EXPECT_GT(2 * common / (voxels + brainVoxels), 0.9) << w5;
    EXPECT_GT(voxels, smaller) << "a larger W5 gives a larger mask";
    smaller = voxels;
  }
}

/// Random command lines and files: whatever they are, the command ends by itself with status 0
/// or 1.
TEST_F(ToolTest, SurvivesRandomArgumentsAndFiles) {
  Random r(2026);
  const std::vector<std::string> numbers{
      "",     "-",     "abc", "0x10",       "1e9", "nan", "inf",
      "-inf", "1e308", "-1",  "3000000000", "+7",  " 9",  "99999999999999999999"};
  for (int round = 0; round < 120; ++round) {
    std::string bytes(r.below(12000), '\0');
    const int values = r.below(2) ? 256 : 2;
    for (char& byte : bytes) byte = static_cast<char>(r.below(values));
    writeFile(path("image"), bytes);
    const auto size = [&] { return 1 + r.below(r.below(3) ? 14 : 40); };
    auto args =
        arguments(std::to_string(r.between(-1, 3)), {size(), size(), size()}, kFormats[r.below(3)]);
    if (r.below(4) == 0) args[r.below(4)] = numbers[r.below(14)];
    if (r.below(8) == 0) args[4 + r.below(5)] = path(r.below(2) ? "image" : "");
    if (r.below(16) == 0) args.resize(r.below(12));
    const Finished finished = tavrel(args);
    ASSERT_TRUE(finished.status == 0 || finished.status == 1)
        << "round " << round << ", status " << finished.status << '\n'
        << finished.out << finished.err;
    ASSERT_EQ(finished.err.find("Sanitizer"), std::string::npos) << finished.err;
  }
}

}  // namespace
}  // namespace tavrel::test
