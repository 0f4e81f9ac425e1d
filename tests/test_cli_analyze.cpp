// `kavlen analyze` on real media made here with ffmpeg: the signal file lands
// beside the media (or where -o says), the frame count and tempo are printed,
// long files show progress, and every failure is one line, a non-zero exit
// and no signal file, partial or temporary, left behind.
#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "kavlen/kavlen.h"

namespace {

struct Result {
  int rc = -1;
  std::string out, err;
};

std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

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

class CliAnalyze : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/kavlen-cli-analyze-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    // The command's raw samples go to TMPDIR; a private one shows leftovers.
    ASSERT_EQ(system(("mkdir '" + path(".tmp") + "'").c_str()), 0);
  }
  void TearDown() override {
    if (!dir_.empty() && system(("rm -rf '" + dir_ + "'").c_str()) != 0) ADD_FAILURE() << "cleanup";
  }
  std::string path(const std::string& name) const { return dir_ + "/" + name; }

  // Makes a media file with ffmpeg from lavfi inputs; `args` go before the output.
  void make_media(const std::string& name, const std::string& args) {
    std::string cmd = "ffmpeg -nostdin -v error -y " + args + " '" + path(name) + "'";
    ASSERT_EQ(system(cmd.c_str()), 0) << cmd;
  }

  Result analyze(const std::string& args) {
    Result r;
    std::string out = path(".stdout"), err = path(".stderr");
    std::string cmd = "TMPDIR='" + path(".tmp") + "' timeout 120 '" + std::string(KAVLEN_EXE) + "' analyze " + args + " >'" + out + "' 2>'" + err + "'";
    int status = system(cmd.c_str());
    r.rc = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    r.out = slurp(out);
    r.err = slurp(err);
    remove(out.c_str());
    remove(err.c_str());
    EXPECT_EQ(names_in(path(".tmp")), std::vector<std::string>{}) << "temporary samples left behind";
    return r;
  }

  // Checks the one-line error and that the directory holds only `expected`.
  void expect_failure(const Result& r, const std::vector<std::string>& expected) {
    EXPECT_NE(r.rc, 0);
    EXPECT_EQ(r.out, "");
    ASSERT_FALSE(r.err.empty());
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << "one line: " << r.err;
    EXPECT_EQ(r.err.rfind("kavlen: analyze: ", 0), 0u) << r.err;
    EXPECT_EQ(names_in(dir_), expected);
  }

  std::string dir_;
};

// 60 Hz thumps every half second: 120 beats a minute.
const char* kThumps = "-f lavfi -i \"aevalsrc='0.9*sin(2*PI*60*mod(t\\,0.5))*exp(-12*mod(t\\,0.5))':s=44100:d=10\"";

TEST_F(CliAnalyze, WritesBesideTheMediaAndReportsFramesAndTempo) {
  make_media("beat.wav", std::string(kThumps) + " -ac 2");
  Result r = analyze("'" + path("beat.wav") + "'");
  ASSERT_EQ(r.rc, 0) << r.err;
  // 10 s at 44100 Hz is 441000 samples: 862 blocks of 512, the last one padded.
  EXPECT_NE(r.out.find("862 frames"), std::string::npos) << r.out;
  double tempo = 0;
  size_t at = r.out.find("tempo ");
  ASSERT_NE(at, std::string::npos) << r.out;
  tempo = atof(r.out.c_str() + at + 6);
  EXPECT_NEAR(tempo, 120.0, 2.4);
  EXPECT_EQ(r.err, "") << "a short file shows no progress";

  std::unique_ptr<kvl_signals, void (*)(kvl_signals*)> s(kvl_signals_load(path("beat.wav.signals").c_str()),
                                                        kvl_signals_free);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->frame_count, 862u);
  EXPECT_EQ(s->frame_rate, 86.1328125f);
  EXPECT_NEAR(s->tempo, tempo, 0.06);
  EXPECT_EQ(names_in(dir_), (std::vector<std::string>{"beat.wav", "beat.wav.signals"}));
}

