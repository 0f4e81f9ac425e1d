// `kavlen analyze` on media made here with ffmpeg: the signal file lands beside
// the media (or where -o says) with frame count and tempo printed; every
// failure is one line, a non-zero exit and no signal file, partial or temporary.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "kavlen/kavlen.h"
#include "media_samples.h"

namespace {

namespace fs = std::filesystem;
using mediatest::q;
using Names = std::vector<std::string>;

Names namesIn(const std::string& dir) {
  Names names;
  for (const auto& e : fs::directory_iterator(dir)) names.push_back(e.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

class CliAnalyze : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = mediatest::testFolder();
    tmp_ = dir_ + ".tmp";
    fs::create_directory(tmp_);  // a private TMPDIR shows leftovers
  }
  std::string path(const std::string& name) const { return dir_ + "/" + name; }

  void makeMedia(const std::string& name, const std::string& args) {
    const std::string cmd = "ffmpeg -nostdin -v error -y " + args + " " + q(path(name));
    ASSERT_EQ(system(cmd.c_str()), 0) << cmd;
  }

  // Runs the command; returns its exit code and fills out_ and err_.
  int analyze(const std::string& args) {
    mediatest::CliRun r = mediatest::kavlen("analyze " + args, "TMPDIR=" + q(tmp_));
    out_ = r.out;
    err_ = r.err;
    EXPECT_EQ(namesIn(tmp_), Names{}) << "temporary samples left behind";
    return r.code;
  }

  std::string dir_, tmp_, out_, err_;
};

TEST_F(CliAnalyze, WritesBesideTheMediaAndReportsFramesAndTempo) {
  // 60 Hz thumps every half second: 120 beats a minute, in stereo.
  makeMedia("beat.wav",
            "-f lavfi -i \"aevalsrc='0.9*sin(2*PI*60*mod(t\\,0.5))*exp(-12*mod(t\\,0.5))':s=44100:d=10\" -ac 2");
  ASSERT_EQ(analyze(q(path("beat.wav"))), 0) << err_;
  EXPECT_NE(out_.find("862 frames"), std::string::npos) << out_;  // 441000 samples, last block padded
  const size_t at = out_.find("tempo ");
  ASSERT_NE(at, std::string::npos) << out_;
  const double tempo = atof(out_.c_str() + at + 6);
  EXPECT_NEAR(tempo, 120.0, 2.4);
  EXPECT_EQ(err_, "") << "a short file shows no progress";
  std::unique_ptr<kvl_signals, void (*)(kvl_signals*)> s(kvl_signals_load(path("beat.wav.signals").c_str()),
                                                        kvl_signals_free);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->frame_count, 862u);
  EXPECT_NEAR(s->tempo, tempo, 0.06);

  // AAC at 48 kHz in MPEG-4 beside video, resampled to 44100, written where -o says.
  makeMedia("clip.mp4",
            "-f lavfi -i testsrc=size=64x48:rate=10:d=3 -f lavfi -i sine=frequency=300:sample_rate=48000:d=3 "
            "-c:v libx264 -pix_fmt yuv420p -c:a aac -shortest");
  fs::create_directory(path("out"));
  ASSERT_EQ(analyze(q(path("clip.mp4")) + " -o " + q(path("out/x.signals"))), 0) << err_;
  s.reset(kvl_signals_load(path("out/x.signals").c_str()));
  ASSERT_NE(s, nullptr);
  EXPECT_NEAR(s->frame_count, 3.0 * 44100 / 512, 6.0);  // the encoder may add priming
  EXPECT_NE(out_.find("no tempo"), std::string::npos) << "a steady tone has no beat: " << out_;
  EXPECT_EQ(namesIn(dir_), (Names{"beat.wav", "beat.wav.signals", "clip.mp4", "out"}));
  EXPECT_EQ(namesIn(path("out")), Names{"x.signals"});
}

TEST_F(CliAnalyze, FailuresAreOneLineAndLeaveNoSignalFile) {
  makeMedia("silent.mp4", "-f lavfi -i testsrc=size=64x48:rate=10:d=2 -c:v libx264 -pix_fmt yuv420p");
  makeMedia("ok.wav", "-f lavfi -i sine=sample_rate=44100:d=1");
  std::string junk(5000, '\0');
  for (int i = 0; i < 5000; i++) junk[i] = static_cast<char>((i * 7919) & 0xff);
  std::ofstream(path("junk.wav"), std::ios::binary) << junk;
  std::ofstream(path("keep.signals"), std::ios::binary) << "older contents";
  const Names all = {"junk.wav", "keep.signals", "ok.wav", "silent.mp4"};
  auto p = [&](const std::string& name) { return q(path(name)); };
  // {arguments, words the message holds}
  const std::pair<std::string, std::string> cases[] = {
      {p("silent.mp4"), ""},  // no audio track
      {p("missing.wav"), ""},
      {p("junk.wav"), ""},  // undecodable
      {p("ok.wav") + " -o " + p("no/such/dir/ok.signals"), ""},
      {p("silent.mp4") + " -o " + p("keep.signals"), ""},  // older file left untouched
      {"", "no media file"},
      {"--bogus " + p("ok.wav"), "unknown option"},
      {p("ok.wav") + " -o", ""}};
  for (const auto& [args, words] : cases) {
    SCOPED_TRACE(args);
    EXPECT_NE(analyze(args), 0);
    EXPECT_EQ(out_, "");
    EXPECT_EQ(err_.find('\n'), err_.size() - 1) << "one line: " << err_;
    EXPECT_TRUE(err_.rfind("kavlen: analyze: ", 0) == 0 && err_.find(words) != std::string::npos) << err_;
    EXPECT_EQ(namesIn(dir_), all);
  }
  EXPECT_EQ(mediatest::readText(path("keep.signals")), "older contents");
}

}  // namespace
