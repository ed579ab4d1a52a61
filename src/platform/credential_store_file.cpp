// The file credential store: one file per service name in DATA_DIR/credentials.
//
// The directory is 0700 and each record 0600. A record is written to an unnamed file that is
// flushed, linked under a temporary name and renamed into place, so a crash leaves either the
// old record or the new one. Temporary names begin with "." and are never read as records; the
// one a crash can leave between the link and the rename (or, on a filesystem without unnamed
// files, during the whole write) is removed by the next use of the store and by a log-out.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <vector>

#include "core/atomic_file.hpp"
#include "jov/application.hpp"
#include "jov/credential_store.hpp"

namespace jov {

namespace {

using Status = JovCredentialStoreStatus;

JovCredentialStoreOutcome outcomeOf(Status status, int error, const std::string& what) {
  return {status, error, what + ": " + std::strerror(error)};
}

JovCredentialStoreOutcome failure(int error, const std::string& what) {
  Status status = Status::Failed;
  if (error == ENOENT) status = Status::NotFound;
  if (error == EACCES || error == EPERM || error == EROFS) status = Status::NotAllowed;
  return outcomeOf(status, error, what);
}

// A file name for any service name: letters, digits, "_" and "-" stay, the rest is "%XX".
std::string fileNameFor(const std::string& service) {
  static const char* kHex = "0123456789ABCDEF";
  std::string name;
  for (unsigned char c : service) {
    if (std::isalnum(c) || c == '_' || c == '-') {
      name += static_cast<char>(c);
    } else {
      name += '%';
      name += kHex[c >> 4];
      name += kHex[c & 15];
    }
  }
  return name.empty() ? "%" : name;
}

void syncDirectory(const std::filesystem::path& dir) {
  int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) {
    ::fsync(fd);
    ::close(fd);
  }
}

class FileCredentialStore final : public JovCredentialStore {
 public:
  explicit FileCredentialStore(std::filesystem::path directory) : fixed_(std::move(directory)) {}

  std::string name() const override { return "file (" + directory().string() + ")"; }

  JovCredentialStoreOutcome add(const std::string& service, const std::string& blob) override {
    return write(service, blob, true);
  }

  JovCredentialStoreOutcome update(const std::string& service, const std::string& blob) override {
    return write(service, blob, false);
  }

  JovCredentialStoreOutcome read(const std::string& service, std::string& blob) override {
    const auto path = directory() / fileNameFor(service);
    sweepOnce(path);
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return failure(errno, "open " + path.string());
    std::string data;
    char buffer[4096];
    for (;;) {
      ssize_t n = ::read(fd, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        int error = errno;
        ::close(fd);
        return failure(error, "read " + path.string());
      }
      if (n == 0) break;
      data.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(fd);
    blob = std::move(data);
    return {};
  }

  JovCredentialStoreOutcome remove(const std::string& service) override {
    const auto dir = directory();
    const auto target = dir / fileNameFor(service);
    std::lock_guard lock(mutex_);
    // Nothing of the record outlives a log-out, not even a temporary file of this process: under
    // the lock no write of this store is under way.
    detail::AtomicFileWriter::removeStale(target, true);
    if (::unlink(target.c_str()) != 0) return failure(errno, "unlink " + service);
    syncDirectory(dir);
    return {};
  }

  JovCredentialStoreOutcome removeAll() override {
    const auto dir = directory();
    std::lock_guard lock(mutex_);
    std::error_code ec;
    std::filesystem::directory_iterator it(dir, ec);
    if (ec)
      return ec.value() == ENOENT ? JovCredentialStoreOutcome{} : failure(ec.value(), dir.string());
    for (const auto& entry : it) {
      if (entry.is_regular_file(ec) && ::unlink(entry.path().c_str()) != 0 && errno != ENOENT)
        return failure(errno, "unlink " + entry.path().string());
    }
    syncDirectory(dir);
    return {};
  }

 private:
  std::filesystem::path directory() const {
    return (fixed_.empty() ? Jov::dataDirectory() : fixed_) / "credentials";
  }

  // Creates the directory, owner-only; a directory that exists is narrowed to 0700 as well.
  static JovCredentialStoreOutcome prepare(const std::filesystem::path& dir) {
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    if (ec) return failure(ec.value(), "create " + dir.string());
    if (::chmod(dir.c_str(), 0700) != 0) return failure(errno, "chmod " + dir.string());
    return {};
  }

  JovCredentialStoreOutcome write(const std::string& service, const std::string& blob, bool add) {
    const auto dir = directory();
    if (auto prepared = prepare(dir); !prepared.ok()) return prepared;
    const auto target = dir / fileNameFor(service);

    std::lock_guard lock(mutex_);
    detail::AtomicFileWriter::removeStale(target);
    struct stat st {};
    const bool exists = ::lstat(target.c_str(), &st) == 0;
    if (add && exists) return {Status::Duplicate, EEXIST, "exists"};
    if (!add && !exists) return {Status::NotFound, ENOENT, "no record"};

    detail::AtomicFileWriter file;
    if (!file.open(target, 0600)) return failure(file.errorNumber(), file.error());
    if (!file.write(blob.data(), blob.size()) || !file.commit())
      return failure(file.errorNumber(), file.error());
    return {};
  }

  // The first read of a record by this store, typically at launch, removes what a crashed
  // writer left beside it; later reads do not scan the directory again.
  void sweepOnce(const std::filesystem::path& record) {
    std::lock_guard lock(mutex_);
    if (swept_ == record) return;
    swept_ = record;
    detail::AtomicFileWriter::removeStale(record);
  }

  std::filesystem::path fixed_;
  std::filesystem::path swept_;
  std::mutex mutex_;  // one writer at a time, so add's check and its rename are one step
};

}  // namespace

std::shared_ptr<JovCredentialStore> makeFileCredentialStore(std::filesystem::path directory) {
  return std::make_shared<FileCredentialStore>(std::move(directory));
}

}  // namespace jov
