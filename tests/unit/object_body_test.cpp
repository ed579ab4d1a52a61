// An object's body against the fake transport: the request of each exchange, the answers mapped
// to codes, the checks made before anything is sent, and what success and failure leave behind.
#include <gtest/gtest.h>

#include <fstream>

#include "fake_transport.hpp"
#include "jov/async.hpp"
#include "jov/bucket.hpp"
#include "jov/object.hpp"

namespace jov {
namespace {

using jovtest::Answer;
using nlohmann::json;
using namespace std::chrono_literals;

constexpr const char* kPublication = "application/vnd.jov.ObjectBodyPublicationRequest+json";

class ObjectBodyTest : public jovtest::UserTest {
 protected:
  void SetUp() override {
    jovtest::UserTest::SetUp();
    Jov::setCurrentUser(jovtest::credentialUser({{"userID", "u1"}}));
  }
  std::shared_ptr<JovObject> object() {
    return JovUser::userWithID("u1")->bucketWithName("notes")->createObjectWithID("o1");
  }
  std::filesystem::path file(const std::string& name, const std::string& content) {
    auto path = app.dataDirectory / name;
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }
  // Runs the main queue until the condition holds, five seconds at most.
  static void drainUntil(const std::function<bool()>& condition) {
    const auto limit = std::chrono::steady_clock::now() + 5s;
    while (!condition() && std::chrono::steady_clock::now() < limit) JovMainQueue::runFor(10ms);
  }
  template <class R>
  static std::optional<JovError> err(const R& r) {
    return r.errorIfAny();
  }
};

TEST_F(ObjectBodyTest, EachExchangeSendsItsRequest) {
  const std::string body = "/users/u1/buckets/notes/objects/o1/body";
  const auto modified = Answer::json(200, {{"modifiedAt", 1700000000000}});
  const auto url = Answer::json(200, {{"url", "https://files.example.test/p/abc"}});
  const auto png = file("photo.PNG", "\x89PNG-bytes");
  const auto plain = file("README", "read me");
  const auto future =
      std::chrono::system_clock::time_point(std::chrono::milliseconds(4102444800000));
  jovtest::checkRequests(
      fake,
      {
          {[&] { return err(object()->uploadBodySynchronousWithData("hello", "text/plain")); },
           modified, "PUT " + body, "text/plain", "", "hello"},
          {[&] { return err(object()->uploadBodySynchronousWithData("raw", "")); }, modified,
           "PUT " + body, "application/octet-stream", "", "raw"},
          {[&] { return err(object()->uploadBodySynchronousWithURL(png, "")); }, modified,
           "PUT " + body, "image/png", "", "\x89PNG-bytes"},
          {[&] { return err(object()->uploadBodySynchronousWithURL(png, "image/x-mine")); },
           modified, "PUT " + body, "image/x-mine", "", "\x89PNG-bytes"},
          {[&] { return err(object()->uploadBodySynchronousWithURL(plain, "")); }, modified,
           "PUT " + body, "application/octet-stream", "", "read me"},
          {[&] { return err(object()->publishBodySynchronous()); }, url,
           "POST " + body + "/publish", kPublication, "", ""},
          {[&] { return err(object()->publishBodySynchronousExpiresIn(90s)); }, url,
           "POST " + body + "/publish", kPublication, "", R"({"expiresIn": 90})"},
          {[&] { return err(object()->publishBodySynchronousExpiresAt(future)); }, url,
           "POST " + body + "/publish", kPublication, "", R"({"expiresAt": 4102444800000})"},
          {[&] { return err(object()->deleteBodySynchronous()); }, Answer::text(204, ""),
           "DELETE " + body, "application/json", "", ""},
          {[&] {
             return err(Jov::bucketWithName("pics")
                            ->createObjectWithID("p1")
                            ->downloadBodySynchronousWithURL(app.dataDirectory / "out.bin"));
           },
           Answer::text(200, "x"), "GET /buckets/pics/objects/p1/body", "application/json", "", ""},
      });
}

TEST_F(ObjectBodyTest, SuccessUpdatesTheObjectAndFailureChangesNothing) {
  auto o = object();
  fake.push(Answer::json(200, {{"modifiedAt", 1700000000000}}));
  ASSERT_TRUE(o->uploadBodySynchronousWithData("{}", "application/x-thing").ok());
  EXPECT_EQ(o->bodyContentType(), "application/x-thing");
  EXPECT_EQ(o->modified(), std::chrono::system_clock::time_point(1700000000000ms));

  // A refused upload and a refused download leave type and time as they were, and a failed
  // download leaves the file that was at the destination untouched.
  const auto destination = file("kept.txt", "old content");
  fake.push(Answer::serviceError(404, "OBJECT_NOT_FOUND"));
  EXPECT_EQ(o->uploadBodySynchronousWithData("x", "text/plain").error().code(),
            JovError::codeObjectNotFound());
  fake.push(Answer::serviceError(404, "OBJECT_BODY_NOT_FOUND"));
  EXPECT_EQ(o->downloadBodySynchronousWithURL(destination).error().code(),
            JovError::codeObjectBodyNotExistInCloud());
  EXPECT_EQ(o->bodyContentType(), "application/x-thing");
  EXPECT_EQ(o->modified(), std::chrono::system_clock::time_point(1700000000000ms));
  std::ifstream in(destination);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "old content");

