// Object bodies against the emulator, as an application moves them: single requests and
// resumable transfers give back the bytes they sent, public links work without the
// application's keys until they expire, and a transfer survives a suspension, a changed file, an
// emulator restart and a process killed mid-way.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <random>
#include <thread>

#include "cli_user.hpp"
#include "core/digest.hpp"
#include "emulator_fixture.hpp"
#include "jov/application.hpp"
#include "jov/bucket.hpp"
#include "jov/credential_store.hpp"
#include "jov/object.hpp"
#include "jov/transfer.hpp"
#include "jov/user.hpp"
#include "process.hpp"

namespace jov {
namespace {

using namespace std::chrono_literals;
constexpr std::int64_t kChunk = 64 * 1024;

std::string randomBytes(std::size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string bytes(size, '\0');
  for (char& c : bytes) c = static_cast<char>(random() & 0xff);
  return bytes;
}

std::string md5Of(const std::filesystem::path& file) {
  return detail::md5OfFile(file).value_or("unreadable");
}

class BodyFlowTest : public ::testing::Test {
 protected:
  void SetUp() override {
    app = jovtest::beginLibraryOnNewApp();
    Jov::setDataDirectory(dir.path());
    JovResumableTransfer::setDefaultChunkSize(kChunk);
    alice = JovUser::userWithUsername("alice", "pass1234");
    ASSERT_TRUE(jovtest::succeeded(alice->performRegistrationSynchronous()));
    object = alice->bucketWithName("files")->createObject();
    object->setObject("report", "name");
    ASSERT_TRUE(jovtest::succeeded(object->saveSynchronous()));
  }
  void TearDown() override {
    JovResumableTransfer::setDefaultChunkSize(std::int64_t{4} << 20);
    JovUser::logOut();
  }
  std::filesystem::path write(const std::string& name, const std::string& bytes) {
    auto path = dir.path() / name;
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
  }

  jovtest::TempDir dir;
  jovtest::EmulatorApp app;
  JovUser::Ptr alice;
  JovObject::Ptr object;
};

TEST_F(BodyFlowTest, WhatGoesUpComesDownTheSame) {
  for (std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t(kChunk),
                           std::size_t(kChunk + 1), std::size_t(3 * kChunk + 17)}) {
    SCOPED_TRACE("size " + std::to_string(size));
    const auto source = write("source-" + std::to_string(size) + ".bin", randomBytes(size, 7));
    const auto single = dir.path() / ("single-" + std::to_string(size));
    ASSERT_TRUE(jovtest::succeeded(object->uploadBodySynchronousWithURL(source, "")));
    ASSERT_TRUE(jovtest::succeeded(object->downloadBodySynchronousWithURL(single)));
    EXPECT_EQ(md5Of(single), md5Of(source));
    EXPECT_EQ(object->bodyContentType(), "application/octet-stream");

    const auto chunked = dir.path() / ("chunked-" + std::to_string(size));
    auto down = object->downloader(chunked);
    ASSERT_TRUE(jovtest::succeeded(down->transferSynchronous()));
    EXPECT_EQ(md5Of(chunked), md5Of(source));
    EXPECT_FALSE(std::filesystem::exists(JovDownloader::sideFile(chunked)));
    if (size == 0) {
      EXPECT_EQ(jovtest::codeOf(object->uploader(source)->transferSynchronous()),
                JovError::codeFileSizeIsZeroByte());
      continue;
    }
    // The same bytes again, in chunks, replace the body (reversed, so a stale copy would show).
    std::string reversed = randomBytes(size, 7);
    std::reverse(reversed.begin(), reversed.end());
    const auto second = write("reversed-" + std::to_string(size) + ".txt", reversed);
    auto up = object->uploader(second);
    std::vector<std::int64_t> reports;
    ASSERT_TRUE(jovtest::succeeded(up->transferSynchronous(
        [&](std::int64_t done, std::int64_t) { reports.push_back(done); })));
    EXPECT_EQ(up->info().state, JovTransferState::Completed);
    EXPECT_EQ(up->info().bytesDone, static_cast<std::int64_t>(size));
    EXPECT_EQ(reports.back(), static_cast<std::int64_t>(size));
    EXPECT_EQ(object->bodyContentType(), "text/plain");
    EXPECT_EQ(jovtest::codeOf(up->transferSynchronous()), JovError::codeTransferAlreadyCompleted());
    ASSERT_TRUE(jovtest::succeeded(object->downloadBodySynchronousWithURL(single)));
    EXPECT_EQ(md5Of(single), md5Of(second));
  }

