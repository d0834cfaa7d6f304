// The server's logic without a network: request handling, registration, the
// identity store on real SQLite files, the shares of one peer address, what
// an operator hands the server (applications file, state directory) and gets
// back (log lines), and the hub with fake sessions and a fake clock: which
// session speaks for a client, and the found/lost pushes that the matcher's
// decisions lead to.
#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "fingerprint/part_fingerprint.h"
#include "server/address_limits.h"
#include "server/client_store.h"
#include "server/connection_registry.h"
#include "server/hub.h"
#include "server/log_output.h"
#include "server/matching/matching_threads.h"
#include "server/registration.h"
#include "server/request_handler.h"
#include "server/server_config.h"
#include "tests/tools/scratch_dir.h"

namespace tellora::server {
namespace {

using nlohmann::json;

// --- Requests ------------------------------------------------------------------

constexpr double kNowMs = 1'700'000'000'123.5;

HandledRequest handle(const std::string& frame) {
  return handleRequest(frame, {kNowMs, [] { return json::array(); }});
}
json reply(const HandledRequest& handled) {
  EXPECT_TRUE(handled.reply.has_value());
  return handled.reply ? json::parse(*handled.reply) : json();
}
std::string fingerprintFrame(const std::vector<uint32_t>& words, double stime) {
  return json({{"type", 4},
               {"id", 1},
               {"data", {{"fp", fingerprintFromWords(words)}, {"stime", stime}}}})
      .dump();
}

TEST(RequestHandling, SetPayloadTakesTheBareDataValueAndNullWithoutOne) {
  auto handled = handle(R"({"type":1,"id":0,"data":{"name":"alice","age":[1,2]}})");
  EXPECT_EQ(reply(handled)["requestId"], 0);
  EXPECT_EQ(std::get<PayloadChange>(*handled.change).payload["age"][1], 2);
  EXPECT_EQ(std::get<PayloadChange>(*handle(R"({"type":1,"id":1,"data":"a"})").change).payload,
            "a");
  EXPECT_TRUE(std::get<PayloadChange>(*handle(R"({"type":1,"id":2})").change).payload.is_null());
}

TEST(RequestHandling, GetTimeRepliesWithTheServerClockAndIgnoresTheEchoedRecord) {
  for (const char* frame : {R"({"type":3,"id":7})", R"({"type":3,"id":7,"data":{"d":">>>x<<< "}})",
                            R"({"type":3,"id":7,"data":[1]})"}) {
    const json r = reply(handle(frame));
    EXPECT_EQ(r["requestId"], 7) << frame;
    EXPECT_DOUBLE_EQ(r["data"]["time"].get<double>(), kNowMs) << frame;
  }
  // Large ids are echoed exactly.
  EXPECT_EQ(reply(handle(R"({"type":5,"id":9007199254740993})"))["requestId"].get<int64_t>(),
            9007199254740993LL);
  EXPECT_EQ(reply(handle(R"({"type":5,"id":-1})"))["requestId"], -1);
}

TEST(RequestHandling, AddFingerprintDecodesTheWordsLeastSignificantByteFirst) {
  const std::vector<uint32_t> words = {0x04030201u, 0xDEADBEEFu, 0u, 0xFFFFFFFFu};
  const json frame = {
      {"type", 4},
      {"id", 17},
      {"data",
       {{"fp", fingerprintFromWords(words)}, {"stime", kNowMs - 600.25}, {"etime", -20.5}}}};
  const auto handled = handle(frame.dump());
  EXPECT_EQ(reply(handled), json::parse(R"({"requestId":17})"));
  const auto& added = std::get<FingerprintAdded>(*handled.change);
  EXPECT_EQ(added.words, words);
  // "etime" is the client's clock offset, not an end time: only stime counts.
  EXPECT_DOUBLE_EQ(added.stimeMs, kNowMs - 600.25);
  const auto empty = handle(fingerprintFrame({}, kNowMs));
  EXPECT_TRUE(empty.reply);
  EXPECT_TRUE(std::get<FingerprintAdded>(*empty.change).words.empty());
}

TEST(RequestHandling, FingerprintsFarFromTheServerClockAreAcknowledgedButNotMatched) {
  for (double stime : {kNowMs + kMaxFingerprintLeadMs + 1, kNowMs - kMaxFingerprintLagMs - 1, 0.0,
                       -1e300, 1e300}) {
    const auto handled = handle(fingerprintFrame({1}, stime));
    EXPECT_EQ(reply(handled)["requestId"], 1) << stime;
    EXPECT_FALSE(handled.change) << stime;
    EXPECT_EQ(handled.ignored, Ignored::outsideWindow) << stime;
  }
  for (double stime : {kNowMs + kMaxFingerprintLeadMs - 1, kNowMs - kMaxFingerprintLagMs + 1})
    EXPECT_TRUE(handle(fingerprintFrame({1}, stime)).change) << stime;
}

TEST(RequestHandling, MalformedFramesGetNoReplyAndChangeNothing) {
  using enum Ignored;
  const std::pair<Ignored, std::vector<const char*>> cases[] = {
      {notJson,
       {"", "{", "not json", "\xff\xfe", R"({"type":0,"id":1,"data":{"mode":NaN}})",
        R"({"type":2,"id":1e400})", R"({"type":4,"id":1,"data":{"fp":"AQIDBA==","stime":1e400}})"}},
      {notARequest,
       {"[1,2]", "17", R"({"type":2})", R"({"id":4})", R"({"type":"2","id":4})",
        R"({"type":2,"id":"4"})", R"({"type":2,"id":4.5})",
        R"({"type":2,"id":18446744073709551615})", R"({"type":2,"id":184467440737095516150})"}},
      {unknownType,
       {R"({"type":6,"id":1})", R"({"type":102,"id":1,"data":{"clientId":"x"}})",
        R"({"type":-1,"id":1})"}},
      {malformedData,
       {R"({"type":0,"id":1})", R"({"type":0,"id":1,"data":3})",
        R"({"type":0,"id":1,"data":{"mode":"3"}})", R"({"type":0,"id":1,"data":{"mode":3.5}})",
        R"({"type":0,"id":1,"data":{"mode":1e300}})", R"({"type":4,"id":1})",
        R"({"type":4,"id":1,"data":{"fp":"AQIDBA==","etime":0}})",
        R"({"type":4,"id":1,"data":{"fp":"AQIDBA==","stime":"12"}})",
        R"({"type":4,"id":1,"data":{"fp":7,"stime":0}})",
        R"({"type":4,"id":1,"data":{"fp":"AQID","stime":0}})",  // 3 bytes
        R"({"type":4,"id":1,"data":{"fp":"AQ*DBA==","stime":0}})",
        R"({"type":4,"id":1,"data":["AQIDBA==",0]})"}}};
  for (const auto& [why, frames] : cases) {
    for (const char* frame : frames) {
      bool looked = false;
      const auto handled = handleRequest(frame, {0, [&] {
                                                   looked = true;
                                                   return json::array();
                                                 }});
      EXPECT_FALSE(handled.reply || handled.change || looked) << frame;
      EXPECT_EQ(handled.ignored, why) << frame;
    }
  }
  // Deep enough to overflow a recursive parser or serialiser many times over.
  for (const std::string& deep :
       {std::string(1 << 20, '[') + std::string(1 << 20, ']'),
        R"({"type":1,"id":1,"data":)" + std::string(100, '[') + std::string(100, ']') + "}"})
    EXPECT_EQ(handleRequest(deep, {}).ignored, Ignored::notJson);
  // Brackets inside strings are text, not nesting.
  const std::string text = R"({"type":1,"id":1,"data":")" + std::string(1000, '[') + R"(\""})";
  EXPECT_TRUE(handleRequest(text, {}).reply);
}

