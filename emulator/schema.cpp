#include "schema.hpp"

namespace jovemu {

namespace {

// Every row belongs to one application: applications never see each other's data.
constexpr const char* kSchemaV1 = R"sql(
CREATE TABLE apps (
  app_id   TEXT PRIMARY KEY,
  app_key  TEXT NOT NULL,
  created  INTEGER NOT NULL
);
CREATE TABLE users (
  app_id          TEXT NOT NULL,
  user_id         TEXT NOT NULL,
  login_name      TEXT,
  display_name    TEXT,
  email           TEXT,
  email_verified  INTEGER NOT NULL DEFAULT 0,
  email_pending   TEXT,
  phone           TEXT,
  phone_verified  INTEGER NOT NULL DEFAULT 0,
  phone_pending   TEXT,
  country         TEXT,
  locale          TEXT,
  password_hash   TEXT,
  disabled        INTEGER NOT NULL DEFAULT 0,
  custom          TEXT NOT NULL DEFAULT '{}',
  created         INTEGER NOT NULL,
  modified        INTEGER NOT NULL,
  PRIMARY KEY (app_id, user_id)
);
CREATE INDEX users_login ON users (app_id, login_name COLLATE NOCASE);
CREATE INDEX users_email ON users (app_id, email COLLATE NOCASE);
CREATE INDEX users_phone ON users (app_id, phone);
CREATE TABLE tokens (
  token       TEXT PRIMARY KEY,
  app_id      TEXT NOT NULL,
  user_id     TEXT NOT NULL,
  kind        TEXT NOT NULL,
  expires_at  INTEGER
);
CREATE INDEX tokens_user ON tokens (app_id, user_id);
CREATE TABLE groups (
  app_id    TEXT NOT NULL,
  group_id  TEXT NOT NULL,
  name      TEXT NOT NULL,
  owner     TEXT NOT NULL,
  created   INTEGER NOT NULL,
  modified  INTEGER NOT NULL,
  PRIMARY KEY (app_id, group_id)
);
CREATE INDEX groups_owner ON groups (app_id, owner);
CREATE TABLE group_members (
  app_id    TEXT NOT NULL,
  group_id  TEXT NOT NULL,
  user_id   TEXT NOT NULL,
  added     INTEGER NOT NULL,
  PRIMARY KEY (app_id, group_id, user_id)
);
CREATE INDEX group_members_user ON group_members (app_id, user_id);
CREATE TABLE codes (
  app_id      TEXT NOT NULL,
  user_id     TEXT NOT NULL,
  kind        TEXT NOT NULL,
  code        TEXT NOT NULL,
  target      TEXT NOT NULL,
  created_at  INTEGER NOT NULL,
  used        INTEGER NOT NULL DEFAULT 0,
  PRIMARY KEY (app_id, user_id, kind)
);
CREATE TABLE outbox (
  seq         INTEGER PRIMARY KEY AUTOINCREMENT,
  app_id      TEXT NOT NULL,
  user_id     TEXT NOT NULL,
  channel     TEXT NOT NULL,
  kind        TEXT NOT NULL,
  recipient   TEXT NOT NULL,
  code        TEXT NOT NULL,
  created_at  INTEGER NOT NULL
);
CREATE INDEX outbox_app ON outbox (app_id, seq);
PRAGMA user_version = 1;
)sql";

// Buckets of objects. Each bucket's objects live in a table of its own, bucket_objects_<key>,
// made with the bucket (the key is never reused). ACL entries of a bucket have an empty
// object_id; those of an object carry its ID.
constexpr const char* kSchemaV2 = R"sql(
CREATE TABLE buckets (
  bucket_key  INTEGER PRIMARY KEY AUTOINCREMENT,
  app_id      TEXT NOT NULL,
  scope       TEXT NOT NULL,
  owner_id    TEXT NOT NULL,
  name        TEXT NOT NULL,
  creator     TEXT,
  created     INTEGER NOT NULL,
  UNIQUE (app_id, scope, owner_id, name)
);
CREATE TABLE acl_entries (
  bucket_key  INTEGER NOT NULL,
  object_id   TEXT NOT NULL,
  action      TEXT NOT NULL,
  subject     TEXT NOT NULL,
  PRIMARY KEY (bucket_key, object_id, action, subject)
) WITHOUT ROWID;
CREATE INDEX acl_entries_subject ON acl_entries (subject);
PRAGMA user_version = 2;
)sql";

