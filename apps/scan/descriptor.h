// An open file that closes itself.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <initializer_list>
#include <string>
#include <utility>

namespace tavrel::scan {

/// Owner of a file descriptor; -1 is none.
class Descriptor {
 public:
  explicit Descriptor(int number = -1) : number_(number) {}
  Descriptor(Descriptor&& other) noexcept : number_(other.release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  ~Descriptor() {
    if (number_ >= 0) close(number_);
  }

  explicit operator bool() const { return number_ >= 0; }
  int get() const { return number_; }
  int release() { return std::exchange(number_, -1); }

 private:
  int number_;
};

/// Everything in a file as far as it can be read, wherever its position is.
inline std::string contentOf(const Descriptor& file) {
  std::string result;
  char chunk[4096];
  for (ssize_t got; (got = pread(file.get(), chunk, sizeof chunk, off_t(result.size()))) > 0;)
    result.append(chunk, std::size_t(got));
  return result;
}

/// Opens what is closed of standard input, output and error, so that no file of the program's own
/// gets their numbers and the messages with them.
inline void openStandardStreams() {
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    if (fcntl(stream, F_GETFD) < 0) open("/dev/null", O_RDWR);
}

}  // namespace tavrel::scan
