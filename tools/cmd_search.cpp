// tellora search: runs a search through the SDK and prints every host-visible
// event as one JSON object per line on stdout. Logs go to stderr.
#include <CLI/CLI.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "audio/file/file_audio_source.h"
#include "runtime/log.h"
#include "runtime/user_defaults.h"
#include "tellora/tellora.hpp"
#include "tools/commands.h"
#include "tools/input_error.h"

namespace tellora::cli {
namespace {

struct SearchOptions {
  std::string apiKey;
  std::string registerUrl;
  std::string wsUrl;
  int32_t appId = 0;
  std::string appSecret;
  std::string payload;
  std::string input;
  bool loop = false;
  double duration = 0;
  std::string defaults;
  std::string appVersion;
  bool debug = false;
  int restartOnStop = 0;
  bool resume = false;
  double connectTimeout = 15;
};

// What the SDK's threads tell the waiting main thread.
struct SearchEvents {
  std::mutex mutex;
  std::condition_variable changed;
  int stops = 0;
  int starts = 0;
  bool lastStopFailed = false;
};

std::atomic<int> pendingSignal{0};
void onSignal(int signal) {
  pendingSignal = signal;
}

void emit(const nlohmann::json& event) {
  static std::mutex outputMutex;
  std::lock_guard<std::mutex> lock(outputMutex);
  const std::string line = event.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  std::fprintf(stdout, "%s\n", line.c_str());
  std::fflush(stdout);
}

nlohmann::json clientEvent(const char* name, const TLRClient& client) {
  nlohmann::json event = {{"event", name}, {"clientId", client.clientID()}};
  event["payload"] = client.payload() ? nlohmann::json(*client.payload()) : nlohmann::json();
  return event;
}

TLRTelloraConfiguration customConfiguration(const SearchOptions& o) {
  TLRTelloraConfiguration c;
  c.registrationServerURL = o.registerUrl;
  c.websocketServerURL = o.wsUrl;
  c.appID = o.appId;
  c.appSecret = o.appSecret;
  c.resumeSearchAfterClose = o.resume;
  return c;
}

int search(const SearchOptions& o) {
  if (!o.defaults.empty()) UserDefaults::setStandardPath(o.defaults);
  TLRTellora::setHostApplication("tellora", o.appVersion.empty() ? "unknown" : o.appVersion);
  auto& center = TLRNotificationCenter::defaultCenter();
  // The switch is persistent: it follows --debug in every run, so one run with
  // it does not leave the next ones talkative. The instance must exist first,
  // or nobody observes the notification.
  TLRTellora::sharedInstance();
  if (o.debug) {
    center.post("TelloraPrivateStartLogging");
  } else if (debugEnabled()) {
    center.post("TelloraPrivateStopLogging");
  }
  center.addObserver(TLRTelloraNetworkSpeedStatusChanged, [](const TLRNotification& n) {
    auto status = n.userInfo.find("speedStatus");
    const auto* text =
        status == n.userInfo.end() ? nullptr : std::get_if<std::string>(&status->second);
    emit({{"event", "speedStatus"}, {"status", text ? nlohmann::json(*text) : nlohmann::json()}});
  });

  auto events = std::make_shared<SearchEvents>();
  auto onStopped = [events](const std::optional<TLRError>& error) {
    nlohmann::json event = {{"event", "searchStopped"}, {"error", nullptr}};
    if (error) {
      event["error"] = {
          {"domain", error->domain}, {"code", error->code}, {"description", error->description()}};
    }
    emit(event);
    std::lock_guard<std::mutex> lock(events->mutex);
    ++events->stops;
    events->lastStopFailed = error.has_value();
    events->changed.notify_all();
  };

  TLRTelloraConfiguration configuration =
      o.apiKey.empty() ? customConfiguration(o) : TLRTelloraConfiguration{};
  TLRAudioSourceFactory source;
  if (!o.input.empty()) source = fileAudioSourceFactory(o.input, o.loop);
  if (o.apiKey.empty()) {
    configuration.audioSourceFactory = source;
    TLRTellora::setupWithCustomConfiguration(configuration);
  } else {
    if (source) throw InputError("--input goes with the custom configuration flags, not --api-key");
    TLRTellora::setupWithApiKey(o.apiKey);
  }

  std::signal(SIGINT, onSignal);
  std::signal(SIGTERM, onSignal);
  auto startSearch = [&] {
    TLRTellora::startSearchingWithPayload(
        o.payload,
        [events] {
          emit({{"event", "searchStarted"}});
          std::lock_guard<std::mutex> lock(events->mutex);
          ++events->starts;
          events->changed.notify_all();
        },
        [](const TLRClient& c) { emit(clientEvent("clientFound", c)); },
        [](const TLRClient& c) { emit(clientEvent("clientLost", c)); }, onStopped);
  };
  startSearch();

  // Wait for the duration or a signal. Without a duration a search that ends
  // by itself also ends the run: nothing else would happen.
  using Clock = std::chrono::steady_clock;
  const auto deadline = o.duration > 0
                            ? Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                                 std::chrono::duration<double>(o.duration))
                            : Clock::time_point::max();
  // A stop the SDK makes by itself (a dropped connection, a failed recorder)
  // is answered with a new search, as a host app would, up to --restart-on-stop times.
  int restartsLeft = o.restartOnStop;
  // Each start must reach "searchStarted" within --connect-timeout; the SDK
  // itself retries for ever, so the tool gives up and says why.
  const auto connectTimeout =
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(o.connectTimeout));
  auto connectDeadline = Clock::now() + connectTimeout;
  int startsExpected = 1;
  bool connectFailed = false;
  {
    std::unique_lock<std::mutex> lock(events->mutex);
    int stopsAnswered = 0;
    while (pendingSignal == 0 && Clock::now() < deadline) {
      if (events->stops > stopsAnswered && restartsLeft > 0) {
        stopsAnswered = events->stops;
        --restartsLeft;
        startsExpected = events->starts + 1;
        connectDeadline = Clock::now() + connectTimeout;
        lock.unlock();
        emit({{"event", "searchRestarting"}});
        startSearch();
        lock.lock();
        continue;
      }
      if (o.duration <= 0 && events->stops > stopsAnswered) break;
      if (events->starts < startsExpected && Clock::now() >= connectDeadline) {
        connectFailed = true;
        break;
      }
      events->changed.wait_for(lock, std::chrono::milliseconds(50));
    }
  }
  if (connectFailed) {
    const std::string reason =
        TLRTellora::sharedInstance().lastConnectionFailure().value_or("the server did not answer");
    emit({{"event", "connectFailed"}, {"reason", reason}});
    std::fprintf(stderr, "tellora: could not connect within %g s: %s\n", o.connectTimeout,
                 reason.c_str());
  }

