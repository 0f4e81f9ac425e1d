// `kavlen analyze` on media made here with ffmpeg: the signal file lands beside
// the media (or where -o says) with frame count and tempo printed; every
// failure is one line, a non-zero exit and no signal file, partial or temporary.
#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <vector>

#include "kavlen/kavlen.h"

namespace {

std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

std::vector<std::string> names_in(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d))
      if (e->d_name[0] != '.') names.push_back(e->d_name);
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  return names;
}

using Names = std::vector<std::string>;

class CliAnalyze : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/kavlen-cli-analyze-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    ASSERT_EQ(system(("mkdir '" + path(".tmp") + "'").c_str()), 0);  // private TMPDIR shows leftovers
  }
  void TearDown() override {
    if (!dir_.empty() && system(("rm -rf '" + dir_ + "'").c_str()) != 0) ADD_FAILURE() << "cleanup";
  }
  std::string path(const std::string& name) const { return dir_ + "/" + name; }
  std::string q(const std::string& name) const { return "'" + path(name) + "'"; }

  void make_media(const std::string& name, const std::string& args) {
    const std::string cmd = "ffmpeg -nostdin -v error -y " + args + " " + q(name);
    ASSERT_EQ(system(cmd.c_str()), 0) << cmd;
  }

  // Runs the command; returns its exit code and fills out_ and err_.
  int analyze(const std::string& args) {
    const std::string cmd = "TMPDIR=" + q(".tmp") + " timeout 120 '" + std::string(KAVLEN_EXE) + "' analyze " +
                            args + " >" + q(".stdout") + " 2>" + q(".stderr");
    const int status = system(cmd.c_str());
    out_ = slurp(path(".stdout"));
    err_ = slurp(path(".stderr"));
    EXPECT_EQ(names_in(path(".tmp")), Names{}) << "temporary samples left behind";
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  std::string dir_, out_, err_;
};

TEST_F(CliAnalyze, WritesBesideTheMediaAndReportsFramesAndTempo) {
  // 60 Hz thumps every half second: 120 beats a minute, in stereo.
  make_media("beat.wav",
             "-f lavfi -i \"aevalsrc='0.9*sin(2*PI*60*mod(t\\,0.5))*exp(-12*mod(t\\,0.5))':s=44100:d=10\" -ac 2");
  ASSERT_EQ(analyze(q("beat.wav")), 0) << err_;
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
  EXPECT_EQ(s->frame_rate, 86.1328125f);
  EXPECT_NEAR(s->tempo, tempo, 0.06);

  // AAC at 48 kHz in MPEG-4 beside video, resampled to 44100, written where -o says.
  make_media("clip.mp4",
             "-f lavfi -i testsrc=size=64x48:rate=10:d=3 -f lavfi -i sine=frequency=300:sample_rate=48000:d=3 "
             "-c:v libx264 -pix_fmt yuv420p -c:a aac -shortest");
  ASSERT_EQ(system(("mkdir " + q("out")).c_str()), 0);
  ASSERT_EQ(analyze(q("clip.mp4") + " -o " + q("out/x.signals")), 0) << err_;
  s.reset(kvl_signals_load(path("out/x.signals").c_str()));
  ASSERT_NE(s, nullptr);
  EXPECT_NEAR(s->frame_count, 3.0 * 44100 / 512, 6.0);  // the encoder may add priming
  EXPECT_NE(out_.find("no tempo"), std::string::npos) << "a steady tone has no beat: " << out_;
  EXPECT_EQ(names_in(dir_), (Names{"beat.wav", "beat.wav.signals", "clip.mp4", "out"}));
  EXPECT_EQ(names_in(path("out")), Names{"x.signals"});
}

TEST_F(CliAnalyze, FailuresAreOneLineAndLeaveNoSignalFile) {
  make_media("silent.mp4", "-f lavfi -i testsrc=size=64x48:rate=10:d=2 -c:v libx264 -pix_fmt yuv420p");
  make_media("ok.wav", "-f lavfi -i sine=sample_rate=44100:d=1");
  {
    std::ofstream junk(path("junk.wav"), std::ios::binary);
    for (int i = 0; i < 5000; i++) junk.put(static_cast<char>((i * 7919) & 0xff));
    std::ofstream old(path("keep.signals"), std::ios::binary);
    old << "older contents";
  }
  const Names all = {"junk.wav", "keep.signals", "ok.wav", "silent.mp4"};
  struct Case { std::string args, message; };
  const Case cases[] = {
      {q("silent.mp4"), ""},                                  // no audio track
      {q("missing.wav"), ""},
      {q("junk.wav"), ""},                                    // undecodable
      {q("ok.wav") + " -o " + q("no/such/dir/ok.signals"), ""},
      {q("silent.mp4") + " -o " + q("keep.signals"), ""},      // older file left untouched
      {"", "no media file"},
      {"--bogus " + q("ok.wav"), "unknown option"},
      {q("ok.wav") + " -o", ""}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args);
    EXPECT_NE(analyze(c.args), 0);
    EXPECT_EQ(out_, "");
    ASSERT_FALSE(err_.empty());
    EXPECT_EQ(err_.find('\n'), err_.size() - 1) << "one line: " << err_;
    EXPECT_EQ(err_.rfind("kavlen: analyze: ", 0), 0u) << err_;
    EXPECT_NE(err_.find(c.message), std::string::npos) << err_;
    EXPECT_EQ(names_in(dir_), all);
  }
  EXPECT_EQ(slurp(path("keep.signals")), "older contents");
}

}  // namespace
