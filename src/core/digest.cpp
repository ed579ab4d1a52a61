#include "core/digest.hpp"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <vector>

namespace jov::detail {

std::string md5Raw(std::string_view bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_md5(), nullptr) != 1) return {};
  return std::string(reinterpret_cast<const char*>(digest), length);
}

std::optional<std::string> md5OfFile(const std::filesystem::path& file) {
  const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                  &EVP_MD_CTX_free);
  bool ok = context && EVP_DigestInit_ex(context.get(), EVP_md5(), nullptr) == 1;
  std::vector<char> buffer(std::size_t{1} << 20);
  while (ok) {
    const ssize_t n = ::read(fd, buffer.data(), buffer.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) ok = false;
    if (n <= 0) break;
    ok = EVP_DigestUpdate(context.get(), buffer.data(), static_cast<std::size_t>(n)) == 1;
  }
  ::close(fd);
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (!ok || EVP_DigestFinal_ex(context.get(), digest, &length) != 1) return std::nullopt;
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  for (unsigned int i = 0; i < length; ++i) {
    hex += kHex[digest[i] >> 4];
    hex += kHex[digest[i] & 15];
  }
  return hex;
}

}  // namespace jov::detail