  // A destination in a missing folder: 519, and nothing is created.
  const auto nowhere = dir.path() / "missing" / "out.bin";
  EXPECT_EQ(jovtest::codeOf(object->downloadBodySynchronousWithURL(nowhere)),
            JovError::codeNotWritableURL());
  EXPECT_EQ(jovtest::codeOf(object->downloader(nowhere)->transferSynchronous()),
            JovError::codeFilePathIsNotWritable());
  EXPECT_FALSE(std::filesystem::exists(nowhere.parent_path()));
}

TEST_F(BodyFlowTest, APublicLinkWorksWithoutKeysUntilItExpires) {
  const std::string bytes = randomBytes(5000, 3);
  ASSERT_TRUE(jovtest::succeeded(object->uploadBodySynchronousWithData(bytes, "image/png")));
  auto fetch = [](const std::string& url) {
    const auto slash = url.find('/', url.find("//") + 2);
    httplib::Client client(url.substr(0, slash));
    auto answer = client.Get(url.substr(slash));
    return answer ? std::make_pair(answer->status, answer->body) : std::make_pair(0, std::string());
  };
  auto forever = object->publishBodySynchronous();
  ASSERT_TRUE(jovtest::succeeded(forever));
  EXPECT_EQ(fetch(forever.value()), std::make_pair(200, bytes));

  auto brief = object->publishBodySynchronousExpiresIn(1s);
  ASSERT_TRUE(jovtest::succeeded(brief));
  EXPECT_EQ(fetch(brief.value()).first, 200);
  const auto limit = std::chrono::steady_clock::now() + 10s;
  while (fetch(brief.value()).first == 200 && std::chrono::steady_clock::now() < limit)
    std::this_thread::sleep_for(100ms);
  EXPECT_EQ(fetch(brief.value()).first, 403) << "expired";
  EXPECT_EQ(fetch(forever.value()).first, 200);
  EXPECT_EQ(jovtest::codeOf(
                object->publishBodySynchronousExpiresAt(std::chrono::system_clock::now() + 1h)),
            -1);

  ASSERT_TRUE(jovtest::succeeded(object->deleteBodySynchronous()));
  EXPECT_EQ(fetch(forever.value()).first, 404);
  EXPECT_EQ(jovtest::codeOf(object->downloadBodySynchronousWithURL(dir.path() / "x")),
            JovError::codeObjectBodyNotExistInCloud());
  EXPECT_EQ(jovtest::codeOf(object->deleteBodySynchronous()),
            JovError::codeObjectBodyNotExistInCloud());
  EXPECT_EQ(jovtest::codeOf(object->publishBodySynchronous()),
            JovError::codeObjectBodyNotExistInCloud());
}

TEST_F(BodyFlowTest, ASuspendedTransferResumesAndAChangedFileIsRefused) {
  const std::string bytes = randomBytes(40 * kChunk, 11);
  const auto source = write("big.bin", bytes);
  auto up = object->uploader(source);
  // Suspended from its own progress, a third of the way.
  std::int64_t suspendedAt = -1;
  auto first = up->transferSynchronous([&](std::int64_t done, std::int64_t total) {
    if (suspendedAt < 0 && done >= total / 3) {
      suspendedAt = done;
      EXPECT_TRUE(up->suspend().ok());
    }
  });
  EXPECT_EQ(jovtest::codeOf(first), JovError::codeTransferWasSuspended());
  EXPECT_EQ(up->info().state, JovTransferState::Suspended);
  EXPECT_EQ(jovtest::codeOf(up->suspend()), JovError::codeTransferAlreadySuspended());
  ASSERT_GT(up->info().bytesDone, 0);
  ASSERT_LT(up->info().bytesDone, static_cast<std::int64_t>(bytes.size()));
  // Until it completes, the object has no body.
  EXPECT_EQ(jovtest::codeOf(object->downloadBodySynchronousWithURL(dir.path() / "early")),
            JovError::codeObjectBodyNotExistInCloud());

  // The same file and object give the same transfer, which goes on from where it stood.
  auto again = object->uploader(source);
  EXPECT_EQ(again.get(), up.get());
  std::int64_t resumedFrom = -1;
  ASSERT_TRUE(jovtest::succeeded(again->transferSynchronous([&](std::int64_t done, std::int64_t) {
    if (resumedFrom < 0) resumedFrom = done;
  })));
  EXPECT_GE(resumedFrom, suspendedAt);
  const auto copy = dir.path() / "copy.bin";
  ASSERT_TRUE(jovtest::succeeded(object->downloader(copy)->transferSynchronous()));
  EXPECT_EQ(md5Of(copy), md5Of(source));

  // A file changed while its transfer is suspended is not sent half old, half new.
  const auto other = write("other.bin", bytes);
  auto changing = object->uploader(other);
  auto stopped = changing->transferSynchronous([&](std::int64_t done, std::int64_t) {
    if (done > 0) (void)changing->suspend();
  });
  ASSERT_EQ(jovtest::codeOf(stopped), JovError::codeTransferWasSuspended());
  std::this_thread::sleep_for(10ms);
  {
    std::fstream f(other, std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(static_cast<std::streamoff>(bytes.size() - 1));
    f.put('!');
  }
  EXPECT_EQ(jovtest::codeOf(changing->transferSynchronous()),
            JovError::codeFileModifiedDuringTransfer());
  EXPECT_EQ(changing->info().state, JovTransferState::Failed);
  ASSERT_TRUE(jovtest::succeeded(object->downloadBodySynchronousWithURL(copy)));
  EXPECT_EQ(md5Of(copy), md5Of(source)) << "the body is still the first upload";

  // Terminated: its record leaves the store and the manager, and it cannot run again.
  auto manager = alice->bucketWithName("files")->transferManager();
  auto listed = manager->transfers();
  ASSERT_TRUE(jovtest::succeeded(listed));
  EXPECT_EQ(listed.value().size(), 3u) << "the completed upload and download, the failed one";
  ASSERT_TRUE(changing->terminate().ok());
  EXPECT_EQ(jovtest::codeOf(changing->transferSynchronous()),
            JovError::codeTransferAlreadyTerminated());
  EXPECT_EQ(manager->transfers().value().size(), 2u);
  EXPECT_EQ(jovtest::codeOf(up->terminate()), JovError::codeTransferAlreadyCompleted());
}

TEST_F(BodyFlowTest, AnUploadOutlivesAnEmulatorRestart) {
  const auto source = write("restart.bin", randomBytes(24 * kChunk + 5, 5));
  auto up = object->uploader(source);
  auto first = up->transferSynchronous([&](std::int64_t done, std::int64_t total) {
    if (done >= total / 2) (void)up->suspend();
  });
  ASSERT_EQ(jovtest::codeOf(first), JovError::codeTransferWasSuspended());
  const std::int64_t before = up->info().bytesDone;
  jovtest::Emulator::shared().restart();
  std::int64_t resumedFrom = -1;
  ASSERT_TRUE(jovtest::succeeded(up->transferSynchronous([&](std::int64_t done, std::int64_t) {
    if (resumedFrom < 0) resumedFrom = done;
  })));
  EXPECT_EQ(resumedFrom, before) << "the session and its bytes survived the restart";
  const auto copy = dir.path() / "copy.bin";
  ASSERT_TRUE(jovtest::succeeded(object->downloadBodySynchronousWithURL(copy)));
  EXPECT_EQ(md5Of(copy), md5Of(source));
}

// `jov body upload` killed with SIGKILL mid-way; a new process resumes it from the store.
TEST(BodyTransferCrash, AKilledUploadResumesInAnotherProcess) {
  jovtest::CliUser cli;
  std::vector<std::string> registration = {"register", "crasher"};
  auto service = cli.service();
  registration.insert(registration.end(), service.begin(), service.end());
  ASSERT_EQ(cli.run(registration, "secret99\n").status, 0);
  auto created = cli.runJSON({"object", "create", "--bucket", "files", "--user", "me", "{}"});
  const std::string uri = created.value("uri", "");
  ASSERT_FALSE(uri.empty());

  jovtest::TempDir files;
  const auto source = files.path() / "video.bin";
  std::ofstream(source, std::ios::binary) << randomBytes(256 * kChunk, 21);
  const auto profile = cli.profileFile().parent_path();
  const std::string chunk = std::to_string(kChunk);

  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    int devnull = ::open("/dev/null", O_RDWR);
    ::dup2(devnull, 1);
    ::dup2(devnull, 2);
    ::execl(JOV_CLI_PATH, JOV_CLI_PATH, "--data", profile.parent_path().parent_path().c_str(),
            "body", "upload", uri.c_str(), source.c_str(), "--resumable", "--chunk", chunk.c_str(),
            static_cast<char*>(nullptr));
    ::_exit(127);
  }
  // Killed once a quarter of the chunks are confirmed (the first record of a new store).
  auto store = JovRTransferStore::open(profile / "transfers.db");
  ASSERT_TRUE(jovtest::succeeded(store));
  std::optional<JovTransferRecord> record;
  const auto limit = std::chrono::steady_clock::now() + 60s;
  while (std::chrono::steady_clock::now() < limit) {
    record = store.value()->find(1);
    if (record && record->bytesConfirmed >= 64 * kChunk) break;
    std::this_thread::sleep_for(5ms);
  }
  ::kill(child, SIGKILL);
  int status = 0;
  ::waitpid(child, &status, 0);
  ASSERT_TRUE(WIFSIGNALED(status)) << "the upload ended before it was killed";
  record = store.value()->find(1);
  ASSERT_TRUE(record && record->bytesConfirmed >= 64 * kChunk) << "no quarter reached in 60 s";
  ASSERT_LT(record->bytesConfirmed, record->totalBytes);
  auto listed = cli.runJSON({"transfers", "list"});
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(listed[0]["state"], "running");

  // This process continues it: from what the service holds, which is what the record says or
  // the one chunk confirmed after the record was written; never anything confirmed before.
  JovKeyChainWrapper::useMemoryStore();
  Jov::setRequestFactory(nullptr);
  Jov::beginWithID(cli.app().appID, cli.app().appKey, cli.app().baseURL);
  Jov::setDataDirectory(profile);
  ASSERT_TRUE(jovtest::succeeded(JovUser::authenticateSynchronous("crasher", "secret99")));
  auto object = JovObject::objectWithURI(uri);
  auto transfer = object->bucket()->transferManager()->transferWithID(record->id);
  ASSERT_TRUE(jovtest::succeeded(transfer));
  std::int64_t resumedFrom = -1;
  ASSERT_TRUE(jovtest::succeeded(
      transfer.value()->transferSynchronous([&](std::int64_t done, std::int64_t) {
        if (resumedFrom < 0) resumedFrom = done;
      })));
  EXPECT_GE(resumedFrom, record->bytesConfirmed);
  EXPECT_LE(resumedFrom, record->bytesConfirmed + kChunk);
  EXPECT_EQ(store.value()->find(record->id)->state, JovTransferState::Completed);
  JovUser::logOut();

  const auto copy = files.path() / "copy.bin";
  auto downloaded = cli.run({"body", "download", uri, copy.string()});
  ASSERT_EQ(downloaded.status, 0) << downloaded.err;
  EXPECT_EQ(md5Of(copy), md5Of(source));
}

}  // namespace
}  // namespace jov
