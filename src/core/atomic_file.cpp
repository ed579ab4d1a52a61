#include "core/atomic_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace jov::detail {

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
  // Hidden, so that nobody listing the directory takes it for the real file.
  std::string pattern =
      (target.parent_path() / ("." + target.filename().string() + ".tmp-XXXXXX")).string();
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  fd_ = ::mkstemp(name.data());
  if (fd_ < 0) return fail("cannot create " + pattern);
  temp_.assign(name.data());
  if (mode_ && ::fchmod(fd_, *mode_) != 0) return fail("cannot set the mode of " + pattern);
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

bool AtomicFileWriter::commit() {
  if (fd_ < 0) return false;
  if (!mode_) {
    // The file gets the permissions a plainly created file would have (mkstemp makes it 0600).
    mode_t mask = ::umask(0);
    ::umask(mask);
    ::fchmod(fd_, 0666 & ~mask);
  }
  bool ok = ::fsync(fd_) == 0;
  ok = (::close(fd_) == 0) && ok;
  fd_ = -1;
  if (!ok || std::rename(temp_.c_str(), target_.c_str()) != 0) {
    fail("cannot finish " + target_.string());
    ::unlink(temp_.c_str());
    temp_.clear();
    return false;
  }
  temp_.clear();
  // Make the rename itself durable.
  int dir = ::open(target_.parent_path().empty() ? "." : target_.parent_path().c_str(),
                   O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir >= 0) {
    ::fsync(dir);
    ::close(dir);
  }
  return true;
}

void AtomicFileWriter::discard() {
  if (fd_ >= 0) {
    ::close(fd_);
    fd_ = -1;
  }
  if (!temp_.empty()) {
    ::unlink(temp_.c_str());
    temp_.clear();
  }
}

}  // namespace jov::detail
