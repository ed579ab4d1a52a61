// Object bodies on the emulator's routes: ranges and versions, rights, the refusals of the
// chunked protocol, the size limit, and a body cut short.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "bucket_test_helpers.hpp"
#include "process.hpp"

namespace jovtest {
namespace {

using nlohmann::json;
constexpr const char* kUpload = "application/vnd.jov.ObjectBodyUploadRequest+json";

std::string md5Hex(const std::string& bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_md5(), nullptr);
  std::string out;
  for (unsigned int i = 0; i < length; ++i) {
    static constexpr char kHex[] = "0123456789abcdef";
    out += kHex[digest[i] >> 4];
    out += kHex[digest[i] & 15];
  }
  return out;
}

std::string md5Base64(const std::string& bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_md5(), nullptr);
  std::string out(32, '\0');
  out.resize(static_cast<std::size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                                      digest, static_cast<int>(length))));
  return out;
}

httplib::Headers with(std::initializer_list<std::pair<std::string, std::string>> pairs) {
  httplib::Headers headers;
  for (const auto& [k, v] : pairs) headers.emplace(k, v);
  return headers;
}

struct BodyFixture {
  EmulatorClient client{Emulator::shared().newApp()};
  std::string token, object;
  BodyFixture() {
    auto [user, userToken] = client.newUser();
    token = userToken;
    const std::string bucket = "/users/" + user.value("userID", "") + "/buckets/files";
    auto created = postObject(client, bucket, {{"n", 1}}, token);
    EXPECT_EQ(created.status, 201) << created.raw;
    object = bucket + "/objects/" + created.body.value("objectID", "");
  }
};

TEST(EmulatorBodies, RangesVersionsAndRights) {
  BodyFixture f;
  const std::string body = "0123456789abcdef";
  auto put = f.client.send("PUT", f.object + "/body", body, "text/plain", f.token);
  ASSERT_EQ(put.status, 200) << put.raw;
  EXPECT_EQ(put.body["etag"], md5Hex(body));

  auto whole = f.client.send("GET", f.object + "/body", "", "", f.token);
  EXPECT_EQ(whole.status, 200);
  EXPECT_EQ(whole.raw, body);
  auto part =
      f.client.send("GET", f.object + "/body", "", "", f.token, with({{"Range", "bytes=4-7"}}));
  EXPECT_EQ(part.status, 206);
  EXPECT_EQ(part.raw, "4567");
  // A range past the end is served up to the end; the last N bytes; one outside the body.
  EXPECT_EQ(
      f.client.send("GET", f.object + "/body", "", "", f.token, with({{"Range", "bytes=10-99"}}))
          .raw,
      "abcdef");
  EXPECT_EQ(
      f.client.send("GET", f.object + "/body", "", "", f.token, with({{"Range", "bytes=-3"}})).raw,
      "def");
  EXPECT_EQ(
      f.client.send("GET", f.object + "/body", "", "", f.token, with({{"Range", "bytes=16-"}}))
          .status,
      416);
  EXPECT_EQ(f.client
                .send("GET", f.object + "/body", "", "", f.token,
                      with({{"If-Match", "\"" + md5Hex(body) + "\""}, {"Range", "bytes=0-1"}}))
                .raw,
            "01");
  auto stale =
      f.client.send("GET", f.object + "/body", "", "", f.token, with({{"If-Match", "\"0000\""}}));
  EXPECT_EQ(stale.status, 412);

  // Another user reads nothing of a private user-scope body; anonymous is refused too.
  auto other = f.client.newUser().second;
  EXPECT_EQ(f.client.send("GET", f.object + "/body", "", "", other).status, 403);
  EXPECT_EQ(f.client.send("PUT", f.object + "/body", "x", "text/plain", other).status, 403);
  EXPECT_EQ(f.client.send("GET", f.object + "/body", "", "").status, 401);
  EXPECT_EQ(f.client.send("GET", f.object + "/body", "", "", f.token).raw, body);

  // Deleting the object takes its body along.
  ASSERT_EQ(f.client.send("DELETE", f.object, "", "", f.token).status, 204);
  EXPECT_EQ(f.client.send("GET", f.object + "/body", "", "", f.token).errorCode(),
            "OBJECT_NOT_FOUND");
}

