// Object bodies: files under the data directory, and their rows (the body of an object, its
// public links, the chunked uploads under way).
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "database.hpp"

namespace jovemu {

/// @brief Where body files live: one directory, files named at random.
class BodyFiles {
 public:
  /// @brief Uses (creating) the directory; with `temporary`, removes it on destruction.
  BodyFiles(std::filesystem::path dir, bool temporary);
  ~BodyFiles();
  BodyFiles(const BodyFiles&) = delete;
  BodyFiles& operator=(const BodyFiles&) = delete;

  std::filesystem::path path(const std::string& name) const { return dir_ / name; }
  /// @brief A name no file has yet.
  std::string newName() const;
  /// @brief Removes a file; a missing one is no error.
  void remove(const std::string& name) const;
  void remove(const std::vector<std::string>& names) const {
    for (const auto& name : names) remove(name);
  }
  /// @brief Removes every file no row names (left by a crash or by buckets dropped whole).
  void sweep(Database& db) const;

 private:
  std::filesystem::path dir_;
  bool temporary_;
};

struct BodyRow {
  std::string file, contentType, md5;
  std::int64_t size = 0;
};

struct Publication {
  std::int64_t bucketKey = 0;
  std::string objectID;
  std::optional<std::int64_t> expiresAt;
};

struct UploadRow {
  std::string id;
  std::int64_t bucketKey = 0;
  std::string objectID;
  std::optional<std::string> owner;
  std::string contentType;
  std::int64_t size = 0, received = 0;
  std::string partFile;
  std::int64_t expiresAt = 0;
};

std::optional<BodyRow> findBody(Connection& conn, std::int64_t bucketKey,
                                const std::string& objectID);
/// @brief Sets the object's body; gives the file of the body it replaced, if any.
std::optional<std::string> storeBody(Connection& conn, std::int64_t bucketKey,
                                     const std::string& objectID, const BodyRow& body);
/// @brief Removes the body and its public links; gives its file, nothing when there was none.
std::optional<std::string> deleteBody(Connection& conn, std::int64_t bucketKey,
                                      const std::string& objectID);
/// @brief Removes everything of an object's body (body, links, uploads); gives their files.
std::vector<std::string> forgetObjectBodies(Connection& conn, std::int64_t bucketKey,
                                            const std::string& objectID);
/// @brief The same for every object of a bucket.
void forgetBucketBodies(Connection& conn, std::int64_t bucketKey);

void insertPublication(Connection& conn, const std::string& token, std::int64_t bucketKey,
                       const std::string& objectID, std::optional<std::int64_t> expiresAt);
std::optional<Publication> findPublication(Connection& conn, const std::string& token);

void insertUpload(Connection& conn, const UploadRow& upload);
std::optional<UploadRow> findUpload(Connection& conn, const std::string& id);
void setUploadReceived(Connection& conn, const std::string& id, std::int64_t received);
void deleteUpload(Connection& conn, const std::string& id);
/// @brief Removes the sessions expired at `now`; gives their part files.
std::vector<std::string> expireUploads(Connection& conn, std::int64_t now);

}  // namespace jovemu
