// Output videos with real players on real movies: the sync rule's drift
// limits and rates, the loop, frames as GL textures, and the renderer's
// handling of video players.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "gl_video_source.h"
#include "gpu_test_util.h"
#include "video_test_media.h"

namespace {

using namespace std::chrono_literals;
using gputest::GpuTest;
using videotest::FakeClock;
using videotest::waitUntil;
using Opt = std::optional<int64_t>;

void expectRed(const uint8_t* p, int lo, int hi) {
  EXPECT_TRUE(p[0] > lo && p[1] < hi && p[2] < hi) << int(p[0]) << "," << int(p[1]) << "," << int(p[2]);
}

std::vector<uint8_t> readTexture(GLuint tex, int32_t w, int32_t h) {
  GLuint fbo = 0;
  glGenFramebuffers(1, &fbo);
  glBindFramebuffer(GL_FRAMEBUFFER, fbo);
  glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, tex, 0);
  std::vector<uint8_t> px(static_cast<size_t>(w) * h * 4);
  glPixelStorei(GL_PACK_ALIGNMENT, 1);
  glReadPixels(0, 0, w, h, GL_RGBA, GL_UNSIGNED_BYTE, px.data());
  glBindFramebuffer(GL_FRAMEBUFFER, 0);
  glDeleteFramebuffers(1, &fbo);
  return px;
}

// The index the source's texture shows, updating it until `want` shows or
// two seconds pass.
int32_t textureIndex(GlVideoSource& v, int32_t want) {
  int32_t got = -2;
  waitUntil([&] {
    v.update();
    if (!v.texture()) return false;
    got = videotest::indexOfRgba(readTexture(v.texture(), v.width(), v.height()).data(), v.width(), v.height());
    return got == want;
  }, 2s);
  return got;
}

bool settled(GlVideoSource& v) { return waitUntil([&] { return !v.seeking(); }, 10s); }

class VideoSync : public GpuTest {
 protected:
  std::string makeClip(const std::string& key) {
    std::string path = media + "/" + key;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    EXPECT_TRUE(videotest::makeClip(path, {})) << "ffmpeg failed for " << key;
    return path;
  }
};

}  // namespace

