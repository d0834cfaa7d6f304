// The identities the server has issued, in SQLite, so that a device registered
// once keeps connecting across server restarts. Only a digest of each client
// secret is stored.
#pragma once

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
  // Opens (or creates) the database; ":memory:" for one that ends with the
  // process. Throws std::runtime_error when it cannot be opened.
  explicit ClientStore(const std::string& path);
  ~ClientStore();
  ClientStore(const ClientStore&) = delete;
  ClientStore& operator=(const ClientStore&) = delete;

  // A new client of `appId` with a fresh identifier and secret; `device` is
  // kept as it came (JSON text). nullopt when the database or the random
  // generator fails.
  std::optional<IssuedIdentity> issue(int64_t appId, std::string_view device);

  enum class Verdict { accepted, unknownClient, wrongSecret };
  struct Authentication {
    Verdict verdict = Verdict::unknownClient;
    ClientKey key = 0;  // when accepted
    int64_t appId = 0;  // the application the client registered with, when accepted
  };
  // Whether `clientId` exists and `clientSecret` is its secret.
  Authentication authenticate(std::string_view clientId, std::string_view clientSecret) const;

 private:
  sqlite3* db_ = nullptr;
  sqlite3_stmt* insert_ = nullptr;
  sqlite3_stmt* lookup_ = nullptr;
};

}  // namespace tellora::server
