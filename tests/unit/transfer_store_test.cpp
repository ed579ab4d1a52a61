// The transfer store (records, queries, reopening, threads, a writer killed mid-write, unusable
// locations), the SQLite layer under it, and the preferences store built on the same layer.
#include "jov/transfer_store.hpp"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <random>
#include <thread>

#include "core/sqlite.hpp"
#include "jov/application.hpp"
#include "platform/preferences.hpp"

namespace jov {
namespace {

namespace fs = std::filesystem;
using detail::SqliteDatabase;
using detail::SqliteError;
using namespace std::chrono_literals;

mode_t modeOf(const fs::path& p) {
  struct stat st {};
  EXPECT_EQ(::stat(p.c_str(), &st), 0) << p;
  return st.st_mode & 0777;
}

std::string descriptionOf(const JovError& e) {
  return e.userInfo().value("description", "");
}

class Scratch : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string name = (fs::temp_directory_path() / "jov-store-XXXXXX").string();
    ASSERT_NE(::mkdtemp(name.data()), nullptr);
    dir = name;
  }
  void TearDown() override { fs::remove_all(dir); }

  std::shared_ptr<JovRTransferStore> openStore(const fs::path& file) {
    auto store = JovRTransferStore::open(file);
    EXPECT_TRUE(store.ok()) << (store ? "" : store.error().describe());
    return store ? store.value() : nullptr;
  }

  fs::path dir;
};

using TransferStoreTest = Scratch;
using SqliteTest = Scratch;
using PreferencesStoreTest = Scratch;

// A record whose every field differs from its default and from record(n + 1)'s.
JovTransferRecord record(int n, const std::string& user = "u1",
                         const std::string& uri = "jovcloud://app/buckets/b/objects/o") {
  JovTransferRecord r;
  r.direction = n % 2 ? JovTransferDirection::Download : JovTransferDirection::Upload;
  r.userID = user;
  r.objectURI = uri;
  r.localPath = "/tmp/dïr " + std::to_string(n) + "/file's.bin";
  r.contentType = "image/png; n=" + std::to_string(n);
  r.chunkSize = 1 << 20;
  r.totalBytes = 5'000'000'000 + n;
  r.bytesConfirmed = 3'000'000'000 + n;
  r.session = "session-" + std::to_string(n);
  r.etag = "\"etag-" + std::to_string(n) + "\"";
  r.fileSize = 5'000'000'000 + n;
  r.fileModifiedNs = 1'700'000'000'123'456'789 + n;
  r.fileInode = 0xfedcba9876543210ull + static_cast<unsigned>(n);  // past INT64_MAX
  r.state = JovTransferState::Failed;
  r.errorCode = 201 + n;
  r.errorMessage = "timed out\nafter 60 s";
  return r;
}

TEST_F(TransferStoreTest, KeepsEveryFieldThroughAddUpdateAndRemove) {
  auto store = openStore(dir / "transfers.db");
  ASSERT_TRUE(store);
  auto input = record(1);
  input.id = 777;  // assigned by the store, not taken from the caller
  const auto before =
      std::chrono::time_point_cast<std::chrono::milliseconds>(std::chrono::system_clock::now());
  auto id = store->add(input);
  ASSERT_TRUE(id.ok());
  EXPECT_NE(id.value(), 777);
  auto found = store->find(id.value());
  ASSERT_TRUE(found);
  EXPECT_GE(found->createdAt, before);
  EXPECT_LE(found->createdAt, std::chrono::system_clock::now());
  EXPECT_EQ(found->updatedAt, found->createdAt);
  auto expected = input;
  expected.id = id.value();
  expected.createdAt = expected.updatedAt = found->createdAt;
  EXPECT_EQ(*found, expected);

  // update() writes every field but the creation time.
  auto changed = record(2, "u9", "jovcloud://app/buckets/c/objects/p");
  changed.id = id.value();
  changed.createdAt = {};
  changed.state = JovTransferState::Suspended;
  ASSERT_TRUE(store->update(changed).ok());
  found = store->find(id.value());
  ASSERT_TRUE(found);
  EXPECT_EQ(found->createdAt, expected.createdAt);
  EXPECT_GE(found->updatedAt, found->createdAt);
  changed.createdAt = found->createdAt;
  changed.updatedAt = found->updatedAt;
  EXPECT_EQ(*found, changed);

  // updateProgress() writes the bytes and the state alone.
  ASSERT_TRUE(store->updateProgress(id.value(), 42, JovTransferState::Running).ok());
  found = store->find(id.value());
  ASSERT_TRUE(found);
  changed.bytesConfirmed = 42;
  changed.state = JovTransferState::Running;
  changed.updatedAt = found->updatedAt;
  EXPECT_EQ(*found, changed);

  // No such record: updates fail with 103, removing is not an error.
  auto missing = changed;
  missing.id = id.value() + 100;
  for (auto result : {store->update(missing), store->updateProgress(missing.id, 1, {})}) {
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error().code(), JovError::codeUndefinedError());
    EXPECT_NE(descriptionOf(result.error()).find(std::to_string(missing.id)), std::string::npos);
  }
  ASSERT_TRUE(store->remove(id.value()).ok());
  EXPECT_FALSE(store->find(id.value()));
  EXPECT_TRUE(store->remove(id.value()).ok());

  // The ID of a removed record is never given again: its old holder cannot write over a new one.
  auto next = store->add(record(3));
  ASSERT_TRUE(next.ok());
  EXPECT_GT(next.value(), id.value());
}