// Deployed server code, one row per version of an application's script. Written to apply on
// any version of the schema (IF NOT EXISTS), so it needs no number of its own.
constexpr const char* kServerCodeSchema = R"sql(
CREATE TABLE IF NOT EXISTS server_code (
  app_id   TEXT NOT NULL,
  version  INTEGER NOT NULL,
  script   TEXT NOT NULL,
  created  INTEGER NOT NULL,
  PRIMARY KEY (app_id, version)
);
)sql";

// Push installations, topics and their subscriptions; like the server code, applied on any
// version of the schema.
constexpr const char* kPushSchema = R"sql(
CREATE TABLE IF NOT EXISTS push_installations (
  app_id           TEXT NOT NULL,
  installation_id  TEXT NOT NULL,
  device_type      TEXT NOT NULL,
  token            TEXT NOT NULL,
  user_id          TEXT NOT NULL,
  development      INTEGER NOT NULL DEFAULT 0,
  created          INTEGER NOT NULL,
  PRIMARY KEY (app_id, device_type, token)
);
CREATE TABLE IF NOT EXISTS push_topics (
  app_id   TEXT NOT NULL,
  scope    TEXT NOT NULL,
  owner    TEXT NOT NULL,
  name     TEXT NOT NULL,
  creator  TEXT NOT NULL,
  created  INTEGER NOT NULL,
  PRIMARY KEY (app_id, scope, owner, name)
);
CREATE TABLE IF NOT EXISTS push_subscriptions (
  app_id      TEXT NOT NULL,
  scope       TEXT NOT NULL,
  owner       TEXT NOT NULL,
  name        TEXT NOT NULL,
  subscriber  TEXT NOT NULL,
  created     INTEGER NOT NULL,
  PRIMARY KEY (app_id, scope, owner, name, subscriber)
);
CREATE TABLE IF NOT EXISTS push_topic_acl (
  app_id   TEXT NOT NULL,
  scope    TEXT NOT NULL,
  owner    TEXT NOT NULL,
  name     TEXT NOT NULL,
  action   TEXT NOT NULL,
  subject  TEXT NOT NULL,
  PRIMARY KEY (app_id, scope, owner, name, action, subject)
) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS push_bucket_subscriptions (
  bucket_key  INTEGER NOT NULL,
  subscriber  TEXT NOT NULL,
  created     INTEGER NOT NULL,
  PRIMARY KEY (bucket_key, subscriber)
) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS push_deliveries (
  seq              INTEGER PRIMARY KEY AUTOINCREMENT,
  app_id           TEXT NOT NULL,
  kind             TEXT NOT NULL,
  user_id          TEXT NOT NULL,
  installation_id  TEXT NOT NULL,
  device_type      TEXT NOT NULL,
  channel          TEXT NOT NULL,
  payload          TEXT NOT NULL,
  created          INTEGER NOT NULL
);
CREATE INDEX IF NOT EXISTS push_deliveries_app ON push_deliveries (app_id, seq);
CREATE INDEX IF NOT EXISTS push_deliveries_channel ON push_deliveries (channel, seq);
-- The broker account of each MQTT installation (its name and topic follow from the
-- installation's ID): made on the first endpoint request, confirmed by the broker before it is
-- handed out.
CREATE TABLE IF NOT EXISTS mqtt_accounts (
  app_id           TEXT NOT NULL,
  installation_id  TEXT NOT NULL,
  password         TEXT NOT NULL,
  provisioned      INTEGER NOT NULL DEFAULT 0,
  PRIMARY KEY (app_id, installation_id)
);
-- The last delivery the broker acknowledged, and everything before it.
CREATE TABLE IF NOT EXISTS mqtt_published (
  id   INTEGER PRIMARY KEY CHECK (id = 1),
  seq  INTEGER NOT NULL
);
-- Object bodies: the bytes live in a file under the data directory, named here.
CREATE TABLE IF NOT EXISTS object_bodies (
  bucket_key    INTEGER NOT NULL,
  object_id     TEXT NOT NULL,
  file          TEXT NOT NULL,
  content_type  TEXT NOT NULL,
  size          INTEGER NOT NULL,
  md5           TEXT NOT NULL,
  PRIMARY KEY (bucket_key, object_id)
);
CREATE TABLE IF NOT EXISTS body_publications (
  token       TEXT PRIMARY KEY,
  bucket_key  INTEGER NOT NULL,
  object_id   TEXT NOT NULL,
  expires_at  INTEGER
);
CREATE INDEX IF NOT EXISTS body_publications_by_object ON body_publications(bucket_key, object_id);
-- Chunked uploads: the bytes received so far are in the part file, fsync'ed before
-- "received" moves.
CREATE TABLE IF NOT EXISTS body_uploads (
  upload_id     TEXT PRIMARY KEY,
  bucket_key    INTEGER NOT NULL,
  object_id     TEXT NOT NULL,
  owner         TEXT,
  content_type  TEXT NOT NULL,
  size          INTEGER NOT NULL,
  received      INTEGER NOT NULL,
  part_file     TEXT NOT NULL,
  expires_at    INTEGER NOT NULL
);
CREATE INDEX IF NOT EXISTS body_uploads_by_object ON body_uploads(bucket_key, object_id);
)sql";

