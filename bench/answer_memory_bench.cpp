// Memory for one answer at the size limit: the client's peak RSS growth while it receives (and,
// through JovRequest, parses) a JSON answer just under Jov::maxAnswerSize(), as a multiple of the
// answer's size. The server runs in this process and the client in a forked child, so that the
// server's copies of the answer are not counted; one measurement per child, since peak RSS only
// grows.
// Usage: jov_answer_memory_bench transport|request sized|chunked
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "../tests/transport/scripted_server.hpp"
#include "jov/application.hpp"
#include "jov/request.hpp"

namespace {

long peakKiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

// A query page's shape: many small objects, as large as the limit allows.
std::string answerOfSize(std::size_t size) {
  std::string body;
  body.reserve(size);  // no transient doubling that would raise the peak before the measurement
  body = "[";
  const std::string item = R"({"_id":"0123456789abcdef","n":12345,"text":"some note text"},)";
  while (body.size() + item.size() + 1 < size) body += item;
  body.back() = ']';
  return body;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s transport|request sized|chunked\n", argv[0]);
    return 2;
  }
  const bool parse = std::strcmp(argv[1], "request") == 0;
  const bool chunked = std::strcmp(argv[2], "chunked") == 0;
  const std::size_t limit = jov::Jov::maxAnswerSize();
  const std::string body = answerOfSize(limit);
  jovtest::ScriptedServer server([&](const jovtest::ScriptedServer::Seen&) {
    return chunked ? jovtest::ScriptedServer::Step::chunks(body)
                   : jovtest::ScriptedServer::Step::answer(200, body);
  });
  const pid_t child = ::fork();
  if (child != 0) {
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
  }
  jov::Jov::beginWithID("app", "key", server.base());

  // A small exchange first, so that libcurl, TLS state and threads are in the baseline.
  {
    auto warm = jov::Jov::requestFactory()->requestWithURL(server.base() + "/warm");
    warm->setMaxResponseSize(64);
    warm->sendRequest();
  }
  const long before = peakKiB();
  bool ok = false;
  if (parse) {
    jov::JovRequest request("/page");
    ok = request.makeSynchronousRequest().ok();
  } else {
    auto request = jov::Jov::requestFactory()->requestWithURL(server.base() + "/page");
    request->setMaxResponseSize(limit);
    request->sendRequest();
    ok = request->responseCode() == 200 && request->responseData().size() == body.size();
  }
  const long grown = peakKiB() - before;
  std::printf("%s %s answer of %.1f MiB: %s, peak RSS +%.1f MiB = %.2fx the answer\n",
              parse ? "JovRequest (parsed)" : "transport (kept)", chunked ? "chunked" : "sized",
              static_cast<double>(body.size()) / (1 << 20), ok ? "received" : "FAILED",
              static_cast<double>(grown) / 1024, grown * 1024.0 / static_cast<double>(body.size()));
  std::fflush(stdout);
  ::_exit(ok ? 0 : 1);
}
