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

bool AtomicFileWriter::open(const std::filesystem::path& target) {
  discard();
  target_ = target;
  std::string pattern = target.string() + ".part-XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  fd_ = ::mkstemp(name.data());
  if (fd_ < 0) {
    error_ = "cannot create " + pattern + ": " + std::strerror(errno);
    return false;
  }
  temp_.assign(name.data());
  return true;
}

bool AtomicFileWriter::write(const char* data, std::size_t size) {
  while (size > 0) {
    ssize_t n = ::write(fd_, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      error_ = std::string("write failed: ") + std::strerror(errno);
      return false;
    }
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

bool AtomicFileWriter::commit() {
  if (fd_ < 0) return false;
  // The file keeps the permissions a plainly created file would have.
  mode_t mask = ::umask(0);
  ::umask(mask);
  ::fchmod(fd_, 0666 & ~mask);
  bool ok = ::fsync(fd_) == 0;
  ok = (::close(fd_) == 0) && ok;
  fd_ = -1;
  if (!ok || std::rename(temp_.c_str(), target_.c_str()) != 0) {
    error_ = std::string("cannot finish ") + target_.string() + ": " + std::strerror(errno);
    ::unlink(temp_.c_str());
    temp_.clear();
    return false;
  }
  temp_.clear();
  // Make the rename itself durable.
  int dir = ::open(target_.parent_path().empty() ? "." : target_.parent_path().c_str(),
                   O_RDONLY | O_DIRECTORY);
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
