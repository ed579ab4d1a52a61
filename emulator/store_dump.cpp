#include "store_dump.hpp"

#include <openssl/evp.h>

#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <vector>

#include "object_store.hpp"

namespace jovemu {

namespace {

using nlohmann::json;

// Not a table: the statements that create every table, for tables made at run time (one per
// bucket) that a new store does not have yet.
constexpr const char* kSchemaFile = "_schema.json";
namespace fs = std::filesystem;

// A statement built at run time (table names come from the schema), finalized on scope exit.
class Query {
 public:
  Query(Connection& conn, const std::string& sql) : db_(conn.handle()) {
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt_, nullptr) != SQLITE_OK) {
      throw std::runtime_error(sql + ": " + sqlite3_errmsg(db_));
    }
  }
  Query(const Query&) = delete;
  Query& operator=(const Query&) = delete;
  ~Query() { sqlite3_finalize(stmt_); }

  bool step() {
    int rc = sqlite3_step(stmt_);
    if (rc == SQLITE_ROW) return true;
    if (rc == SQLITE_DONE) return false;
    throw std::runtime_error(sqlite3_errmsg(db_));
  }
  sqlite3_stmt* get() const { return stmt_; }
  std::string text(int column) const {
    auto p = sqlite3_column_text(stmt_, column);
    return p ? reinterpret_cast<const char*>(p) : "";
  }

 private:
  sqlite3* db_;
  sqlite3_stmt* stmt_ = nullptr;
};

std::string quoted(const std::string& identifier) {
  std::string out = "\"";
  for (char c : identifier) out += c == '"' ? std::string("\"\"") : std::string(1, c);
  return out + "\"";
}

std::vector<std::string> tableNames(Connection& conn) {
  Query q(conn,
          "SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite_%' "
          "ORDER BY name");
  std::vector<std::string> names;
  while (q.step()) names.push_back(q.text(0));
  return names;
}

std::vector<std::string> columnNames(Connection& conn, const std::string& table) {
  Query q(conn, "PRAGMA table_info(" + quoted(table) + ")");
  std::vector<std::string> names;
  while (q.step()) names.push_back(q.text(1));
  return names;
}

std::string base64Encode(const unsigned char* data, int size) {
  std::string out(4 * ((static_cast<std::size_t>(size) + 2) / 3), '\0');
  int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), data, size);
  out.resize(static_cast<std::size_t>(n));
  return out;
}

std::string base64Decode(const std::string& text) {
  if (text.size() % 4 != 0) throw std::runtime_error("a blob is not valid base64");
  std::string out(text.size() / 4 * 3, '\0');
  int n = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                          reinterpret_cast<const unsigned char*>(text.data()),
                          static_cast<int>(text.size()));
  if (n < 0) throw std::runtime_error("a blob is not valid base64");
  // EVP_DecodeBlock counts the padding as zero bytes.
  std::size_t padding = 0;
  if (!text.empty() && text.back() == '=')
    padding = text.size() >= 2 && text[text.size() - 2] == '=' ? 2 : 1;
  out.resize(static_cast<std::size_t>(n) - padding);
  return out;
}

json columnValue(sqlite3_stmt* stmt, int column) {
  switch (sqlite3_column_type(stmt, column)) {
    case SQLITE_INTEGER:
      return sqlite3_column_int64(stmt, column);
    case SQLITE_FLOAT:
      return sqlite3_column_double(stmt, column);
    case SQLITE_TEXT:
      return std::string(reinterpret_cast<const char*>(sqlite3_column_text(stmt, column)),
                         static_cast<std::size_t>(sqlite3_column_bytes(stmt, column)));
    case SQLITE_BLOB:
      return {{"base64",
               base64Encode(static_cast<const unsigned char*>(sqlite3_column_blob(stmt, column)),
                            sqlite3_column_bytes(stmt, column))}};
    default:
      return nullptr;
  }
}

