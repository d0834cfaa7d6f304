// Cuts the recorder's blocks into overlapping parts of about half a second,
// hashes each part on the shared "hashQueue" and hands the Base64 fingerprint
// with the part's wall-clock times to the delegate on the SDK's loop.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "audio/recorder_delegate.h"
#include "fingerprint/hasher_delegate.h"

namespace tellora {

class TLRRecorder;

// The highest set bit of v as a value (0 for 0).
uint32_t hibit(uint32_t v);

// Everything but the hashing itself runs on the SDK's loop (EventLoop::main()):
// creation, the recorder's blocks, setSending, setDelegate. The hasher may be
// destroyed on any thread; parts already cut still reach the delegate.
class TLRHasher : public TLRRecorderDelegate {
 public:
  // A hasher that becomes `recorder`'s delegate (held weakly by the recorder),
  // not sending yet. `partDuration` in seconds; parts never get shorter than
  // one frame and two steps, the least that yields a hash word.
  static std::shared_ptr<TLRHasher> create(std::shared_ptr<TLRRecorder> recorder,
                                           double partDuration);
  ~TLRHasher() override = default;
  TLRHasher(const TLRHasher&) = delete;
  TLRHasher& operator=(const TLRHasher&) = delete;

  // hibit of duration * sampleRate, the product truncated toward zero.
  static uint32_t calcFrameLengthWithDuration(double duration, double andSampleRate);

  // A block from the recorder: appended while sending, else remembered in the
  // autonomous buffer. `data` is read during the call only.
  void audioDataReceived(const int16_t* data, uint32_t itemsCount, double time) override;

  // Switching on first replays the autonomous buffer, every time, even when
  // already on. The sample buffer and its fill level survive the switches.
  void setSending(bool sending);
  bool sending() const { return sending_; }

  // Appends the items, cutting a part whenever an item finds the buffer full;
  // that item is dropped. `time` is the monotonic tick of the first item.
  void generateHashAndSendFromData(const int16_t* data, uint32_t itemsCount, double time);
  // Hashes the buffered items as one part (wall-clock ms) and keeps the last
  // frame and step of them for the next part. The pipeline calls it with a
  // full buffer; an empty buffer does nothing.
  void calcBufferWithStartTime(double startTime, double andEndTime);
  // Copies the items and queues their hashing; the fingerprint follows on the loop.
  void calcAudioHashWithData(const int16_t* data, uint32_t withItemsCount, double startTime,
                             double andEndTime);
  // Remembers a block in the newest of four slots, dropping the oldest.
  void addAudioInAutonomousBufferData(const int16_t* data, uint32_t itemsCount, double time);
  // Replays the four slots, oldest first, through generateHashAndSendFromData.
  void sendMessagesFromAutonomousBuffer();

  std::weak_ptr<TLRHasherDelegate> delegate() const { return target_->delegate; }
  void setDelegate(std::weak_ptr<TLRHasherDelegate> delegate) {
    target_->delegate = std::move(delegate);
  }
  const std::shared_ptr<TLRRecorder>& recorder() const { return recorder_; }

  uint32_t framelength() const { return framelength_; }
  uint32_t advance() const { return advance_; }
  uint32_t bufferItemsCount() const { return bufferItemsCount_; }
  uint32_t bufferBytesSize() const { return bufferBytesSize_; }
  uint32_t bufferItemsFill() const { return bufferItemsFill_; }
  // The whole sample buffer, bufferItemsCount items (the first
  // bufferItemsFill of them are the current part).
  std::span<const int16_t> buffer() const { return {buffer_.data(), bufferItemsCount_}; }
  // Wall-clock ms minus monotonic ms, refreshed at every appended block.
  double timeDifference() const { return timeDifference_; }

  // Kept for the interface; nothing reads or writes it.
  double much_time() const { return much_time_; }
  void setMuch_time(double value) { much_time_ = value; }

 private:
  // Where fingerprints go. Shared with the jobs in flight rather than the
  // hasher itself, so that a job never keeps the hasher (and its recorder)
  // alive, yet parts cut before the hasher went away still arrive, at the
  // delegate set when they arrive.
  struct DeliveryTarget {
    std::weak_ptr<TLRHasherDelegate> delegate;  // read and written on the loop only
  };

  struct AutonomousSlot {
    std::vector<int16_t> items;
    double time = 0;
  };

  TLRHasher(std::shared_ptr<TLRRecorder> recorder, double partDuration);
  void refreshTimeDifference();

  std::shared_ptr<TLRRecorder> recorder_;
  std::shared_ptr<DeliveryTarget> target_ = std::make_shared<DeliveryTarget>();
  bool sending_ = false;

  uint32_t framelength_ = 0;
  uint32_t advance_ = 0;
  uint32_t bufferItemsCount_ = 0;
  uint32_t bufferBytesSize_ = 0;
  uint32_t bufferItemsFill_ = 0;
  std::vector<int16_t> buffer_;

  double timeDifference_ = 0;
  double much_time_ = 0;

  // The last four blocks received while not sending; slot 3 is the newest.
  // The items are copied: the recorder reuses its buffers, and a replay of
  // references would hash whatever audio those buffers hold by then.
  std::array<AutonomousSlot, 4> autonomousBuffer_;
};

}  // namespace tellora
