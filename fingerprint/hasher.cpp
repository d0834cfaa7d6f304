#include "fingerprint/hasher.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "audio/recorder.h"
#include "fingerprint/hash_queue.h"
#include "fingerprint/part_fingerprint.h"
#include "runtime/clock.h"
#include "runtime/event_loop.h"
#include "runtime/log.h"

namespace tellora {

namespace {

// Double-to-integer truncations that stay defined for rates and durations out
// of range (a plain cast of NaN or of a too large value is undefined).
uint32_t truncateToUint32(double v) {
  if (!(v > 0)) return 0;
  if (v >= static_cast<double>(std::numeric_limits<uint32_t>::max())) {
    return std::numeric_limits<uint32_t>::max();
  }
  return static_cast<uint32_t>(v);
}

int32_t truncateToInt32(double v) {
  if (std::isnan(v)) return 0;
  if (v <= static_cast<double>(std::numeric_limits<int32_t>::min())) {
    return std::numeric_limits<int32_t>::min();
  }
  if (v >= static_cast<double>(std::numeric_limits<int32_t>::max())) {
    return std::numeric_limits<int32_t>::max();
  }
  return static_cast<int32_t>(v);
}

}  // namespace

uint32_t hibit(uint32_t v) {
  v |= v >> 1;
  v |= v >> 2;
  v |= v >> 4;
  v |= v >> 8;
  v |= v >> 16;
  return v - (v >> 1);
}

std::shared_ptr<TLRHasher> TLRHasher::create(std::shared_ptr<TLRRecorder> recorder,
                                             double partDuration) {
  std::shared_ptr<TLRHasher> hasher(new TLRHasher(recorder, partDuration));
  recorder->setDelegate(hasher);
  return hasher;
}

TLRHasher::TLRHasher(std::shared_ptr<TLRRecorder> recorder, double partDuration)
    : recorder_(std::move(recorder)) {
  refreshTimeDifference();

  const double sampleRate = recorder_->sampleRate();
  framelength_ = calcFrameLengthWithDuration(0.4, sampleRate);
  // In 64 bits: 31 times the largest frame does not fit 32.
  advance_ = framelength_ - static_cast<uint32_t>((int64_t{31} * framelength_) / 32);

  // Whole steps only, and never fewer than three frames: one hash word.
  const int64_t whole =
      truncateToInt32(std::floor(partDuration * sampleRate / advance_) * advance_);
  const int64_t minimum = int64_t{framelength_} + 2 * int64_t{advance_};
  bufferItemsCount_ = static_cast<uint32_t>(whole >= minimum ? whole : minimum);
  bufferBytesSize_ = recorder_->bytesPerFrame() * bufferItemsCount_;
  // Room for the kept tail and its stale neighbour even at a degenerate rate
  // (no step, no frame), where the capacity alone would be zero.
  buffer_.assign(std::max<size_t>(bufferItemsCount_, size_t{framelength_} + advance_ + 1), 0);
  bufferItemsFill_ = 0;

  setSending(false);
}

uint32_t TLRHasher::calcFrameLengthWithDuration(double duration, double andSampleRate) {
  return hibit(truncateToUint32(duration * andSampleRate));
}

void TLRHasher::refreshTimeDifference() {
  const double wallMs = wallClockSeconds() * 1000.0;
  const double hostMs = convertInMilicec(monotonicTicks());
  timeDifference_ = wallMs - hostMs;
  debugf("recorder timeDifference == %f  timeInMS == %f  absolute time == %f", timeDifference_,
         wallMs, hostMs);
}

void TLRHasher::audioDataReceived(const int16_t* data, uint32_t itemsCount, double time) {
  if (sending_) {
    generateHashAndSendFromData(data, itemsCount, time);
  } else {
    addAudioInAutonomousBufferData(data, itemsCount, time);
  }
}

void TLRHasher::setSending(bool sending) {
  if (sending) sendMessagesFromAutonomousBuffer();
  sending_ = sending;
}

void TLRHasher::generateHashAndSendFromData(const int16_t* data, uint32_t itemsCount, double time) {
  refreshTimeDifference();
  debugf("match_a_t %f itemsCount = %i", convertInMilicec(monotonicTicks() - time),
         static_cast<int>(itemsCount));
  if (data == nullptr) return;

  const double base = convertInMilicec(time);
  const double diff = timeDifference_;
  const double sampleRate = recorder_->sampleRate();
  for (uint32_t i = 0; i < itemsCount; ++i) {
    if (bufferItemsFill_ >= bufferItemsCount_) {
      // End is the first item that did not fit. That item is dropped, one per
      // part: every device must cut its parts alike for the server to match them.
      const double end = base + diff + (i / sampleRate) * 1000.0;
      const double start = end - (bufferItemsFill_ / sampleRate) * 1000.0;
      calcBufferWithStartTime(start, end);
      continue;
    }
    buffer_[bufferItemsFill_] = data[i];
    ++bufferItemsFill_;
  }
}

void TLRHasher::calcBufferWithStartTime(double startTime, double andEndTime) {
  if (bufferItemsFill_ == 0) return;
  calcAudioHashWithData(buffer_.data(), bufferItemsFill_, startTime, andEndTime);

  // Consecutive parts share a frame and a step. The fill level goes one past
  // the kept tail: the item there is left over from the old part and counts
  // as the first new one. Kept that way so that parts are cut like on every
  // other device.
  const uint32_t keep = framelength_ + advance_;
  const uint32_t from = bufferItemsFill_ > keep ? bufferItemsFill_ - keep : 0;
  for (uint32_t i = 0; i < keep; ++i) {
    buffer_[i] = buffer_[from + i];
  }
  bufferItemsFill_ = keep + 1;
}

void TLRHasher::calcAudioHashWithData(const int16_t* data, uint32_t withItemsCount,
                                      double startTime, double andEndTime) {
  std::vector<int16_t> items(data, data + withItemsCount);
  const int32_t sampleRate = truncateToInt32(recorder_->sampleRate());
  // The job holds only its own copy and where to deliver: never the hasher.
  hashQueue().post(
      [items = std::move(items), sampleRate, startTime, andEndTime, target = target_]() mutable {
        std::string fingerprint = fingerprintOfPart(items, sampleRate);
        items = {};  // done with the copy; only the string travels on
        EventLoop::main().post([fingerprint = std::move(fingerprint), startTime, andEndTime,
                                target = std::move(target)] {
          if (auto delegate = target->delegate.lock()) {
            delegate->fingerprintGenerated(fingerprint, startTime, andEndTime);
          }
        });
      });
}

void TLRHasher::addAudioInAutonomousBufferData(const int16_t* data, uint32_t itemsCount,
                                               double time) {
  // The oldest slot's storage is reused for the newest block.
  std::rotate(autonomousBuffer_.begin(), autonomousBuffer_.begin() + 1, autonomousBuffer_.end());
  AutonomousSlot& newest = autonomousBuffer_.back();
  if (data == nullptr) itemsCount = 0;
  newest.items.assign(data, data + itemsCount);
  newest.time = time;
}

void TLRHasher::sendMessagesFromAutonomousBuffer() {
  // Slots stay as they are: switching on again replays the same blocks.
  for (const AutonomousSlot& slot : autonomousBuffer_) {
    generateHashAndSendFromData(slot.items.data(), static_cast<uint32_t>(slot.items.size()),
                                slot.time);
  }
}

}  // namespace tellora
