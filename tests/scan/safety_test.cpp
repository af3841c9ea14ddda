// What must not happen whatever the files, the disk and the signals do: a scan or somebody's file
// lost, a run that hangs or takes all memory, words that steer the terminal.
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <nlohmann/json.hpp>
#include <random>

#include "command.h"
#include "scan/nifti/scan.h"

namespace {

using namespace test_files;

class Safety : public Command {};

mode_t modeOf(const fs::path& path) {
  struct stat status = {};
  lstat(path.c_str(), &status);
  return status.st_mode;
}

constexpr uid_t kNobody = 65534;

void becomeNobody() {
  if (setuid(kNobody) != 0) _exit(98);
}

std::vector<std::int16_t> smallHead() { return phantom<std::int16_t>(kHead, 200); }

TEST_F(Safety, NoOutputReplacesAScanOfTheRun) {
  const std::vector<std::int16_t> voxels(120);
  writeNifti(name("p.hdr"), {.fileType = NIFTI_FTYPE_NIFTI1_2}, voxels);
  // Would be read as two_brain.nii.gz once that is there.
  writeNifti(name("two_brain.hdr"), {.fileType = NIFTI_FTYPE_NIFTI1_2}, voxels);
  for (const char* one :
       {"two.nii.gz", "sub.nii.gz", "sub_brain.nii.gz", "sub_brain_mask.nii", "BIG.NII"})
    writeNifti(name(one) == name("BIG.NII") ? name("big.nii") : name(one), {}, voxels);
  fs::rename(name("big.nii"), name("BIG.NII"));
  fs::create_symlink("scan.nii.gz", name("link.nii.gz"));
  fs::create_symlink("link.nii.gz", name("links.nii.gz"));
  fs::create_hard_link(name("sub.nii.gz"), name("hard.nii.gz"));
  fs::create_hard_link(name("sub.nii.gz"), name("unlike"));
  fs::create_directory(name("d"));
  fs::create_directory_symlink(".", name("here"));
  std::map<std::string, Bytes> before;
  for (const auto& file : folder_.list())
    if (fs::is_regular_file(name(file))) before[file] = readBytes(name(file));
  const std::vector<std::vector<std::string>> runs = {
      {name("p.hdr"), "--json", name("p.img")},
      {name("p.img"), "--json", name("p.hdr")},
      {name("p"), "--json", name("d/../p.img")},
      {name("scan"), "--json", name("scan.nii.gz")},
      {name("sub"), "--json", name("unlike")},
      {name("sub"), "--json", name("two_brain.img")},
      {name("scan"), "--brain", name("scan.nii.gz")},
      {name("BIG"), "--json", name("BIG.NII")},
      {name("sub"), name("sub_brain")},
      {name("two"), name("two_brain")},
      {name("two"), "--from-mask", name("two_brain"), "--brain", name("two_brain.nii")},
      {name("sub"), name("here/sub_brain")},
      {name("sub.nii.gz"), folder_.path().string() + "//.//sub_brain"},
      {name("links.nii.gz"), "--brain", name("link.nii.gz")},
      {name("links.nii.gz"), "--brain", name("here/scan.nii.gz")},
      {name("sub"), "--brain", name("hard.nii.gz")},
      {name("sub"), "--from-mask", name("sub_brain_mask"), "--mask", name("sub_brain_mask.nii")},
      {name("sub"), "--qc", name("same.png"), "--json", name("here/same.png")},
      {name("scan.nii.gz"), name("later"), "--out-dir", name("here"), "--json", name("later.nii")},
  };
  for (auto arguments : runs) {
    arguments.push_back("--force");
    const Result result = run(arguments);
    EXPECT_EQ(result.status, 1) << arguments[0] << ' ' << arguments[2] << result.err;
  }
  for (const auto& [file, bytes] : before) EXPECT_EQ(readBytes(name(file)), bytes) << file;
  EXPECT_EQ(modeOf(name("link.nii.gz")) & S_IFMT, mode_t(S_IFLNK));
}

TEST_F(Safety, ForceReplacesFilesAndLinksAlone) {
  const std::string scan = name("scan.nii.gz"), target = name("report.json");
  const auto report = [&](bool force) {
    std::vector<std::string> arguments = {scan,      "--from-mask", scan,   "--json", target,
                                          "--brain", "none",        "--qc", "none"};
    if (force) arguments.push_back("--force");
    return run(arguments);
  };
  mkfifo(target.c_str(), 0600);
  EXPECT_NE(report(true).err.find("is not a regular file"), std::string::npos);
  EXPECT_EQ(modeOf(target) & S_IFMT, mode_t(S_IFIFO));
  fs::remove(target);

  const int socketFile = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address = {AF_UNIX, {}};
  target.copy(address.sun_path, sizeof address.sun_path - 1);
  bind(socketFile, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  EXPECT_EQ(report(true).status, 2);
  EXPECT_EQ(modeOf(target) & S_IFMT, mode_t(S_IFSOCK));
  close(socketFile);
  fs::remove(target);

  fs::create_symlink("nowhere", target);  // a link that leads nowhere is somebody's file, too
  EXPECT_EQ(report(false).status, 2);
  EXPECT_EQ(modeOf(target) & S_IFMT, mode_t(S_IFLNK));
  EXPECT_EQ(report(true).status, 0);
  EXPECT_EQ(modeOf(target) & S_IFMT, mode_t(S_IFREG));
  fs::remove(target);

  fs::create_symlink("/proc/self/fd/1", target);  // as /dev/stdout, here a file
  EXPECT_EQ(report(true).status, 2);
  EXPECT_EQ(modeOf(target) & S_IFMT, mode_t(S_IFLNK));
}

TEST_F(Safety, WhatAppearsDuringTheRunIsNotReplaced) {
  for (const char* late : {"report.json", "scan_brain_mask.nii.gz"}) {
    Process process(TAVREL_NIFTI_COMMAND,
                    {name("scan.nii.gz"), "--evolution", "exact", "--json", name("report.json")});
    process.waitForOutput();
    writeBytes(name(late), {'m', 'i', 'n', 'e'});
    const Result result = process.wait();
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.err.find(std::string(late) + " exists"), std::string::npos) << result.err;
    EXPECT_EQ(readText(name(late)), "mine");
    for (const auto& file : folder_.list())
      if (file != "scan.nii.gz") fs::remove(name(file));
  }
}

TEST_F(Safety, AFailedReplacementPutsTheOldFilesBack) {
  if (geteuid() != 0) GTEST_SKIP() << "needs two users";
  // In a sticky folder a user may replace his own files alone.
  const std::string brain = name("scan_brain.nii.gz"), mask = name("scan_brain_mask.nii.gz");
  writeBytes(brain, {'o', 'l', 'd'});
  writeBytes(mask, {'o', 'l', 'd'});
  ASSERT_EQ(chown(brain.c_str(), kNobody, kNobody), 0);
  fs::permissions(folder_.path(), fs::perms(01777));
  const Result result = run({name("scan.nii.gz"), "--w5", "1", "--force"}, becomeNobody);
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find(mask + " cannot be written"), std::string::npos) << result.err;
  EXPECT_EQ(readText(brain), "old");
  EXPECT_EQ(readText(mask), "old");
  EXPECT_EQ(folder_.list().size(), 3u);
}

