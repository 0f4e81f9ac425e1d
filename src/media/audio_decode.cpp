#include "audio_decode.h"

#include <cmath>
#include <utility>

#include "media_input.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

namespace kavlen {

namespace {

constexpr int kMinInputRate = 1000;
constexpr int kMaxInputRate = 768000;

// Owns the FFmpeg objects of one decoding run.
struct AudioRun {
  AVCodecContext* codec = nullptr;
  SwrContext* swr = nullptr;
  AVPacket* packet = nullptr;
  AVFrame* frame = nullptr;
  // What `swr` was set up for; a stream may change these midway.
  int inFormat = -1, inRate = 0;
  AVChannelLayout inLayout{};

  ~AudioRun() {
    swr_free(&swr);
    av_channel_layout_uninit(&inLayout);
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&codec);
  }
};

class Decoder {
 public:
  Decoder(MediaInput& in, int rate, int channels, const AudioChunkFn& onChunk, AudioDecodeInfo& info)
      : in_(in), rate_(rate), channels_(channels), onChunk_(onChunk), info_(info) {}

  bool run(const AudioStartFn& onStart, std::string& error);

 private:
  bool configure(const AVFrame* f, std::string& error);
  // Converts `f` (or, with null, what the resampler still holds) and hands it
  // out. False when the caller cancelled or the conversion failed.
  bool emit(const AVFrame* f, std::string& error);
  bool drainDecoder(std::string& error);
  double progress() const {
    double expected = info_.duration * rate_;
    if (!std::isfinite(expected) || expected <= 0) return -1;
    return std::min(1.0, static_cast<double>(info_.samples) / expected);
  }

  MediaInput& in_;
  int rate_;
  int channels_;  // 1 or 2
  const AudioChunkFn& onChunk_;
  AudioDecodeInfo& info_;
  AudioRun r_;
  std::vector<float> out_;
  int damaged_ = 0;
  bool cancelled_ = false;
};

bool Decoder::configure(const AVFrame* f, std::string& error) {
  if (r_.swr && f->format == r_.inFormat && f->sample_rate == r_.inRate &&
      !av_channel_layout_compare(&f->ch_layout, &r_.inLayout))
    return true;
  if (r_.swr && !emit(nullptr, error)) return false;  // hand out what the old set-up still holds
  swr_free(&r_.swr);
  av_channel_layout_uninit(&r_.inLayout);

  AVChannelLayout in{};
  if (f->ch_layout.nb_channels <= 0) {
    error = "the audio of " + in_.name() + " has no channels";
    return false;
  }
  // A resampler for an absurd rate (damaged headers say a billion hertz)
  // takes minutes to build; no real audio lies outside these bounds.
  if (f->sample_rate < kMinInputRate || f->sample_rate > kMaxInputRate) {
    error = "the audio of " + in_.name() + " has an unusable sample rate (" + std::to_string(f->sample_rate) + " Hz)";
    return false;
  }
  if (f->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC)
    av_channel_layout_default(&in, f->ch_layout.nb_channels);
  else if (av_channel_layout_copy(&in, &f->ch_layout) < 0) {
    error = "out of memory";
    return false;
  }
  AVChannelLayout outLayout = AV_CHANNEL_LAYOUT_MONO;
  if (channels_ == 2) outLayout = AV_CHANNEL_LAYOUT_STEREO;
  int rc = swr_alloc_set_opts2(&r_.swr, &outLayout, AV_SAMPLE_FMT_FLT, rate_, &in,
                               static_cast<AVSampleFormat>(f->format), f->sample_rate, 0, nullptr);
  int n = in.nb_channels;
  if (rc >= 0 && channels_ == 1) {
    // Fold to mono as the plain mean of all channels, so a full-scale signal
    // stays full scale whatever the layout (FFmpeg's default matrix weighs
    // by position and can exceed 1.0 on stereo).
    std::vector<double> matrix(static_cast<size_t>(n), 1.0 / n);
    rc = swr_set_matrix(r_.swr, matrix.data(), n);
  } else if (rc >= 0 && n == 1) {
    // Mono to stereo: the same signal at full level on both sides (FFmpeg's
    // default puts the centre 3 dB down on each).
    double matrix[2] = {1.0, 1.0};
    rc = swr_set_matrix(r_.swr, matrix, 1);
  }
  if (rc >= 0) rc = swr_init(r_.swr);
  av_channel_layout_uninit(&in);
  // Remember the frame's own layout, so the next frames compare equal.
  if (rc >= 0) rc = av_channel_layout_copy(&r_.inLayout, &f->ch_layout);
  if (rc < 0) {
    swr_free(&r_.swr);
    error = "cannot convert the audio of " + in_.name() + ": " + avErrorText(rc);
    return false;
  }
  r_.inFormat = f->format;
  r_.inRate = f->sample_rate;
  return true;
}

bool Decoder::emit(const AVFrame* f, std::string& error) {
  for (;;) {
    int inCount = f ? f->nb_samples : 0;
    int capacity = swr_get_out_samples(r_.swr, inCount);
    if (capacity < 0) {
      error = "cannot convert the audio of " + in_.name() + ": " + avErrorText(capacity);
      return false;
    }
    if (capacity == 0) return true;
    out_.resize(static_cast<size_t>(capacity) * channels_);
    auto* dst = reinterpret_cast<uint8_t*>(out_.data());
    int got = swr_convert(r_.swr, &dst, capacity, f ? const_cast<const uint8_t**>(f->extended_data) : nullptr,
                          inCount);
    if (got < 0) {
      error = "cannot convert the audio of " + in_.name() + ": " + avErrorText(got);
      return false;
    }
    if (got > 0) {
      info_.samples += static_cast<size_t>(got);
      if (!onChunk_(out_.data(), static_cast<size_t>(got), progress())) {
        cancelled_ = true;
        error = "cancelled";
        return false;
      }
    }
    // With input, one call takes it all; when flushing, repeat until empty.
    if (f || got == 0) return true;
  }
}

bool Decoder::drainDecoder(std::string& error) {
  for (;;) {
    int rc = avcodec_receive_frame(r_.codec, r_.frame);
    if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return true;
    if (rc < 0) {
      damaged_++;
      return true;
    }
    bool ok = r_.frame->nb_samples > 0 ? configure(r_.frame, error) && emit(r_.frame, error) : true;
    av_frame_unref(r_.frame);
    if (!ok) return false;
  }
}

bool Decoder::run(const AudioStartFn& onStart, std::string& error) {
  info_ = AudioDecodeInfo{};
  info_.duration = in_.durationSeconds();
  int index = in_.firstStream(AVMEDIA_TYPE_AUDIO);
  if (index < 0) {
    error = in_.name() + " has no audio track";
    return false;
  }
  // One thread: audio decoders gain little from more, and the callers run
  // several decodes side by side.
  r_.codec = openDecoder(in_, index, 1, error);
  if (!r_.codec) return false;
  r_.packet = av_packet_alloc();
  r_.frame = av_frame_alloc();
  if (!r_.packet || !r_.frame) {
    error = "out of memory";
    return false;
  }
  if (onStart && !onStart(info_)) {
    error = "cancelled";
    return false;
  }

  AVFormatContext* fmt = in_.format();
  int readEnd = 0;
  for (;;) {
    int rc = av_read_frame(fmt, r_.packet);
    if (rc < 0) {
      readEnd = rc;
      break;
    }
    if (r_.packet->stream_index == index) {
      if (r_.packet->flags & AV_PKT_FLAG_CORRUPT) damaged_++;
      rc = avcodec_send_packet(r_.codec, r_.packet);
      if (rc < 0 && rc != AVERROR(EAGAIN)) damaged_++;
      av_packet_unref(r_.packet);
      if (!drainDecoder(error)) return false;
    } else {
      av_packet_unref(r_.packet);
    }
  }
  // The decoder and the resampler both hold a tail.
  avcodec_send_packet(r_.codec, nullptr);
  if (!drainDecoder(error)) return false;
  if (r_.swr && !emit(nullptr, error)) return false;

  info_.complete = readEnd == AVERROR_EOF && damaged_ == 0;
  if (info_.samples == 0 && damaged_ > 0) {
    error = "cannot decode the audio of " + in_.name();
    return false;
  }
  return true;
}

}  // namespace