TEST(RequestHandling, OversizedPayloadsAndFingerprintsAreRefused) {
  const json bigPayload = {{"type", 1}, {"id", 1}, {"data", std::string(kMaxPayloadBytes, 'x')}};
  EXPECT_EQ(handleRequest(bigPayload.dump(), {}).ignored, Ignored::malformedData);
  const std::vector<uint32_t> most(kMaxFingerprintWords, 0x12345678u), tooMany(most.size() + 1);
  EXPECT_TRUE(handleRequest(fingerprintFrame(most, 0), {}).change);
  EXPECT_EQ(handleRequest(fingerprintFrame(tooMany, 0), {}).ignored, Ignored::malformedData);
}

TEST(RequestHandling, AFoundClientWithoutPayloadIsPushedWithANullOne) {
  EXPECT_EQ(json::parse(foundPush("b", nullptr)),
            json::parse(R"({"type":102,"data":{"clientId":"b","payload":null}})"));
}

// --- Registration ----------------------------------------------------------------

class Registering : public ::testing::Test {
 protected:
  RegistrationReply post(const std::string& body,
                         std::size_t maxDeviceBytes = kDefaultMaxDeviceBytes) {
    return handleRegistration(
        body, apps_,
        [this](const RegistrationRequest& request) {
          requests_.push_back(request);
          return std::optional<IssuedIdentity>(IssuedIdentity{7, "id-7", "secret-7"});
        },
        maxDeviceBytes);
  }
  static std::string body(int64_t id, const std::string& secret, const std::string& os = "Linux") {
    return json({{"device", {{"os", os}}}, {"app", {{"id", id}, {"secretKey", secret}}}}).dump();
  }
  std::vector<AppCredential> apps_;
  std::vector<RegistrationRequest> requests_;
};

