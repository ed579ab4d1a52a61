#pragma once
// Writes a file so that it appears only whole: bytes go to a temporary file in the same
// directory, which is flushed and renamed over the target on commit and removed otherwise.

#include <sys/types.h>

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>

namespace jov::detail {

class AtomicFileWriter {
 public:
  AtomicFileWriter() = default;
  ~AtomicFileWriter();
  AtomicFileWriter(const AtomicFileWriter&) = delete;
  AtomicFileWriter& operator=(const AtomicFileWriter&) = delete;

  /// Creates the temporary file (hidden, ".NAME.tmp-XXXXXX") next to target; false (with
  /// error()) when it cannot. The file gets `mode`, else what the umask leaves of 0666.
  bool open(const std::filesystem::path& target, std::optional<mode_t> mode = std::nullopt);
  /// Appends bytes; false when the disk refused them.
  bool write(const char* data, std::size_t size);
  /// Flushes, closes and renames the temporary file over the target.
  bool commit();
  /// Removes the temporary file (also done by the destructor unless committed).
  void discard();
  bool isOpen() const { return fd_ >= 0; }
  const std::string& error() const { return error_; }
  /// The errno of the last failure.
  int errorNumber() const { return errno_; }

 private:
  int fd_ = -1;
  std::filesystem::path target_;
  std::string temp_;
  std::optional<mode_t> mode_;
  std::string error_;
  int errno_ = 0;

  bool fail(const std::string& what);
};

}  // namespace jov::detail