void bindValue(sqlite3_stmt* stmt, int index, const json& value) {
  int rc = SQLITE_OK;
  if (value.is_null()) {
    rc = sqlite3_bind_null(stmt, index);
  } else if (value.is_boolean()) {
    rc = sqlite3_bind_int64(stmt, index, value.get<bool>() ? 1 : 0);
  } else if (value.is_number_integer()) {
    rc = sqlite3_bind_int64(stmt, index, value.get<std::int64_t>());
  } else if (value.is_number()) {
    rc = sqlite3_bind_double(stmt, index, value.get<double>());
  } else if (value.is_string()) {
    const auto& text = value.get_ref<const std::string&>();
    rc = sqlite3_bind_text(stmt, index, text.data(), static_cast<int>(text.size()),
                           SQLITE_TRANSIENT);
  } else if (value.is_object() && value.size() == 1 && value.contains("base64") &&
             value["base64"].is_string()) {
    auto bytes = base64Decode(value["base64"].get<std::string>());
    rc = sqlite3_bind_blob(stmt, index, bytes.data(), static_cast<int>(bytes.size()),
                           SQLITE_TRANSIENT);
  } else {
    throw std::runtime_error("a value is neither null, a number, a string nor {\"base64\": ...}");
  }
  if (rc != SQLITE_OK) throw std::runtime_error("cannot bind a value");
}

void writeFileAtomically(const fs::path& path, const std::string& text) {
  auto temporary = path;
  temporary += ".tmp";
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    out << text;
    out.flush();
    if (!out) throw std::runtime_error("cannot write " + temporary.string());
  }
  std::error_code ec;
  fs::rename(temporary, path, ec);
  if (ec) throw std::runtime_error("cannot write " + path.string() + ": " + ec.message());
}

void importTable(Connection& conn, const std::string& table, const json& rows,
                 const std::string& file) {
  if (!rows.is_array()) throw std::runtime_error(file + ": expected an array of rows");
  auto columns = columnNames(conn, table);
  std::set<std::string> known(columns.begin(), columns.end());
  for (const auto& row : rows) {
    if (!row.is_object()) throw std::runtime_error(file + ": a row is not an object");
    std::string names, marks;
    for (const auto& [column, value] : row.items()) {
      if (!known.count(column)) {
        throw std::runtime_error(file + ": table " + table + " has no column " + column);
      }
      names += (names.empty() ? "" : ", ") + quoted(column);
      marks += marks.empty() ? "?" : ", ?";
    }
    Query insert(conn, "INSERT INTO " + quoted(table) + " (" + names + ") VALUES (" + marks + ")");
    int index = 1;
    try {
      for (const auto& [column, value] : row.items()) bindValue(insert.get(), index++, value);
      insert.step();
    } catch (const std::exception& error) {
      throw std::runtime_error(file + ": " + error.what());
    }
  }
}

// Creates a table the schema does not make at start, from the statement exported with it.
void createTable(Connection& conn, const std::string& table, const json& schema,
                 const std::string& file) {
  auto sql = schema.find(table);
  if (sql == schema.end() || !sql->is_string() ||
      sql->get_ref<const std::string&>().rfind("CREATE TABLE " + table + " ", 0) != 0) {
    throw std::runtime_error(file + ": no table " + table + " and no statement to create it in " +
                             kSchemaFile);
  }
  try {
    conn.exec(sql->get_ref<const std::string&>().c_str());
  } catch (const std::exception& error) {
    throw std::runtime_error(file + ": " + error.what());
  }
}

}  // namespace

