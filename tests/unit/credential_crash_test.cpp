// Credential records written by a process killed at any instant: what is left is the old record
// or the new one, whole, and no temporary file survives the next use of the store or a log-out.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>

#include "core/atomic_file.hpp"
#include "jov/credential_store.hpp"

namespace {

namespace fs = std::filesystem;
using jov::detail::AtomicFileWriter;

constexpr const char* kService = "JovSDK/user_credentials";
constexpr const char* kRecordFile = "JovSDK%2Fuser_credentials";

// Records of many lengths that tell whether they are whole: "LEN:" then LEN equal bytes, "$".
std::string recordOf(unsigned n) {
  const std::size_t length = 64 + (n * 7919u) % 30000;
  return std::to_string(length) + ":" + std::string(length, static_cast<char>('a' + n % 26)) + "$";
}

bool isWhole(const std::string& blob) {
  std::size_t length = 0;
  auto [colon, err] = std::from_chars(blob.data(), blob.data() + blob.size(), length);
  if (err != std::errc() || colon == blob.data() + blob.size() || *colon != ':') return false;
  const std::size_t start = static_cast<std::size_t>(colon - blob.data()) + 1;
  if (blob.size() != start + length + 1 || blob.back() != '$' || length == 0) return false;
  return blob.find_first_not_of(blob[start], start) == blob.size() - 1;
}

std::size_t temporaryFiles(const fs::path& dir) {
  std::size_t n = 0;
  for (const auto& entry : fs::directory_iterator(dir))
    if (entry.path().filename().string() != kRecordFile) ++n;
  return n;
}

struct CrashCount {
  int rounds = 0, damaged = 0, leftBehind = 0, leftAfterNextUse = 0;
};

// Each round forks a writer that updates the record over and over, and kills it with SIGKILL
// in the middle of its Nth update (N random, 1 to 3): the writer announces each update on a
// pipe before it starts it. The parent then reads the record through a new store, as the next
// launch would.
// `root` is the directory given to the store, `dir` its "credentials" directory.
CrashCount killWritersDuringWrites(const fs::path& root, const fs::path& dir, int rounds) {
  CrashCount count;
  std::mt19937 random(12345);
  for (int round = 0; round < rounds; ++round) {
    int pipeFds[2];
    if (::pipe(pipeFds) != 0) ADD_FAILURE() << "pipe";
    const pid_t pid = ::fork();
    if (pid == 0) {
      ::close(pipeFds[0]);
      auto store = jov::makeFileCredentialStore(root);
      for (unsigned n = static_cast<unsigned>(round) * 1000;; ++n) {
        char token = 'w';
        if (::write(pipeFds[1], &token, 1) != 1) ::_exit(3);
        if (!store->update(kService, recordOf(n)).ok()) {
          token = 'f';
          if (::write(pipeFds[1], &token, 1) != 1) ::_exit(3);
          ::_exit(2);
        }
      }
    }
    ::close(pipeFds[1]);
    const int updates = std::uniform_int_distribution<int>(1, 3)(random);
    bool writerFailed = false;
    for (int i = 0; i < updates; ++i) {
      char token = 0;
      if (::read(pipeFds[0], &token, 1) != 1 || token == 'f') writerFailed = true;
      if (writerFailed) break;
    }
    ::kill(pid, SIGKILL);
    int status = 0;
    ::waitpid(pid, &status, 0);
    ::close(pipeFds[0]);
    if (writerFailed) {
      ADD_FAILURE() << "the writer failed in round " << round << " (status " << status << ")";
      break;
    }

    count.leftBehind += static_cast<int>(temporaryFiles(dir));
    auto next = jov::makeFileCredentialStore(root);
    std::string blob;
    if (!next->read(kService, blob).ok() || !isWhole(blob)) ++count.damaged;
    count.leftAfterNextUse += static_cast<int>(temporaryFiles(dir));
    ++count.rounds;
  }
  return count;
}

class CredentialCrashTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string name = (fs::temp_directory_path() / "jov-crash-XXXXXX").string();
    ASSERT_NE(::mkdtemp(name.data()), nullptr);
    root = name;
    dir = root / "credentials";
  }
  void TearDown() override {
    AtomicFileWriter::allowUnnamedFiles(true);
    fs::remove_all(root);
  }
  fs::path root, dir;
};

