// Audio decoding, peaks and raw sample files on ffmpeg-made files: known
// peaks, the bucket count rules, lengths, and bad input.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>

#include "audio_decode.h"
#include "media_samples.h"
#include "waveform.h"

namespace wf = kavlen::waveform;

namespace {

// A mono WAV at `rate` of `seconds`, its samples an ffmpeg expression of t.
std::string toneFile(const std::string& name, const std::string& expr, int rate, double seconds,
                     const std::string& codec = "pcm_f32le") {
  return mediatest::make(name, "-f lavfi -i \"aevalsrc=exprs='" + expr + "':s=" + std::to_string(rate) +
                                   ":d=" + std::to_string(seconds) + "\" -c:a " + codec);
}

}  // namespace

TEST(AudioDecode, FoldsChannelsResamplesAndReportsProgress) {
  // Left a sine at 0.8, right silent: the mono track is the sine at 0.4.
  std::string stereo = toneFile("stereo.wav", "0.8*sin(2*PI*100*t)|0", 48000, 1);
  std::vector<float> samples;
  std::string error;
  ASSERT_TRUE(kavlen::decodeAudioMono(stereo, 48000, samples, error)) << error;
  ASSERT_EQ(samples.size(), 48000u);
  for (size_t i = 0; i < samples.size(); i += 1009)
    ASSERT_NEAR(samples[i], 0.4 * std::sin(2 * M_PI * 100 * (i / 48000.0)), 1e-5) << i;
  ASSERT_TRUE(kavlen::decodeAudioMono(stereo, 22050, samples, error)) << error;
  EXPECT_NEAR(double(samples.size()), 22050, 64);
  EXPECT_NEAR(*std::max_element(samples.begin(), samples.end()), 0.4f, 0.005f);

  std::string tone = toneFile("half.wav", "0.5*sin(2*PI*440*t)", 44100, 2);
  kavlen::AudioDecodeInfo info;
  double lastProgress = -1;
  size_t chunks = 0;
  auto progress = [&](const float*, size_t, double p) {
    EXPECT_GE(p, lastProgress);
    lastProgress = p;
    return ++chunks > 0;
  };
  ASSERT_TRUE(kavlen::decodeAudioMono(tone, 44100, progress, error, info)) << error;
  EXPECT_TRUE(info.complete && info.samples == 88200u && chunks > 1) << info.samples << " in " << chunks;
  EXPECT_NEAR(info.duration, 2.0, 1e-3);
  EXPECT_NEAR(lastProgress, 1.0, 1e-3);
  EXPECT_FALSE(kavlen::decodeAudioMono(tone, 44100, [](const float*, size_t, double) { return false; }, error, info));
  EXPECT_EQ(error, "cancelled");
}

TEST(AudioDecode, BadInputFailsWithOneLineAndNeverHangs) {
  std::vector<float> samples;
  std::string error;
  EXPECT_FALSE(kavlen::decodeAudioMono(mediatest::pathOf("nothing.wav"), 44100, samples, error));
  EXPECT_TRUE(error.find("nothing.wav") != std::string::npos && error.find('\n') == std::string::npos) << error;
  EXPECT_FALSE(kavlen::decodeAudioMono(mediatest::textFile("words.mp3", "just words"), 44100, samples, error));
  std::string silentVideo = mediatest::indexedVideo(25, 1, false);
  EXPECT_FALSE(kavlen::decodeAudioMono(silentVideo, 0, samples, error));
  EXPECT_FALSE(kavlen::decodeAudioMono(silentVideo, 44100, samples, error));
  EXPECT_NE(error.find("no audio track"), std::string::npos) << error;
  // A header claiming a billion hertz: refused, not resampled for minutes.
  std::vector<uint8_t> wav = mediatest::readBytes(toneFile("rate.wav", "0.5", 8000, 0.1, "pcm_s16le"));
  ASSERT_GT(wav.size(), 44u);
  const uint32_t absurd = 1073749824u;
  memcpy(&wav[24], &absurd, 4);  // the canonical header's rate field
  std::string bad = mediatest::pathOf("absurd_rate.wav");
  mediatest::writeBytes(bad, wav);
  auto started = std::chrono::steady_clock::now();
  EXPECT_FALSE(kavlen::decodeAudioMono(bad, 22050, samples, error));
  EXPECT_NE(error.find("sample rate"), std::string::npos) << error;
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
  // A pipe nobody writes to would block a reader for good.
  std::string fifo = mediatest::pathOf("pipe.wav");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_FALSE(kavlen::decodeAudioMono(fifo, 44100, samples, error));
  EXPECT_NE(error.find("not a regular file"), std::string::npos) << error;
  EXPECT_FALSE(kavlen::decodeAudioMono(mediatest::folder(), 44100, samples, error));
}