  // A download takes the body's media type from the answer.
  fake.push({200, {{"Content-Type", "image/gif"}}, "GIF89a", std::nullopt});
  const auto gif = app.dataDirectory / "pic.gif";
  ASSERT_TRUE(o->downloadBodySynchronousWithURL(gif).ok());
  EXPECT_EQ(o->bodyContentType(), "image/gif");
  std::ifstream got(gif, std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(got), {}), "GIF89a");
}

TEST_F(ObjectBodyTest, AnswersMapToCodes) {
  auto o = object();
  const auto at = std::chrono::system_clock::now() + 1h;
  const auto out = app.dataDirectory / "out";
  jovtest::checkAnswers(
      fake, {
                {[&] { return err(o->uploadBodySynchronousWithData("x", "")); },
                 Answer::serviceError(404, "user_not_found"),
                 JovError::codeBucketParentNotExistInCloud()},
                {[&] { return err(o->downloadBodySynchronousWithURL(out)); },
                 Answer::serviceError(404, "GROUP_NOT_FOUND"),
                 JovError::codeBucketParentNotExistInCloud()},
                {[&] { return err(o->deleteBodySynchronous()); },
                 Answer::serviceError(404, "OBJECT_BODY_NOT_FOUND"),
                 JovError::codeObjectBodyNotExistInCloud()},
                {[&] { return err(o->publishBodySynchronous()); },
                 Answer::serviceError(404, "OBJECT_BODY_NOT_FOUND"),
                 JovError::codeObjectBodyNotExistInCloud()},
                // Only a publication until a date reads the service's invalid input as a past date.
                {[&] { return err(o->publishBodySynchronousExpiresAt(at)); },
                 Answer::serviceError(400, "INVALID_INPUT_DATA"), JovError::codeDateNotFuture()},
                {[&] { return err(o->publishBodySynchronousExpiresIn(5s)); },
                 Answer::serviceError(400, "INVALID_INPUT_DATA"), 0},
                {[&] { return err(o->publishBodySynchronous()); },
                 Answer::json(200, {{"link", "x"}}), JovError::codeUnableToParseResponse()},
                {[&] { return err(o->publishBodySynchronous()); }, Answer::json(200, {{"url", 7}}),
                 JovError::codeUnableToParseResponse()},
                {[&] { return err(o->uploadBodySynchronousWithData("x", "")); }, Answer::error(),
                 JovError::codeUnableToConnectToInternet()},
            });
}

