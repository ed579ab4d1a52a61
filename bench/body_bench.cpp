// Bodies of a large file through the library against `curl -T` / `curl -o` on the same
// emulator routes: throughput, the peak RSS of the client (each side in a process of its own)
// and of the emulator; then a resumable upload killed with SIGKILL at 60 % and resumed by a new
// process, and how much it sent again.
//
//   usage: jov_body_bench BASE_URL APP_ID APP_KEY EMULATOR_PID [MIB]
//   (child modes: ... upload|download|chunked|resume USER FILE URI)
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "jov/jov.hpp"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
constexpr const char* kPassword = "pass1234";

struct Run {
  double seconds = 0;
  long peakKiB = 0;  // the child's peak RSS
  int status = -1;
  std::string out;
};

// Runs a program, its standard output captured; its peak RSS from wait4.
Run spawn(const std::vector<std::string>& args) {
  Run run;
  int pipeFds[2];
  if (::pipe(pipeFds) != 0) return run;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], 1);
  posix_spawn_file_actions_addclose(&actions, pipeFds[0]);
  std::vector<char*> argv;
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid = 0;
  const auto started = Clock::now();
  if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) return run;
  ::close(pipeFds[1]);
  char buffer[4096];
  ssize_t n;
  while ((n = ::read(pipeFds[0], buffer, sizeof buffer)) > 0) run.out.append(buffer, n);
  ::close(pipeFds[0]);
  int status = 0;
  rusage usage{};
  ::wait4(pid, &status, 0, &usage);
  run.seconds = std::chrono::duration<double>(Clock::now() - started).count();
  run.peakKiB = usage.ru_maxrss;
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  posix_spawn_file_actions_destroy(&actions);
  return run;
}

long vmHWM(int pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line))
    if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
  return -1;
}

void resetPeak(int pid) {
  std::ofstream("/proc/" + std::to_string(pid) + "/clear_refs") << "5";
}

template <class R>
bool ok(const R& result, const char* what) {
  if (result.ok()) return true;
  std::fprintf(stderr, "body bench: cannot %s: %s\n", what, result.error().describe().c_str());
  return false;
}

