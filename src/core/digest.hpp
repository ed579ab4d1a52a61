#pragma once
// Digests of bodies: the raw MD5 of a chunk (for "Content-MD5"), and the MD5 of a file read in
// pieces, never whole.

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace jov::detail {

/// The 16 bytes of the MD5 of `bytes`.
std::string md5Raw(std::string_view bytes);
/// The MD5 of a file's content as 32 lower-case hex digits; nothing when it cannot be read.
std::optional<std::string> md5OfFile(const std::filesystem::path& file);

}  // namespace jov::detail
