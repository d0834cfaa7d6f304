// Captures the microphone as mono signed 16-bit PCM and hands every block to its
// delegate on the SDK's loop, stamped with the monotonic tick of its first item.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "audio/recorder_delegate.h"
#include "runtime/event_loop.h"
#include "tellora/audio_source.h"

namespace tellora {

// Posted on the default notification centre after every successful start.
inline constexpr const char* TLRAudioConnectSuccNotification = "audioConnectSucc";
// Posted before every retry of a failed start, with user info {"message": ...}.
inline constexpr const char* TLRAudioErrorNotification = "audioError";

// The stream description the recorder captures with.
struct TLRAudioFormat {
  double sampleRate = 0;
  uint32_t formatID = 0x6c70636d;  // 'lpcm'
  uint32_t formatFlags = 12;       // signed integer, packed
  uint32_t bytesPerPacket = 2;
  uint32_t framesPerPacket = 1;
  uint32_t bytesPerFrame = 2;
  uint32_t channelsPerFrame = 1;
  uint32_t bitsPerChannel = 16;
};

// All methods, construction included, are for the SDK's loop
// (EventLoop::main()); the destructor may run anywhere but on a thread the loop
// waits for.
//
// Route changes: there is no output port to override here and no route-change
// notification; the recorder always captures the system's default input. A
// route change that takes that input away (a device unplugged, the sound
// server gone) shows up as a source that stops delivering, and the stall
// watchdog restarts it through the usual retry path, which picks up whatever
// is the default input then. Nothing of the output routing is kept.
//
// The backend's callbacks reach the recorder through the sink they are given,
// so no process-wide pointer to the current recorder is kept either.
class TLRRecorder {
 public:
  // `sourceFactory` builds the audio backend at every start; the default is
  // the default input device through PortAudio.
  explicit TLRRecorder(double sampleRate, TLRAudioSourceFactory sourceFactory = {});
  ~TLRRecorder();
  TLRRecorder(const TLRRecorder&) = delete;
  TLRRecorder& operator=(const TLRRecorder&) = delete;

  // Does nothing while recording. A start that fails is retried after
  // attemptCount delay units (1, 2, 3, ... seconds), for ever, each retry
  // announced by "audioError". A source whose access was refused reports
  // error 101 to the error handler and is not retried.
  void startRecording();
  // Does nothing unless recording or waiting for a retry: a user's stop also
  // cancels a pending retry.
  void stopRecording();

  const TLRAudioFormat& audioFormat() const { return format_; }
  double sampleRate() const { return format_.sampleRate; }
  uint32_t bytesPerFrame() const { return format_.bytesPerFrame; }

  int64_t attemptCount() const { return attemptCount_; }
  bool isRec() const { return isRec_; }
  // Set at construction and at every start; nothing reads it.
  bool needSetStartTime() const { return needSetStartTime_; }
  // Always 0; nothing reads it.
  double cTime() const { return cTime_; }
  // Wall-clock seconds since 1970, truncated.
  int64_t currentTime() const;

  std::weak_ptr<TLRRecorderDelegate> delegate() const { return delegate_; }
  void setDelegate(std::weak_ptr<TLRRecorderDelegate> delegate) { delegate_ = std::move(delegate); }
  std::weak_ptr<TLRRecorderErrorsHandlerDelegate> errorHandler() const { return errorHandler_; }
  void setErrorHandler(std::weak_ptr<TLRRecorderErrorsHandlerDelegate> errorHandler) {
    errorHandler_ = std::move(errorHandler);
  }

  // The backend of the next start (a running recording keeps its source);
  // empty means PortAudio's default input.
  void setSourceFactory(TLRAudioSourceFactory sourceFactory);

  // One unit of the growing retry delay (one second unless a test shortens it).
  void setRetryDelayUnit(Duration unit) { retryDelayUnit_ = unit; }

 private:
  void setupAudioFormat(double sampleRate);
  uint32_t itemsPerBuffer() const;
  TLRAudioSource::BlockSink makeSink(uint64_t session);
  void deliverBlock(uint64_t session, const std::vector<int16_t>& items, double firstItemTicks);
  void watchForStall(uint64_t session, Duration timeout);
  void scheduleRetry(int status, const std::string& routine);
  void shutDownSource();

  TLRAudioFormat format_;
  TLRAudioSourceFactory sourceFactory_;
  std::unique_ptr<TLRAudioSource> source_;

  int64_t attemptCount_ = 1;
  bool isRec_ = false;
  bool needSetStartTime_ = true;
  double cTime_ = 0;
  std::weak_ptr<TLRRecorderDelegate> delegate_;
  std::weak_ptr<TLRRecorderErrorsHandlerDelegate> errorHandler_;

  Duration retryDelayUnit_ = std::chrono::seconds(1);
  uint64_t session_ = 0;          // one per start attempt: blocks of older runs are dropped
  uint64_t retryGeneration_ = 0;  // only the newest scheduled retry may run
  std::chrono::steady_clock::time_point lastBlockAt_;

  // Blocks reach the delegate in these four reused buffers, like the input
  // queue's buffers: a pointer the delegate keeps stays readable (with newer
  // audio in it) for as long as the recorder lives.
  std::array<std::vector<int16_t>, 4> buffers_;
  size_t nextBuffer_ = 0;

  // Loop tasks hold it weakly and do nothing once the recorder is gone.
  std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

}  // namespace tellora
