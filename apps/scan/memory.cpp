#include "memory.h"

#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <limits>
#include <optional>
#include <string>

namespace tavrel::scan {
namespace {

namespace fs = std::filesystem;
using Bytes = std::uint64_t;

constexpr Bytes kUnlimited = std::numeric_limits<Bytes>::max();

Bytes less(Bytes all, Bytes used) { return all > used ? all - used : 0; }

/// The number behind a word in a file of lines "word number" or "word: number kB".
std::optional<Bytes> entry(const fs::path& file, const std::string& wanted) {
  std::ifstream in(file);
  for (std::string word, rest; in >> word && std::getline(in, rest);)
    if (word == wanted) return std::stoull(rest) * (rest.ends_with("kB") ? 1024 : 1);
  return std::nullopt;
}

/// The only number in a file; nothing where it is missing or a word ("max").
std::optional<Bytes> number(const fs::path& file) {
  std::ifstream in(file);
  Bytes value;
  return in >> value ? std::optional(value) : std::nullopt;
}

Bytes freeOnMachine(const fs::path& root) {
  const auto free = entry(root / "proc/meminfo", "MemAvailable:");
  return free ? *free + entry(root / "proc/meminfo", "SwapFree:").value_or(0) : kUnlimited;
}

/// What is free in one control group; its page cache gives way.
Bytes freeInGroup(const fs::path& group, const char* limit, const char* usage, const char* cache) {
  const auto most = number(group / limit), used = number(group / usage);
  if (!most || !used) return kUnlimited;
  return less(*most, less(*used, entry(group / "memory.stat", cache).value_or(0)));
}

/// The least over a group and those it lies in. In a container the path that the kernel tells may
/// be that of the host, whose groups are not there: the folders that exist are asked.
Bytes freeInGroups(const fs::path& top, fs::path group, const char* limit, const char* usage,
                   const char* cache) {
  Bytes least = freeInGroup(top, limit, usage, cache);
  for (; group.has_relative_path(); group = group.parent_path())
    least = std::min(least, freeInGroup(top / group.relative_path(), limit, usage, cache));
  return least;
}

Bytes freeInControlGroups(const fs::path& root) {
  const fs::path top = root / "sys/fs/cgroup";
  Bytes least = kUnlimited;
  std::ifstream in(root / "proc/self/cgroup");
  for (std::string line; std::getline(in, line);) {  // number:controllers:path
    const auto first = line.find(':'), second = line.find(':', first + 1);
    if (second == std::string::npos) continue;
    const std::string controllers = line.substr(first + 1, second - first - 1);
    const fs::path group = line.substr(second + 1);
    if (controllers.empty())
      least = std::min(least, freeInGroups(top, group, "memory.max", "memory.current", "file"));
    else if (("," + controllers + ",").find(",memory,") != std::string::npos)
      least = std::min(least, freeInGroups(top / "memory", group, "memory.limit_in_bytes",
                                           "memory.usage_in_bytes", "total_cache"));
  }
  return least;
}

Bytes freeAddresses(const fs::path& root) {
  rlimit limit = {};
  if (getrlimit(RLIMIT_AS, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return kUnlimited;
  return less(limit.rlim_cur,
              number(root / "proc/self/statm").value_or(0) * Bytes(sysconf(_SC_PAGESIZE)));
}

}  // namespace

std::uint64_t availableMemory(const fs::path& root) {
  return std::min({freeOnMachine(root), freeInControlGroups(root), freeAddresses(root)});
}

void keepFreedMemory() {
#if defined(__GLIBC__)
  constexpr int kNever = std::numeric_limits<int>::max();
  mallopt(M_MMAP_THRESHOLD, kNever);
  mallopt(M_TRIM_THRESHOLD, kNever);
#endif
}

}  // namespace tavrel::scan
