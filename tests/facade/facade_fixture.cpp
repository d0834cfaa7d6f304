#include "tests/facade/facade_fixture.h"

#include <stdlib.h>

#include <algorithm>
#include <cmath>
#include <thread>

#include "registration/device_info.h"
#include "runtime/user_defaults.h"
#include "tellora/logging.h"
#include "transport/transport.h"

namespace tellora::facade_test {

namespace fs = std::filesystem;

// --- HostEvents ----------------------------------------------------------------

void HostEvents::started() {
  std::lock_guard lock(mutex_);
  ++started_;
  order_.push_back("started");
}

void HostEvents::found(const TLRClient& client) {
  std::lock_guard lock(mutex_);
  found_.push_back({client.clientID(), client.payload()});
  order_.push_back("found");
}

void HostEvents::lost(const TLRClient& client) {
  std::lock_guard lock(mutex_);
  lost_.push_back({client.clientID(), client.payload()});
  order_.push_back("lost");
}

void HostEvents::stopped(const std::optional<TLRError>& error) {
  const bool onLoop = EventLoop::main().isCurrent();
  std::lock_guard lock(mutex_);
  stops_.push_back({error, onLoop});
  order_.push_back("stopped");
}

void HostEvents::notice(const TLRNotification& notification) {
  Notice notice{notification.name, notification.hasUserInfo, std::nullopt, std::nullopt};
  if (auto it = notification.userInfo.find("Error"); it != notification.userInfo.end()) {
    if (const auto* error = std::get_if<TLRError>(&it->second)) notice.error = *error;
  }
  if (auto it = notification.userInfo.find("client"); it != notification.userInfo.end()) {
    if (const auto* client = std::get_if<TLRClient>(&it->second)) notice.client = *client;
  }
  std::lock_guard lock(mutex_);
  notices_.push_back(std::move(notice));
  order_.push_back(notification.name);
}

void HostEvents::log(std::string_view line) {
  std::lock_guard lock(mutex_);
  log_.emplace_back(line);
}

int HostEvents::startedCount() const {
  std::lock_guard lock(mutex_);
  return started_;
}

std::vector<HostEvents::Client> HostEvents::foundClients() const {
  std::lock_guard lock(mutex_);
  return found_;
}

std::vector<HostEvents::Client> HostEvents::lostClients() const {
  std::lock_guard lock(mutex_);
  return lost_;
}

std::vector<HostEvents::Stop> HostEvents::stops() const {
  std::lock_guard lock(mutex_);
  return stops_;
}

std::vector<HostEvents::Notice> HostEvents::notices() const {
  std::lock_guard lock(mutex_);
  return notices_;
}

std::vector<HostEvents::Notice> HostEvents::notices(const std::string& name) const {
  std::lock_guard lock(mutex_);
  std::vector<Notice> matching;
  for (const auto& notice : notices_) {
    if (notice.name == name) matching.push_back(notice);
  }
  return matching;
}

std::vector<std::string> HostEvents::logLines() const {
  std::lock_guard lock(mutex_);
  return log_;
}

std::size_t HostEvents::countLog(const std::string& line) const {
  std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(std::count(log_.begin(), log_.end(), line));
}

std::size_t HostEvents::countLogStartingWith(const std::string& prefix) const {
  std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(std::count_if(
      log_.begin(), log_.end(), [&](const std::string& line) { return line.starts_with(prefix); }));
}

int HostEvents::indexOf(const std::string& event) const {
  std::lock_guard lock(mutex_);
  auto it = std::find(order_.begin(), order_.end(), event);
  return it == order_.end() ? -1 : static_cast<int>(it - order_.begin());
}

// --- FacadeTest ----------------------------------------------------------------

void FacadeTest::SetUp() {
  std::string pattern = (fs::temp_directory_path() / "tellora-facade-XXXXXX").string();
  ASSERT_NE(mkdtemp(pattern.data()), nullptr);
  folder_ = pattern;
  UserDefaults::setStandardPath(folder_ / "defaults.json");
  setHostAppIdentifier(kHostIdentifier);
  setHostAppVersion(kHostVersion);

  // The server's clock runs a second ahead of ours.
  match_.setClockOffset(1000);

  auto events = events_;
  TLRSetLogSink([events](std::string_view line) { events->log(line); });
  for (const char* name : {TelloraWillStartSearchNotification, TelloraDidStartSearchNotification,
                           TelloraSearchWillStopNotification, TelloraSearchStopNotification,
                           TelloraClientFoundNotification, TelloraClientLostNotification}) {
    observers_.push_back(TLRNotificationCenter::defaultCenter().addObserver(
        name, [events](const TLRNotification& n) { events->notice(n); }));
  }

  registrar_.setHandler([](const testing::HttpRequestRecord& request) {
    if (request.target != "/register") return testing::HttpReply::json(404, "{}");
    return testing::HttpReply::json(
        200,
        nlohmann::json{{"clientId", kClientID}, {"clientSecret", kClientSecret}, {"ignored", 1}}
            .dump());
  });
}

void FacadeTest::TearDown() {
  destroyFacade();
  // Lets posted tasks and their notifications run before the observers go.
  EventLoop::main().drain();
  EventLoop::main().drain();
  for (auto token : observers_)
    TLRNotificationCenter::defaultCenter().removeObserver(token);
  TLRSetLogSink({});
  fs::remove_all(folder_);
}

bool FacadeTest::waitUntil(const std::function<bool()>& condition,
                           std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

TLRTelloraConfiguration FacadeTest::configuration() const {
  TLRTelloraConfiguration c;
  c.registrationServerURL = registrar_.url("/register");
  c.websocketServerURL = match_.url();
  c.appID = 7;
  c.appSecret = "app-secret";
  c.audioSourceFactory = audio_->sourceFactory();
  return c;
}

void FacadeTest::createFacade() {
  destroyFacade();
  facade_ = onLoop([events = events_] {
    auto facade = TLRTelloraImpl::create();
    // Short timers: a failed open is retried quickly, a recorder start too.
    facade->setTimings(Duration{}, 200ms, 50ms);
    facade->setHostCallbacks([events] { events->started(); },
                             [events](const TLRClient& c) { events->found(c); },
                             [events](const TLRClient& c) { events->lost(c); },
                             [events](const std::optional<TLRError>& e) { events->stopped(e); });
    return facade;
  });
}

void FacadeTest::setUpFacade(const TLRTelloraConfiguration& configuration) {
  if (!facade_) createFacade();
  onLoop([&] { facade_->setConfiguration(configuration); });
}

bool FacadeTest::waitUntilConnected() {
  // Five time requests answered, then the state is 4 and the offset stored.
  return match_.waitForRequestsOfType(3, 5) &&
         waitUntil([&] { return telloraState() == TLRTelloraStateConnected; }) && waitUntil([&] {
           // The fifth reply has been handled once the offset is non-zero.
           return onLoop([&] { return facade_->timeDifference() != 0; });
         });
}

void FacadeTest::startSearch(const std::string& payload) {
  onLoop([&] {
    // The public entry point replaces the callbacks at every start.
    auto events = events_;
    facade_->setHostCallbacks([events] { events->started(); },
                              [events](const TLRClient& c) { events->found(c); },
                              [events](const TLRClient& c) { events->lost(c); },
                              [events](const std::optional<TLRError>& e) { events->stopped(e); });
    facade_->startSearchingWithPayload(payload);
  });
}

void FacadeTest::startSearchAndWait(const std::string& payload) {
  setUpFacade();
  // A start while registering would connect (and register) a second time.
  ASSERT_TRUE(waitUntilConnected());
  startSearch(payload);
  ASSERT_TRUE(match_.waitForRequestsOfType(2, 1));
  ASSERT_TRUE(waitUntil([&] { return events_->startedCount() == 1; }));
}

void FacadeTest::destroyFacade() {
  if (!facade_) return;
  onLoop([&] {
    facade_->disconnect();
    facade_.reset();
  });
}

int64_t FacadeTest::telloraState() {
  return onLoop([&] { return facade_->telloraState(); });
}

int64_t FacadeTest::searchState() {
  return onLoop([&] { return facade_->searchState(); });
}

std::vector<TLRClient> FacadeTest::nearbyClients() {
  return onLoop([&] { return facade_->nearbyClients(); });
}

void FacadeTest::feedAudio(double seconds, double firstItemTicks) {
  constexpr uint32_t kBlock = 800;  // 100 ms at 8000 Hz
  const auto blocks = static_cast<int>(std::ceil(seconds * 10));
  std::vector<int16_t> items(kBlock);
  uint32_t seed = 12345;
  for (int b = 0; b < blocks; ++b) {
    for (uint32_t i = 0; i < kBlock; ++i) {
      const double t = (b * kBlock + i) / 8000.0;
      seed = seed * 1664525u + 1013904223u;
      const double noise = static_cast<double>(seed >> 16) / 65536.0 - 0.5;
      const double tone = std::sin(2 * M_PI * 440 * t) + 0.5 * std::sin(2 * M_PI * 1234 * t * t);
      items[i] = static_cast<int16_t>(8000 * tone + 3000 * noise);
    }
    ASSERT_TRUE(audio_->push(items.data(), kBlock, firstItemTicks + b * 1e8))
        << "block " << b << " dropped: the recorder is not running";
  }
}

void FacadeTest::storeIdentity(const std::optional<std::string>& id,
                               const std::optional<std::string>& secret) {
  UserDefaults::standard().setString(UDClientID, id);
  UserDefaults::standard().setString(UDClientSecret, secret);
}

}  // namespace tellora::facade_test
