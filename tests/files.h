// Files and folders of the tests.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <stdexcept>
#include <string>

namespace tavrel::test {

/// @throws std::runtime_error if the file cannot be read
inline std::string readFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error(path.string() + " cannot be read");
  return {std::istreambuf_iterator<char>(file), {}};
}

/// @throws std::runtime_error if the file cannot be written
inline void writeFile(const std::filesystem::path& path, const std::string& bytes) {
  if (!(std::ofstream(path, std::ios::binary) << bytes << std::flush))
    throw std::runtime_error(path.string() + " cannot be written");
}

/// A folder that is gone at the end of its object's life.
class Folder {
 public:
  Folder() {
    std::string name = std::filesystem::temp_directory_path() / "tavrel-XXXXXX";
    if (!mkdtemp(name.data())) throw std::runtime_error(name + " cannot be made");
    path_ = name;
  }
  ~Folder() { std::filesystem::remove_all(path_); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::string& name) const { return path_ / name; }
  std::string path(const std::string& name) const { return path_ / name; }

  /// Names of the files that are there.
  std::set<std::string> files() const {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(path_))
      names.insert(entry.path().filename());
    return names;
  }

 private:
  std::filesystem::path path_;
};

}  // namespace tavrel::test
