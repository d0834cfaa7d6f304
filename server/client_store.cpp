#include "server/client_store.h"

#include <sqlite3.h>

#include <chrono>
#include <cstring>
#include <stdexcept>

#include "runtime/log.h"
#include "server/credentials.h"

namespace tellora::server {

namespace {

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS clients ("
    "  key INTEGER PRIMARY KEY AUTOINCREMENT,"
    "  client_id TEXT NOT NULL UNIQUE,"
    "  secret_sha256 BLOB NOT NULL,"
    "  app_id INTEGER NOT NULL,"
    "  device TEXT NOT NULL,"
    "  registered_ms INTEGER NOT NULL)";

// 128-bit identifiers (public: other clients see them) and 256-bit secrets.
constexpr size_t kClientIdBytes = 16;
constexpr size_t kSecretBytes = 32;

int64_t nowMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

// Resets a prepared statement when the scope ends, whatever path leaves it.
struct StatementReset {
  sqlite3_stmt* statement;
  ~StatementReset() {
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
  }
};

}  // namespace

SqliteClientStore::SqliteClientStore(const std::string& path) {
  auto fail = [&](const char* step) {
    const std::string message =
        std::string("client store ") + step + ": " + (db_ ? sqlite3_errmsg(db_) : "out of memory");
    sqlite3_finalize(insert_);
    sqlite3_finalize(lookup_);
    sqlite3_close(db_);
    throw std::runtime_error(message);
  };
  if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
      SQLITE_OK)
    fail("open");
  sqlite3_busy_timeout(db_, 2000);
  // WAL keeps an insert to one short write; NORMAL syncs at checkpoints only,
  // which still survives a crash of the server (not of the machine).
  sqlite3_exec(db_, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL", nullptr, nullptr,
               nullptr);
  if (sqlite3_exec(db_, kSchema, nullptr, nullptr, nullptr) != SQLITE_OK) fail("schema");
  if (sqlite3_prepare_v2(db_,
                         "INSERT INTO clients (client_id, secret_sha256, app_id, device, "
                         "registered_ms) VALUES (?, ?, ?, ?, ?)",
                         -1, &insert_, nullptr) != SQLITE_OK)
    fail("prepare insert");
  if (sqlite3_prepare_v2(db_, "SELECT key, secret_sha256, app_id FROM clients WHERE client_id = ?",
                         -1, &lookup_, nullptr) != SQLITE_OK)
    fail("prepare lookup");
}

SqliteClientStore::~SqliteClientStore() {
  sqlite3_finalize(insert_);
  sqlite3_finalize(lookup_);
  sqlite3_close(db_);
}

std::optional<ClientStore::FreshIdentity> ClientStore::freshIdentity() {
  auto clientId = randomHexToken(kClientIdBytes);
  auto secret = randomHexToken(kSecretBytes);
  if (!clientId || !secret) {
    errorf("client store: the random generator failed");
    return std::nullopt;
  }
  const Sha256 digest = sha256(*secret);
  return FreshIdentity{std::move(*clientId), std::move(*secret), digest};
}

std::optional<IssuedIdentity> SqliteClientStore::issue(int64_t appId, std::string_view device) {
  auto fresh = freshIdentity();
  if (!fresh) return std::nullopt;
  auto* clientId = &fresh->clientId;
  const auto& digest = fresh->secretDigest;
  StatementReset reset{insert_};
  sqlite3_bind_text(insert_, 1, clientId->data(), static_cast<int>(clientId->size()),
                    SQLITE_TRANSIENT);
  sqlite3_bind_blob(insert_, 2, digest.data(), static_cast<int>(digest.size()), SQLITE_TRANSIENT);
  sqlite3_bind_int64(insert_, 3, appId);
  sqlite3_bind_text(insert_, 4, device.data(), static_cast<int>(device.size()), SQLITE_TRANSIENT);
  sqlite3_bind_int64(insert_, 5, nowMs());
  if (sqlite3_step(insert_) != SQLITE_DONE) {
    errorf("client store: insert failed: %s", sqlite3_errmsg(db_));
    return std::nullopt;
  }
  return IssuedIdentity{static_cast<ClientKey>(sqlite3_last_insert_rowid(db_)),
                        std::move(fresh->clientId), std::move(fresh->clientSecret)};
}

ClientStore::Authentication SqliteClientStore::authenticate(std::string_view clientId,
                                                            std::string_view clientSecret) {
  StatementReset reset{lookup_};
  sqlite3_bind_text(lookup_, 1, clientId.data(), static_cast<int>(clientId.size()),
                    SQLITE_TRANSIENT);
  if (sqlite3_step(lookup_) != SQLITE_ROW) return {Verdict::unknownClient};
  const auto key = static_cast<ClientKey>(sqlite3_column_int64(lookup_, 0));
  Sha256 stored{};
  const void* blob = sqlite3_column_blob(lookup_, 1);
  if (!blob || sqlite3_column_bytes(lookup_, 1) != static_cast<int>(stored.size()))
    return {Verdict::wrongSecret};
  std::memcpy(stored.data(), blob, stored.size());
  if (!sameDigest(stored, sha256(clientSecret))) return {Verdict::wrongSecret};
  return {Verdict::accepted, key, sqlite3_column_int64(lookup_, 2)};
}

}  // namespace tellora::server
