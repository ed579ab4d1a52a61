#pragma once
// Writes a file so that it appears only whole: bytes go to a temporary file in the same
// directory, which is flushed and renamed over the target on commit and removed otherwise.

#include <cstddef>
#include <filesystem>
#include <string>

namespace jov::detail {

class AtomicFileWriter {
 public:
  AtomicFileWriter() = default;
  ~AtomicFileWriter();
  AtomicFileWriter(const AtomicFileWriter&) = delete;
  AtomicFileWriter& operator=(const AtomicFileWriter&) = delete;

  /// Creates the temporary file next to target; false (with error()) when it cannot.
  bool open(const std::filesystem::path& target);
  /// Appends bytes; false when the disk refused them.
  bool write(const char* data, std::size_t size);
  /// Flushes, closes and renames the temporary file over the target.
  bool commit();
  /// Removes the temporary file (also done by the destructor unless committed).
  void discard();
  bool isOpen() const { return fd_ >= 0; }
  const std::string& error() const { return error_; }

 private:
  int fd_ = -1;
  std::filesystem::path target_;
  std::string temp_;
  std::string error_;
};

}  // namespace jov::detail