TEST_F(TransferStoreTest, FindUnfinishedMatchesUserDirectionObjectAndFileOnly) {
  auto store = openStore(dir / "transfers.db");
  ASSERT_TRUE(store);
  auto base = record(0);
  auto add = [&](auto change) {
    auto r = base;
    change(r);
    return store->add(r).value();
  };
  auto find = [&] {
    auto found = store->findUnfinished(base.userID, base.direction, base.objectURI, base.localPath);
    return found ? found->id : 0;
  };
  add([](auto& r) { r.state = JovTransferState::Completed; });
  add([](auto& r) { r.state = JovTransferState::Terminated; });
  add([](auto& r) { r.userID = "u2"; });
  add([](auto& r) { r.direction = JovTransferDirection::Download; });
  add([](auto& r) { r.objectURI += "2"; });
  add([](auto& r) { r.localPath += "2"; });
  EXPECT_EQ(find(), 0);

  const auto failed = add([](auto& r) { r.state = JovTransferState::Failed; });
  EXPECT_EQ(find(), failed);
  const auto suspended = add([](auto& r) { r.state = JovTransferState::Suspended; });
  EXPECT_EQ(find(), suspended) << "the newest unfinished one";
  ASSERT_TRUE(store->updateProgress(suspended, 0, JovTransferState::Completed).ok());
  EXPECT_EQ(find(), failed);
}

TEST_F(TransferStoreTest, ListsAUsersRecordsOldestFirstByLiteralPrefix) {
  auto store = openStore(dir / "transfers.db");
  ASSERT_TRUE(store);
  const std::string bucket = "jovcloud://app/buckets/";
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"u1", bucket + "a_c/objects/1"}, {"u2", bucket + "a_c/objects/2"},
      {"u1", bucket + "abc/objects/3"}, {"u1", bucket + "b%/objects/4"},
      {"u1", bucket + "bx/objects/5"},  {"u1", bucket + "A_C/objects/6"},
      {"u1", bucket + "a_c/objects/7"}, {"u1", "jovcloud://x/" + bucket + "a_c/objects/8"}};
  std::vector<std::int64_t> ids;
  for (std::size_t i = 0; i < rows.size(); ++i)
    ids.push_back(store->add(record(static_cast<int>(i), rows[i].first, rows[i].second)).value());

  auto listed = [&](const std::string& prefix) {
    std::vector<std::int64_t> found;
    for (const auto& r : store->list("u1", prefix)) found.push_back(r.id);
    return found;
  };
  EXPECT_EQ(listed(""), (std::vector{ids[0], ids[2], ids[3], ids[4], ids[5], ids[6], ids[7]}));
  EXPECT_EQ(listed(bucket + "a_c/objects/"), (std::vector{ids[0], ids[6]}));
  EXPECT_EQ(listed(bucket + "b%/objects/"), (std::vector{ids[3]}));
  EXPECT_TRUE(store->list("u3").empty());
}

