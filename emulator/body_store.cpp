#include "body_store.hpp"

#include <set>

#include "crypto.hpp"

namespace jovemu {

BodyFiles::BodyFiles(std::filesystem::path dir, bool temporary)
    : dir_(std::move(dir)), temporary_(temporary) {
  std::filesystem::create_directories(dir_);
}

BodyFiles::~BodyFiles() {
  if (!temporary_) return;
  std::error_code ec;
  std::filesystem::remove_all(dir_, ec);
}

std::string BodyFiles::newName() const {
  std::string name = randomHex(16);
  std::error_code ec;
  while (std::filesystem::exists(dir_ / name, ec)) name = randomHex(16);
  return name;
}

void BodyFiles::remove(const std::string& name) const {
  if (name.empty() || name.find('/') != std::string::npos) return;
  std::error_code ec;
  std::filesystem::remove(dir_ / name, ec);
}

void BodyFiles::sweep(Database& db) const {
  std::set<std::string> named;
  db.transaction([&](Connection& conn) {
    for (const char* sql :
         {"SELECT file FROM object_bodies", "SELECT part_file FROM body_uploads"}) {
      auto stmt = conn.prepare(sql);
      while (stmt.step()) named.insert(stmt.textOr(0));
    }
  });
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(dir_, ec)) {
    const std::string name = entry.path().filename().string();
    if (!named.contains(name)) remove(name);
  }
}

std::optional<BodyRow> findBody(Connection& conn, std::int64_t bucketKey,
                                const std::string& objectID) {
  auto stmt = conn.prepare(
      "SELECT file, content_type, md5, size FROM object_bodies WHERE bucket_key = ?1 AND "
      "object_id = ?2");
  stmt.bind(1, bucketKey).bind(2, objectID);
  if (!stmt.step()) return std::nullopt;
  return BodyRow{stmt.textOr(0), stmt.textOr(1), stmt.textOr(2), stmt.integer(3)};
}

std::optional<std::string> storeBody(Connection& conn, std::int64_t bucketKey,
                                     const std::string& objectID, const BodyRow& body) {
  std::optional<std::string> replaced;
  if (auto old = findBody(conn, bucketKey, objectID)) replaced = old->file;
  auto stmt = conn.prepare(
      "INSERT OR REPLACE INTO object_bodies (bucket_key, object_id, file, content_type, size, md5)"
      " VALUES (?1, ?2, ?3, ?4, ?5, ?6)");
  stmt.bind(1, bucketKey).bind(2, objectID).bind(3, body.file).bind(4, body.contentType);
  stmt.bind(5, body.size).bind(6, body.md5);
  stmt.run();
  return replaced;
}

std::optional<std::string> deleteBody(Connection& conn, std::int64_t bucketKey,
                                      const std::string& objectID) {
  auto old = findBody(conn, bucketKey, objectID);
  if (!old) return std::nullopt;
  for (const char* sql :
       {"DELETE FROM object_bodies WHERE bucket_key = ?1 AND object_id = ?2",
        "DELETE FROM body_publications WHERE bucket_key = ?1 AND object_id = ?2"}) {
    auto stmt = conn.prepare(sql);
    stmt.bind(1, bucketKey).bind(2, objectID);
    stmt.run();
  }
  return old->file;
}

std::vector<std::string> forgetObjectBodies(Connection& conn, std::int64_t bucketKey,
                                            const std::string& objectID) {
  std::vector<std::string> files;
  if (auto file = deleteBody(conn, bucketKey, objectID)) files.push_back(*file);
  {
    auto stmt =
        conn.prepare("SELECT part_file FROM body_uploads WHERE bucket_key = ?1 AND object_id = ?2");
    stmt.bind(1, bucketKey).bind(2, objectID);
    while (stmt.step()) files.push_back(stmt.textOr(0));
  }
  auto stmt = conn.prepare("DELETE FROM body_uploads WHERE bucket_key = ?1 AND object_id = ?2");
  stmt.bind(1, bucketKey).bind(2, objectID);
  stmt.run();
  return files;
}

