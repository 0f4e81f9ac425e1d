// The movie writer and the audio mix, checked on real files with FFmpeg's
// own probing and decoding.
#include <cmath>
#include <filesystem>

#include "audio_mix.h"
#include "export_test_util.h"

using namespace kavlen::exporter;
using exporttest::probe;
using mediatest::make;

namespace {

MovieSettings settings(const std::string& path, const std::string& codec, int w = 64, int h = 48) {
  MovieSettings s;
  s.path = path;
  s.codec = codec;
  s.width = w;
  s.height = h;
  s.fps = 30;
  return s;
}

// A WAV of constant or ramping stereo float samples (exactly what the mix decodes).
std::string wav(const std::string& name, const std::string& expr, double seconds, int channels = 2) {
  return make(name + ".wav", "-f lavfi -i \"aevalsrc=" + expr + ":s=44100:d=" + std::to_string(seconds) +
                                 "\" -ac " + std::to_string(channels) + " -c:a pcm_f32le");
}

AudioClip clip(const std::string& path, int64_t startMs, int64_t lengthMs) {
  AudioClip c;
  c.path = path;
  c.startMs = startMs;
  c.lengthMs = lengthMs;
  c.clipLengthMs = lengthMs;
  return c;
}

}  // namespace

TEST(ExportWriter, CodecsProfilesAndContainers) {
  struct Case {
    const char* codec;
    const char* ext;
    std::vector<std::string> facts;
  } cases[] = {
      {"h264", "mp4", {"codec_name=h264", "profile=High", "TAG:major_brand=isom"}},
      {"vp9", "mp4", {"codec_name=h264", "profile=High"}},  // unknown names are H.264
      {"hevc", "mp4", {"codec_name=hevc", "profile=Main", "codec_tag_string=hvc1", "TAG:major_brand=isom"}},
      {"prores", "mov", {"codec_name=prores", "profile=Standard", "codec_tag_string=apcn", "TAG:major_brand=qt  "}},
  };
  std::string dir = mediatest::testFolder();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.codec);
    std::string path = dir + "/" + c.codec + "." + c.ext, error;
    auto w = MovieWriter::create(settings(path, c.codec), error);
    ASSERT_TRUE(w) << error;
    exporttest::pushQuadrants(*w, 6);
    ASSERT_TRUE(w->finishWriting(error)) << error;
    std::string facts = probe(path);
    for (const std::string& f : c.facts) EXPECT_NE(facts.find(f + "\n"), std::string::npos) << f << " in\n" << facts;
    EXPECT_EQ(facts.find("codec_type=audio"), std::string::npos);
    EXPECT_EQ(exporttest::frameTimesMs(path), (std::vector<long>{0, 33, 66, 100, 133, 166}));
    // Colours come back within the loss of 4:2:0 / 4:2:2 and the codec.
    auto frames = exporttest::decodeRgba(path, 64, 48);
    ASSERT_EQ(frames.size(), 6u);
    EXPECT_TRUE(exporttest::quadrantsMatch(frames.back(), 64, 48, 10));
  }
}

TEST(ExportWriter, BitRateRule) {
  EXPECT_EQ(videoBitRate(0, 1920, 1080), 12441600);
  EXPECT_EQ(videoBitRate(0, 640, 360), 4000000);
  EXPECT_EQ(videoBitRate(-5, 640, 360), 4000000);
  EXPECT_EQ(videoBitRate(2500000, 1920, 1080), 2500000);
  // The encoders record the rate they were given in their stream headers.
  std::string dir = mediatest::testFolder();
  for (const char* codec : {"h264", "hevc"}) {
    std::string path = dir + "/" + codec + ".mp4", error;
    MovieSettings s = settings(path, codec);
    s.bitrate = 2500000;
    auto w = MovieWriter::create(s, error);
    ASSERT_TRUE(w) << error;
    exporttest::pushQuadrants(*w, 2);
    ASSERT_TRUE(w->finishWriting(error)) << error;
    EXPECT_NE(mediatest::readText(path).find("bitrate=2500"), std::string::npos) << codec;
  }
}

