#include "audio/file/file_audio_source.h"

#include <algorithm>
#include <chrono>
#include <variant>

#include "audio/audio_ticks.h"
#include "audio/file/audio_file_reader.h"
#include "runtime/clock.h"
#include "runtime/event_loop.h"
#include "runtime/log.h"

namespace tellora {

// Lives on the loop: the timer tasks hold it weakly, so a stopped or destroyed
// source simply makes the next tick a no-op.
struct TLRFileAudioSource::Playback {
  std::shared_ptr<const std::vector<int16_t>> items;
  bool looping = false;
  uint32_t itemsPerBlock = 0;
  BlockSink sink;
  std::chrono::steady_clock::time_point startedAt;
  double startTicks = 0;
  double sampleRate = 0;
  uint64_t itemsDelivered = 0;
  size_t position = 0;  // next item of the file
  bool finished = false;
  bool stopped = false;
  std::vector<int16_t> block;

  // When block `itemsDelivered / itemsPerBlock` is complete, as a microphone
  // would have heard it: always measured from the start, so late ticks do not
  // add up.
  std::chrono::steady_clock::time_point dueOfNextBlock() const {
    const double seconds = static_cast<double>(itemsDelivered + itemsPerBlock) / sampleRate;
    return startedAt + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                           std::chrono::duration<double>(seconds));
  }

  void deliverOneBlock() {
    block.clear();
    while (block.size() < itemsPerBlock) {
      if (position == items->size()) {
        if (!looping) break;
        position = 0;
      }
      const size_t take = std::min<size_t>(itemsPerBlock - block.size(), items->size() - position);
      block.insert(block.end(), items->begin() + position, items->begin() + position + take);
      position += take;
    }
    if (!looping && position == items->size()) finished = true;
    if (block.empty()) return;
    const double firstItemTicks =
        startTicks + ticksForItems(static_cast<double>(itemsDelivered), sampleRate);
    itemsDelivered += block.size();
    sink(block.data(), static_cast<uint32_t>(block.size()), firstItemTicks);
  }
};

namespace {

void scheduleNextBlock(const std::shared_ptr<TLRFileAudioSource::Playback>& playback);

void onTick(const std::weak_ptr<TLRFileAudioSource::Playback>& weak) {
  const auto playback = weak.lock();
  if (!playback) return;
  // Catch up on every block that fell due while the loop was busy.
  while (!playback->stopped && !playback->finished &&
         playback->dueOfNextBlock() <= std::chrono::steady_clock::now()) {
    playback->deliverOneBlock();
  }
  if (!playback->stopped && !playback->finished) scheduleNextBlock(playback);
}

void scheduleNextBlock(const std::shared_ptr<TLRFileAudioSource::Playback>& playback) {
  const auto delay = playback->dueOfNextBlock() - std::chrono::steady_clock::now();
  std::weak_ptr<TLRFileAudioSource::Playback> weak = playback;
  EventLoop::main().postAfter(std::max(delay, Duration::zero()), [weak] { onTick(weak); });
}

}  // namespace

struct TLRFileAudioSource::DecodedFile {
  std::string path;
  int sampleRate = 0;
  std::shared_ptr<const std::vector<int16_t>> items;  // null until decoded
};

TLRFileAudioSource::TLRFileAudioSource(std::string path, bool looping)
    : TLRFileAudioSource(std::make_shared<DecodedFile>(DecodedFile{std::move(path), 0, nullptr}),
                         looping) {}

TLRFileAudioSource::TLRFileAudioSource(std::shared_ptr<DecodedFile> file, bool looping)
    : file_(std::move(file)), looping_(looping) {}

TLRFileAudioSource::~TLRFileAudioSource() {
  stop();
}

TLRAudioStartResult TLRFileAudioSource::start(const TLRAudioSourceFormat& format, BlockSink sink) {
  const int rate = static_cast<int>(format.sampleRate);
  if (!file_->items || file_->sampleRate != rate) {
    file_->items.reset();
    auto decoded = audiofile::readAudioFile(file_->path, rate);
    if (const auto* error = std::get_if<std::string>(&decoded)) {
      logf("%s", error->c_str());
      return TLRAudioStartResult::failure(-1, "readAudioFile");
    }
    file_->sampleRate = rate;
    file_->items = std::make_shared<const std::vector<int16_t>>(
        std::move(std::get<audiofile::DecodedAudio>(decoded).items));
  }
  if (file_->items->empty() || format.itemsPerBlock == 0) {
    return TLRAudioStartResult::failure(-1, "readAudioFile");
  }

  auto playback = std::make_shared<Playback>();
  playback->items = file_->items;
  playback->looping = looping_;
  playback->itemsPerBlock = format.itemsPerBlock;
  playback->sink = std::move(sink);
  playback->sampleRate = rate;
  playback->startedAt = std::chrono::steady_clock::now();
  playback->startTicks = monotonicTicks();
  playback_ = playback;
  scheduleNextBlock(playback);
  return TLRAudioStartResult::success();
}

void TLRFileAudioSource::stop() {
  if (playback_) playback_->stopped = true;
  playback_.reset();
}

TLRAudioSourceFactory fileAudioSourceFactory(std::string path, bool looping) {
  // Sources are made and started on the loop only, so the cache needs no lock.
  auto file = std::make_shared<TLRFileAudioSource::DecodedFile>(
      TLRFileAudioSource::DecodedFile{std::move(path), 0, nullptr});
  return [file, looping]() -> std::unique_ptr<TLRAudioSource> {
    return std::make_unique<TLRFileAudioSource>(file, looping);
  };
}

}  // namespace tellora
