// The C interface: a thin shim over the C++ facade.
#include "tellora/tellora.h"

#include <memory>
#include <mutex>
#include <string>

#include "audio/host_fed_source.h"
#include "tellora/tellora.hpp"

using namespace tellora;

namespace {

std::string text(const char* s) {
  return s ? s : "";
}

// The host-fed audio of a configuration with host_fed_audio set, made on
// first need. Guarded: the host may push from its audio thread while another
// thread sets up.
std::shared_ptr<TLRHostFedAudio> hostFedAudio(bool create) {
  static auto* mutex = new std::mutex();                        // never destroyed
  static auto* audio = new std::shared_ptr<TLRHostFedAudio>();  // never destroyed
  std::lock_guard lock(*mutex);
  if (!*audio && create) *audio = TLRHostFedAudio::create();
  return *audio;
}

// An error as C sees it, alive for the duration of one callback.
struct CError {
  std::string domain, description;
  tlr_error error{};
  explicit CError(const TLRError& e) : domain(e.domain), description(e.description()) {
    error = {domain.c_str(), e.code, description.c_str()};
  }
};

void callWithClient(tlr_client_fn fn, const TLRClient& client, void* user) {
  if (!fn) return;
  const auto& payload = client.payload();
  fn(client.clientID().c_str(), payload ? payload->c_str() : nullptr, user);
}

}  // namespace

extern "C" {

void tlr_setup_with_api_key(const char* api_key) {
  TLRTellora::setupWithApiKey(text(api_key));
}

void tlr_setup_with_configuration(const tlr_configuration* configuration) {
  if (!configuration) return;
  TLRTelloraConfiguration c;
  c.registrationServerURL = text(configuration->registration_server_url);
  c.websocketServerURL = text(configuration->websocket_server_url);
  c.appID = configuration->app_id;
  c.appSecret = text(configuration->app_secret);
  if (configuration->host_fed_audio) c.audioSourceFactory = hostFedAudio(true)->sourceFactory();
  c.resumeSearchAfterClose = configuration->resume_search_after_close != 0;
  TLRTellora::setupWithCustomConfiguration(c);
}

void tlr_push_audio(const int16_t* items, uint32_t count) {
  if (!items || !count) return;
  if (auto audio = hostFedAudio(false)) audio->push(items, count);
}

void tlr_start_searching(const char* payload, tlr_started_fn started, tlr_client_fn found,
                         tlr_client_fn lost, tlr_stopped_fn stopped, void* user) {
  TLRTellora::StartedBlock onStarted;
  if (started) onStarted = [started, user] { started(user); };
  TLRTellora::ClientBlock onFound, onLost;
  if (found) onFound = [found, user](const TLRClient& c) { callWithClient(found, c, user); };
  if (lost) onLost = [lost, user](const TLRClient& c) { callWithClient(lost, c, user); };
  TLRTellora::StoppedBlock onStopped;
  if (stopped)
    onStopped = [stopped, user](const std::optional<TLRError>& error) {
      if (!error) return stopped(nullptr, user);
      CError e(*error);
      stopped(&e.error, user);
    };
  std::optional<std::string> payloadText;
  if (payload) payloadText = payload;
  TLRTellora::startSearchingWithPayload(std::move(payloadText), onStarted, onFound, onLost,
                                        onStopped);
}

void tlr_stop_search(void) {
  TLRTellora::stopSearch();
}

void tlr_stop_searching_with_block(tlr_done_fn stopped, void* user) {
  TLRTellora::stopSearchingWithStoppedBlock([stopped, user] {
    if (stopped) stopped(user);
  });
}

void tlr_disconnect(void) {
  TLRTellora::disconnect();
}

int tlr_is_searching(void) {
  return TLRTellora::sharedInstance().isSearching() ? 1 : 0;
}

size_t tlr_nearby_clients(tlr_client_fn each, void* user) {
  const auto clients = TLRTellora::sharedInstance().nearbyClients();
  for (const auto& c : clients)
    callWithClient(each, c, user);
  return clients.size();
}

void tlr_set_host_application(const char* identifier, const char* version) {
  TLRTellora::setHostApplication(text(identifier), version ? version : "unknown");
}

uint64_t tlr_add_observer(const char* name, tlr_notification_fn handler, void* user) {
  if (!name || !handler) return 0;
  return TLRNotificationCenter::defaultCenter().addObserver(
      name, [handler, user](const TLRNotification& n) {
        tlr_notification c{};
        c.name = n.name.c_str();
        std::unique_ptr<CError> error;
        for (const auto& [key, value] : n.userInfo) {
          if (const auto* client = std::get_if<TLRClient>(&value)) {
            c.client_id = client->clientID().c_str();
            c.client_payload = client->payload() ? client->payload()->c_str() : nullptr;
          } else if (const auto* e = std::get_if<TLRError>(&value)) {
            error = std::make_unique<CError>(*e);
            c.error = &error->error;
          } else if (const auto* s = std::get_if<std::string>(&value)) {
            c.text_key = key.c_str();
            c.text = s->c_str();
          }
        }
        handler(&c, user);
      });
}

void tlr_remove_observer(uint64_t token) {
  TLRNotificationCenter::defaultCenter().removeObserver(token);
}

void tlr_post_notification(const char* name) {
  if (name) TLRNotificationCenter::defaultCenter().post(name);
}

void tlr_set_log_sink(tlr_log_fn sink, void* user) {
  if (!sink) return TLRSetLogSink({});
  TLRSetLogSink([sink, user](std::string_view line) {
    const std::string copy(line);
    sink(copy.c_str(), user);
  });
}

}  // extern "C"