void exportStore(Database& db, const fs::path& directory) {
  std::error_code ec;
  fs::create_directories(directory, ec);
  if (ec) throw std::runtime_error("cannot create " + directory.string() + ": " + ec.message());
  // Read everything in one transaction, so the files describe one moment of the store.
  json schema = json::object();
  auto tables = db.transaction([&schema](Connection& conn) {
    {
      Query q(conn,
              "SELECT name, sql FROM sqlite_master WHERE type = 'table' AND name NOT LIKE "
              "'sqlite_%'");
      while (q.step()) schema[q.text(0)] = q.text(1);
    }
    std::vector<std::pair<std::string, json>> all;
    for (const auto& table : tableNames(conn)) {
      Query q(conn, "SELECT * FROM " + quoted(table));
      json rows = json::array();
      while (q.step()) {
        json row = json::object();
        for (int c = 0; c < sqlite3_column_count(q.get()); ++c) {
          row[sqlite3_column_name(q.get(), c)] = columnValue(q.get(), c);
        }
        rows.push_back(std::move(row));
      }
      all.emplace_back(table, std::move(rows));
    }
    return all;
  });
  for (const auto& [table, rows] : tables) {
    writeFileAtomically(directory / (table + ".json"), rows.dump(2) + "\n");
  }
  writeFileAtomically(directory / kSchemaFile, schema.dump(2) + "\n");
}

void importStore(Database& db, const fs::path& directory) {
  std::error_code ec;
  if (!fs::is_directory(directory, ec)) {
    throw std::runtime_error(directory.string() + " is not a directory");
  }
  // Read and parse every file before touching the store.
  std::vector<std::pair<std::string, json>> files;
  json schema = json::object();
  for (const auto& entry : fs::directory_iterator(directory)) {
    if (entry.path().extension() != ".json") continue;
    std::ifstream in(entry.path(), std::ios::binary);
    json rows = json::parse(in, nullptr, false);
    if (rows.is_discarded()) throw std::runtime_error(entry.path().string() + ": not JSON");
    if (entry.path().filename() == kSchemaFile) {
      if (!rows.is_object()) throw std::runtime_error(entry.path().string() + ": not an object");
      schema = std::move(rows);
    } else {
      files.emplace_back(entry.path().stem().string(), std::move(rows));
    }
  }
  db.transaction([&](Connection& conn) {
    auto tables = tableNames(conn);
    std::set<std::string> known(tables.begin(), tables.end());
    for (const auto& table : tables) {
      Query q(conn, "SELECT EXISTS (SELECT 1 FROM " + quoted(table) + ")");
      if (q.step() && sqlite3_column_int(q.get(), 0) != 0) {
        throw std::runtime_error("the store is not empty (table " + table +
                                 "): import needs a new --data directory or :memory:");
      }
    }
    for (const auto& [table, rows] : files) {
      auto file = (directory / (table + ".json")).string();
      if (!known.count(table)) createTable(conn, table, schema, file);
      importTable(conn, table, rows, file);
    }
  });
}

void clearApplicationData(Connection& conn, const std::string& appID) {
  // A bucket's objects and ACL entries live in tables without an application column.
  std::vector<BucketRow> buckets;
  {
    Query q(conn, "SELECT bucket_key FROM buckets WHERE app_id = ?");
    sqlite3_bind_text(q.get(), 1, appID.data(), static_cast<int>(appID.size()), SQLITE_TRANSIENT);
    while (q.step()) {
      BucketRow bucket;
      bucket.key = sqlite3_column_int64(q.get(), 0);
      buckets.push_back(bucket);
    }
  }
  for (const auto& bucket : buckets) dropBucket(conn, bucket);
  for (const auto& table : tableNames(conn)) {
    if (table == "apps") continue;
    auto columns = columnNames(conn, table);
    if (std::find(columns.begin(), columns.end(), "app_id") == columns.end()) continue;
    Query remove(conn, "DELETE FROM " + quoted(table) + " WHERE app_id = ?");
    sqlite3_bind_text(remove.get(), 1, appID.data(), static_cast<int>(appID.size()),
                      SQLITE_TRANSIENT);
    remove.step();
  }
}

}  // namespace jovemu