TEST_F(Safety, PipesAndFoldersForScansAreRefusedAtOnce) {
  const std::vector<std::int16_t> voxels(120);
  writeNifti(name("p.hdr"), {.fileType = NIFTI_FTYPE_NIFTI1_2}, voxels);
  writeNifti(name("q.hdr"), {.fileType = NIFTI_FTYPE_NIFTI1_2}, voxels);
  fs::remove(name("p.img"));
  fs::remove(name("q.img"));
  mkfifo(name("p.img").c_str(), 0600);
  mkfifo(name("pipe.nii").c_str(), 0600);
  fs::create_directory(name("q.img"));
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"p.hdr", "its image file " + name("p.img") + " is not a regular file"},
      {"p", "its image file " + name("p.img") + " is not a regular file"},
      {"q.hdr", "its image file " + name("q.img") + " is a folder"},
      {"pipe", "is not a regular file"},
      {"pipe.nii", "is not a regular file"}};
  for (const auto& [scan, reason] : cases) {
    const Result result = Process(TAVREL_NIFTI_COMMAND, {name(scan)}).wait(20);
    EXPECT_EQ(result.status, 2) << scan;
    EXPECT_NE(result.err.find(name(scan) + ": " + reason), std::string::npos) << result.err;
  }
}

TEST_F(Safety, AnImageThatMayNotBeReadIsNotCalledMissing) {
  if (geteuid() != 0) GTEST_SKIP() << "needs two users";
  writeNifti(name("p.hdr"), {.fileType = NIFTI_FTYPE_NIFTI1_2}, std::vector<std::int16_t>(120));
  fs::permissions(name("p.img"), fs::perms::none);
  fs::permissions(folder_.path(), fs::perms::all);
  const Result result = run({name("p")}, becomeNobody);
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find("p.img cannot be opened: Permission denied"), std::string::npos)
      << result.err;
}