bool decodeAudioMono(const std::string& path, int rate, const AudioChunkFn& onChunk, std::string& error,
                     AudioDecodeInfo& info, const AudioStartFn& onStart) {
  info = AudioDecodeInfo{};
  if (rate < kMinInputRate || rate > kMaxInputRate) {
    error = "unsupported sample rate " + std::to_string(rate);
    return false;
  }
  auto in = MediaInput::openFile(path, error);
  if (!in) return false;
  Decoder decoder(*in, rate, 1, onChunk, info);
  return decoder.run(onStart, error);
}

bool decodeAudio(const std::string& path, int rate, int channels, const AudioChunkFn& onChunk, std::string& error,
                 AudioDecodeInfo& info) {
  info = AudioDecodeInfo{};
  if (rate < kMinInputRate || rate > kMaxInputRate) {
    error = "unsupported sample rate " + std::to_string(rate);
    return false;
  }
  if (channels != 1 && channels != 2) {
    error = "unsupported channel count " + std::to_string(channels);
    return false;
  }
  auto in = MediaInput::openFile(path, error);
  if (!in) return false;
  Decoder decoder(*in, rate, channels, onChunk, info);
  return decoder.run({}, error);
}

bool decodeAudioMonoFromMemory(std::shared_ptr<const std::vector<uint8_t>> bytes, int rate,
                               const AudioChunkFn& onChunk, std::string& error, AudioDecodeInfo& info) {
  info = AudioDecodeInfo{};
  if (rate < kMinInputRate || rate > kMaxInputRate) {
    error = "unsupported sample rate " + std::to_string(rate);
    return false;
  }
  auto in = MediaInput::openMemory(std::move(bytes), error);
  if (!in) return false;
  Decoder decoder(*in, rate, 1, onChunk, info);
  return decoder.run({}, error);
}

bool decodeAudioMono(const std::string& path, int rate, const AudioChunkFn& onChunk, std::string& error) {
  AudioDecodeInfo info;
  return decodeAudioMono(path, rate, onChunk, error, info);
}

bool decodeAudioMono(const std::string& path, int rate, std::vector<float>& out, std::string& error,
                     const std::function<void(double progress)>& onProgress) {
  out.clear();
  AudioDecodeInfo info;
  auto collect = [&](const float* s, size_t n, double p) {
    out.insert(out.end(), s, s + n);
    if (onProgress) onProgress(p);
    return true;
  };
  return decodeAudioMono(path, rate, collect, error, info, [&](const AudioDecodeInfo& i) {
    double expected = i.duration * rate;
    if (std::isfinite(expected) && expected > 0 && expected < 1e9) out.reserve(static_cast<size_t>(expected) + 4096);
    return true;
  });
}

}  // namespace kavlen