TEST_F(Registering, WithoutAdmittedAppsAnyApplicationGetsAnIdentity) {
  const auto reply = post(body(12345, "whatever"));
  EXPECT_EQ(reply.status, 200u);
  EXPECT_EQ(json::parse(reply.body),
            json::parse(R"({"clientId":"id-7","clientSecret":"secret-7"})"));
  ASSERT_EQ(requests_.size(), 1u);
  EXPECT_EQ(requests_[0].appId, 12345);
  EXPECT_EQ(requests_[0].device["os"], "Linux");
  EXPECT_EQ(reply.logLine.find("secret-7"), std::string::npos);
}

TEST_F(Registering, AdmittedAppsNeedTheirIdAndSecret) {
  apps_ = {{5, "five"}, {6, "six:with:colons"}};
  EXPECT_EQ(post(body(5, "five")).status, 200u);
  EXPECT_EQ(post(body(6, "six:with:colons")).status, 200u);
  for (const auto& [id, secret] : std::vector<std::pair<int64_t, std::string>>{
           {5, "six:with:colons"}, {5, "Five"}, {5, ""}, {7, "five"}}) {
    const auto reply = post(body(id, secret));
    EXPECT_EQ(reply.status, kStatusUnknownApplication) << id << " " << secret;
    EXPECT_EQ(reply.logLine.find(secret.empty() ? "\x01" : secret), std::string::npos);
  }
  EXPECT_EQ(requests_.size(), 2u);  // refused requests issue nothing
}

TEST_F(Registering, MalformedBodiesAre400AndOversizedDeviceRecords413) {
  for (const char* bad :
       {"", "{", "[]", R"({"device":{}})", R"({"app":7})", R"({"app":{"secretKey":"s"}})",
        R"({"app":{"id":"5","secretKey":"s"}})", R"({"app":{"id":5.5,"secretKey":"s"}})",
        R"({"app":{"id":2147483648,"secretKey":"s"}})", R"({"app":{"id":5}})",
        R"({"app":{"id":5,"secretKey":5}})", R"({"app":{"id":5,"secretKey":"s"},"device":"x"})"}) {
    EXPECT_EQ(post(bad).status, 400u) << bad;
  }
  EXPECT_TRUE(requests_.empty());
  // The device description is optional; the id may be negative.
  EXPECT_EQ(post(R"({"app":{"id":-2147483648,"secretKey":"s"}})").status, 200u);
  // {"os":"..."} is 9 bytes around the value; over the cap nothing is issued.
  EXPECT_EQ(post(body(1, "s", std::string(91, 'x')), 100).status, 200u);
  EXPECT_EQ(post(body(1, "s", std::string(92, 'x')), 100).status, 413u);
  EXPECT_EQ(requests_.size(), 2u);
}

TEST(RegistrationOutcome, AFailedIssueIs500) {
  const auto reply = handleRegistration(
      R"({"app":{"id":1,"secretKey":"s"}})", {},
      [](const RegistrationRequest&) { return std::optional<IssuedIdentity>(); });
  EXPECT_EQ(reply.status, 500u);
}

TEST(AppCredentials, ParseIdColonSecret) {
  const auto app = parseAppCredential("42:top:secret");
  ASSERT_TRUE(app);
  EXPECT_EQ(app->id, 42);
  EXPECT_EQ(app->secret, "top:secret");
  EXPECT_EQ(parseAppCredential("-3:")->secret, "");
  for (const char* bad : {"", "42", ":s", "x:s", "4x:s", "2147483648:s", " 4:s"})
    EXPECT_FALSE(parseAppCredential(bad)) << bad;
}

// --- The identity store ------------------------------------------------------------

using Verdict = ClientStore::Verdict;

