// The identity store on real SQLite files.
#include "server/client_store.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <string>

#include "tests/tools/scratch_dir.h"

namespace tellora::server {
namespace {

using Verdict = ClientStore::Verdict;

TEST(ClientStore, IssuesDistinctUnguessableIdentities) {
  ClientStore store(":memory:");
  std::set<std::string> ids, secrets;
  std::set<ClientKey> keys;
  for (int i = 0; i < 50; ++i) {
    const auto identity = store.issue(1, "{}");
    ASSERT_TRUE(identity);
    EXPECT_GE(identity->clientSecret.size() * 4, 128u);  // hex: 4 bits a character
    ids.insert(identity->clientId);
    secrets.insert(identity->clientSecret);
    keys.insert(identity->key);
  }
  EXPECT_EQ(ids.size(), 50u);
  EXPECT_EQ(secrets.size(), 50u);
  EXPECT_EQ(keys.size(), 50u);
}

TEST(ClientStore, AuthenticatesOnlyTheRightSecret) {
  ClientStore store(":memory:");
  const auto a = store.issue(1, "{}"), b = store.issue(1, "{}");
  ASSERT_TRUE(a && b);
  const auto ok = store.authenticate(a->clientId, a->clientSecret);
  EXPECT_EQ(ok.verdict, Verdict::accepted);
  EXPECT_EQ(ok.key, a->key);
  EXPECT_EQ(store.authenticate(a->clientId, b->clientSecret).verdict, Verdict::wrongSecret);
  EXPECT_EQ(store.authenticate(a->clientId, "").verdict, Verdict::wrongSecret);
  EXPECT_EQ(store.authenticate(a->clientId, a->clientSecret + "x").verdict, Verdict::wrongSecret);
  EXPECT_EQ(store.authenticate("no-such-client", a->clientSecret).verdict, Verdict::unknownClient);
  EXPECT_EQ(store.authenticate("", "").verdict, Verdict::unknownClient);
  EXPECT_EQ(store.authenticate("' OR 1=1 --", "").verdict, Verdict::unknownClient);
}

TEST(ClientStore, IdentitiesSurviveReopeningTheFileWithoutTheirSecrets) {
  testtools::ScratchDir dir;
  const std::string path = dir.file("clients.db");
  IssuedIdentity identity;
  {
    ClientStore store(path);
    identity = *store.issue(9, R"({"os":"Linux"})");
  }
  ClientStore reopened(path);
  const auto again = reopened.authenticate(identity.clientId, identity.clientSecret);
  EXPECT_EQ(again.verdict, Verdict::accepted);
  EXPECT_EQ(again.key, identity.key);
  // Keys are never reused: the matcher would mix a new client up with an old one.
  EXPECT_GT(reopened.issue(9, "{}")->key, identity.key);

  // Only a digest of the secret is on disk.
  const std::string file = testtools::readFile(path) + testtools::readFile(path + "-wal");
  EXPECT_NE(file.find(identity.clientId), std::string::npos);
  EXPECT_EQ(file.find(identity.clientSecret), std::string::npos);
}

TEST(ClientStore, AFileThatIsNotADatabaseIsRefused) {
  testtools::ScratchDir dir;
  const std::string path = dir.file("not.db");
  FILE* f = std::fopen(path.c_str(), "wb");
  std::fputs("this is not an SQLite database, not even close, no header at all...", f);
  std::fclose(f);
  EXPECT_THROW(ClientStore{path}, std::runtime_error);
  EXPECT_THROW(ClientStore{dir.file("missing-folder/clients.db")}, std::runtime_error);
}

}  // namespace
}  // namespace tellora::server