TEST_F(Safety, AnInterruptEndsAnyWait) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
  const Bytes page(4096);
  while (write(ends[1], page.data(), page.size()) > 0) continue;
  while (write(ends[1], page.data(), 1) > 0) continue;
  fcntl(ends[1], F_SETFL, 0);  // from now on who writes waits, as for a stopped pager
  Process process(TAVREL_NIFTI_COMMAND, {name("scan.nii.gz"), "--evolution", "exact"},
                  [&] { dup2(ends[1], 1); });
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));
  for (int impatience = 0; impatience < 10; ++impatience) {
    kill(process.id(), SIGINT);
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
  }
  const Result result = process.wait(0.2);
  EXPECT_EQ(result.status, 130);
  EXPECT_TRUE(result.err.ends_with("tavrel-nifti: interrupted\n")) << result.err;
  close(ends[0]);
  close(ends[1]);
}

TEST_F(Safety, HeadersThatAskForTooMuchAreRefusedAtOnce) {
  const auto refusal = [&](const std::vector<std::string>& arguments) {
    Process process(TAVREL_NIFTI_COMMAND, arguments);
    return process.wait(20).err;
  };
  const std::vector<std::int16_t> few(12 * 12 * 12);
  writeNifti(name("metres.nii"), {.size = {12, 12, 12}}, few);
  Bytes bytes = readBytes(name("metres.nii"));
  const float metre = 1000;
  for (const int axis : {1, 2, 3})
    std::memcpy(&bytes[std::size_t(76 + 4 * axis)], &metre, sizeof metre);
  writeBytes(name("metres.nii"), bytes);
  for (const char* mm : {"0.3", "10", "auto"})
    EXPECT_NE(refusal({name("metres.nii"), "--resample", mm}).find("is no head by its voxels"),
              std::string::npos);

  // Two billion voxels in two megabytes, as far as the size of the file tells.
  const short dims[4] = {3, 1280, 1280, 1280};
  std::memcpy(&bytes[40], dims, sizeof dims);
  bytes.resize(352);
  std::mt19937 random;
  for (int i = 0; i < 4'200'000; ++i) bytes.push_back(char(random()));
  const gzFile huge = gzopen(name("huge.nii.gz").c_str(), "wb1");
  gzwrite(huge, bytes.data(), unsigned(bytes.size()));
  gzclose(huge);
  const std::string memory = refusal({name("huge.nii.gz"), "--evolution", "exact"});
  EXPECT_NE(memory.find("GB of memory, and there are"), std::string::npos) << memory;

  writeNifti(name("p.hdr"), {.fileType = NIFTI_FTYPE_NIFTI1_2}, few);
  const Bytes header = readBytes(name("p.hdr")), zeros(1 << 20);
  fs::remove(name("p.hdr"));
  const gzFile inflated = gzopen(name("p.hdr.gz").c_str(), "wb1");
  gzwrite(inflated, header.data(), unsigned(header.size()));
  for (int i = 0; i < 80; ++i) gzwrite(inflated, zeros.data(), unsigned(zeros.size()));
  gzclose(inflated);
  const std::string extensions = refusal({name("p")});
  EXPECT_NE(extensions.find("carries more than 64 MiB"), std::string::npos) << extensions;
}