TEST(ClientStore, IssuesDistinctUnguessableIdentitiesAndAcceptsOnlyTheirSecrets) {
  SqliteClientStore store(":memory:");
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
  EXPECT_EQ(ids.size() + secrets.size() + keys.size(), 150u);

  const auto a = store.issue(1, "{}"), b = store.issue(1, "{}");
  ASSERT_TRUE(a && b);
  const auto ok = store.authenticate(a->clientId, a->clientSecret);
  EXPECT_EQ(ok.verdict, Verdict::accepted);
  EXPECT_EQ(ok.key, a->key);
  for (const auto& secret : {b->clientSecret, std::string(), a->clientSecret + "x"})
    EXPECT_EQ(store.authenticate(a->clientId, secret).verdict, Verdict::wrongSecret);
  for (const char* id : {"no-such-client", "", "' OR 1=1 --"})
    EXPECT_EQ(store.authenticate(id, a->clientSecret).verdict, Verdict::unknownClient);
}

TEST(ClientStore, IdentitiesSurviveReopeningTheFileWithoutTheirSecrets) {
  testtools::ScratchDir dir;
  const std::string path = dir.file("clients.db");
  IssuedIdentity identity;
  {
    SqliteClientStore store(path);
    identity = *store.issue(9, R"({"os":"Linux"})");
  }
  SqliteClientStore reopened(path);
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
  std::ofstream(dir.file("not.db")) << "this is not an SQLite database, not even close, no header";
  EXPECT_THROW(SqliteClientStore{dir.file("not.db")}, std::runtime_error);
  EXPECT_THROW(SqliteClientStore{dir.file("missing-folder/clients.db")}, std::runtime_error);
}

// --- The shares of one address -------------------------------------------------------

using boost::asio::ip::make_address;
using Refusal = AddressLimits::Refusal;

TEST(AddressLimits, EachAddressHasItsShareOfConnectionsAndOfPendingOnes) {
  AddressLimits limits({100, 3, 2, 20, 1});
  Refusal why = Refusal::none;
  const auto a = make_address("10.0.0.1");
  const uint64_t first = limits.admit(a, &why);
  ASSERT_NE(limits.admit(a, &why), 0u);
  EXPECT_EQ(limits.admit(a, &why), 0u);
  EXPECT_EQ(why, Refusal::pendingShare);
  limits.handshakeDone(first);
  ASSERT_NE(limits.admit(a, &why), 0u);
  EXPECT_EQ(limits.admit(a, &why), 0u);
  EXPECT_EQ(why, Refusal::addressShare);
  EXPECT_NE(limits.admit(make_address("10.0.0.2"), &why), 0u);
  limits.release(first);
  limits.release(first);  // twice changes nothing
  EXPECT_EQ(limits.connections(), 3u);
  EXPECT_EQ(limits.admit(a, &why), 0u);  // two still pending
  EXPECT_EQ(why, Refusal::pendingShare);
}

TEST(AddressLimits, IPv6HostsAreCountedByTheirSlash64) {
  AddressLimits limits({100, 1, 1, 20, 1});
  Refusal why = Refusal::none;
  ASSERT_NE(limits.admit(make_address("2001:db8::1"), &why), 0u);
  EXPECT_EQ(limits.admit(make_address("2001:db8::ffff:2"), &why), 0u);
  EXPECT_NE(limits.admit(make_address("2001:db8:0:1::1"), &why), 0u);
  ASSERT_NE(limits.admit(make_address("127.0.0.2"), &why), 0u);
  EXPECT_EQ(limits.admit(make_address("::ffff:127.0.0.2"), &why), 0u);
}

class HeldConnection : public ManagedConnection {
 public:
  void shutdown(uint16_t) override { shutDown = true; }
  bool shutDown = false;
};

TEST(AddressLimits, AtTheCapTheHeaviestAddressGivesUpItsOldestPendingConnection) {
  AddressLimits limits({4, 4, 4, 20, 1});
  const auto heavy = make_address("10.0.0.1"), light = make_address("10.0.0.2");
  std::vector<std::shared_ptr<HeldConnection>> held;
  Refusal why = Refusal::none;
  for (int i = 0; i < 4; ++i) {
    held.push_back(std::make_shared<HeldConnection>());
    limits.bind(limits.admit(heavy, &why), held.back());
  }
  EXPECT_NE(limits.admit(light, &why), 0u);
  EXPECT_TRUE(held[0]->shutDown);
  EXPECT_FALSE(held[1]->shutDown);
  EXPECT_EQ(limits.connections(), 4u);
  // 3 against 1: taking one more from the light address would only swap roles.
  EXPECT_EQ(limits.admit(heavy, &why), 0u);
  EXPECT_EQ(why, Refusal::serverFull);
  EXPECT_NE(limits.admit(light, &why), 0u);
  EXPECT_EQ(limits.admit(light, &why), 0u);
}