TEST_F(CliAnalyze, VideoFileWithAudioAndExplicitOutput) {
  // AAC at 48 kHz inside MPEG-4 next to a video track: resampled to 44100.
  make_media("clip.mp4",
             "-f lavfi -i testsrc=size=64x48:rate=10:d=3 -f lavfi -i sine=frequency=300:sample_rate=48000:d=3 "
             "-c:v libx264 -pix_fmt yuv420p -c:a aac -shortest");
  ASSERT_EQ(system(("mkdir '" + path("out") + "'").c_str()), 0);
  Result r = analyze("'" + path("clip.mp4") + "' -o '" + path("out/x.signals") + "'");
  ASSERT_EQ(r.rc, 0) << r.err;
  std::unique_ptr<kvl_signals, void (*)(kvl_signals*)> s(kvl_signals_load(path("out/x.signals").c_str()),
                                                        kvl_signals_free);
  ASSERT_NE(s, nullptr);
  // About 3 s of audio (the encoder may add a frame of priming).
  EXPECT_NEAR(s->frame_count, 3.0 * 44100 / 512, 6.0);
  EXPECT_NE(r.out.find(std::to_string(s->frame_count) + " frames"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("no tempo"), std::string::npos) << "a steady tone has no beat: " << r.out;
  EXPECT_FALSE(exists(path("clip.mp4.signals")));
  EXPECT_EQ(names_in(path("out")), std::vector<std::string>{"x.signals"});
  // The level of a steady tone is well above the gate for most frames.
  int loud = 0;
  for (uint32_t k = 0; k < s->frame_count; k++) loud += s->frames[5 * k] > 128;
  EXPECT_GT(loud, static_cast<int>(s->frame_count) / 2);
}

TEST_F(CliAnalyze, LongFileShowsProgress) {
  make_media("long.wav", "-f lavfi -i anoisesrc=sample_rate=44100:amplitude=0.3:d=75");
  Result r = analyze("'" + path("long.wav") + "'");
  ASSERT_EQ(r.rc, 0) << r.err;
  EXPECT_NE(r.err.find("decoding"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("100%"), std::string::npos) << r.err;
  EXPECT_NE(r.out.find(std::to_string(static_cast<int>(std::ceil(75.0 * 44100 / 512))) + " frames"),
            std::string::npos)
      << r.out;
}

TEST_F(CliAnalyze, FailuresLeaveNoSignalFile) {
  make_media("silent.mp4", "-f lavfi -i testsrc=size=64x48:rate=10:d=2 -c:v libx264 -pix_fmt yuv420p");
  expect_failure(analyze("'" + path("silent.mp4") + "'"), {"silent.mp4"});

  expect_failure(analyze("'" + path("missing.wav") + "'"), {"silent.mp4"});

  {
    std::ofstream junk(path("junk.wav"), std::ios::binary);
    for (int i = 0; i < 5000; i++) junk.put(static_cast<char>((i * 7919) & 0xff));
  }
  expect_failure(analyze("'" + path("junk.wav") + "'"), {"junk.wav", "silent.mp4"});
  remove(path("junk.wav").c_str());

  make_media("ok.wav", "-f lavfi -i sine=sample_rate=44100:d=1");
  expect_failure(analyze("'" + path("ok.wav") + "' -o '" + path("no/such/dir/ok.signals") + "'"),
                 {"ok.wav", "silent.mp4"});

  // A failed run leaves an older signal file at the destination untouched.
  {
    std::ofstream old(path("keep.signals"), std::ios::binary);
    old << "older contents";
  }
  expect_failure(analyze("'" + path("silent.mp4") + "' -o '" + path("keep.signals") + "'"),
                 {"keep.signals", "ok.wav", "silent.mp4"});
  EXPECT_EQ(slurp(path("keep.signals")), "older contents");

  // Usage errors.
  Result none = analyze("");
  EXPECT_NE(none.rc, 0);
  EXPECT_NE(none.err.find("no media file"), std::string::npos);
  Result bad = analyze("--bogus '" + path("ok.wav") + "'");
  EXPECT_NE(bad.rc, 0);
  EXPECT_NE(bad.err.find("unknown option"), std::string::npos);
  Result dangling = analyze("'" + path("ok.wav") + "' -o");
  EXPECT_NE(dangling.rc, 0);
  EXPECT_EQ(names_in(dir_), (std::vector<std::string>{"keep.signals", "ok.wav", "silent.mp4"}));
}

}  // namespace