TEST_F(VideoSync, DriftLimitsDecideTheSeeks) {
  FakeClock clock;  // stands still, so the player's time does too
  GlVideoSource v(makeClip("drift.mp4"), clock.options());
  ASSERT_EQ(v.player().waitOpened(10), VideoPlayer::Status::Ready);
  // {position, playing, seeks started, player time after}: paused, 40 ms of
  // drift is allowed and one microsecond more is not; playing, 400 ms.
  for (auto [us, playing, seeks, at] :
       {std::tuple{1'000'000, false, 1, 1'000'000}, {1'040'000, false, 1, 1'000'000}, {960'000, false, 1, 1'000'000},
        {1'040'001, false, 2, 1'040'001}, {1'440'001, true, 2, 1'040'001}, {1'440'002, true, 3, 1'440'002}}) {
    SCOPED_TRACE(us);
    v.sync(us, 1.0, playing);
    EXPECT_EQ(v.seeksStarted(), seeks);
    ASSERT_TRUE(settled(v));
    EXPECT_EQ(v.player().currentTimeUs(), Opt(at));
    EXPECT_EQ(v.player().rate(), playing ? 1.0f : 0.0f);
  }
  EXPECT_EQ(textureIndex(v, 43), 43);  // 1.440002 s at 30 fps
  v.teardown(true);
  EXPECT_EQ(v.texture(), 0u);
  EXPECT_EQ(v.player().rate(), 0.0f);
}

// The two ways a frame becomes RGBA give the same picture: the shader pass
// (chosen on a GPU) and swscale into a pixel buffer (chosen on a software
// rasteriser such as this machine's).
TEST_F(VideoSync, ShaderAndProcessorConversionsAgree) {
  std::string path = makeClip("convert.mp4");
  FakeClock clock;
  GlVideoSource a(path, clock.options()), b(path, clock.options());
  a.setConversion(GlVideoSource::Conversion::Shader);
  b.setConversion(GlVideoSource::Conversion::Processor);
  std::vector<uint8_t> px[2];
  for (int i = 0; i < 2; i++) {
    GlVideoSource& v = i ? b : a;
    ASSERT_EQ(v.player().waitOpened(10), VideoPlayer::Status::Ready);
    v.sync(1'250'000, 1.0, false);
    ASSERT_TRUE(settled(v));
    ASSERT_EQ(textureIndex(v, 37), 37);
    px[i] = readTexture(v.texture(), v.width(), v.height());
    expectRed(&px[i][(135 * 320 + 160) * 4], 230, 25);
  }
  ASSERT_EQ(px[0].size(), px[1].size());
  // Chroma is filtered differently at the edges between colours; elsewhere
  // the two agree to a few levels.
  size_t apart = 0;
  auto off = [&](size_t k) { return std::abs(int(px[0][k]) - int(px[1][k])) > 6; };
  for (size_t k = 0; k < px[0].size(); k += 4) apart += off(k) || off(k + 1) || off(k + 2) || off(k + 3);
  EXPECT_LT(apart, px[0].size() / 4 / 20) << "pixels that differ by more than 6 levels";
  a.teardown(true);
  b.teardown(true);
}

// A file that cannot be opened has no clock: a position always asks for a
// seek, which completes at once, unfinished, and leaves no frame.
TEST_F(VideoSync, UndecodableFileSeeksButNeverShowsAFrame) {
  std::ofstream(media + "/bad.mp4") << "not a movie";
  GlVideoSource v(media + "/bad.mp4");
  ASSERT_EQ(v.player().waitOpened(10), VideoPlayer::Status::Failed);
  for (int32_t seeks : {1, 2}) {
    v.sync(0, 1.0, true);
    EXPECT_EQ(v.seeksStarted(), seeks);
    EXPECT_FALSE(v.seeking());
  }
  v.update();
  EXPECT_TRUE(v.texture() == 0u && v.width() == 0);
  v.teardown(true);
}

TEST_F(VideoSync, LoopsAtTheEndButNotBackwards) {
  FakeClock clock;
  GlVideoSource v(makeClip("loop.mp4"), clock.options());  // 2 s at 30 fps
  ASSERT_EQ(v.player().waitOpened(10), VideoPlayer::Status::Ready);
  v.freeRun();
  clock.advance(2.75);  // past the end: restarts from 0 at once, still running
  EXPECT_EQ(textureIndex(v, 0), 0);
  EXPECT_EQ(v.player().currentTimeUs(), Opt(0));
  clock.advance(0.5);
  EXPECT_EQ(textureIndex(v, 15), 15);

  // Backwards from near the end: the clock runs down, no loop.
  v.sync(1'950'000, -1.0, true);
  ASSERT_TRUE(settled(v));
  // The completion applies only a forwards rate; the next sync sets this one.
  v.sync(1'950'000, -1.0, true);
  EXPECT_EQ(v.seeksStarted(), 1);
  EXPECT_EQ(v.player().rate(), -1.0f);
  clock.advance(0.5);
  EXPECT_EQ(textureIndex(v, 43), 43);
  clock.advance(5.0);
  EXPECT_EQ(textureIndex(v, 0), 0);
  EXPECT_EQ(v.player().currentTimeUs(), Opt(0));
  v.teardown(true);
}

TEST_F(VideoSync, RendererOpensDeclaresDrawsAndClosesVideos) {
  const std::string key = "clips/Loop.MP4";
  makeClip(key);
  auto stateWith = [](const std::string& mappings, const std::string& extra) {
    return R"({"scene":{"outputs":[{"id":"out-1","resolution":[320,180]}],"mappings":[)" + mappings + "]}," + extra +
           "}";
  };
  auto r = makeRenderer();
  ASSERT_NE(r, nullptr);
  FakeClock clock;
  r->videoOptions = clock.options();
  r->setState(stateWith(R"({"id":"v","corners":[[0,0],[1,0],[1,1],[0,1]],
      "paint":{"type":"video","path":"clips/Loop.MP4"}})",
                        R"("playing":false,"videoPositions":{"clips/Loop.MP4":1000,"notes.txt":5,"later.mp4":0})"));

  // Draw until the frame at 1 s (index 30) is on screen.
  gputest::Picture pic;
  bool shown = waitUntil([&] {
    pic = gputest::drawGpu(*r, 320, 180);
    return videotest::indexOfRgba(pic.px.data(), 320, 180) == 30;
  }, 10s);
  EXPECT_TRUE(shown) << "index on screen: " << videotest::indexOfRgba(pic.px.data(), 320, 180);
  expectRed(pic.at(160, 140), 220, 35);
  // One player: the key keeps its case, "notes.txt" is no video and
  // "later.mp4" does not exist.
  EXPECT_EQ(r->videoCount(), 1u);
  EXPECT_TRUE(r->videoSource(key) && !r->videoSource("clips/loop.mp4"));
  kvl_engine* e = r->engine();
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(r->declared().count(key), 1u);
  auto declaredWidth = [&] {
    const kvl_sources* s = kvl_engine_sources(e);
    for (int32_t i = 0; s && i < s->count; i++)
      if (s->entries[i].key == key) return s->entries[i].width;
    return -1;
  };
  EXPECT_EQ(declaredWidth(), 320);

  // mediaReset may come from any thread: there it is only noted, and the
  // next frame closes every player and reopens what is still needed.
  std::thread([&] { r->setState("mediaReset"); }).join();
  EXPECT_TRUE(r->videoCount() == 1u && r->stats().mediaResets == 0);
  gputest::drawGpu(*r, 320, 180);
  EXPECT_TRUE(r->videoCount() == 1u && r->stats().mediaResets == 1);

  // Dropped from the scene and the positions: closed in that frame; only
  // `declared` forgets it, the engine's table keeps the old size.
  r->setState(stateWith("", R"("playing":false)"));
  gputest::drawGpu(*r, 320, 180);
  EXPECT_TRUE(r->videoCount() == 0u && r->declared().count(key) == 0u);
  EXPECT_EQ(declaredWidth(), 320);
  r->release();
  EXPECT_TRUE(r->videoCount() == 0u && r->engine() == nullptr);
}