TEST(AddressLimits, RegistrationsComeInABurstThenAtTheRate) {
  using std::chrono::seconds;
  AddressLimits limits({100, 8, 4, 2, 0.5});
  const auto a = make_address("10.0.0.1");
  const auto t0 = AddressLimits::Clock::now();
  EXPECT_FALSE(limits.takeRegistration(a, t0));
  EXPECT_FALSE(limits.takeRegistration(a, t0));
  EXPECT_EQ(limits.takeRegistration(a, t0), seconds(2));
  EXPECT_FALSE(limits.takeRegistration(make_address("10.0.0.2"), t0));
  EXPECT_EQ(limits.takeRegistration(a, t0 + std::chrono::milliseconds(1500)), seconds(1));
  EXPECT_FALSE(limits.takeRegistration(a, t0 + seconds(2)));
  // Buckets are dropped once full again, and start full.
  EXPECT_FALSE(limits.takeRegistration(a, t0 + seconds(60)));
  EXPECT_FALSE(limits.takeRegistration(a, t0 + seconds(60)));
  EXPECT_TRUE(limits.takeRegistration(a, t0 + seconds(60)));
}

// --- What the operator hands over and gets back ----------------------------------------

TEST(AppsFile, ReadsIdSecretLinesAndReportsBadLinesByNumberOnly) {
  testtools::ScratchDir dir;
  const auto write = [&](const std::string& text, mode_t mode = 0600) {
    std::ofstream(dir.file("apps")) << text;
    chmod(dir.file("apps").c_str(), mode);
    return readAppsFile(dir.file("apps"));
  };
  const auto file = write("# production\n\n7:first\n  8:sec:ret  \r\n");
  ASSERT_EQ(file.apps.size(), 2u);
  EXPECT_EQ(file.apps[0].id, 7);
  EXPECT_EQ(file.apps[0].secret, "first");
  EXPECT_EQ(file.apps[1].secret, "sec:ret");  // a secret may hold ':'
  EXPECT_TRUE(file.problems.empty() && file.warnings.empty());

  const auto bad = write("7:ok\nnot-an-id:hunter2\n");
  ASSERT_EQ(bad.problems.size(), 1u);
  EXPECT_NE(bad.problems[0].find("line 2"), std::string::npos);
  EXPECT_EQ(bad.problems[0].find("hunter2"), std::string::npos);
  // A file others can read is warned about; a missing one is a problem.
  EXPECT_EQ(write("7:s\n", 0644).warnings.size(), 1u);
  EXPECT_EQ(readAppsFile(dir.file("absent")).problems.size(), 1u);
}

