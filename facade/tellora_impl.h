// The facade's state and logic. Lives on the SDK's event loop: every method
// runs there (the public entry points in tellora.cpp marshal onto it).
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "audio/recorder.h"
#include "fingerprint/hasher.h"
#include "messaging/message_service.h"
#include "tellora/tellora.hpp"
#include "transport/time_synchronizer.h"

namespace tellora {

class TLRTelloraImpl : public TLRMessageServiceDelegate,
                       public TLRHasherDelegate,
                       public TLRRecorderErrorsHandlerDelegate,
                       public std::enable_shared_from_this<TLRTelloraImpl> {
 public:
  // Builds the instance and subscribes the private control notifications.
  static std::shared_ptr<TLRTelloraImpl> create();

  // Configuration and identity.
  void setConfiguration(const TLRTelloraConfiguration& configuration);
  const std::optional<TLRTelloraConfiguration>& configuration() const { return configuration_; }
  std::optional<std::string> clientID();
  std::optional<std::string> clientSecret();
  void setClientID(const std::optional<std::string>& value);
  void setClientSecret(const std::optional<std::string>& value);

  // Connection and registration.
  void registerIfNeededWithConfiguration(const TLRTelloraConfiguration& configuration,
                                         std::function<void(const std::optional<TLRError>&)> end);
  void prepareMessageServiceIfNeededWithConfiguration(const TLRTelloraConfiguration& configuration,
                                                      std::function<void(bool)> callback);
  void connect();
  void disconnect();

  // Search session.
  void setHostCallbacks(TLRTellora::StartedBlock started, TLRTellora::ClientBlock found,
                        TLRTellora::ClientBlock lost, TLRTellora::StoppedBlock stopped);
  void startSearchingWithPayload(const std::optional<std::string>& payload);
  void runSearching();
  void stopSearching();
  void stopSearchingWithBlock(TLRTellora::StoppedBlock callback);
  void startRecordSound();
  void stopRecordSound();

  // Delegate roles.
  void fingerprintGenerated(const std::string& fingerprint, double startTime,
                            double endTime) override;
  void nearbyAddedWithClientID(const std::string& clientID, const nlohmann::json& payload) override;
  void nearbyRemovedWithClientID(const std::string& clientID) override;
  void recordStoppedWithError(const TLRError& error) override;

  // State.
  bool isSearching() const { return searchState_ != TLRSearchStateStopped; }
  const std::vector<TLRClient>& nearbyClients() const { return nearbyClients_; }
  int64_t telloraState() const { return telloraState_; }
  int64_t searchState() const { return searchState_; }
  double timeDifference() const { return timeDifference_; }
  bool needRunSearch() const { return needRunSearch_; }
  bool isRecording() const { return isRecording_; }
  bool useAnunimousBuffer() const { return useAnunimousBuffer_; }
  const std::optional<std::string>& payload() const { return payload_; }
  const std::shared_ptr<TLRMessageService>& messageService() const { return messageService_; }
  const std::shared_ptr<TLRRecorder>& recorder() const { return recorder_; }

  void setTimings(Duration linkCheckInterval, Duration transportRetryInterval,
                  Duration recorderRetryUnit);

  // Why the SDK could not register or connect, most recent first; nullopt
  // once the connection opened.
  std::optional<std::string> connectionFailure() const;

  // The nearby list holds at most this many entries.
  static constexpr size_t kNearbyClientsLimit = 1024;

 private:
  TLRTelloraImpl() = default;
  void init();
  void registerPrivateApi();
  void connectionOpened();
  void connectionClosed(const std::optional<TLRError>& error);
  void postSearchStop(const std::optional<TLRError>& error);
  void resumeSearchLater();
  void boundNearbyClients();

  std::weak_ptr<TLRTelloraImpl> weakSelf_;
  double timeDifference_ = 0;
  bool needRunSearch_ = false;
  bool isRecording_ = false;
  bool useAnunimousBuffer_ = false;
  std::optional<std::string> clientID_;
  std::optional<std::string> clientSecret_;
  std::vector<TLRClient> nearbyClients_;
  std::optional<std::string> payload_;
  std::shared_ptr<TLRMessageService> messageService_;
  int64_t telloraState_ = TLRTelloraStateIdle;
  int64_t searchState_ = TLRSearchStateStopped;
  std::shared_ptr<TLRRecorder> recorder_;
  std::shared_ptr<TLRHasher> hasher_;
  std::shared_ptr<TLRTimeSynchronizer> timeSync_;
  std::optional<TLRTelloraConfiguration> configuration_;
  TLRTellora::StartedBlock onSearchStartedBlock_;
  TLRTellora::StoppedBlock onSearchStopedBlock_;
  TLRTellora::ClientBlock clientFoundBlock_;
  TLRTellora::ClientBlock clientLostBlock_;

  std::optional<std::string> connectionFailure_;
  int resumeAttempts_ = 0;  // closes resumed since the connection last opened
  Duration linkCheckInterval_{};
  Duration transportRetryInterval_{};
};

// "http://HOST:10000/register" and "ws://HOST:10000/ws", HOST from
// TELLORA_SERVER_HOST, else the build's TELLORA_DEFAULT_SERVER_HOST (127.0.0.1).
TLRTelloraConfiguration defaultConfigurationWithApiKey(const std::string& apiKey);
std::string defaultServerHost();

}  // namespace tellora