void forgetBucketBodies(Connection& conn, std::int64_t bucketKey) {
  // The files go with the next sweep: the rows that named them are gone.
  for (const char* sql : {"DELETE FROM object_bodies WHERE bucket_key = ?1",
                          "DELETE FROM body_publications WHERE bucket_key = ?1",
                          "DELETE FROM body_uploads WHERE bucket_key = ?1"}) {
    auto stmt = conn.prepare(sql);
    stmt.bind(1, bucketKey);
    stmt.run();
  }
}

void insertPublication(Connection& conn, const std::string& token, std::int64_t bucketKey,
                       const std::string& objectID, std::optional<std::int64_t> expiresAt) {
  auto stmt = conn.prepare(
      "INSERT INTO body_publications (token, bucket_key, object_id, expires_at) VALUES (?1, ?2, "
      "?3, ?4)");
  stmt.bind(1, token).bind(2, bucketKey).bind(3, objectID);
  if (expiresAt) {
    stmt.bind(4, *expiresAt);
  } else {
    stmt.bindNull(4);
  }
  stmt.run();
}

std::optional<Publication> findPublication(Connection& conn, const std::string& token) {
  auto stmt = conn.prepare(
      "SELECT bucket_key, object_id, expires_at FROM body_publications WHERE token = ?1");
  stmt.bind(1, token);
  if (!stmt.step()) return std::nullopt;
  Publication p{stmt.integer(0), stmt.textOr(1), std::nullopt};
  if (!stmt.isNull(2)) p.expiresAt = stmt.integer(2);
  return p;
}

void insertUpload(Connection& conn, const UploadRow& u) {
  auto stmt = conn.prepare(
      "INSERT INTO body_uploads (upload_id, bucket_key, object_id, owner, content_type, size,"
      " received, part_file, expires_at) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9)");
  stmt.bind(1, u.id).bind(2, u.bucketKey).bind(3, u.objectID).bind(4, u.owner);
  stmt.bind(5, u.contentType).bind(6, u.size).bind(7, u.received).bind(8, u.partFile);
  stmt.bind(9, u.expiresAt);
  stmt.run();
}

std::optional<UploadRow> findUpload(Connection& conn, const std::string& id) {
  auto stmt = conn.prepare(
      "SELECT upload_id, bucket_key, object_id, owner, content_type, size, received, part_file,"
      " expires_at FROM body_uploads WHERE upload_id = ?1");
  stmt.bind(1, id);
  if (!stmt.step()) return std::nullopt;
  return UploadRow{stmt.textOr(0),  stmt.integer(1), stmt.textOr(2), stmt.text(3),   stmt.textOr(4),
                   stmt.integer(5), stmt.integer(6), stmt.textOr(7), stmt.integer(8)};
}

void setUploadReceived(Connection& conn, const std::string& id, std::int64_t received) {
  auto stmt = conn.prepare("UPDATE body_uploads SET received = ?2 WHERE upload_id = ?1");
  stmt.bind(1, id).bind(2, received);
  stmt.run();
}

void deleteUpload(Connection& conn, const std::string& id) {
  auto stmt = conn.prepare("DELETE FROM body_uploads WHERE upload_id = ?1");
  stmt.bind(1, id);
  stmt.run();
}

std::vector<std::string> expireUploads(Connection& conn, std::int64_t now) {
  std::vector<std::string> files;
  {
    auto stmt = conn.prepare("SELECT part_file FROM body_uploads WHERE expires_at <= ?1");
    stmt.bind(1, now);
    while (stmt.step()) files.push_back(stmt.textOr(0));
  }
  auto stmt = conn.prepare("DELETE FROM body_uploads WHERE expires_at <= ?1");
  stmt.bind(1, now);
  stmt.run();
  return files;
}

}  // namespace jovemu
