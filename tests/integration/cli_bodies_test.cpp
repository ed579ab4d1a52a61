// `jov body` and `jov transfers` from a shell: a body up, down, published and deleted; a
// resumable upload listed and cancelled.
#include <gtest/gtest.h>

#include <fstream>

#include "cli_user.hpp"

namespace jovtest {
namespace {

TEST(CliBodies, UploadDownloadPublishDeleteAndTransfers) {
  CliUser cli;
  std::vector<std::string> registration = {"register", "uploader"};
  auto service = cli.service();
  registration.insert(registration.end(), service.begin(), service.end());
  ASSERT_EQ(cli.run(registration, "secret99\n").status, 0);
  const std::string uri =
      cli.runJSON({"object", "create", "--bucket", "docs", "--user", "me", "{}"}).value("uri", "");
  ASSERT_FALSE(uri.empty());

  TempDir files;
  const auto source = files.path() / "notes.txt";
  std::ofstream(source) << std::string(300000, 'n');
  auto up = cli.runJSON({"body", "upload", uri, source.string()});
  EXPECT_EQ(up["contentType"], "text/plain");
  EXPECT_EQ(up["resumable"], false);
  auto chunked =
      cli.run({"body", "upload", uri, source.string(), "--resumable", "--chunk", "65536"});
  ASSERT_EQ(chunked.status, 0) << chunked.err;
  EXPECT_NE(chunked.err.find("upload: "), std::string::npos)
      << "plain progress lines off a terminal";

  const auto copy = files.path() / "copy.txt";
  auto down = cli.runJSON({"body", "download", uri, copy.string(), "--single"});
  EXPECT_EQ(down["bytes"], 300000);
  auto published = cli.runJSON({"body", "publish", uri, "--expires-in", "60"});
  EXPECT_EQ(published["url"].get<std::string>().find("http://127.0.0.1:"), 0u);

  // The completed resumable upload is listed; cancelling forgets it.
  auto listed = cli.runJSON({"transfers", "list"});
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(listed[0]["state"], "completed");
  EXPECT_EQ(listed[0]["bytes"], 300000);
  const std::string id = std::to_string(listed[0]["id"].get<int>());
  EXPECT_EQ(cli.run({"transfers", "cancel", id}).status, 0);
  EXPECT_TRUE(cli.runJSON({"transfers", "list"}).empty());
  EXPECT_EQ(cli.run({"transfers", "resume", id}).status, 1);

  EXPECT_EQ(cli.run({"body", "delete", uri, "--yes"}).status, 0);
  auto gone = cli.run({"body", "download", uri, copy.string(), "--single"});
  EXPECT_EQ(gone.status, 1);
  EXPECT_NE(gone.err.find("OBJECT_BODY_NOT_FOUND"), std::string::npos) << gone.err;
  EXPECT_EQ(cli.run({"body", "upload", "not-a-uri", source.string()}).status, 2);
}

}  // namespace
}  // namespace jovtest