TEST_F(TransferStoreTest, ReopenedStoreKeepsEverythingAndRefusesANewerSchema) {
  const auto file = dir / "a" / "b" / "transfers.db";
  std::vector<JovTransferRecord> before;
  {
    auto store = openStore(file);
    ASSERT_TRUE(store);
    for (int n = 0; n < 4; ++n) ASSERT_TRUE(store->add(record(n)).ok());
    before = store->list("u1");
    ASSERT_EQ(before.size(), 4u);
    ASSERT_TRUE(store->remove(before[1].id).ok());
    before.erase(before.begin() + 1);
    before[0].state = JovTransferState::Completed;
    ASSERT_TRUE(store->update(before[0]).ok());
    before = store->list("u1");
  }
  EXPECT_EQ(modeOf(dir / "a"), 0700u);
  EXPECT_EQ(modeOf(dir / "a" / "b"), 0700u);
  EXPECT_EQ(modeOf(file), 0600u);
  auto store = openStore(file);
  ASSERT_TRUE(store);
  EXPECT_EQ(store->list("u1"), before);
  store.reset();

  SqliteDatabase(file).exec("PRAGMA user_version = 99");
  auto newer = JovRTransferStore::open(file);
  ASSERT_FALSE(newer.ok());
  EXPECT_EQ(newer.error().code(), JovError::codeUndefinedError());
  EXPECT_NE(descriptionOf(newer.error()).find("99"), std::string::npos);
}

TEST_F(TransferStoreTest, ThreadsOfTwoConnectionsWriteTheirOwnRecords) {
  // Two stores on one file behave as two processes do: each waits for the other's writes.
  auto first = openStore(dir / "transfers.db");
  auto second = openStore(dir / "transfers.db");
  ASSERT_TRUE(first && second);
  constexpr int kThreads = 8, kUpdates = 150;
  std::vector<std::int64_t> ids(kThreads);
  std::vector<int> failures(kThreads, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      auto& store = t % 2 ? first : second;
      auto id = store->add(record(t, "u" + std::to_string(t)));
      if (!id.ok()) return void(++failures[t]);
      ids[t] = id.value();
      for (int i = 1; i <= kUpdates; ++i) {
        if (!store->updateProgress(ids[t], i * 1000 + t, JovTransferState::Running).ok())
          ++failures[t];
        auto seen = store->find(ids[t]);
        if (!seen || seen->bytesConfirmed != i * 1000 + t) ++failures[t];
      }
      auto done = *store->find(ids[t]);
      done.state = JovTransferState::Completed;
      if (!store->update(done).ok()) ++failures[t];
    });
  }
  for (auto& thread : threads) thread.join();
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(failures[t], 0) << "thread " << t;
    auto final = first->find(ids[t]);
    ASSERT_TRUE(final) << "thread " << t;
    EXPECT_EQ(final->bytesConfirmed, kUpdates * 1000 + t);
    EXPECT_EQ(final->state, JovTransferState::Completed);
    EXPECT_EQ(final->userID, "u" + std::to_string(t));
  }
}

// Each round a child process writes progress in a loop, reporting each value on a pipe once its
// write returned, and is killed with SIGKILL after a random number of them: the store must be
// whole, hold a value the child committed, and take writes again.
TEST_F(TransferStoreTest, SurvivesAWriterKilledAtAnyMoment) {
  const auto file = dir / "transfers.db";
  std::int64_t id = 0;
  {
    auto store = openStore(file);
    ASSERT_TRUE(store);
    id = store->add(record(0)).value();
  }
  std::mt19937 random(4242);
  for (int round = 0; round < 6; ++round) {
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      ::close(fds[0]);
      auto store = JovRTransferStore::open(file);
      if (!store) ::_exit(2);
      for (std::int64_t n = 1;; ++n) {
        const auto state = n % 2 ? JovTransferState::Running : JovTransferState::Suspended;
        const std::int64_t reported = store.value()->updateProgress(id, n, state).ok() ? n : -1;
        if (::write(fds[1], &reported, sizeof reported) != sizeof reported || reported < 0)
          ::_exit(3);
      }
    }
    ::close(fds[1]);
    const int wanted = std::uniform_int_distribution<int>(1, 400)(random);
    std::int64_t last = 0, value = 0;
    for (int i = 0; i < wanted && ::read(fds[0], &value, sizeof value) == sizeof value; ++i)
      last = value;
    ::kill(pid, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFSIGNALED(status)) << "the writer ended on its own, status " << status;
    while (::read(fds[0], &value, sizeof value) == sizeof value) last = value;
    ::close(fds[0]);
    ASSERT_GT(last, 0) << "round " << round << ": the writer failed or wrote nothing";

    {
      SqliteDatabase db(file);
      auto check = db.prepare("PRAGMA integrity_check");
      ASSERT_TRUE(check.step());
      EXPECT_EQ(check.columnText(0), "ok");
    }
    auto store = openStore(file);
    ASSERT_TRUE(store);
    auto found = store->find(id);
    ASSERT_TRUE(found);
    // The last reported write, or the one after it, committed before its report was sent.
    EXPECT_TRUE(found->bytesConfirmed == last || found->bytesConfirmed == last + 1)
        << "round " << round << ": stored " << found->bytesConfirmed << ", reported " << last;
    EXPECT_EQ(found->state,
              found->bytesConfirmed % 2 ? JovTransferState::Running : JovTransferState::Suspended);
    EXPECT_TRUE(store->updateProgress(id, 0, JovTransferState::Running).ok());
  }
}

