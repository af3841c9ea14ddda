#include "checksum.h"

#include <openssl/evp.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "format.h"
#include "interrupt.h"
#include "nifti/files.h"
#include "nifti/header.h"

namespace tavrel::scan {

std::string sha256(const std::filesystem::path& file) {
  const Descriptor in = openRegular(file);
  const std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(EVP_MD_CTX_new(),
                                                                   EVP_MD_CTX_free);
  if (!context || !EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr))
    throw std::runtime_error("no checksum can be made");
  std::vector<char> chunk(1 << 20);
  for (ssize_t got; (got = read(in.get(), chunk.data(), chunk.size())) != 0;) {
    checkInterrupted();
    if (got < 0) throw ScanError(text("cannot be read: ", std::strerror(errno)));
    EVP_DigestUpdate(context.get(), chunk.data(), std::size_t(got));
  }
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest;
  unsigned length = 0;
  EVP_DigestFinal_ex(context.get(), digest.data(), &length);
  std::string text;
  for (unsigned i = 0; i < length; ++i)
    for (const int nibble : {digest[i] >> 4, digest[i] & 15}) text += "0123456789abcdef"[nibble];
  return text;
}

}  // namespace tavrel::scan
