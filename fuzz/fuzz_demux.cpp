// libFuzzer target over the media demuxing path: any bytes are opened as a
// media file in memory, the first audio track is decoded to mono, and the
// first video track is read through SequentialVideoSource at times that go
// forward, back past the reopen limit, and past the end. Nothing may crash,
// hang or hand out a picture whose buffer does not match its size.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "audio_decode.h"
#include "sequential_video_source.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > (1u << 20)) return 0;
  auto bytes = std::make_shared<const std::vector<uint8_t>>(data, data + size);

  std::string error;
  kavlen::AudioDecodeInfo info;
  size_t budget = 4u << 20;  // samples: enough for any seed, bounded for hostile headers
  bool ok = kavlen::decodeAudioMonoFromMemory(
      bytes, 22050,
      [&](const float* s, size_t n, double progress) {
        if (!s || n == 0) abort();
        if (!(progress == -1 || (progress >= 0 && progress <= 1))) abort();
        budget = n >= budget ? 0 : budget - n;
        return budget > 0;
      },
      error, info);
  if (!ok && error.empty()) abort();  // every failure says why
  if (error.find('\n') != std::string::npos) abort();

  auto src = kavlen::SequentialVideoSource::createFromMemory(bytes);
  if (!src) return 0;
  // Enormous declared sizes only measure the allocator.
  if (static_cast<int64_t>(src->naturalWidth()) * src->naturalHeight() > 2048 * 2048) return 0;
  for (double t : {0.0, 0.04, 0.5, 0.3, 2.0, 0.9, 30.0, 0.0, double(NAN)}) {
    const kavlen::VideoImage* im = src->frame(t);
    if (!im) continue;
    if (im->width <= 0 || im->height <= 0) abort();
    if (im->rgba.size() != static_cast<size_t>(im->width) * im->height * 4) abort();
    if (std::isnan(src->currentTime())) abort();
  }
  return 0;
}