TEST(ExportWriter, RefusedSettingsAndPaths) {
  std::string dir = mediatest::testFolder(), error;
  EXPECT_FALSE(MovieWriter::create(settings(dir + "/odd.mp4", "h264", 63, 48), error));
  EXPECT_NE(error.find("even"), std::string::npos) << error;
  MovieSettings zeroFps = settings(dir + "/zero.mp4", "h264");
  zeroFps.fps = 0;
  EXPECT_FALSE(MovieWriter::create(zeroFps, error));
  EXPECT_FALSE(std::filesystem::exists(dir + "/odd.mp4") || std::filesystem::exists(dir + "/zero.mp4"));
  // Frames whose time does not move forward are refused, the writer goes on.
  auto w = MovieWriter::create(settings(dir + "/t.mp4", "h264"), error);
  ASSERT_TRUE(w) << error;
  exporttest::pushQuadrants(*w, 2);
  EXPECT_FALSE(w->appendFrame(w->frameBuffer(), 33, error));
  EXPECT_TRUE(w->appendFrame(w->frameBuffer(), 66, error)) << error;
  EXPECT_TRUE(w->finishWriting(error)) << error;
}

TEST(ExportWriterThreads, CancelStopsAndRemovesTheFile) {
  std::string dir = mediatest::testFolder(), error;
  std::string path = dir + "/c.mp4";
  auto w = MovieWriter::create(settings(path, "h264", 320, 240), error);
  ASSERT_TRUE(w) << error;
  exporttest::pushQuadrants(*w, 10);
  w->cancel();
  EXPECT_EQ(w->status(), MovieWriter::Status::Cancelled);
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_FALSE(w->frameBuffer());
  EXPECT_FALSE(w->waitUntilReady());
  EXPECT_FALSE(w->finishWriting(error));
  // A writer dropped unfinished is cancelled too.
  w = MovieWriter::create(settings(path, "h264"), error);
  exporttest::pushQuadrants(*w, 2);
  w.reset();
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(ExportAudioMix, PlacementFadesVolumeAndSums) {
  std::string half = wav("half", "0.5|0.25", 4);
  ASSERT_FALSE(half.empty());
  {  // A clip at 1000 ms for 500 ms: 66150 frames, silent up to 44100.
    auto mix = mixAudio({clip(half, 1000, 500)});
    ASSERT_EQ(mix.size(), 2u * 66150);
    EXPECT_EQ(mix[2 * 44099], 0.0f);
    EXPECT_EQ(mix[2 * 44100], 0.5f);
    EXPECT_EQ(mix[2 * 44100 + 1], 0.25f);
    EXPECT_EQ(mix.back(), 0.25f);
  }
  EXPECT_EQ(mixFrameCount({clip(half, 0, 1)}), 44);
  EXPECT_TRUE(mixAudio({clip(half, 0, 0)}).empty());
  {  // Fade-in of 1000 ms entered 500 ms in: half-way up, full after 500 ms.
    AudioClip c = clip(half, 0, 2000);
    c.fadeInMs = 1000;
    c.skipMs = 500;
    auto mix = mixAudio({c});
    EXPECT_EQ(mix[0], 0.25f);
    EXPECT_EQ(mix[2 * 11025], 0.375f);
    EXPECT_EQ(mix[2 * 22050], 0.5f);
  }
  {  // Fade-out over the last second of 3000 ms, reaching 0 at the end.
    AudioClip c = clip(half, 0, 3000);
    c.fadeOutMs = 1000;
    c.clipLengthMs = 3000;
    auto mix = mixAudio({c});
    EXPECT_EQ(mix[2 * 88200], 0.5f);
    EXPECT_EQ(mix[2 * (132300 - 22050)], 0.25f);
    EXPECT_LT(mix[2 * 132299], 1e-4f);
    // A longer own length cuts the fade off: at the end the gain is still 0.5.
    c.lengthMs = 2500;
    c.clipLengthMs = 3000;
    EXPECT_EQ(mixAudio({c})[2 * (110250 - 1)], 0.5f * (22051.0f / 44100.0f));
  }
  {  // Overlapping fades: the smaller gain wins.
    AudioClip c = clip(half, 0, 1000);
    c.fadeInMs = 1000;
    c.fadeOutMs = 1000;
    auto mix = mixAudio({c});
    EXPECT_EQ(mix[2 * 11025], 0.125f);   // in: 0.25
    EXPECT_EQ(mix[2 * 33075], 0.125f);   // out: 0.25
  }
  {  // Volume 2 doubles without clipping; two clips at one place add up.
    AudioClip loud = clip(half, 0, 100);
    loud.volume = 2.0f;
    auto mix = mixAudio({loud, clip(half, 0, 100), clip(half, 50, 10)});
    EXPECT_EQ(mix[2 * 10], 1.5f);
    EXPECT_EQ(mix[2 * 2205 + 2], 2.0f);
  }
}

TEST(ExportAudioMix, FileOffsetsMonoFilesAndUnreadableClips) {
  std::string ramp = wav("ramp", "t|-t", 3), mono = wav("mono", "0.3", 1, 1);
  AudioClip c = clip(ramp, 100, 200);
  c.skipMs = 500;
  c.fileOffsetMs = 1000;
  std::vector<std::string> warnings;
  AudioClip missing = clip("/no/such.wav", 0, 300);
  auto mix = mixAudio({c, clip(mono, 0, 50), missing}, &warnings);
  // The first frame played is the file's frame at 1.5 s.
  const int64_t at = msToMixFrames(100);
  EXPECT_EQ(mix[2 * at], static_cast<float>(66150 / 44100.0));
  EXPECT_EQ(mix[2 * at + 1], -static_cast<float>(66150 / 44100.0));
  EXPECT_EQ(mix[2 * (at + 10)], static_cast<float>(66160 / 44100.0));
  EXPECT_EQ(mix[0], 0.3f);  // mono plays on both sides at full level
  EXPECT_EQ(mix[1], 0.3f);
  ASSERT_EQ(warnings.size(), 1u);
  EXPECT_NE(warnings[0].find("/no/such.wav"), std::string::npos);
}

TEST(ExportAudioMix, TrackFollowsTheVideoWithinAacLoss) {
  std::string tone = make("tone.wav", "-f lavfi -i \"sine=frequency=440:sample_rate=44100:duration=2\" -ac 2");
  std::string path = mediatest::testFolder() + "/a.mp4", error;
  MovieSettings s = settings(path, "h264");
  s.audio = true;
  auto w = MovieWriter::create(s, error);
  ASSERT_TRUE(w) << error;
  exporttest::pushQuadrants(*w, 15);
  w->markVideoFinished();
  AudioClip c = clip(tone, 0, 1500);
  c.fadeInMs = 500;
  c.volume = 0.8f;
  writeAudio({c}, *w);
  ASSERT_TRUE(w->finishWriting(error)) << error;
  std::string facts = probe(path);
  EXPECT_NE(facts.find("codec_name=aac\n"), std::string::npos) << facts;
  EXPECT_NE(facts.find("sample_rate=44100\nchannels=2\n"), std::string::npos) << facts;
  auto want = mixAudio({c});
  auto got = exporttest::decodeAudio(path);
  ASSERT_GE(got.size(), want.size());
  double err = 0, energy = 0;
  for (size_t i = 0; i < want.size(); i++) {
    err += (got[i] - want[i]) * (got[i] - want[i]);
    energy += want[i] * want[i];
  }
  EXPECT_LT(err / energy, 1e-3) << "the decoded track is not the mix, in time and level";
}
