#pragma once
// Writes a file so that it appears only whole, and so that a crash leaves nothing behind.
//
// Where the filesystem supports it the bytes go to an unnamed file (O_TMPFILE) in the target's
// directory: a crash before the commit leaves no name at all. The commit links it under a
// temporary name and renames that over the target, the only instant at which a temporary
// name exists. Elsewhere the bytes go to a named temporary file from the start. Temporary
// names are ".NAME.tmp-PID-XXXXXX", so that removeStale() can tell the leftovers of a dead
// process from the file a live one is writing.

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

  /// Creates the temporary file next to target; false (with error()) when it cannot. The file
  /// gets `mode`, else what the umask leaves of 0666.
  bool open(const std::filesystem::path& target, std::optional<mode_t> mode = std::nullopt);
  /// Appends bytes; false when the disk refused them.
  bool write(const char* data, std::size_t size);
  /// Flushes, closes and renames the temporary file over the target.
  bool commit();
  /// Whether commit() also waits for the bytes to reach the disk (true by default). Without it
  /// the file still appears only whole, to other processes and after this one dies; only a crash
  /// of the whole system may lose it.
  void setDurable(bool durable) { durable_ = durable; }
  /// Removes the temporary file (also done by the destructor unless committed).
  void discard();
  bool isOpen() const { return fd_ >= 0; }
  /// True while the file being written has no name (O_TMPFILE).
  bool isUnnamed() const { return fd_ >= 0 && temp_.empty(); }
  const std::string& error() const { return error_; }
  /// The errno of the last failure.
  int errorNumber() const { return errno_; }

  /// Removes the temporary files that writers of `target` left in its directory when their
  /// process died (and, with `includeOwn`, those of this process too). Returns how many went.
  static std::size_t removeStale(const std::filesystem::path& target, bool includeOwn = false);
  /// Whether open() may use unnamed files (true by default); false forces named temporary
  /// files, as on a filesystem without O_TMPFILE. For tests of that path.
  static void allowUnnamedFiles(bool allow);

 private:
  int fd_ = -1;
  bool durable_ = true;
  std::filesystem::path target_;
  std::string temp_;  // the temporary name; empty while the file is unnamed
  std::optional<mode_t> mode_;
  std::string error_;
  int errno_ = 0;

  bool fail(const std::string& what);
  bool openNamed();
  bool linkUnnamed();
};

}  // namespace jov::detail