TEST_F(Safety, NamesOfAnyLengthThatFitAreWritten) {
  const std::string stem(255 - std::strlen("_brain_mask.nii.gz"), 'n');
  fs::rename(name("scan.nii.gz"), name(stem + ".nii.gz"));
  const Result result = run({name(stem), "--w5", "1"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(folder_.list().size(), 4u);
}

TEST_F(Safety, VoxelsStayInTheirPlacesBehindLongExtensions) {
  // A header file of a length that 32-bit floats do not hold.
  writeNifti(name("p.hdr"), {.size = kSmall, .fileType = NIFTI_FTYPE_NIFTI1_2, .mm = kSmallMm}, smallHead());
  Bytes header = readBytes(name("p.hdr"));
  header.resize((1 << 24) + 1);
  writeBytes(name("p.hdr"), header);
  ASSERT_EQ(run({name("p.hdr"), "--w5", "1"}).status, 0);
  using tavrel::scan::readScan;
  const auto scan = readScan(name("p")), brain = readScan(name("p_brain.nii.gz")),
             mask = readScan(name("p_brain_mask.nii.gz"));
  for (std::size_t v = 0; v < mask.stored.size(); ++v)
    if (mask.stored[v] != std::byte{0}) {
      ASSERT_EQ(std::memcmp(&scan.stored[2 * v], &brain.stored[2 * v], 2), 0) << v;
    }
}

TEST_F(Safety, NamesAndNumbersDoNotSteerTheTerminal) {
  const std::string odd = "o\x1b[31m\n\x7f\xc2\x9b\xff.nii";
  writeNifti(name("odd.nii"), kHead, smallHead());
  fs::rename(name("odd.nii"), name(odd));
  const Result result = run({name(odd), name("no" + odd), "--w5", "1e300", "--finish", "none",
                             "--json", name("report.json")}),
               usage = run({name(odd), "--mask", name(odd + "x")});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(usage.status, 1);
  EXPECT_TRUE(fs::exists(name("o\x1b[31m\n\x7f\xc2\x9b\xff_brain_qc.png")));
  const std::string report = readText(name("report.json"));
  for (const std::string& words : {result.out, result.err, usage.err, report})
    for (const char c : words)
      EXPECT_TRUE(c == '\n' || (c >= ' ' && c != '\x7f')) << int(c) << " in " << words;
  for (const std::string& words : {result.err, usage.err})
    EXPECT_NE(words.find("o\\x1b[31m\\x0a\\x7f\\xc2\\x9b\\xff.nii"), std::string::npos) << words;
  EXPECT_NE(result.out.find("W5 1e+300"), std::string::npos) << result.out;
  EXPECT_EQ(nlohmann::json::parse(report)["scans"].size(), 2u);
}

TEST_F(Safety, GoesOnWhereNoThreadsCanBeMade) {
  const auto maskWith = [&](const char* threads) {
    const Result result = run({name("scan.nii.gz"), "--force", "--threads", threads}, [] {
      const rlimit stack = {rlim_t(1) << 46, RLIM_INFINITY};  // of each thread
      setrlimit(RLIMIT_STACK, &stack);
    });
    EXPECT_EQ(result.status, 0) << result.err;
    return inflate(name("scan_brain_mask.nii.gz"));
  };
  EXPECT_EQ(maskWith("64"), maskWith("1"));
}

TEST_F(Safety, OutputsAreAsPrivateAsTheScan) {
  const mode_t mask = umask(0);
  umask(mask);
  const std::vector<std::pair<mode_t, mode_t>> cases = {{0600, 0600}, {0444, 0644}, {0664, 0664}};
  for (const auto& [scan, output] : cases) {
    chmod(name("scan.nii.gz").c_str(), scan);
    ASSERT_EQ(run({name("scan.nii.gz"), "--w5", "1", "--force", "--json", name("r.json")}).status,
              0);
    for (const char* file :
         {"scan_brain.nii.gz", "scan_brain_mask.nii.gz", "scan_brain_qc.png", "r.json"})
      EXPECT_EQ(modeOf(name(file)) & 0777, output & ~mask) << file;
  }
}

}  // namespace
