// The identities the server has issued, kept so that a device registered once
// keeps connecting across server restarts: in SQLite on one node, in Redis
// when several nodes serve as one. Only a digest of each client secret is
// stored. Both are called on the sessions' thread.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "server/matcher/candidate_index.h"

struct sqlite3;
struct sqlite3_stmt;

namespace tellora::server {

struct IssuedIdentity {
  ClientKey key = 0;  // the matcher's name for the client
  std::string clientId;
  std::string clientSecret;  // handed out once, never stored
};

class ClientStore {
 public:
  virtual ~ClientStore() = default;

  // A new client of `appId` with a fresh identifier and secret; `device` is
  // kept as it came (JSON text). nullopt when the store or the random
  // generator fails.
  virtual std::optional<IssuedIdentity> issue(int64_t appId, std::string_view device) = 0;

  // `unavailable`: the store could not be asked (Redis unreachable), which
  // says nothing about the client: it must not be told its identity is bad.
  enum class Verdict { accepted, unknownClient, wrongSecret, unavailable };
  struct Authentication {
    Verdict verdict = Verdict::unknownClient;
    ClientKey key = 0;  // when accepted
    int64_t appId = 0;  // the application the client registered with, when accepted
  };
  // Whether `clientId` exists and `clientSecret` is its secret.
  virtual Authentication authenticate(std::string_view clientId, std::string_view clientSecret) = 0;

 protected:
  // A fresh identifier and secret, and the digest of the secret that is
  // stored; nullopt (logged) when the random generator fails.
  struct FreshIdentity {
    std::string clientId;
    std::string clientSecret;
    std::array<unsigned char, 32> secretDigest;
  };
  static std::optional<FreshIdentity> freshIdentity();
};

class SqliteClientStore final : public ClientStore {
 public:
  // Opens (or creates) the database; ":memory:" for one that ends with the
  // process. Throws std::runtime_error when it cannot be opened.
  explicit SqliteClientStore(const std::string& path);
  ~SqliteClientStore() override;
  SqliteClientStore(const SqliteClientStore&) = delete;
  SqliteClientStore& operator=(const SqliteClientStore&) = delete;

  std::optional<IssuedIdentity> issue(int64_t appId, std::string_view device) override;
  Authentication authenticate(std::string_view clientId, std::string_view clientSecret) override;

 private:
  sqlite3* db_ = nullptr;
  sqlite3_stmt* insert_ = nullptr;
  sqlite3_stmt* lookup_ = nullptr;
};

}  // namespace tellora::server
