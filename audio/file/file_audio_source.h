// An audio file played as if a microphone heard it: for the tools, demos and
// tests on machines without a microphone. Lives in tellora_audiofile, not in
// libtellora.so.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tellora/audio_source.h"

namespace tellora {

// Every file readAudioFile() reads, converted to the recorder's rate, mono,
// 16-bit, in blocks of the requested size, paced in real time on the SDK's
// loop. Without looping the last block may be shorter and then delivery just
// ends; with looping the file starts over inside the block.
class TLRFileAudioSource final : public TLRAudioSource {
 public:
  // Internal: the decoded file shared by the sources of one factory, and the
  // state of one run.
  struct DecodedFile;
  struct Playback;

  TLRFileAudioSource(std::string path, bool looping);
  TLRFileAudioSource(std::shared_ptr<DecodedFile> file, bool looping);
  ~TLRFileAudioSource() override;
  TLRFileAudioSource(const TLRFileAudioSource&) = delete;
  TLRFileAudioSource& operator=(const TLRFileAudioSource&) = delete;

  // Decodes the file at the requested rate unless already done; a file that
  // cannot be read fails the start (status -1, "readAudioFile"), and says why
  // in the log.
  TLRAudioStartResult start(const TLRAudioSourceFormat& format, BlockSink sink) override;
  void stop() override;

 private:
  std::shared_ptr<DecodedFile> file_;
  bool looping_;
  std::shared_ptr<Playback> playback_;
};

// Sources playing `path`; the file is decoded once, on the first start, and
// kept for the restarts. A file that cannot be read fails every start, which
// the recorder retries.
TLRAudioSourceFactory fileAudioSourceFactory(std::string path, bool looping);

}  // namespace tellora
