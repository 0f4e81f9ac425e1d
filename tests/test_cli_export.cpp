// `kavlen export` as a user runs it: the movie written whole under its name
// with its audio, the one-line errors, Ctrl-C and a disk that fills up, none of
// which leaves a file behind.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <thread>

#include "export_test_util.h"

namespace fs = std::filesystem;
using mediatest::q;

namespace {

const char kScene[] =
    R"({"outputs": [{"id": "main", "resolution": [96, 64]}],
        "mappings": [{"id": "wall", "corners": [[0, 0], [1, 0], [1, 1], [0, 1]],
                      "paint": {"type": "color", "argb": 4280303808}}]})";

// Names in `dir` other than `keep`: partial files left behind.
std::vector<std::string> leftovers(const std::string& dir, const std::string& keep = "") {
  std::vector<std::string> names;
  for (auto& e : fs::directory_iterator(dir))
    if (e.path().filename() != keep && e.path().extension() != ".json" && e.path().extension() != ".wav" &&
        e.path().extension() != ".png")
      names.push_back(e.path().filename());
  return names;
}

bool oneLine(const std::string& err, const std::string& text) {
  return err.rfind("kavlen: export: ", 0) == 0 && err.find(text) != std::string::npos &&
         std::count(err.begin(), err.end(), '\n') == 1;
}

}  // namespace

TEST(CliExport, WritesTheMovieWithItsAudioUnderItsName) {
  std::string dir = mediatest::testFolder();
  std::string scene = dir + "/scene.json", clips = dir + "/clips.json", movie = dir + "/out.mp4";
  std::ofstream(scene) << kScene;
  mediatest::make("tone2.wav", "-f lavfi -i \"sine=frequency=440:sample_rate=44100:duration=1\"");
  fs::copy_file(mediatest::pathOf("tone2.wav"), dir + "/tone.wav");
  std::ofstream(clips) << R"([{"path": "tone.wav", "lengthMs": 800, "volume": 2}])";
  auto r = mediatest::kavlen("export " + q(scene) + " -o " + q(movie) + " --length-ms 1000 --fps 24 --audio " + q(clips));
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.err.find("24/24 frames"), std::string::npos) << r.err;  // plain progress lines off a terminal
  EXPECT_NE(r.err.find("kavlen: wrote"), std::string::npos) << r.err;
  std::string facts = exporttest::probe(movie);
  EXPECT_NE(facts.find("codec_name=aac"), std::string::npos) << facts;
  auto times = exporttest::frameTimesMs(movie);
  ASSERT_EQ(times.size(), 24u);
  EXPECT_EQ(times.back(), 958);
  auto frames = exporttest::decodeRgba(movie, 96, 64);  // the scene's output size
  ASSERT_EQ(frames.size(), 24u);
  EXPECT_NEAR(frames[0][(32 * 96 + 48) * 4 + 2], 0xC0, 6);
  EXPECT_EQ(leftovers(dir, "out.mp4"), std::vector<std::string>{});
}

TEST(CliExport, RefusesBadArgumentsInOneLine) {
  std::string dir = mediatest::testFolder();
  std::string scene = dir + "/scene.json", notJson = dir + "/bad.json";
  std::ofstream(scene) << kScene;
  std::ofstream(notJson) << "{oops";
  struct Case {
    std::string args, message;
  } cases[] = {
      {q(scene) + " -o " + q(dir + "/a.mp4"), "no length given"},
      {q(scene) + " -o " + q(dir + "/a.mp4") + " --length-ms 100 --codec vp9", "--codec wants"},
      {q(scene) + " -o " + q(dir + "/a.mp4") + " --length-ms 100 --size 33x20", "--size wants"},
      {q(notJson) + " -o " + q(dir + "/a.mp4") + " --length-ms 100", "is not JSON"},
      {q(scene) + " -o " + q(dir + "/a.mp4") + " --length-ms 100 --audio " + q(scene), "no JSON list"},
      {q(scene) + " -o " + q(dir + "/no/a.mp4") + " --length-ms 100", "No such file or directory"},
  };
  for (const Case& c : cases) {
    auto r = mediatest::kavlen("export " + c.args);
    EXPECT_EQ(r.code, 1) << c.args;
    EXPECT_TRUE(oneLine(r.err, c.message)) << c.args << "\n" << r.err;
  }
  EXPECT_EQ(leftovers(dir), std::vector<std::string>{});
}

TEST(CliExport, InterruptAndFullDiskLeaveNothingBehind) {
  std::string dir = mediatest::testFolder();
  std::string scene = dir + "/scene.json", movie = dir + "/long.mp4";
  std::ofstream(scene) << kScene;
  pid_t child = fork();
  ASSERT_GE(child, 0);
  const std::string errPath = mediatest::pathOf("interrupted.err");
  if (child == 0) {
    if (!freopen(errPath.c_str(), "w", stderr)) _exit(126);
    execl(KAVLEN_EXE, "kavlen", "export", scene.c_str(), "-o", movie.c_str(), "--length-ms", "3600000", nullptr);
    _exit(127);
  }
  // Interrupt once frames are being written.
  for (int i = 0; i < 500 && leftovers(dir).empty(); i++) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  kill(child, SIGINT);
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 130);
  EXPECT_NE(mediatest::readText(errPath).find("was not written (the movie would be incomplete)"), std::string::npos);
  EXPECT_EQ(leftovers(dir), std::vector<std::string>{});

  // A file-size limit stands for a full disk; the shell ignores the signal it
  // sends. Noise makes large frames, so the limit comes soon.
  std::string noisy = dir + "/noisy.json";
  mediatest::make("noise.png", "-f lavfi -i \"nullsrc=s=96x64,geq=lum='random(1)*255':cb=128:cr=128\" -frames:v 1");
  fs::copy_file(mediatest::pathOf("noise.png"), dir + "/noise.json.png");
  std::string text = kScene;
  text.replace(text.find(R"({"type": "color", "argb": 4280303808})"), 37, R"({"type": "image", "path": "noise.json.png"})");
  std::ofstream(noisy) << text;
  auto r = mediatest::kavlen("export " + q(noisy) + " -o " + q(movie) + " --length-ms 20000 --codec prores",
                             "ulimit -f 64; trap '' XFSZ;");
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("kavlen: export: cannot write " + movie + ": File too large"), std::string::npos) << r.err;
  EXPECT_EQ(leftovers(dir), std::vector<std::string>{});
}