TEST_F(TransferStoreTest, UnusableLocationsGiveErrors) {
  std::ofstream(dir / "plain") << "not a directory";
  std::ofstream(dir / "garbage.db") << std::string(4096, 'x');
  std::vector<fs::path> places = {dir / "plain" / "transfers.db",
                                  dir / "plain" / "sub" / "transfers.db", dir, dir / "garbage.db",
                                  "/proc/self/transfers.db"};
  if (::geteuid() != 0) {  // root writes anywhere
    fs::create_directory(dir / "locked");
    fs::permissions(dir / "locked", fs::perms::owner_read | fs::perms::owner_exec);
    places.push_back(dir / "locked" / "transfers.db");
  }
  for (const auto& place : places) {
    Result<std::shared_ptr<JovRTransferStore>> opened = JovError(0);
    EXPECT_NO_THROW(opened = JovRTransferStore::open(place));
    ASSERT_FALSE(opened.ok()) << place;
    EXPECT_EQ(opened.error().code(), JovError::codeUndefinedError());
    EXPECT_NE(descriptionOf(opened.error()).find(place.string()), std::string::npos);
  }
  std::ifstream in(dir / "garbage.db");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), std::string(4096, 'x'))
      << "a file that is not a store is left as it was";
}

TEST_F(TransferStoreTest, SharedStoreIsOnePerDataDirectory) {
  const auto previous = Jov::dataDirectory();
  Jov::setDataDirectory(dir / "plain");
  std::ofstream(dir / "plain") << "in the way";
  auto refused = JovRTransferStore::sharedStore();
  EXPECT_FALSE(refused.ok());

  fs::remove(dir / "plain");  // a failure is not remembered
  auto first = JovRTransferStore::sharedStore();
  ASSERT_TRUE(first.ok());
  EXPECT_EQ(modeOf(dir / "plain"), 0700u);
  EXPECT_TRUE(fs::exists(dir / "plain" / "transfers.db"));
  EXPECT_EQ(JovRTransferStore::sharedStore().value(), first.value());

  Jov::setDataDirectory(dir / "other");
  auto other = JovRTransferStore::sharedStore();
  ASSERT_TRUE(other.ok());
  EXPECT_NE(other.value(), first.value());
  Jov::setDataDirectory(dir / "plain");
  EXPECT_EQ(JovRTransferStore::sharedStore().value(), first.value());
  Jov::setDataDirectory(previous);
}

