#include "process.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <stdexcept>

extern char** environ;

namespace jovtest {

namespace {

using Clock = std::chrono::steady_clock;

struct Pipes {
  int in[2] = {-1, -1}, out[2] = {-1, -1}, err[2] = {-1, -1};
};

pid_t spawn(const std::vector<std::string>& args, Pipes& p) {
  if (::pipe2(p.in, O_CLOEXEC) != 0 || ::pipe2(p.out, O_CLOEXEC) != 0 ||
      ::pipe2(p.err, O_CLOEXEC) != 0)
    throw std::runtime_error("pipe failed");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, p.in[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, p.out[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, p.err[1], STDERR_FILENO);
  // Children start with default signal handling whatever the test runner set.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t signals;
  sigemptyset(&signals);
  posix_spawnattr_setsigmask(&attributes, &signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGPIPE);
  posix_spawnattr_setsigdefault(&attributes, &signals);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  std::vector<std::string> copy = args;
  std::vector<char*> argv;
  for (auto& arg : copy) argv.push_back(arg.data());
  argv.push_back(nullptr);
  pid_t pid = -1;
  int rc = posix_spawn(&pid, argv[0], &actions, &attributes, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  ::close(p.in[0]);
  ::close(p.out[1]);
  ::close(p.err[1]);
  if (rc != 0) {
    ::close(p.in[1]);
    ::close(p.out[0]);
    ::close(p.err[0]);
    throw std::runtime_error("cannot run " + args[0] + ": " + std::strerror(rc));
  }
  return pid;
}

int reap(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

ProcessResult runProcess(const std::vector<std::string>& argv, const std::string& input) {
  Pipes p;
  pid_t pid = spawn(argv, p);
  // Small inputs fit the pipe; a child that does not read them must not block us.
  ::fcntl(p.in[1], F_SETFL, O_NONBLOCK);
  [[maybe_unused]] auto written = ::write(p.in[1], input.data(), input.size());
  ::close(p.in[1]);

  ProcessResult result;
  pollfd fds[2] = {{p.out[0], POLLIN, 0}, {p.err[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  int open = 2;
  auto deadline = Clock::now() + std::chrono::seconds(60);
  bool killed = false;
  while (open > 0) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) {
      ::kill(pid, SIGKILL);
      killed = true;
      break;
    }
    if (::poll(fds, 2, static_cast<int>(left.count())) < 0) continue;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      char buffer[4096];
      ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        sinks[i]->append(buffer, static_cast<std::size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        ::close(fds[i].fd);
        fds[i].fd = -1;
        --open;
      }
    }
  }
  for (auto& fd : fds)
    if (fd.fd >= 0) ::close(fd.fd);
  result.status = reap(pid);
  if (killed) result.err += "\n(killed after 60 s)";
  return result;
}

PrivateEmulator::PrivateEmulator(std::vector<std::string> extraArgs) {
  std::vector<std::string> args = {JOV_EMULATOR_PATH, "--port", "0", "--watch-stdin"};
  args.insert(args.end(), extraArgs.begin(), extraArgs.end());
  Pipes p;
  pid_ = spawn(args, p);
  stdinFd_ = p.in[1];
  ::close(p.err[0]);  // the emulator reports failures on stderr; the first line tells enough
  std::string line;
  auto deadline = Clock::now() + std::chrono::seconds(20);
  char c = 0;
  while (Clock::now() < deadline) {
    pollfd pfd{p.out[0], POLLIN, 0};
    if (::poll(&pfd, 1, 1000) <= 0) continue;
    if (::read(p.out[0], &c, 1) != 1 || c == '\n') break;
    line.push_back(c);
  }
  ::close(p.out[0]);
  const std::string prefix = "http://127.0.0.1:";
  if (line.rfind(prefix, 0) != 0) {
    stop();
    throw std::runtime_error("jov-emulator did not start: " + line);
  }
  baseURL_ = line;
  port_ = std::stoi(line.substr(prefix.size()));
}

PrivateEmulator::~PrivateEmulator() {
  stop();
}

int PrivateEmulator::stop() {
  if (pid_ <= 0) return -1;
  ::kill(pid_, SIGTERM);
  int status = reap(pid_);
  ::close(stdinFd_);
  pid_ = -1;
  return status;
}

TempDir::TempDir() {
  auto pattern = (std::filesystem::temp_directory_path() / "jov-test-XXXXXX").string();
  if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace jovtest