// A child: logs in, then moves the body one way.
int child(char** argv) {
  using namespace jov;
  const std::string mode = argv[4], user = argv[5], file = argv[6], uri = argv[7];
  JovKeyChainWrapper::useMemoryStore();
  Jov::beginWithID(argv[2], argv[3], std::string(argv[1]));
  Jov::setDataDirectory(std::filesystem::path(file).parent_path() / "data");
  if (!ok(JovUser::authenticateSynchronous(user, kPassword), "log in")) return 1;
  auto object = JovObject::objectWithURI(uri);
  if (mode == "upload") return ok(object->uploadBodySynchronousWithURL(file, ""), "upload") ? 0 : 1;
  if (mode == "download")
    return ok(object->downloadBodySynchronousWithURL(file), "download") ? 0 : 1;
  JovResumableTransfer::setDefaultChunkSize(std::int64_t{8} << 20);
  std::int64_t first = -1;
  auto transfer = object->uploader(file);
  auto done = transfer->transferSynchronous([&](std::int64_t d, std::int64_t) {
    if (first < 0) first = d;
  });
  std::printf("%lld %lld\n", static_cast<long long>(first),
              static_cast<long long>(transfer->info().id));
  return ok(done, "transfer") ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 8) return child(argv);
  if (argc < 5) {
    std::fprintf(stderr, "usage: %s BASE_URL APP_ID APP_KEY EMULATOR_PID [MIB]\n", argv[0]);
    return 2;
  }
  using namespace jov;
  const int emulator = std::stoi(argv[4]);
  const std::int64_t mib = argc > 5 ? std::stoll(argv[5]) : 1024;
  JovKeyChainWrapper::useMemoryStore();
  Jov::beginWithID(argv[2], argv[3], std::string(argv[1]));
  const std::string user = "body-bench-" + std::to_string(Clock::now().time_since_epoch().count());
  auto me = JovUser::userWithUsername(user, kPassword);
  if (!ok(me->performRegistrationSynchronous(), "register")) return 1;
  auto object = me->bucketWithName("bench")->createObject();
  if (!ok(object->saveSynchronous(), "create the object")) return 1;
  const std::string uri = *object->objectURI();
  const std::string bodyURL =
      Jov::baseURL() + "/apps/" + Jov::appID() + *object->objectPath() + "/body";

  char dirTemplate[] = "/tmp/jov-body-bench-XXXXXX";
  const std::filesystem::path dir = ::mkdtemp(dirTemplate);
  const auto source = dir / "source.bin";
  {
    std::ofstream out(source, std::ios::binary);
    std::mt19937_64 random(42);
    std::vector<std::uint64_t> block(1 << 17);  // 1 MiB
    for (std::int64_t i = 0; i < mib; ++i) {
      for (auto& word : block) word = random();
      out.write(reinterpret_cast<const char*>(block.data()), 1 << 20);
    }
  }
  const std::string self = argv[0];
  const std::vector<std::string> curlHeaders = {"-H", std::string("X-Jov-AppID: ") + argv[2],
                                                "-H", std::string("X-Jov-AppKey: ") + argv[3],
                                                "-H", "Authorization: Bearer " + me->accessToken()};
  // `output`: where curl writes the answer (the body, for a download).
  auto curl = [&](std::vector<std::string> args, const std::string& output = "/dev/null") {
    std::vector<std::string> all = {"curl", "-sS", "-f", "-o", output};
    all.insert(all.end(), curlHeaders.begin(), curlHeaders.end());
    all.insert(all.end(), args.begin(), args.end());
    return spawn(all);
  };

  // Interleaved: the library, then curl, twice; the better of each side counts.
  double libUp = 1e9, curlUp = 1e9, libDown = 1e9, curlDown = 1e9;
  long libUpRSS = 0, libDownRSS = 0, emuUpRSS = 0, emuDownRSS = 0;
  const auto downloaded = dir / "downloaded.bin";
  for (int round = 0; round < 2; ++round) {
    resetPeak(emulator);
    auto up = spawn({self, argv[1], argv[2], argv[3], "upload", user, source.string(), uri});
    if (up.status != 0) return 1;
    emuUpRSS = std::max(emuUpRSS, vmHWM(emulator));
    libUp = std::min(libUp, up.seconds);
    libUpRSS = std::max(libUpRSS, up.peakKiB);
    auto cu =
        curl({"-T", source.string(), "-H", "Content-Type: application/octet-stream", bodyURL});
    if (cu.status != 0) return 1;
    curlUp = std::min(curlUp, cu.seconds);

    resetPeak(emulator);
    auto down =
        spawn({self, argv[1], argv[2], argv[3], "download", user, downloaded.string(), uri});
    if (down.status != 0) return 1;
    emuDownRSS = std::max(emuDownRSS, vmHWM(emulator));
    libDown = std::min(libDown, down.seconds);
    libDownRSS = std::max(libDownRSS, down.peakKiB);
    std::filesystem::remove(downloaded);
    // curl writes the same body to a file too (not to /dev/null), as `curl -o FILE` does.
    auto cd = curl({bodyURL}, downloaded.string());
    if (cd.status != 0) return 1;
    curlDown = std::min(curlDown, cd.seconds);
    std::filesystem::remove(downloaded);
  }
  const double mb = static_cast<double>(mib);
  std::printf(
      "B1 upload %lld MiB: libjov %.0f MiB/s, curl -T %.0f MiB/s, ratio %.2f (target >= 0.90)\n",
      static_cast<long long>(mib), mb / libUp, mb / curlUp, curlUp / libUp);
  std::printf(
      "B1 download %lld MiB: libjov %.0f MiB/s, curl -o %.0f MiB/s, ratio %.2f (target >= 0.90)\n",
      static_cast<long long>(mib), mb / libDown, mb / curlDown, curlDown / libDown);
  std::printf(
      "B2 peak RSS: client upload %.1f MiB, download %.1f MiB (target <= 32); emulator "
      "upload %.1f MiB, download %.1f MiB (target <= 64)\n",
      libUpRSS / 1024.0, libDownRSS / 1024.0, emuUpRSS / 1024.0, emuDownRSS / 1024.0);

  // A resumable upload killed at 60 %, resumed by another process.
  const auto store = dir / "data" / "transfers.db";
  std::vector<std::string> chunked = {self,      argv[1], argv[2],         argv[3],
                                      "chunked", user,    source.string(), uri};
  std::vector<char*> cargv;
  for (auto& a : chunked) cargv.push_back(a.data());
  cargv.push_back(nullptr);
  pid_t pid = 0;
  posix_spawn_file_actions_t quiet;
  posix_spawn_file_actions_init(&quiet);
  posix_spawn_file_actions_addopen(&quiet, 1, "/dev/null", O_WRONLY, 0);
  if (posix_spawn(&pid, cargv[0], &quiet, nullptr, cargv.data(), environ) != 0) return 1;
  posix_spawn_file_actions_destroy(&quiet);
  std::int64_t atKill = -1, total = mib << 20;
  for (auto until = Clock::now() + std::chrono::minutes(5); Clock::now() < until;) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    if (!std::filesystem::exists(store)) continue;
    auto opened = JovRTransferStore::open(store);
    if (!opened) continue;
    auto record = opened.value()->find(1);
    if (record && record->bytesConfirmed * 10 >= total * 6) {
      ::kill(pid, SIGKILL);
      atKill = record->bytesConfirmed;
      break;
    }
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  auto resumed = spawn({self, argv[1], argv[2], argv[3], "resume", user, source.string(), uri});
  long long first = -1, id = 0;
  std::sscanf(resumed.out.c_str(), "%lld %lld", &first, &id);
  const std::int64_t chunk = std::int64_t{8} << 20;
  std::printf(
      "B3 resume after SIGKILL at %.0f %%: the record had %lld bytes, the new process "
      "started at %lld: %lld bytes past the record, none of them sent twice; at most the "
      "chunk in flight (%lld bytes) is sent again (target <= one chunk) %s\n",
      100.0 * static_cast<double>(atKill) / static_cast<double>(total),
      static_cast<long long>(atKill), first, first - static_cast<long long>(atKill),
      static_cast<long long>(chunk),
      resumed.status == 0 && first >= atKill && first - atKill <= chunk ? "ok" : "FAILED");
  std::filesystem::remove_all(dir);
  return resumed.status;
}