TEST_F(SqliteTest, TransactionRollsBackUnlessCommitted) {
  SqliteDatabase db(dir / "t.db");
  SqliteDatabase other(dir / "t.db");
  db.exec("CREATE TABLE t (x INTEGER PRIMARY KEY)");
  auto count = [](SqliteDatabase& on) {
    auto s = on.prepare("SELECT count(*) FROM t");
    return s.step() ? s.columnInt64(0) : -1;
  };
  {
    auto t = db.transaction();
    db.exec("INSERT INTO t VALUES (1)");
    EXPECT_EQ(count(db), 1);
    EXPECT_EQ(count(other), 0) << "not visible before the commit";
  }
  EXPECT_EQ(count(db), 0);
  try {
    auto t = db.transaction();
    db.exec("INSERT INTO t VALUES (2)");
    db.exec("INSERT INTO t VALUES (2)");
    t.commit();
    ADD_FAILURE() << "a duplicate key went in";
  } catch (const SqliteError& e) {
    EXPECT_EQ(e.code(), 19) << e.what();  // SQLITE_CONSTRAINT
  }
  EXPECT_EQ(count(other), 0) << "the first insert went with the failed transaction";
  {
    auto t = db.transaction();  // no transaction was left open
    db.exec("INSERT INTO t VALUES (3)");
    t.commit();
  }
  EXPECT_EQ(count(other), 1);
}

TEST_F(SqliteTest, CachedStatementStartsCleanOnEachUse) {
  SqliteDatabase db(dir / "s.db");
  SqliteDatabase other(dir / "s.db");
  db.exec("CREATE TABLE t (x INTEGER); INSERT INTO t VALUES (1), (2), (3)");
  {
    auto s = db.prepare("SELECT ?1");
    s.bind(1, 5);
    ASSERT_TRUE(s.step());
    EXPECT_EQ(s.columnInt64(0), 5);
  }
  {
    auto s = db.prepare("SELECT ?1");
    ASSERT_TRUE(s.step());
    EXPECT_TRUE(s.columnIsNull(0)) << "the last use's binding is gone";
  }
  const std::string select = "SELECT x FROM t ORDER BY x";
  {
    auto outer = db.prepare(select);
    ASSERT_TRUE(outer.step());
    {
      auto inner = db.prepare(select);  // the same SQL while the first use is open
      ASSERT_TRUE(inner.step());
      EXPECT_EQ(inner.columnInt64(0), 1);
    }
    ASSERT_TRUE(outer.step());
    EXPECT_EQ(outer.columnInt64(0), 2) << "the outer use kept its place";
  }
  // A use left in the middle of its rows ended its read: the connection sees later writes.
  other.exec("INSERT INTO t VALUES (4)");
  auto again = db.prepare(select);
  std::vector<std::int64_t> all;
  while (again.step()) all.push_back(again.columnInt64(0));
  EXPECT_EQ(all, (std::vector<std::int64_t>{1, 2, 3, 4}));
}

TEST_F(PreferencesStoreTest, KeepsValuesAndWritesOnlyChanges) {
  const auto file = dir / "prefs" / "preferences.sqlite3";
  {
    // A file of the first layout, made before the schema had a version.
    fs::create_directory(dir / "prefs");
    SqliteDatabase old(file);
    old.exec(
        "CREATE TABLE preferences (key TEXT PRIMARY KEY, value TEXT NOT NULL);"
        "INSERT INTO preferences VALUES ('u1', '{\"a\":1}')");
  }
  detail::PreferencesStore prefs(file);
  ASSERT_TRUE(prefs.isOpen());
  EXPECT_EQ(prefs.get("u1"), nlohmann::json({{"a", 1}}));

  SqliteDatabase watcher(file);
  auto version = [&] {
    auto s = watcher.prepare("PRAGMA data_version");
    return s.step() ? s.columnInt64(0) : -1;
  };
  const auto unchanged = version();
  EXPECT_TRUE(prefs.set("u1", {{"a", 1}}));
  EXPECT_EQ(version(), unchanged) << "an equal value wrote to the file";
  EXPECT_TRUE(prefs.set("u1", {{"a", 2}}));
  EXPECT_NE(version(), unchanged);
  EXPECT_TRUE(prefs.set("u2", {{"b", true}}));
  EXPECT_TRUE(prefs.remove("u1"));

  detail::PreferencesStore reopened(file);
  EXPECT_FALSE(reopened.get("u1"));
  EXPECT_EQ(reopened.get("u2"), nlohmann::json({{"b", true}}));

  detail::PreferencesStore broken("/proc/self/nowhere/preferences.sqlite3");
  EXPECT_FALSE(broken.isOpen());
  EXPECT_FALSE(broken.set("k", 1));
  EXPECT_FALSE(broken.get("k"));
}

}  // namespace
}  // namespace jov
