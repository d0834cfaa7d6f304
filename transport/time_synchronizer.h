// Estimates the offset between the server's clock and the device's from a run
// of five get-time requests, keeping the reading with the shortest round trip.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>

#include "tellora/error.h"

namespace tellora {

class TLRMessageService;

// Lives on EventLoop::main(), like the message service it asks.
class TLRTimeSynchronizer : public std::enable_shared_from_this<TLRTimeSynchronizer> {
 public:
  using RunCompletion = std::function<void(double timeDiff, const std::optional<TLRError>& error)>;
  using SampleCompletion = std::function<void(const std::optional<TLRError>& error)>;

  static std::shared_ptr<TLRTimeSynchronizer> create(
      std::shared_ptr<TLRMessageService> messageService);

  // Runs five answered samples, then calls `completion` with timeDiff (ms,
  // positive when the server's clock is ahead) and a null error. The best
  // round trip of earlier runs still counts: a run that sees only slower round
  // trips hands back the earlier offset.
  void requestTimeDifference(RunCompletion completion);
  // One sample; through the replies, the rest of the run. Samples never
  // overlap: the next request goes out after the previous reply.
  void timeWithComplete(SampleCompletion complete);

  double timeDiff() const { return timeDiff_; }
  void setTimeDiff(double timeDiff) { timeDiff_ = timeDiff; }
  // Round trip (s) of the sample that set timeDiff.
  float ttf() const { return ttf_; }
  void setTtf(float ttf) { ttf_ = ttf; }
  // Shortest round trip (s) seen since creation.
  double minRTT() const { return minRTT_; }
  uint64_t requestCounter() const { return requestCounter_; }
  const std::shared_ptr<TLRMessageService>& messageService() const { return messageService_; }
  void setMessageService(std::shared_ptr<TLRMessageService> messageService) {
    messageService_ = std::move(messageService);
  }

 private:
  struct PassKey {};

 public:
  TLRTimeSynchronizer(PassKey, std::shared_ptr<TLRMessageService> messageService);

 private:
  void handleReply(double sent, double serverTime, const SampleCompletion& complete);
  void logCalculation(double nowSeconds, double serverTime) const;

  uint64_t requestCounter_ = 0;
  double minRTT_ = std::numeric_limits<float>::max();
  float ttf_ = 0;
  std::shared_ptr<TLRMessageService> messageService_;
  double timeDiff_ = 0;
};

}  // namespace tellora