TEST(EmulatorBodies, ChunkedSessionsRefuseWhatIsOutOfPlace) {
  BodyFixture f;
  ASSERT_EQ(f.client.send("PUT", f.object + "/body", "old", "text/plain", f.token).status, 200);
  auto opened = f.client.sendJson("POST", f.object + "/body/uploads",
                                  {{"size", 10}, {"contentType", "a/b"}}, kUpload, f.token);
  ASSERT_EQ(opened.status, 201) << opened.raw;
  const std::string session = f.object + "/body/uploads/" + opened.body.value("uploadID", "");
  auto chunk = [&](const std::string& range, const std::string& bytes, std::string md5 = "",
                   const std::string& token = "") {
    if (md5.empty()) md5 = md5Base64(bytes);
    return f.client.send("PUT", session, bytes, "application/octet-stream",
                         token.empty() ? f.token : token,
                         with({{"Content-Range", "bytes " + range + "/10"}, {"Content-MD5", md5}}));
  };
  EXPECT_EQ(chunk("0-3", "0123").body["received"], 4);
  auto ahead = chunk("6-9", "6789");
  EXPECT_EQ(ahead.status, 409);
  EXPECT_EQ(ahead.errorCode(), "UPLOAD_OFFSET_MISMATCH");
  EXPECT_EQ(ahead.body["received"], 4);
  EXPECT_EQ(chunk("4-5", "45", md5Base64("xx")).errorCode(), "CHUNK_DIGEST_MISMATCH");
  EXPECT_EQ(chunk("4-6", "45").status, 400) << "fewer bytes than the range";
  EXPECT_EQ(f.client.get(session, f.token).body["received"], 4) << "refused chunks are not kept";
  auto early = f.client.send("POST", session + "/complete", "", "application/json", f.token);
  EXPECT_EQ(early.errorCode(), "UPLOAD_INCOMPLETE");
  EXPECT_EQ(early.body["received"], 4);
  EXPECT_EQ(f.client.get(f.object + "/body", f.token).raw, "old") << "unchanged until complete";
  auto other = f.client.newUser().second;
  EXPECT_EQ(f.client.get(session, other).status, 403) << "not even its object is theirs";

  EXPECT_EQ(chunk("4-9", "456789").body["received"], 10);
  auto done = f.client.send("POST", session + "/complete", "", "application/json", f.token);
  ASSERT_EQ(done.status, 200) << done.raw;
  EXPECT_EQ(done.body["etag"], md5Hex("0123456789"));
  auto read = f.client.get(f.object + "/body", f.token);
  EXPECT_EQ(read.raw, "0123456789");
  EXPECT_EQ(f.client.get(session, f.token).errorCode(), "UPLOAD_NOT_FOUND");

  // An abandoned session is gone; a size below zero is refused.
  auto second =
      f.client.sendJson("POST", f.object + "/body/uploads", {{"size", 3}}, kUpload, f.token);
  const std::string abandoned = f.object + "/body/uploads/" + second.body.value("uploadID", "");
  EXPECT_EQ(f.client.send("DELETE", abandoned, "", "", f.token).status, 204);
  EXPECT_EQ(f.client.get(abandoned, f.token).errorCode(), "UPLOAD_NOT_FOUND");
  EXPECT_EQ(f.client.sendJson("POST", f.object + "/body/uploads", {{"size", -1}}, kUpload, f.token)
                .status,
            400);
}

TEST(EmulatorBodies, TheSizeLimitAndABodyCutShort) {
  TempDir data;
  PrivateEmulator emulator({"--data", data.str(), "--max-body-size", "1000", "--app", "a1:k1"});
  EmulatorApp app{"a1", "k1", emulator.baseURL()};
  // The private emulator is reached through a client of its own.
  httplib::Client http("127.0.0.1", emulator.port());
  const httplib::Headers keys = {{"X-Jov-AppID", "a1"}, {"X-Jov-AppKey", "k1"}};
  auto registered =
      http.Post("/api/apps/a1/users", keys, R"({"loginName":"user1","password":"pass1234"})",
                "application/vnd.jov.RegistrationRequest+json");
  ASSERT_TRUE(registered);
  ASSERT_EQ(registered->status, 201) << registered->body;
  auto login = http.Post("/api/apps/a1/oauth2/token", keys,
                         R"({"username":"user1","password":"pass1234"})", "application/json");
  ASSERT_TRUE(login && login->status == 200);
  auto headers = keys;
  headers.emplace("Authorization", "Bearer " + json::parse(login->body).value("access_token", ""));
  auto object = http.Post("/api/apps/a1/buckets/b1/objects", headers, "{}", "application/json");
  ASSERT_TRUE(object && object->status == 201);
  const std::string path = "/api/apps/a1/buckets/b1/objects/" +
                           json::parse(object->body).value("objectID", "") + "/body";
  auto over = http.Put(path, headers, std::string(1001, 'x'), "text/plain");
  ASSERT_TRUE(over);
  EXPECT_EQ(over->status, 413);
  auto fits = http.Put(path, headers, std::string(1000, 'y'), "text/plain");
  ASSERT_TRUE(fits);
  EXPECT_EQ(fits->status, 200);
  auto session = http.Post(path + "/uploads", headers, R"({"size": 1001})", kUpload);
  ASSERT_TRUE(session);
  EXPECT_EQ(session->status, 413);

  // A client that announces 900 bytes and hangs up after 10 leaves the stored body as it was.
  int sock = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(emulator.port()));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::connect(sock, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  std::string request =
      "PUT " + path + " HTTP/1.1\r\nHost: x\r\nX-Jov-AppID: a1\r\n" +
      "X-Jov-AppKey: k1\r\nAuthorization: " + headers.find("Authorization")->second +
      "\r\nContent-Type: text/plain\r\nContent-Length: 900\r\n\r\n0123456789";
  ASSERT_EQ(::send(sock, request.data(), request.size(), 0), static_cast<ssize_t>(request.size()));
  ::close(sock);
  // The emulator notices the hang-up and removes what it had written of that body; the body it
  // holds stays the 1000 bytes of "y".
  auto filesKept = [&] {
    std::size_t files = 0;
    for ([[maybe_unused]] const auto& entry :
         std::filesystem::directory_iterator(data.path() / "bodies"))
      ++files;
    return files;
  };
  for (int i = 0; i < 100 && filesKept() != 1; ++i) ::usleep(20000);
  auto read = http.Get(path, headers);
  ASSERT_TRUE(read);
  EXPECT_EQ(read->body, std::string(1000, 'y'));
  const std::size_t files = filesKept();
  EXPECT_EQ(files, 1u);
}

}  // namespace
}  // namespace jovtest