TEST(WaveformPeaks, CountAndBucketRules) {
  for (auto [asked, got] : {std::pair<int64_t, int>{0, 16}, {-7, 16}, {16, 16}, {1000, 1000}, {100000, 4000}})
    EXPECT_EQ(wf::clampPeakCount(asked), got) << asked;
  EXPECT_EQ(wf::samplesPerBucket(10, 1000), 220);  // 220500 / 1000
  for (double bad : {0.001, 0.0, double(NAN), double(INFINITY), -3.0}) EXPECT_EQ(wf::samplesPerBucket(bad, 1000), 1);

  // 100 samples in 1000 buckets: one each, the rest 0.
  auto tiny = wf::peaks(mediatest::make("tiny.wav", "-f lavfi -i \"aevalsrc=exprs='0.5':s=22050\" "
                                                    "-af atrim=end_sample=100 -c:a pcm_f32le"),
                        1000);
  ASSERT_TRUE(tiny.has_value());
  ASSERT_EQ(tiny->peaks.size(), 1000u);
  for (int i = 0; i < 1000; i++) ASSERT_FLOAT_EQ(tiny->peaks[i], i < 100 ? 0.5 : 0.0) << i;
  EXPECT_EQ(wf::peaks(mediatest::pathOf("tiny.wav"), 100000).value().peaks.size(), 4000u);  // clamped there too
}

TEST(WaveformPeaks, EachBucketHoldsThePeakOfItsSliceCappedAtOne) {
  auto p = wf::peaks(toneFile("steps.wav", "if(lt(t\\,1)\\,0.25\\,0.75)*sin(2*PI*441*t)", 22050, 2), 16);
  ASSERT_TRUE(p.has_value());
  EXPECT_NEAR(p->duration, 2.0, 1e-3);
  ASSERT_EQ(p->peaks.size(), 16u);
  for (int i = 0; i < 16; i++) EXPECT_NEAR(p->peaks[i], i < 8 ? 0.25 : 0.75, 2e-3) << "bucket " << i;
  p = wf::peaks(toneFile("loud.wav", "1.5*sin(2*PI*200*t)", 22050, 1), 16);
  ASSERT_TRUE(p.has_value());
  for (double v : p->peaks) EXPECT_EQ(v, 1.0);

  for (std::string bad : {mediatest::indexedVideo(30, 2, false), mediatest::textFile("fake.m4a", "nope"),
                          mediatest::pathOf("absent.m4a")})
    EXPECT_FALSE(wf::peaks(bad, 100).has_value()) << bad;
}

TEST(WaveformPcm, WritesEveryFrameAt44100AndRefusesBadInput) {
  std::string tone = toneFile("pcm_src.wav", "0.5*sin(2*PI*440*t)", 44100, 1.5);
  std::string out = mediatest::pathOf("pcm_out.f32");
  mediatest::writeBytes(out, std::vector<uint8_t>(1 << 20, 0x7f));  // a longer file is replaced
  EXPECT_EQ(wf::pcm(tone, out), std::optional<int>(44100));
  std::vector<uint8_t> bytes = mediatest::readBytes(out);
  ASSERT_EQ(bytes.size(), 66150u * 4);
  for (size_t i = 0; i < 66150; i += 997) {
    float s;
    memcpy(&s, &bytes[i * 4], 4);
    ASSERT_NEAR(s, 0.5 * std::sin(2 * M_PI * 440 * (i / 44100.0)), 1e-4) << i;
  }

  std::string none = mediatest::pathOf("untouched.f32");
  EXPECT_FALSE(wf::pcm(mediatest::pathOf("absent.wav"), none).has_value());
  EXPECT_FALSE(wf::pcm(mediatest::indexedVideo(30, 2, false), none).has_value());
  EXPECT_FALSE(std::filesystem::exists(none));
  EXPECT_FALSE(wf::pcm(tone, mediatest::pathOf("no/such/dir/x.f32")).has_value());

  // Cut short: peaks give what decodes, pcm refuses.
  std::string full = mediatest::make(
      "long.m4a", "-f lavfi -i \"anoisesrc=d=6:a=0.5:s=44100\" -c:a aac -b:a 128k -movflags +faststart");
  std::string cut = mediatest::truncatedCopy(full, 0.5, "long_cut.m4a");
  auto p = wf::peaks(cut, 60);
  ASSERT_TRUE(p.has_value());
  EXPECT_NEAR(p->duration, 6.0, 0.1);  // the header still tells the whole length
  EXPECT_TRUE(p->peaks[5] > 0.2 && p->peaks[59] == 0.0) << p->peaks[5] << " " << p->peaks[59];
  EXPECT_FALSE(wf::pcm(cut, mediatest::pathOf("cut.f32")).has_value());
  EXPECT_TRUE(wf::pcm(full, mediatest::pathOf("full.f32")).has_value());
}