// A free-running video goes on while the scene is hidden (blackout, test
// pattern): it loops on its own clock, so it is where that clock says when
// the scene comes back, not stuck at its end.
TEST_F(VideoSync, HiddenVideosKeepTheirClocks) {
  const std::string key = "clips/free.mp4";
  makeClip(key);  // 2 s at 30 fps
  auto state = [&](const std::string& mode) {
    return R"({"scene":{"outputs":[{"id":"out-1","resolution":[320,180]}],"mappings":[{"id":"v",)"
           R"("corners":[[0,0],[1,0],[1,1],[0,1]],"paint":{"type":"video","path":")" +
           key + R"("}}]},"mode":")" + mode + R"("})";
  };
  auto r = makeRenderer();
  ASSERT_NE(r, nullptr);
  FakeClock clock;
  r->videoOptions = clock.options();
  r->setState(state("normal"));
  ASSERT_TRUE(waitUntil([&] {
    return videotest::indexOfRgba(gputest::drawGpu(*r, 320, 180).px.data(), 320, 180) == 0;
  }, 10s));
  auto* v = const_cast<GlVideoSource*>(r->videoSource(key));
  ASSERT_NE(v, nullptr);

  r->setState(state("blackout"));
  for (int step = 1; step <= 21; step++) {  // to 2.1 s, a frame each 0.1 s
    clock.advance(0.1);
    gputest::drawGpu(*r, 320, 180);
  }
  // Hidden, it reaches its end and starts again from 0 (its clock runs on
  // once the picture at 0 is decoded).
  EXPECT_TRUE(waitUntil([&] {
    gputest::drawGpu(*r, 320, 180);
    auto f = v->player().frameForHostTime(v->player().hostTime());
    return f && f->ptsUs == 0;
  }, 10s));
  clock.advance(0.4);
  gputest::drawGpu(*r, 320, 180);
  r->setState(state("normal"));
  int32_t index = -1;
  waitUntil([&] {
    index = videotest::indexOfRgba(gputest::drawGpu(*r, 320, 180).px.data(), 320, 180);
    return index >= 12;
  }, 5s);
  EXPECT_TRUE(index >= 12 && index <= 15) << index;  // 0.4 s in, give or take the loop's frame
  r->release();
}
