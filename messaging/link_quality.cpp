// The once-a-second link check of TLRMessageService and the counters behind it.
#include <algorithm>
#include <utility>

#include "messaging/message_service.h"
#include "runtime/clock.h"
#include "runtime/log.h"
#include "tellora/notifications.h"

namespace tellora {

namespace {

constexpr double kOverdueSeconds = 1.0;
constexpr uint64_t kBadRepliesBeforeRestart = 5;
constexpr uint64_t kRestartsBeforeGivingUp = 5;
constexpr int64_t kSlowLinkErrorCode = 103;

std::string describeMessages(const TLRMessageService::MessageList& messages) {
  std::string text = "(";
  for (size_t i = 0; i < messages.size(); ++i) {
    if (i > 0) text += ", ";
    text += messages[i]->description();
  }
  return text + ")";
}

}  // namespace

void TLRMessageService::startTimer() {
  if (timer_ && timer_->isValid()) return;
  if (timer_) {
    // Possibly the timer whose tick is running right now: let it go later.
    std::shared_ptr<RepeatingTimer> old(std::move(timer_));
    EventLoop::main().post([old] {});
  }
  std::weak_ptr<TLRMessageService> weakSelf = weak_from_this();
  timer_ = std::make_unique<RepeatingTimer>(EventLoop::main(), checkInterval_, [weakSelf] {
    if (auto self = weakSelf.lock()) {
      self->checkMessagesDelay();
      // The tick may have led the owner to drop the service; let it end after
      // this tick, not inside it.
      EventLoop::main().post([self] {});
    }
  });
  timer_->start();
}

void TLRMessageService::stopTimer() {
  if (timer_ && timer_->isValid()) timer_->invalidate();
}

void TLRMessageService::checkMessagesDelay() {
  if (debugEnabled()) {
    debugf("Tellora: checkMessagesDelay %s", describeMessages(sendedMessages_).c_str());
  }
  for (const auto& message : sendedMessages_) {
    const double age = wallClockSeconds() - message->sendTimeInterval();
    debugf("Tellora: checkMessagesDelay receive time == %f", age);
    if (age > kOverdueSeconds) {
      debugf("Tellora: delay bigger than %i", 1);
      EventLoop::main().post([] {
        TLRNotificationCenter::defaultCenter().post(
            kTLRNetworkSpeedStatusChanged, {{kTLRSpeedStatusKey, std::string(kTLRSpeedStatusLow)}});
      });
      return;
    }
  }
  if (transportRebooting_ || badDelaysCount_ < kBadRepliesBeforeRestart) return;

  ++reconnectsCount_;
  if (reconnectsCount_ > kRestartsBeforeGivingUp) {
    debugf("Больше 5 реконнектов");
    slowConnectionError_ = TLRError::make(kSlowLinkErrorCode);
    badDelaysCount_ = 0;
    reconnectsCount_ = 0;
    transport_->close();
    stopTimer();
  } else {
    slowConnectionError_.reset();
    logf("Tellora reconnect");
    rebootTransport();
  }
}

void TLRMessageService::rebootTransport() {
  if (transportRebooting_) return;
  // connectionClosedWithError sees the flag and reopens.
  transportRebooting_ = true;
  transport_->close();
}

void TLRMessageService::resetMessageCounter() {
  allMessagesCount_ = 0;
  setSpeedsNull();
}

void TLRMessageService::setDefaultValues() {
  allMessagesCount_ = 0;
  delayLessThenOneSecCount_ = 0;
  setSpeedsNull();
  badDelaysCount_ = 0;
  reconnectsCount_ = 0;
  speed_ = TLRSpeedHight;
}

void TLRMessageService::setSpeedsNull() {
  speeds_.fill(0.0f);
}

void TLRMessageService::incrementMessageCount() {
  ++allMessagesCount_;
}

// The count is incremented before the delay is stored, so the first delay after
// a reset lands in entry 1.
void TLRMessageService::addDelayValue(double delay) {
  speeds_[allMessagesCount_ % speeds_.size()] = static_cast<float>(delay);
}

double TLRMessageService::averadeDelay() const {
  const uint64_t count = std::min<uint64_t>(allMessagesCount_, speeds_.size());
  double sum = 0;
  for (uint64_t i = 0; i < count; ++i)
    sum += speeds_[i];
  return sum / static_cast<double>(count);
}

}  // namespace tellora
