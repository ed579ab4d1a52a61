#include "core/atomic_file.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <vector>

namespace jov::detail {

namespace {

std::atomic<bool> unnamedAllowed{true};

// Linking an unnamed file needs its /proc/self/fd entry (linkat with AT_EMPTY_PATH needs a
// capability an application does not have).
bool canLinkUnnamed() {
  static const bool proc = ::access("/proc/self/fd", X_OK) == 0;
  return proc;
}

std::filesystem::path directoryOf(const std::filesystem::path& target) {
  return target.parent_path().empty() ? std::filesystem::path(".") : target.parent_path();
}

std::string tempPrefix(const std::filesystem::path& target) {
  return "." + target.filename().string() + ".tmp-";
}

// The umask without changing it: umask(2) can only be read by setting it, which would let a
// file another thread creates meanwhile get the wrong mode.
mode_t currentUmask() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("Umask:", 0) == 0)
      return static_cast<mode_t>(std::strtoul(line.c_str() + 6, nullptr, 8));
  }
  mode_t mask = ::umask(0);
  ::umask(mask);
  return mask;
}

std::string randomSuffix() {
  static constexpr char kChars[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  thread_local std::mt19937 engine{std::random_device{}()};
  std::uniform_int_distribution<std::size_t> pick(0, sizeof kChars - 2);
  std::string s(6, 'x');
  for (char& c : s) c = kChars[pick(engine)];
  return s;
}

void syncDirectory(const std::filesystem::path& dir) {
  int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) {
    ::fsync(fd);
    ::close(fd);
  }
}

}  // namespace

void AtomicFileWriter::allowUnnamedFiles(bool allow) {
  unnamedAllowed = allow;
}

AtomicFileWriter::~AtomicFileWriter() {
  discard();
}

bool AtomicFileWriter::fail(const std::string& what) {
  errno_ = errno;
  error_ = what + ": " + std::strerror(errno_);
  return false;
}

bool AtomicFileWriter::open(const std::filesystem::path& target, std::optional<mode_t> mode) {
  discard();
  target_ = target;
  mode_ = mode;
  if (unnamedAllowed && canLinkUnnamed()) {
    // The kernel applies the umask to 0666, as for a plainly created file.
    fd_ =
        ::open(directoryOf(target).c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, mode.value_or(0666));
    if (fd_ >= 0) {
      if (mode_ && ::fchmod(fd_, *mode_) != 0)
        return fail("cannot set the mode of " + target.string());
      return true;
    }
    // EOPNOTSUPP, EISDIR or EINVAL: this filesystem (or kernel) has no unnamed files.
  }
  return openNamed();
}

bool AtomicFileWriter::openNamed() {
  // Hidden, so that nobody listing the directory takes it for the real file.
  std::string pattern =
      (directoryOf(target_) / (tempPrefix(target_) + std::to_string(::getpid()) + "-XXXXXX"))
          .string();
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  fd_ = ::mkstemp(name.data());
  if (fd_ < 0) return fail("cannot create " + pattern);
  temp_.assign(name.data());
  // mkstemp makes the file 0600; it gets the mode asked for, or what a plain file would get.
  const mode_t wanted = mode_ ? *mode_ : (0666 & ~currentUmask());
  if (::fchmod(fd_, wanted) != 0) return fail("cannot set the mode of " + pattern);
  return true;
}

bool AtomicFileWriter::write(const char* data, std::size_t size) {
  while (size > 0) {
    ssize_t n = ::write(fd_, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return fail("write failed");
    }
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

bool AtomicFileWriter::linkUnnamed() {
  const std::string self = "/proc/self/fd/" + std::to_string(fd_);
  const std::string base =
      (directoryOf(target_) / (tempPrefix(target_) + std::to_string(::getpid()) + "-")).string();
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::string name = base + randomSuffix();
    if (::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0) {
      temp_ = std::move(name);
      return true;
    }
    if (errno != EEXIST) return fail("cannot link " + name);
  }
  return fail("cannot find a free temporary name for " + target_.string());
}

bool AtomicFileWriter::commit() {
  if (fd_ < 0) return false;
  const bool unnamed = temp_.empty();
  bool ok = !durable_ || ::fsync(fd_) == 0 || fail("cannot flush " + target_.string());
  // The temporary name exists from here to the rename only.
  if (ok && unnamed) ok = linkUnnamed();
  if (::close(fd_) != 0 && ok) ok = fail("cannot close " + target_.string());
  fd_ = -1;
  if (ok && std::rename(temp_.c_str(), target_.c_str()) != 0)
    ok = fail("cannot finish " + target_.string());
  if (!ok) {
    if (!temp_.empty()) ::unlink(temp_.c_str());
    temp_.clear();
    return false;
  }
  temp_.clear();
  if (durable_) syncDirectory(directoryOf(target_));  // make the rename itself durable
  return true;
}

void AtomicFileWriter::discard() {
  if (fd_ >= 0) {
    ::close(fd_);  // an unnamed file vanishes with its descriptor
    fd_ = -1;
  }
  if (!temp_.empty()) {
    ::unlink(temp_.c_str());
    temp_.clear();
  }
}

std::size_t AtomicFileWriter::removeStale(const std::filesystem::path& target, bool includeOwn) {
  const std::string prefix = tempPrefix(target);
  const auto dir = directoryOf(target);
  const pid_t self = ::getpid();
  std::size_t removed = 0;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(dir, ec)) {
    const std::string name = entry.path().filename().string();
    if (name.rfind(prefix, 0) != 0) continue;
    // ".NAME.tmp-PID-XXXXXX"; a name without a PID was left by an older writer, which renamed
    // or removed its file before returning, so it is a leftover as well.
    const char* pidStart = name.data() + prefix.size();
    const char* end = name.data() + name.size();
    long pid = 0;
    auto [after, err] = std::from_chars(pidStart, end, pid);
    const bool hasPid = err == std::errc() && after != pidStart && after < end && *after == '-';
    if (hasPid && pid > 0) {
      const bool own = static_cast<pid_t>(pid) == self;
      const bool alive = own || ::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
      if (alive && !(own && includeOwn)) continue;
    }
    if (::unlink(entry.path().c_str()) == 0) ++removed;
  }
  if (removed > 0) syncDirectory(dir);
  return removed;
}

}  // namespace jov::detail