  // Stop and give the stop up to a second to settle.
  int stopsBefore;
  {
    std::lock_guard<std::mutex> lock(events->mutex);
    stopsBefore = events->stops;
  }
  if (TLRTellora::sharedInstance().isSearching()) {
    TLRTellora::stopSearch();
    std::unique_lock<std::mutex> lock(events->mutex);
    events->changed.wait_for(lock, std::chrono::seconds(1),
                             [&] { return events->stops > stopsBefore; });
  }
  std::lock_guard<std::mutex> lock(events->mutex);
  const bool neverStarted = events->starts == 0;
  return events->lastStopFailed || neverStarted || connectFailed ? 1 : 0;
}

}  // namespace

void addSearchCommand(CLI::App& app) {
  auto o = std::make_shared<SearchOptions>();
  CLI::App* cmd = app.add_subcommand(
      "search",
      "Search for nearby devices that hear the same sound. Prints one JSON object per line on "
      "stdout for every event (searchStarted, clientFound, clientLost, searchStopped, "
      "speedStatus, searchRestarting, connectFailed). Exit status 0 after a stop without error, 1 "
      "after a stop with an error, when the search never started or when connecting took longer "
      "than --connect-timeout.");
  auto* apiKey = cmd->add_option("--api-key", o->apiKey, "Use the default endpoints with this key");
  auto* reg = cmd->add_option("--register-url", o->registerUrl, "Registration endpoint URL");
  auto* ws = cmd->add_option("--ws-url", o->wsUrl, "WebSocket endpoint URL (ws:// or wss://)");
  auto* id = cmd->add_option("--app-id", o->appId, "Application id");
  auto* secret = cmd->add_option("--app-secret", o->appSecret, "Application secret");
  for (auto* custom : {reg, ws, id, secret}) {
    custom->excludes(apiKey);
  }
  reg->needs(ws), ws->needs(reg), reg->needs(secret);
  cmd->add_option("--payload", o->payload, "Payload other devices receive");
  auto* input = cmd->add_option("--input", o->input, "Audio file played in place of the microphone")
                    ->check(CLI::ExistingFile);
  cmd->add_flag("--loop", o->loop, "Play the --input file again and again")->needs(input);
  cmd->add_option("--duration", o->duration, "Stop after this many seconds")
      ->check(CLI::PositiveNumber);
  cmd->add_option("--defaults", o->defaults, "User-defaults file for this run");
  cmd->add_option("--app-version", o->appVersion, "Host application version sent to the server");
  cmd->add_flag("--debug", o->debug, "Turn the SDK's debug logging on");
  cmd->add_option("--connect-timeout", o->connectTimeout,
                  "Give up when a search has not started after this many seconds (default 15)")
      ->check(CLI::PositiveNumber);
  cmd->add_option("--restart-on-stop", o->restartOnStop,
                  "Start the search again after a stop the SDK made by itself, up to N times")
      ->check(CLI::NonNegativeNumber);
  cmd->add_flag("--resume", o->resume,
                "Let the SDK resume the search after the server closes without an error (as a "
                "draining server does)")
      ->excludes(apiKey);
  cmd->callback([o] {
    if (o->apiKey.empty() && o->registerUrl.empty())
      throw InputError(
          "give --api-key KEY, or --register-url, --ws-url, --app-id and --app-secret");
    throw CommandExit{search(*o)};
  });
}

}  // namespace tellora::cli