TEST(StateDirectory, SystemdThenXdgThenHomeAndCreatedPrivate) {
  const auto saved = [](const char* name) {
    const char* value = std::getenv(name);
    return value ? std::optional<std::string>(value) : std::nullopt;
  };
  const auto state = saved("STATE_DIRECTORY"), xdg = saved("XDG_STATE_HOME"), home = saved("HOME");
  setenv("STATE_DIRECTORY", "/var/lib/a:/var/lib/b", 1);
  setenv("XDG_STATE_HOME", "/x", 1);
  setenv("HOME", "/h", 1);
  EXPECT_EQ(defaultStateDirectory(), "/var/lib/a");
  unsetenv("STATE_DIRECTORY");
  EXPECT_EQ(defaultStateDirectory(), "/x/tellora-server");
  unsetenv("XDG_STATE_HOME");
  EXPECT_EQ(defaultStateDirectory(), "/h/.local/state/tellora-server");
  for (const auto& [name, value] :
       {std::pair{"STATE_DIRECTORY", state}, {"XDG_STATE_HOME", xdg}, {"HOME", home}}) {
    if (value) setenv(name, value->c_str(), 1);
  }

  testtools::ScratchDir dir;
  EXPECT_EQ(prepareStateDirectory(dir.file("a/b")), std::nullopt);
  struct stat info {};
  ASSERT_EQ(stat(dir.file("a/b").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700u);
  std::ofstream(dir.file("file")) << "x";
  EXPECT_NE(prepareStateDirectory(dir.file("file/sub")), std::nullopt);
}

// A client's app_version or a peer's bytes end up in log lines: neither may
// split an entry or break its JSON.
TEST(LogOutput, OneEntryPerLineWhateverTheMessageHolds) {
  const auto time = std::chrono::system_clock::time_point(std::chrono::milliseconds(1764071400123));
  const std::string message = "client \"x\" said \xff\nforged line";
  const std::string text = formatLogEntry(LogFormat::text, time, LogLevel::warning, message);
  EXPECT_EQ(text.rfind("2025-11-25T11:50:00.123Z warning client", 0), 0u) << text;
  EXPECT_EQ(text.find('\n'), std::string::npos);

  const std::string json = formatLogEntry(LogFormat::json, time, LogLevel::error, message);
  EXPECT_EQ(json.find('\n'), std::string::npos);
  const auto parsed = nlohmann::json::parse(json);
  EXPECT_EQ(parsed["time"], "2025-11-25T11:50:00.123Z");
  EXPECT_EQ(parsed["level"], "error");
  EXPECT_NE(parsed["message"].get<std::string>().find("forged line"), std::string::npos);
}

// --- The hub ------------------------------------------------------------------------

class FakeConnection : public ClientConnection {
 public:
  void send(std::string text) override { sent.push_back(json::parse(text)); }
  void close(uint16_t code, std::string) override { closeCodes.push_back(code); }

  // Pushes of this type received so far, removed from `sent`.
  std::vector<json> take(int type) {
    std::vector<json> taken;
    std::erase_if(sent, [&](const json& m) {
      if (m.value("type", -1) != type) return false;
      taken.push_back(m);
      return true;
    });
    return taken;
  }

  std::vector<json> sent;
  std::vector<uint16_t> closeCodes;
};

// One word per 8 ms slot, from a seed: what a device hearing that sound hashes.
std::vector<uint32_t> sound(uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<uint32_t> words(4000);
  for (auto& w : words)
    w = rng();
  return words;
}

class HubTest : public ::testing::Test {
 protected:
  static constexpr int64_t kApp = 7;
  static constexpr double kStartMs = 1'700'000'000'000.0;
  static constexpr int kWordsPerPart = 29;
  static constexpr double kPartMs = 232;  // a new part every 29 words

  struct Device {
    ClientKey key;
    std::string id;
    const std::vector<uint32_t>* heard;
    std::shared_ptr<FakeConnection> connection = std::make_shared<FakeConnection>();
  };

  Device& join(ClientKey key, const std::string& id, const std::vector<uint32_t>* heard,
               const std::string& payload) {
    devices_.push_back({key, id, heard});
    Device& d = devices_.back();
    hub_.attach(key, kApp, id, d.connection);
    request(d, 0, {{"mode", 3}});
    request(d, 1, payload);
    return d;
  }

  // a and b in room 1, told about each other with their payloads.
  void pairFound() {
    a_ = &join(1, "a", &room1_, "alice");
    b_ = &join(2, "b", &room1_, "bob");
    runFor(6000);
    ASSERT_EQ(a_->connection->take(102),
              std::vector{json::parse(R"({"type":102,"data":{"clientId":"b","payload":"bob"}})")});
    ASSERT_EQ(
        b_->connection->take(102),
        std::vector{json::parse(R"({"type":102,"data":{"clientId":"a","payload":"alice"}})")});
  }

  // Sends a request; the reply is the last message the device received.
  void request(Device& d, int type, const json& data = nullptr) {
    json message = {{"type", type}, {"id", nextId_++}};
    if (!data.is_null()) message["data"] = data;
    hub_.receive(d.key, d.connection.get(), message.dump());
  }

  // Advances the fake clock, feeding every sending device a part each 232 ms.
  void runFor(double ms) {
    const double until = nowMs_ + ms;
    for (; nowMs_ < until; nowMs_ += 50) {
      if (nowMs_ - kStartMs >= nextPartMs_ + kPartMs) {
        for (auto& d : devices_)
          feed(d, nextPartMs_);
        nextPartMs_ += kPartMs;
      }
      if (beforeTick_) beforeTick_();
      hub_.tick();
    }
  }

  void feed(Device& d, double offsetMs) {
    const size_t first = static_cast<size_t>(offsetMs / 8);
    std::vector<uint32_t> words(kWordsPerPart);
    for (int i = 0; i < kWordsPerPart; ++i)
      words[i] = (*d.heard)[(first + i) % d.heard->size()];
    request(d, 4,
            {{"fp", fingerprintFromWords(words)}, {"stime", kStartMs + offsetMs}, {"etime", 0.0}});
  }

  double nowMs_ = kStartMs;
  double nextPartMs_ = 0;
  int64_t nextId_ = 0;
  std::deque<Device> devices_;
  Device *a_ = nullptr, *b_ = nullptr;
  std::function<void()> beforeTick_;  // references stay valid as devices join
  Hub hub_{MatcherConfig{}, [this] { return nowMs_; }};
  const std::vector<uint32_t> room1_ = sound(1);
};

TEST_F(HubTest, ADisconnectIsALossForItsNearbyClientsAtOnce) {
  pairFound();
  hub_.detach(1, a_->connection.get());
  EXPECT_EQ(b_->connection->take(103),
            std::vector<json>{json::parse(R"({"type":103,"data":{"clientId":"a"}})")});
  runFor(3000);
  EXPECT_TRUE(b_->connection->take(103).empty());  // reported once
  EXPECT_EQ(hub_.clientCount(), 1u);
}

TEST_F(HubTest, ClientsComingAndGoingDoNotSwallowTheEventsOfOthers) {
  // A searching client leaves right before every tick, when pairs come due.
  beforeTick_ = [this] {
    auto connection = std::make_shared<FakeConnection>();
    hub_.attach(99, kApp, "passer-by", connection);
    hub_.receive(99, connection.get(), R"({"type":0,"id":0,"data":{"mode":3}})");
    hub_.detach(99, connection.get());
  };
  pairFound();
}

TEST_F(HubTest, LeavingTheSearchModeEndsThePairOnBothSides) {
  pairFound();
  request(*a_, 0, {{"mode", 1}});
  EXPECT_EQ(a_->connection->take(103).size(), 1u);
  EXPECT_EQ(b_->connection->take(103).size(), 1u);

  // Back to searching, the pair is found again.
  request(*a_, 0, {{"mode", 3}});
  runFor(6000);
  EXPECT_EQ(a_->connection->take(102).size(), 1u);
  EXPECT_EQ(b_->connection->take(102).size(), 1u);
}

TEST_F(HubTest, ANewerSessionReplacesTheOlderOne) {
  pairFound();
  const auto older = a_->connection;

  auto newer = std::make_shared<FakeConnection>();
  hub_.attach(1, kApp, "a", newer);
  EXPECT_EQ(older->closeCodes, std::vector<uint16_t>{kCloseReplaced});
  EXPECT_EQ(b_->connection->take(103).size(), 1u);  // a starts over

  // The older session's frames and its late end change nothing.
  const size_t sentBefore = older->sent.size();
  hub_.receive(1, older.get(), R"({"type":3,"id":1})");
  EXPECT_EQ(older->sent.size(), sentBefore);
  hub_.detach(1, older.get());
  EXPECT_EQ(hub_.clientCount(), 2u);
  hub_.receive(1, newer.get(), R"({"type":3,"id":2})");
  ASSERT_EQ(newer->sent.size(), 1u);
  EXPECT_EQ(newer->sent[0]["requestId"], 2);
}

// Matching on threads of its own: its events arrive late, while clients leave
// and return to the search. An event about a search that has ended since must
// push nothing: each client hears found and lost of its partner in turn, only
// of its own room's, and a found only once both searches have sent two parts
// (the half second of words a find needs).
TEST(ThreadedMatchingTest, FoundAndLostAlternatePerPairWhileSearchesRestart) {
  constexpr int kPairs = 4;
  constexpr double kStartMs = 1'700'000'000'000.0;
  std::atomic<double> nowMs{kStartMs};
  boost::asio::io_context hubThread;  // the hub's calls all run on this test's thread
  MatcherConfig config;
  Hub hub(config, [&] { return nowMs.load(); });
  hub.replaceMatching(std::make_unique<MatchingThreads>(
      config, 2, std::chrono::milliseconds(2), [&] { return nowMs.load(); },
      [&](std::vector<MatchEvent> events) {
        boost::asio::post(hubThread, [&hub, events = std::move(events)] { hub.deliver(events); });
      }));

  struct Push {
    int type;
    std::string partner;
    double atMs;
  };
  struct Device {
    ClientKey key = 0;
    int room = 0;
    std::shared_ptr<FakeConnection> connection = std::make_shared<FakeConnection>();
    double searchingSinceMs = 0;
    std::vector<Push> pushes;  // found (102) and lost (103), stamped when seen
  };
  std::vector<Device> devices;
  std::vector<std::vector<uint32_t>> sounds;
  int64_t id = 0;
  auto request = [&](Device& d, int type, const json& data) {
    if (type == 0 && data["mode"] == 3) d.searchingSinceMs = nowMs;
    hub.receive(d.key, d.connection.get(),
                json{{"type", type}, {"id", id++}, {"data", data}}.dump());
  };
  for (int room = 0; room < kPairs; ++room) {
    sounds.push_back(sound(static_cast<uint32_t>(100 + room)));
    for (int member = 0; member < 2; ++member) {
      devices.emplace_back();
      devices.back().key = devices.size();
      devices.back().room = room;
      // Every room an application of its own: the rooms spread over both threads.
      hub.attach(devices.back().key, room, "c" + std::to_string(devices.back().key),
                 devices.back().connection);
      request(devices.back(), 0, {{"mode", 3}});
    }
  }

  for (int step = 0; step * 50 < 12'000; ++step) {
    const double offset = step * 50.0;
    nowMs = kStartMs + offset;
    if (step % 5 == 4)  // a part every 250 ms
      for (Device& d : devices) {
        const auto& heard = sounds[static_cast<size_t>(d.room)];
        const auto first = static_cast<long>(static_cast<size_t>((offset - 250) / 8) % 3000);
        const std::vector<uint32_t> words(heard.begin() + first, heard.begin() + first + 31);
        request(d, 4, {{"fp", fingerprintFromWords(words)}, {"stime", nowMs - 250}});
      }
    // For 8 s the first device of every room leaves and returns every 0.6-0.7 s.
    if (offset < 8'000 && step % (12 + step / 40 % 3) == 0)
      for (int room = 0; room < kPairs; ++room) {
        request(devices[static_cast<size_t>(2 * room)], 0, {{"mode", 1}});
        request(devices[static_cast<size_t>(2 * room)], 0, {{"mode", 3}});
      }
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
    // The events wait for the hub for up to 350 ms, so that many were made
    // before a restart they arrive after.
    if (step % 8 == 6) {
      hubThread.poll();
      hubThread.restart();
    }
    for (Device& d : devices) {
      const Device& partner = devices[static_cast<size_t>(d.key % 2 ? d.key : d.key - 2)];
      for (const json& m : d.connection->sent) {
        const int type = m.value("type", -1);
        if (type != 102 && type != 103) continue;
        d.pushes.push_back({type, m["data"]["clientId"], nowMs});
        if (type == 102) {
          EXPECT_GE(nowMs - std::max(d.searchingSinceMs, partner.searchingSinceMs), 250)
              << "device " << d.key << " found at " << offset << " ms on stale words";
        }
      }
      d.connection->sent.clear();
    }
  }
  hub.stopMatching();

  for (const Device& d : devices) {
    const std::string partner = "c" + std::to_string(d.key % 2 ? d.key + 1 : d.key - 1);
    ASSERT_FALSE(d.pushes.empty()) << "device " << d.key;
    for (size_t i = 0; i < d.pushes.size(); ++i) {
      EXPECT_EQ(d.pushes[i].partner, partner) << "device " << d.key;
      EXPECT_EQ(d.pushes[i].type, i % 2 ? 103 : 102) << "device " << d.key << " push " << i;
    }
    EXPECT_EQ(d.pushes.back().type, 102) << "device " << d.key << ": nearby at the end";
  }
}

// A client sending faster than matching keeps up fills its matching thread's
// queue only up to a bound; beyond it, fingerprints are dropped.
TEST(ThreadedMatchingTest, AFloodOfFingerprintsIsDroppedBeyondTheQueueBound) {
  const double now = 1'700'000'000'000.0;
  MatchingThreads matching(
      MatcherConfig{}, 1, std::chrono::milliseconds(100), [now] { return now; },
      [](std::vector<MatchEvent>) {});
  matching.start(7, 1, now);
  const auto words = sound(5);
  std::vector<uint32_t> part;
  while (part.size() < 25'000)
    part.insert(part.end(), words.begin(), words.end());
  for (int i = 0; i * part.size() < 2 * MatchingThreads::kMaxPendingWords; ++i)
    matching.addFingerprint(7, 1, part, now, now);
  EXPECT_GT(matching.droppedFingerprints(), 0u);
  matching.stop();
}

}  // namespace
}  // namespace tellora::server
