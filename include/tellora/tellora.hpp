// Tellora's public C++ interface: set the SDK up once, then search for nearby
// devices that hear the same sound.
//
// Threads: every function here may be called from any thread. The SDK runs its
// work on its own event loop thread and calls the host's callbacks, and posts
// its notifications, on that thread. A callback may call back into the SDK.
#ifndef TELLORA_TELLORA_HPP
#define TELLORA_TELLORA_HPP

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tellora/audio_source.h"
#include "tellora/client.h"
#include "tellora/error.h"
#include "tellora/export.h"
#include "tellora/logging.h"
#include "tellora/notifications.h"
#include "tellora/tellora.h"

namespace tellora {

// Where the SDK finds its servers and who the host application is.
struct TELLORA_EXPORT TLRTelloraConfiguration {
  std::string registrationServerURL;  // full URL of the HTTP registration endpoint
  std::string websocketServerURL;     // full ws:// or wss:// URL of the message endpoint
  int32_t appID = 0;                  // application id sent at registration
  std::string appSecret;              // application secret (the API key)
  // Where recorded audio comes from: empty means the default microphone. See
  // tellora/audio_source.h for a file or host-fed source.
  TLRAudioSourceFactory audioSourceFactory;
  // Off: a connection that closes ends the search (the stopped callback
  // runs). On: a close without error (a server restarting, a load balancer
  // moving the client) is not reported; the search starts again by itself
  // after a short randomised pause, growing from about 1 s to about 30 s while
  // closes repeat. Closes with an error (3001, 3002) still end the search.
  bool resumeSearchAfterClose = false;
};

// Connection state (telloraState).
enum TLRTelloraState : int64_t {
  TLRTelloraStateIdle = 0,
  TLRTelloraStateRegistered = 1,
  TLRTelloraStateDisconnected = 2,
  TLRTelloraStateConnecting = 3,
  TLRTelloraStateConnected = 4,
};

// Search state (searchState).
enum TLRSearchState : int64_t {
  TLRSearchStateStarting = 0,
  TLRSearchStateSearching = 1,
  TLRSearchStateStopped = 2,
};

// Public notifications (TLRNotificationCenter::defaultCenter()).
TELLORA_EXPORT extern const char* const TelloraWillStartSearchNotification;
TELLORA_EXPORT extern const char* const TelloraDidStartSearchNotification;
TELLORA_EXPORT extern const char* const TelloraSearchWillStopNotification;
TELLORA_EXPORT extern const char* const TelloraSearchStopNotification;   // {"Error": TLRError}
TELLORA_EXPORT extern const char* const TelloraClientFoundNotification;  // {"client": TLRClient}
TELLORA_EXPORT extern const char* const TelloraClientLostNotification;   // {"client": TLRClient}
TELLORA_EXPORT extern const char* const TLRTelloraNetworkSpeedStatusChanged;  // {"speedStatus"}

class TLRTelloraImpl;

class TELLORA_EXPORT TLRTellora {
 public:
  using StartedBlock = std::function<void()>;
  using ClientBlock = std::function<void(const TLRClient& client)>;
  using StoppedBlock = std::function<void(const std::optional<TLRError>& error)>;

  // The process-wide instance, created on first use and never destroyed.
  static TLRTellora& sharedInstance();

  // Sets the SDK up with the default endpoints and this API key, then connects.
  // Only the first configuration of the process counts.
  static void setupWithApiKey(const std::string& apiKey);
  // Sets the SDK up with a configuration of the host's own, then connects.
  static void setupWithCustomConfiguration(const TLRTelloraConfiguration& configuration);

  // Starts searching with the host's payload (none: null is sent). Each
  // callback replaces the one given before (an empty one too). The stopped
  // callback gets the error that ended the search, if any.
  static void startSearchingWithPayload(std::optional<std::string> payload,
                                        StartedBlock onSearchStartedBlock,
                                        ClientBlock onClientFoundBlock, ClientBlock onClientLost,
                                        StoppedBlock onSearchStoppedBlock);
  // Stops the search; the stopped callback of the search is called.
  static void stopSearch();
  // Stops the search and calls this callback instead of the search's own.
  static void stopSearchingWithStoppedBlock(std::function<void()> stoppedBlock);
  // Closes the connection to the server.
  static void disconnect();

  // True from a start request until the search stops (also while it is starting).
  bool isSearching() const;
  // The clients reported nearby, in the order they were reported.
  std::vector<TLRClient> nearbyClients() const;

  // The persisted client identity ("TLRUserDefaultsClientID" / "...Secret").
  std::optional<std::string> clientID() const;
  std::optional<std::string> clientSecret() const;
  int64_t telloraState() const;
  int64_t searchState() const;
  double timeDifference() const;  // server clock minus local clock, ms
  // Why the SDK could not register or connect ("connect: Connection refused",
  // a certificate that failed verification, ...), while it has not connected
  // since; nullopt once connected. The SDK keeps retrying on its own: this only
  // tells a host that waits too long what to show.
  std::optional<std::string> lastConnectionFailure() const;

  // The host application's identifier and version, sent at registration and
  // (the version) as "app_version" when connecting. Set them before setup.
  static void setHostApplication(const std::string& identifier, const std::string& version);

 private:
  friend struct TLRTelloraAccess;
  TLRTellora();
  std::shared_ptr<TLRTelloraImpl> impl_;
};

}  // namespace tellora

#endif  // TELLORA_TELLORA_HPP
