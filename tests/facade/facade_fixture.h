// A fresh facade per test against real loopback servers: registration over
// HTTP, the matching protocol over WebSocket, audio pushed by the test, a
// user-defaults file of its own, and everything the host would see (callbacks,
// notifications, log lines) recorded for the test thread.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "facade/tellora_impl.h"
#include "runtime/event_loop.h"
#include "tellora/host_fed_audio.h"
#include "tellora/notifications.h"
#include "tests/facade/match_server.h"
#include "tests/support/http_test_server.h"

namespace tellora::facade_test {

using namespace std::chrono_literals;

// The host-visible traces, written on SDK threads and read by the test.
class HostEvents {
 public:
  struct Notice {
    std::string name;
    bool hasUserInfo = false;
    std::optional<TLRError> error;    // "Error"
    std::optional<TLRClient> client;  // "client"
  };
  struct Client {
    std::string id;
    std::optional<std::string> payload;
  };
  // One stop callback: the error it got, and whether it ran on the SDK's loop.
  struct Stop {
    std::optional<TLRError> error;
    bool onLoop = false;
  };

  void started();
  void found(const TLRClient& client);
  void lost(const TLRClient& client);
  void stopped(const std::optional<TLRError>& error);
  void notice(const TLRNotification& notification);
  void log(std::string_view line);

  int startedCount() const;
  std::vector<Client> foundClients() const;
  std::vector<Client> lostClients() const;
  std::vector<Stop> stops() const;
  std::vector<Notice> notices() const;
  std::vector<Notice> notices(const std::string& name) const;
  std::vector<std::string> logLines() const;
  std::size_t countLog(const std::string& line) const;
  std::size_t countLogStartingWith(const std::string& prefix) const;
  // The position of the first such event among all host-visible events
  // (callbacks as "started", "found", "lost", "stopped"; notifications by
  // name); -1 when absent.
  int indexOf(const std::string& event) const;

 private:
  mutable std::mutex mutex_;
  int started_ = 0;
  std::vector<Client> found_;
  std::vector<Client> lost_;
  std::vector<Stop> stops_;
  std::vector<Notice> notices_;
  std::vector<std::string> log_;
  std::vector<std::string> order_;
};

class FacadeTest : public ::testing::Test {
 protected:
  static constexpr const char* kClientID = "client-7";
  static constexpr const char* kClientSecret = "secret-7";
  static constexpr const char* kHostIdentifier = "com.example.facade-host";
  static constexpr const char* kHostVersion = "3.1.4";

  void SetUp() override;
  void TearDown() override;

  template <class F>
  static auto onLoop(F&& f) {
    return EventLoop::main().call(std::forward<F>(f));
  }
  // Polls until `condition` holds; false after the timeout.
  static bool waitUntil(const std::function<bool()>& condition,
                        std::chrono::milliseconds timeout = 5s);

  // Both servers, host-fed audio, app id 7 and secret "app-secret".
  TLRTelloraConfiguration configuration() const;
  // A fresh facade (replacing the previous one) whose host callbacks record
  // into events_. Nothing connects yet.
  void createFacade();
  void setUpFacade(const TLRTelloraConfiguration& configuration);
  void setUpFacade() { setUpFacade(configuration()); }
  // The facade has measured the clock after the connection opened.
  bool waitUntilConnected();
  void startSearch(const std::string& payload);
  // Sets up, waits for the connection, starts a search and waits for the
  // nearby request that ends the search sequence.
  void startSearchAndWait(const std::string& payload = "my-payload");
  // Releases the facade on the loop (as its last owner must) after closing
  // its connection.
  void destroyFacade();

  int64_t telloraState();
  int64_t searchState();
  std::vector<TLRClient> nearbyClients();
  // Pushes `seconds` of a test sound in 100 ms blocks whose first item is
  // stamped `firstItemTicks` and the rest follow without gaps.
  void feedAudio(double seconds, double firstItemTicks);
  // Stores an identity in the user-defaults file, as an earlier launch would.
  void storeIdentity(const std::optional<std::string>& id,
                     const std::optional<std::string>& secret);

  std::filesystem::path folder_;
  testing::HttpTestServer registrar_;
  MatchServer match_;
  std::shared_ptr<TLRHostFedAudio> audio_ = TLRHostFedAudio::create();
  std::shared_ptr<HostEvents> events_ = std::make_shared<HostEvents>();
  std::shared_ptr<TLRTelloraImpl> facade_;

 private:
  std::vector<TLRNotificationCenter::ObserverToken> observers_;
};

}  // namespace tellora::facade_test