TEST_F(ObjectBodyTest, MisuseIsRefusedBeforeAnythingIsSent) {
  auto unsaved = Jov::bucketWithName("b")->createObject();
  auto o = object();
  const auto existing = file("a.txt", "a");
  EXPECT_EQ(unsaved->uploadBodySynchronousWithData("x", "").error().code(),
            JovError::codeInvalidObjects());
  EXPECT_EQ(unsaved->downloadBodySynchronousWithURL(existing).error().code(),
            JovError::codeInvalidObjects());
  EXPECT_EQ(unsaved->publishBodySynchronous().error().code(), JovError::codeInvalidObjects());
  EXPECT_EQ(unsaved->publishBodySynchronousExpiresIn(0s).error().code(),
            JovError::codeInvalidObjects());
  EXPECT_EQ(unsaved->deleteBodySynchronous().error().code(), JovError::codeInvalidObjects());
  EXPECT_EQ(o->uploadBodySynchronousWithURL(app.dataDirectory / "missing", "").error().code(),
            JovError::codeNotReadableURL());
  EXPECT_EQ(o->uploadBodySynchronousWithURL(app.dataDirectory, "").error().code(),
            JovError::codeNotReadableURL());
  const auto nowhere = app.dataDirectory / "no-such-dir" / "out.bin";
  EXPECT_EQ(o->downloadBodySynchronousWithURL(nowhere).error().code(),
            JovError::codeNotWritableURL());
  EXPECT_FALSE(std::filesystem::exists(nowhere.parent_path()));
  EXPECT_EQ(o->downloadBodySynchronousWithURL(app.dataDirectory).error().code(),
            JovError::codeNotWritableURL());
  EXPECT_EQ(
      o->publishBodySynchronousExpiresAt(std::chrono::system_clock::now() - 1s).error().code(),
      JovError::codeDateNotFuture());
  EXPECT_EQ(o->publishBodySynchronousExpiresIn(0s).error().code(), JovError::codeIntervalZero());
  EXPECT_EQ(o->publishBodySynchronousExpiresIn(-5s).error().code(), JovError::codeIntervalZero());
  EXPECT_EQ(fake.count(), 0u);

  EXPECT_EQ(JovObject::decideBodyContentType("", "x/report.PDF"), "application/pdf");
  EXPECT_EQ(JovObject::decideBodyContentType("", "archive.tar.gz"), "application/gzip");
  EXPECT_EQ(JovObject::decideBodyContentType("", "noextension."), "application/octet-stream");
  EXPECT_EQ(JovObject::decideBodyContentType("text/csv", "x.png"), "text/csv");
}

TEST_F(ObjectBodyTest, ProgressAndTheAsynchronousForms) {
  auto o = object();
  const std::string bytes(100000, 'b');
  std::vector<std::pair<std::int64_t, std::int64_t>> reports;
  fake.push(Answer::json(200, {{"modifiedAt", 1}}));
  ASSERT_TRUE(o->uploadBodySynchronousWithData(bytes, "", [&](std::int64_t d, std::int64_t t) {
                 reports.emplace_back(d, t);
               }).ok());
  ASSERT_FALSE(reports.empty());
  EXPECT_EQ(reports.back(), std::make_pair(std::int64_t{100000}, std::int64_t{100000}));

  // The block form posts progress to the main queue before its completion; the old spelling of
  // the progress forms does the same.
  fake.push(Answer::json(200, {{"modifiedAt", 2}}));
  std::vector<std::string> events;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  o->uploadBodyWithDataAndProgess(
      bytes, "text/plain",
      [&](JovObject::Ptr object, std::optional<JovError> error) {
        events.push_back(error ? "failed" : "done " + object->bodyContentType().value_or(""));
      },
      [&](std::int64_t d, std::int64_t) { events.push_back("progress " + std::to_string(d)); });
#pragma GCC diagnostic pop
  drainUntil([&] { return !events.empty() && events.back().starts_with("done"); });
  ASSERT_GE(events.size(), 2u);
  EXPECT_EQ(events.front(), "progress 100000");
  EXPECT_EQ(events.back(), "done text/plain");

  fake.push(Answer::json(200, {{"url", "https://p/1"}}));
  std::string published;
  o->publishBodyExpiresIn(10s, [&](JovObject::Ptr, std::string url, std::optional<JovError> e) {
    published = e ? "error" : url;
  });
  drainUntil([&] { return !published.empty(); });
  EXPECT_EQ(published, "https://p/1");
  EXPECT_EQ(fake.last().json(), json({{"expiresIn", 10}}));

  fake.push(Answer::text(200, "zz"));
  auto future = o->downloadBodyWithURLAsync(app.dataDirectory / "f.bin");
  ASSERT_EQ(future.wait_for(5s), std::future_status::ready);
  EXPECT_TRUE(future.get().ok());
}

}  // namespace
}  // namespace jov
