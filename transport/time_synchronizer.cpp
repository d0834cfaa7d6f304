#include "transport/time_synchronizer.h"

#include <utility>

#include "messaging/message_service.h"
#include "runtime/clock.h"
#include "runtime/log.h"

namespace tellora {

namespace {
constexpr uint64_t kSamplesPerRun = 5;
}  // namespace

std::shared_ptr<TLRTimeSynchronizer> TLRTimeSynchronizer::create(
    std::shared_ptr<TLRMessageService> messageService) {
  return std::make_shared<TLRTimeSynchronizer>(PassKey{}, std::move(messageService));
}

TLRTimeSynchronizer::TLRTimeSynchronizer(PassKey, std::shared_ptr<TLRMessageService> messageService)
    : messageService_(std::move(messageService)) {}

void TLRTimeSynchronizer::requestTimeDifference(RunCompletion completion) {
  requestCounter_ = 0;
  std::weak_ptr<TLRTimeSynchronizer> weakSelf = weak_from_this();
  timeWithComplete(
      [weakSelf, completion = std::move(completion)](const std::optional<TLRError>& error) {
        auto self = weakSelf.lock();
        if (self && completion) completion(self->timeDiff_, error);
      });
}

void TLRTimeSynchronizer::timeWithComplete(SampleCompletion complete) {
  ++requestCounter_;
  const double sent = wallClockSeconds();
  if (!messageService_) return;
  std::weak_ptr<TLRTimeSynchronizer> weakSelf = weak_from_this();
  messageService_->requestTime([weakSelf, sent, complete = std::move(complete)](double serverTime) {
    if (auto self = weakSelf.lock()) self->handleReply(sent, serverTime, complete);
  });
}

void TLRTimeSynchronizer::handleReply(double sent, double serverTime,
                                      const SampleCompletion& complete) {
  const double now = wallClockSeconds();
  if (serverTime > 0) {
    const double rtt = now - sent;
    // Strictly shorter only: on a tie the earlier sample keeps its offset.
    if (rtt < minRTT_) {
      minRTT_ = rtt;
      ttf_ = static_cast<float>(rtt);
      // The server read its clock half a round trip before the reply arrived.
      timeDiff_ = serverTime + rtt * 1000 / 2 - now * 1000;
      logCalculation(now, serverTime);
    }
  } else {
    // No usable reading: this sample does not count and is taken again.
    --requestCounter_;
  }
  if (requestCounter_ >= kSamplesPerRun) {
    logCalculation(now, serverTime);
    if (complete) complete(std::nullopt);
    return;
  }
  timeWithComplete(complete);
}

void TLRTimeSynchronizer::logCalculation(double nowSeconds, double serverTime) const {
  debugf("calculation  endTime = %f ms   serverTime =  %f ms  rtt = %fms      timeDiff = %f ",
         nowSeconds * 1000, serverTime, minRTT_ * 1000 / 2, timeDiff_);
}

}  // namespace tellora