TEST_F(CredentialCrashTest, AKilledWriterLeavesAWholeRecordAndNoTemporaryFile) {
  auto store = jov::makeFileCredentialStore(root);
  ASSERT_TRUE(store->add(kService, recordOf(7)).ok());

  // An unnamed file has no name while it is written; a named temporary file has one.
  AtomicFileWriter probe;
  ASSERT_TRUE(probe.open(dir / kRecordFile, 0600));
  ASSERT_TRUE(probe.write("x", 1));
  const bool unnamed = probe.isUnnamed();
  EXPECT_EQ(temporaryFiles(dir), unnamed ? 0u : 1u);
  probe.discard();
  EXPECT_EQ(temporaryFiles(dir), 0u);

  const CrashCount withUnnamed = killWritersDuringWrites(root, dir, 100);
  AtomicFileWriter::allowUnnamedFiles(false);
  const CrashCount withNamed = killWritersDuringWrites(root, dir, 100);
  std::printf(
      "writers killed mid-write (unnamed files %s): %d rounds, %d damaged, %d temporary files "
      "left, %d after the next use; with named temporary files: %d rounds, %d damaged, %d left, "
      "%d after the next use\n",
      unnamed ? "available" : "not available", withUnnamed.rounds, withUnnamed.damaged,
      withUnnamed.leftBehind, withUnnamed.leftAfterNextUse, withNamed.rounds, withNamed.damaged,
      withNamed.leftBehind, withNamed.leftAfterNextUse);
  for (const CrashCount* c : {&withUnnamed, &withNamed}) {
    EXPECT_EQ(c->rounds, 100);
    EXPECT_EQ(c->damaged, 0);
    EXPECT_EQ(c->leftAfterNextUse, 0);
  }
  // With unnamed files a kill leaves a name only in the instant between the link and the rename;
  // under load a kill does land there now and then, so only the next use is held to zero.
}

TEST_F(CredentialCrashTest, StaleTemporaryFilesGoButALiveWritersStays) {
  auto store = jov::makeFileCredentialStore(root);
  ASSERT_TRUE(store->add(kService, recordOf(1)).ok());

  const pid_t dead = ::fork();
  if (dead == 0) ::_exit(0);
  ::waitpid(dead, nullptr, 0);
  const std::string prefix = std::string(".") + kRecordFile + ".tmp-";
  const auto ofDead = dir / (prefix + std::to_string(dead) + "-abcdef");
  const auto ofOlderVersion = dir / (prefix + "Zq81xA");
  const auto ofThisProcess = dir / (prefix + std::to_string(::getpid()) + "-ghijkl");
  const auto ofOtherRecord = dir / ".other.tmp-1-abcdef";
  for (const auto& p : {ofDead, ofOlderVersion, ofThisProcess, ofOtherRecord})
    std::ofstream(p) << "half";

  // A write removes the leftovers of dead writers of its record only.
  ASSERT_TRUE(store->update(kService, recordOf(2)).ok());
  EXPECT_FALSE(fs::exists(ofDead));
  EXPECT_FALSE(fs::exists(ofOlderVersion));
  EXPECT_TRUE(fs::exists(ofThisProcess)) << "a live writer's file is left alone";
  EXPECT_TRUE(fs::exists(ofOtherRecord));
  std::string blob;
  ASSERT_TRUE(store->read(kService, blob).ok());
  EXPECT_EQ(blob, recordOf(2));

  // A log-out leaves nothing of the record behind.
  std::ofstream(ofDead) << "half";
  ASSERT_TRUE(store->remove(kService).ok());
  EXPECT_FALSE(fs::exists(dir / kRecordFile));
  EXPECT_FALSE(fs::exists(ofDead));
  EXPECT_FALSE(fs::exists(ofThisProcess));
  EXPECT_TRUE(fs::exists(ofOtherRecord));
}

}  // namespace
