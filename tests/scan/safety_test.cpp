// What must not happen whatever the files, the disk and the signals do: a scan or somebody's file
// lost, a run that hangs or takes all memory, words that steer the terminal.
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <csignal>
#include <map>
#include <random>

#include "command.h"
#include "scan/nifti/scan.h"

namespace {

using namespace test_files;
using namespace std::string_literals;

class Safety : public Command {};

const FileLayout kPair = {.pair = true};
const std::vector<std::int16_t> kFew(4 * 5 * 6);

mode_t modeOf(const fs::path& path) {
  struct stat status = {};
  lstat(path.c_str(), &status);
  return status.st_mode;
}

int kindOf(const fs::path& path) { return int(modeOf(path) & S_IFMT); }

constexpr uid_t kNobody = 65534;

/// Done by root alone.
void becomeNobody() {
  if (geteuid() == 0 && setuid(kNobody) != 0) _exit(98);
}

std::vector<std::int16_t> smallHead() { return phantom<std::int16_t>(kHead, 200); }

TEST_F(Safety, NoOutputReplacesAScanOfTheRun) {
  writeNifti("p.hdr", kPair, kFew);
  // Would be read as two_brain.nii.gz once that is there.
  writeNifti("two_brain.hdr", kPair, kFew);
  for (const char* one : {"two.nii.gz", "sub.nii.gz", "sub_brain.nii.gz", "sub_brain_mask.nii"})
    writeNifti(one, {}, kFew);
  fs::create_symlink("scan.nii.gz", "link.nii.gz");
  fs::create_symlink("link.nii.gz", "links.nii.gz");
  fs::create_hard_link("sub.nii.gz", "hard.nii.gz");
  fs::create_hard_link("sub.nii.gz", "unlike");
  fs::create_hard_link("p.img", "image");
  fs::create_directory_symlink(".", "here");
  std::map<std::string, Bytes> before;
  for (const auto& file : files())
    if (fs::is_regular_file(file)) before[file] = readBytes(file);
  for (const std::string& line :
       {"p --json here/p.img"s, "p --json image"s, "sub --json unlike"s,
        "scan --brain scan.nii.gz"s, "sub sub_brain"s, "two two_brain"s,
        "two --from-mask two_brain --brain two_brain.nii"s, "sub here/sub_brain"s,
        "sub.nii.gz " + folder_.path().string() + "//.//sub_brain",
        "links.nii.gz --brain link.nii.gz"s, "links.nii.gz --brain here/scan.nii.gz"s,
        "sub --brain hard.nii.gz"s, "sub --from-mask sub_brain_mask --mask sub_brain_mask.nii"s,
        "sub --qc same.png --json here/same.png"s,
        "scan.nii.gz later --out-dir here --json later.nii"s})
    strip(line + " --force", 1);
  for (const auto& [file, bytes] : before) EXPECT_EQ(readBytes(file), bytes) << file;
  EXPECT_EQ(kindOf("link.nii.gz"), S_IFLNK);
}

TEST_F(Safety, ForceReplacesFilesAndLinksAlone) {
  const auto makeSocket = [] {
    const sockaddr_un address = {AF_UNIX, "r.json"};
    const int number = socket(AF_UNIX, SOCK_STREAM, 0);
    bind(number, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    close(number);
  };
  const auto makeLink = [](const char* to) { return [to] { fs::create_symlink(to, "r.json"); }; };
  struct Case {
    std::function<void()> make;
    const char* option;
    int status, kind;  // after the run
    const char* words;
  };
  for (const Case& c :
       {Case{[] { mkfifo("r.json", 0600); }, "--force", 2, S_IFIFO, "not a regular file"},
        {makeSocket, "--force", 2, S_IFSOCK, "not a regular file"},
        // A link that leads nowhere is somebody's file, too.
        {makeLink("nowhere"), "--quiet", 2, S_IFLNK, "exists"},
        {makeLink("nowhere"), "--force", 0, S_IFREG, ""},
        // As /dev/stdout, here a file.
        {makeLink("/proc/self/fd/1"), "--force", 2, S_IFLNK, "not a regular file"}}) {
    c.make();
    strip("scan.nii.gz --from-mask scan.nii.gz --json r.json --brain none --qc none " +
              std::string(c.option),
          c.status, c.words);
    EXPECT_EQ(kindOf("r.json"), c.kind);
    fs::remove("r.json");
  }
}

TEST_F(Safety, WhatAppearsDuringTheRunIsNotReplaced) {
  for (const std::string late : {"r.json", "scan_brain_mask.nii.gz"}) {
    Process process(TAVREL_NIFTI_COMMAND,
                    {"scan.nii.gz", "--evolution", "exact", "--json", "r.json"});
    process.waitForOutput();
    writeBytes(late, {'m', 'i', 'n', 'e'});
    const Result result = process.wait();
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.err.find(late + " exists"), std::string::npos) << result.err;
    EXPECT_EQ(readText(late), "mine");
    for (const auto& file : files())
      if (file != "scan.nii.gz") fs::remove(file);
  }
}

TEST_F(Safety, AFailedReplacementPutsTheOldFilesBack) {
  if (geteuid() != 0) GTEST_SKIP() << "needs two users";
  // In a sticky folder a user may replace his own files alone.
  const char *brain = "scan_brain.nii.gz", *mask = "scan_brain_mask.nii.gz";
  for (const char* file : {brain, mask}) writeBytes(file, {'o', 'l', 'd'});
  ASSERT_EQ(chown(brain, kNobody, kNobody), 0);
  for (const auto& [permissions, words] : {std::pair{0755, ". is not writable"},
                                           {01777, "scan_brain_mask.nii.gz cannot be written"}}) {
    fs::permissions(folder_.path(), fs::perms(permissions));
    strip("scan.nii.gz --w5 1 --force", 2, words, becomeNobody);
    EXPECT_EQ(readText(brain), "old");
    EXPECT_EQ(readText(mask), "old");
    EXPECT_EQ(files().size(), 3u);
  }
}

TEST_F(Safety, PipesFoldersAndClosedFilesForScansAreRefusedAtOnce) {
  for (const char* header : {"p.hdr", "q.hdr", "r.hdr"}) writeNifti(header, kPair, kFew);
  fs::remove("p.img");
  fs::remove("q.img");
  mkfifo("p.img", 0644);
  mkfifo("pipe.nii", 0644);
  fs::create_directory("q.img");
  fs::permissions("r.img", fs::perms::none);
  fs::permissions(folder_.path(), fs::perms::all);
  for (const auto& [scan, words] :
       {std::pair{"p.hdr", "p.hdr: its image file p.img is not a regular file"},
        {"q", "q: its image file q.img is a folder"},
        {"r", "r: its image file r.img cannot be opened: Permission denied"},
        {"pipe", "pipe: is not a regular file"},
        {"pipe.nii", "pipe.nii: is not a regular file"}})
    strip(scan, 2, words, becomeNobody, 20);
}

TEST_F(Safety, AnInterruptEndsAnyWait) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
  const Bytes page(4096);
  while (write(ends[1], page.data(), page.size()) > 0) continue;
  while (write(ends[1], page.data(), 1) > 0) continue;
  fcntl(ends[1], F_SETFL, 0);  // from now on who writes waits, as for a stopped pager
  Process process(TAVREL_NIFTI_COMMAND, {"scan.nii.gz", "--evolution", "exact"},
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
  const FileLayout metres{.size = {12, 12, 12}, .mm = {1000, 1000, 1000}};
  writeNifti("metres.nii", metres, std::vector<std::int16_t>(12 * 12 * 12));
  for (const std::string mm : {"0.3", "5", "auto"})
    strip("metres.nii --resample " + mm, 2, "is no head by its voxels", {}, 20);

  // Two billion voxels in two megabytes, as far as the size of the file tells.
  Bytes bytes = readBytes("metres.nii");
  const short dims[4] = {3, 1280, 1280, 1280};
  std::memcpy(&bytes[40], dims, sizeof dims);
  std::mt19937 random;
  for (int i = 0; i < 4'200'000; ++i) bytes.push_back(char(random()));
  deflate("huge.nii.gz", bytes);
  strip("huge.nii.gz --evolution exact", 2, "GB of memory, and there are", {}, 20);

  writeNifti("p.hdr", kPair, kFew);
  Bytes header = readBytes("p.hdr");
  fs::remove("p.hdr");
  header.resize(80 << 20);
  deflate("p.hdr.gz", header);
  strip("p", 2, "carries more than 64 MiB", {}, 20);
}

TEST_F(Safety, LongNamesAndExtensionsAreWritten) {
  // A header file of a length that 32-bit floats do not hold.
  const std::string stem(255 - std::strlen("_brain_mask.nii.gz"), 'n');
  writeNifti(stem + ".hdr", {.size = kSmall, .pair = true, .mm = kSmallMm}, smallHead());
  Bytes header = readBytes(stem + ".hdr");
  header.resize((1 << 24) + 1);
  writeBytes(stem + ".hdr", header);
  strip(stem + " --w5 1");
  EXPECT_EQ(files().size(), 6u);
  using tavrel::scan::readScan;
  const auto scan = readScan(stem), brain = readScan(stem + "_brain.nii.gz"),
             mask = readScan(stem + "_brain_mask.nii.gz");
  for (std::size_t v = 0; v < mask.stored.size(); ++v)
    if (mask.stored[v] != std::byte{0}) {
      ASSERT_EQ(std::memcmp(&scan.stored[2 * v], &brain.stored[2 * v], 2), 0) << v;
    }
}

TEST_F(Safety, NamesAndNumbersDoNotSteerTheTerminal) {
  const std::string odd = "o\x1b[31m\n\x7f\xc2\x9b\xff.nii";
  writeNifti(odd, kHead, smallHead());
  const Result result = run({odd, "no" + odd, "--evolution", "exact", "--w5", "1e6", "--finish",
                             "none", "--json", "report.json"}),
               usage = run({odd, "--mask", odd + "x"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(usage.status, 1);
  EXPECT_TRUE(fs::exists("o\x1b[31m\n\x7f\xc2\x9b\xff_brain_qc.png"));
  const std::string report = readText("report.json");
  for (const std::string& words : {result.out, result.err, usage.err, report})
    for (const char c : words)
      EXPECT_TRUE(c == '\n' || (c >= ' ' && c != '\x7f')) << int(c) << " in " << words;
  for (const std::string& words : {result.err, usage.err})
    EXPECT_NE(words.find("o\\x1b[31m\\x0a\\x7f\\xc2\\x9b\\xff.nii"), std::string::npos) << words;
  EXPECT_NE(result.out.find("W5 1e+06"), std::string::npos) << result.out;
  EXPECT_EQ(reportIn("report.json")["scans"].size(), 2u);
}

TEST_F(Safety, GoesOnWhereNoThreadsCanBeMade) {
  const auto maskWith = [&](const std::string& threads) {
    strip("scan.nii.gz --force --threads " + threads, 0, "", [] {
      const rlimit stack = {rlim_t(1) << 46, RLIM_INFINITY};  // of each thread
      setrlimit(RLIMIT_STACK, &stack);
    });
    return inflate("scan_brain_mask.nii.gz");
  };
  EXPECT_EQ(maskWith("64"), maskWith("1"));
}

TEST_F(Safety, OutputsAreAsPrivateAsTheScan) {
  const mode_t mask = umask(0);
  umask(mask);
  for (const auto& [scan, output] : {std::pair{0600, 0600u}, {0444, 0644u}, {0664, 0664u}}) {
    chmod("scan.nii.gz", mode_t(scan));
    strip("scan.nii.gz --w5 1 --force --json r.json");
    for (const char* file :
         {"scan_brain.nii.gz", "scan_brain_mask.nii.gz", "scan_brain_qc.png", "r.json"})
      EXPECT_EQ(modeOf(file) & 0777, output & ~mask) << file;
  }
}

}  // namespace
