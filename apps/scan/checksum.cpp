#include "checksum.h"

#include <openssl/evp.h>

#include <array>
#include <fstream>
#include <memory>
#include <vector>

#include "nifti/header.h"

namespace tavrel::scan {

std::string sha256(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  const std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(EVP_MD_CTX_new(),
                                                                   EVP_MD_CTX_free);
  if (!in || !context || !EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr))
    throw ScanError("cannot be read for its checksum");
  std::vector<char> chunk(1 << 20);
  while (in) {
    in.read(chunk.data(), std::streamsize(chunk.size()));
    EVP_DigestUpdate(context.get(), chunk.data(), std::size_t(in.gcount()));
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
