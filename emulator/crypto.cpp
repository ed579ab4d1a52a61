#include "crypto.hpp"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <stdexcept>
#include <string_view>
#include <vector>

namespace jovemu {

namespace {

constexpr std::string_view kScheme = "pbkdf2-sha256";
// Enough to make stolen hashes costly without slowing a test suite that logs in often.
constexpr int kIterations = 20000;
constexpr std::size_t kSaltBytes = 16;
constexpr std::size_t kHashBytes = 32;

std::vector<unsigned char> randomBytes(std::size_t count) {
  std::vector<unsigned char> bytes(count);
  if (count > 0 && RAND_bytes(bytes.data(), static_cast<int>(count)) != 1) {
    throw std::runtime_error("RAND_bytes failed");
  }
  return bytes;
}

std::string toHex(const unsigned char* data, std::size_t size) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(size * 2);
  for (std::size_t i = 0; i < size; ++i) {
    out.push_back(kDigits[data[i] >> 4]);
    out.push_back(kDigits[data[i] & 0x0f]);
  }
  return out;
}

std::vector<unsigned char> pbkdf2(const std::string& password, const std::string& salt,
                                  int iterations) {
  std::vector<unsigned char> out(kHashBytes);
  if (PKCS5_PBKDF2_HMAC(password.data(), static_cast<int>(password.size()),
                        reinterpret_cast<const unsigned char*>(salt.data()),
                        static_cast<int>(salt.size()), iterations, EVP_sha256(),
                        static_cast<int>(out.size()), out.data()) != 1) {
    throw std::runtime_error("PBKDF2 failed");
  }
  return out;
}

}  // namespace

std::string randomHex(std::size_t bytes) {
  auto data = randomBytes(bytes);
  return toHex(data.data(), data.size());
}

std::string randomDigits(std::size_t length) {
  std::string out;
  while (out.size() < length) {
    for (unsigned char b : randomBytes(length)) {
      // 250 is the largest multiple of 10 below 256: rejecting above it keeps digits uniform.
      if (b < 250 && out.size() < length) out.push_back(static_cast<char>('0' + b % 10));
    }
  }
  return out;
}

std::string newUserID() {
  auto bytes = randomBytes(16);
  bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0f) | 0x40);
  bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3f) | 0x80);
  std::string hex = toHex(bytes.data(), bytes.size());
  return hex.substr(0, 8) + "-" + hex.substr(8, 4) + "-" + hex.substr(12, 4) + "-" +
         hex.substr(16, 4) + "-" + hex.substr(20);
}

std::string hashPassword(const std::string& password) {
  std::string salt = randomHex(kSaltBytes);
  auto hash = pbkdf2(password, salt, kIterations);
  return std::string(kScheme) + "$" + std::to_string(kIterations) + "$" + salt + "$" +
         toHex(hash.data(), hash.size());
}

bool verifyPassword(const std::string& password, const std::string& stored) {
  // scheme$iterations$salt$hash
  auto first = stored.find('$');
  auto second = first == std::string::npos ? first : stored.find('$', first + 1);
  auto third = second == std::string::npos ? second : stored.find('$', second + 1);
  if (third == std::string::npos || std::string_view(stored).substr(0, first) != kScheme) {
    return false;
  }
  int iterations = 0;
  try {
    iterations = std::stoi(stored.substr(first + 1, second - first - 1));
  } catch (const std::exception&) {
    return false;
  }
  if (iterations <= 0) return false;
  std::string salt = stored.substr(second + 1, third - second - 1);
  std::string expected = stored.substr(third + 1);
  auto hash = pbkdf2(password, salt, iterations);
  std::string actual = toHex(hash.data(), hash.size());
  return actual.size() == expected.size() &&
         CRYPTO_memcmp(actual.data(), expected.data(), actual.size()) == 0;
}

}  // namespace jovemu