// Accounts of the stand-in social provider (one for the whole emulator, as a real provider is
// outside every application) and the provider accounts linked with each application's users.
constexpr const char* kSocialSchema = R"sql(
CREATE TABLE IF NOT EXISTS social_provider_accounts (
  provider      TEXT NOT NULL,
  social_id     TEXT NOT NULL,
  name          TEXT,
  access_token  TEXT NOT NULL,
  token_secret  TEXT,
  id_token      TEXT NOT NULL,
  created       INTEGER NOT NULL,
  PRIMARY KEY (provider, social_id)
);
CREATE INDEX IF NOT EXISTS social_provider_tokens ON social_provider_accounts (provider, access_token);
CREATE TABLE IF NOT EXISTS social_links (
  app_id     TEXT NOT NULL,
  provider   TEXT NOT NULL,
  social_id  TEXT NOT NULL,
  user_id    TEXT NOT NULL,
  created    INTEGER NOT NULL,
  PRIMARY KEY (app_id, provider, social_id)
);
CREATE UNIQUE INDEX IF NOT EXISTS social_links_user ON social_links (app_id, user_id, provider);
)sql";

// Things: devices with a vendor ID unique in the application, a hashed password, a type and
// fields (JSON), their owners (subject tokens "UserID:x" / "GroupID:y") and the access tokens of
// things that registered themselves.
constexpr const char* kThingSchema = R"sql(
CREATE TABLE IF NOT EXISTS things (
  app_id           TEXT NOT NULL,
  thing_id         TEXT NOT NULL,
  vendor_thing_id  TEXT NOT NULL,
  thing_type       TEXT NOT NULL,
  password_hash    TEXT NOT NULL,
  fields           TEXT NOT NULL,
  disabled         INTEGER NOT NULL DEFAULT 0,
  created          INTEGER NOT NULL,
  modified         INTEGER NOT NULL,
  PRIMARY KEY (app_id, thing_id),
  UNIQUE (app_id, vendor_thing_id)
);
CREATE TABLE IF NOT EXISTS thing_owners (
  app_id    TEXT NOT NULL,
  thing_id  TEXT NOT NULL,
  owner     TEXT NOT NULL,
  created   INTEGER NOT NULL,
  PRIMARY KEY (app_id, thing_id, owner)
) WITHOUT ROWID;
CREATE INDEX IF NOT EXISTS thing_owners_owner ON thing_owners (app_id, owner);
CREATE TABLE IF NOT EXISTS thing_tokens (
  app_id    TEXT NOT NULL,
  token     TEXT NOT NULL,
  thing_id  TEXT NOT NULL,
  PRIMARY KEY (app_id, token)
) WITHOUT ROWID;
)sql";

}  // namespace

void createSchema(Connection& conn) {
  std::int64_t current = 0;
  {
    auto version = conn.prepare("PRAGMA user_version");
    if (version.step()) current = version.integer(0);
  }
  // Each step is applied once, in order, on top of the steps before it.
  if (current < 1) conn.exec(kSchemaV1);
  if (current < 2) conn.exec(kSchemaV2);
  conn.exec(kServerCodeSchema);
  conn.exec(kPushSchema);
  conn.exec(kSocialSchema);
  conn.exec(kThingSchema);
}

}  // namespace jovemu
