// VideoPlayer on real movies made by ffmpeg: opening, the clock and its rate,
// frame-exact seeks with their completions, the end of the item, backwards
// play, bad files, and the decode thread under concurrent use.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <thread>
#include <vector>

#include "video_player.h"
#include "video_test_media.h"

namespace {

using namespace std::chrono_literals;

// A folder of clips made once for the whole test program, removed at exit
// (the string is left alive for the exit handler).
const std::string& mediaDir() {
  static const std::string* dir = [] {
    char tmpl[] = "/tmp/kavlen-vplayer-XXXXXX";
    if (!mkdtemp(tmpl)) return new std::string("/tmp");
    auto* d = new std::string(tmpl);
    std::atexit([] { std::filesystem::remove_all(*dir); });
    return d;
  }();
  return *dir;
}

std::string clip(const std::string& name, const videotest::Clip& c) {
  std::string path = mediaDir() + "/" + name;
  if (!std::filesystem::exists(path)) {
    EXPECT_TRUE(videotest::makeClip(path, c)) << "ffmpeg failed for " << name;
  }
  return path;
}

// A host clock that moves only when the test says so.
struct FakeClock {
  std::shared_ptr<std::atomic<double>> now = std::make_shared<std::atomic<double>>(100.0);
  VideoPlayer::Options options() const {
    VideoPlayer::Options o;
    auto n = now;
    o.hostClock = [n] { return n->load(); };
    return o;
  }
  void advance(double s) { now->store(now->load() + s); }
};

// Seeks and waits for the completion; its argument, or nothing on a time-out.
std::optional<bool> seekAndWait(VideoPlayer& p, int64_t us) {
  auto done = std::make_shared<std::promise<bool>>();
  std::future<bool> f = done->get_future();
  p.seek(us, [done](bool finished) { done->set_value(finished); });
  if (f.wait_for(10s) != std::future_status::ready) return std::nullopt;
  return f.get();
}

// The frame index on screen at the player's current host time, waiting for
// the decoder up to two seconds for a frame that satisfies `ok`.
int32_t shownIndex(VideoPlayer& p, const std::function<bool(int32_t)>& ok = {}) {
  int32_t idx = -2;
  for (int i = 0; i < 400; i++) {
    VideoPlayer::FramePtr f = p.frameForHostTime(p.hostTime());
    if (f) {
      idx = videotest::indexOfFrame(f->frame);
      if (!ok || ok(idx)) return idx;
    }
    std::this_thread::sleep_for(5ms);
  }
  return idx;
}

class VideoPlayerTest : public ::testing::TestWithParam<int32_t> {};

}  // namespace

// Seeks land on the frame whose display interval holds the target, at every
// common frame rate, with and without B-frames in between.
TEST_P(VideoPlayerTest, SeeksAreFrameExactAndCompleteWithTheFrameReady) {
  const int32_t fps = GetParam();
  videotest::Clip c;
  c.fps = fps;
  c.seconds = 2.0;
  std::string path = clip("exact" + std::to_string(fps) + ".mp4", c);
  FakeClock clock;
  VideoPlayer p(path, clock.options());
  ASSERT_EQ(p.waitOpened(10), VideoPlayer::Status::Ready) << p.error();
  EXPECT_EQ(p.width(), 320);
  EXPECT_EQ(p.height(), 180);
  EXPECT_NEAR(static_cast<double>(p.durationUs()), 2e6, 1e6 / fps);
  EXPECT_EQ(p.rate(), 0.0f);
  EXPECT_FALSE(p.hardwareDecoding());  // no render node on the test machines

  const int32_t frames = 2 * fps;
  const double frameUs = 1e6 / fps;
  struct Case {
    int64_t targetUs;
    int32_t index;
  };
  // Frame k begins at k frame lengths, rounded to the nearest microsecond.
  auto begins = [&](int32_t k) { return static_cast<int64_t>(std::llround(k * frameUs)); };
  std::vector<Case> cases = {
      {begins(37), 37},           // the frame's first microsecond
      {begins(38) - 1, 37},       // its last
      {begins(38), 38},
      {0, 0},
      {begins(frames - 1), frames - 1},
      {begins(5), 5},             // backwards past a key frame
      {50'000'000, frames - 1},   // past the end: the last frame
      {-5'000, 0},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE("target " + std::to_string(k.targetUs));
    std::optional<bool> done = seekAndWait(p, k.targetUs);
    ASSERT_TRUE(done.has_value()) << "seek never completed";
    EXPECT_TRUE(*done);
    // Ready at completion: no waiting for the decoder now.
    VideoPlayer::FramePtr f = p.frameForHostTime(p.hostTime());
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(videotest::indexOfFrame(f->frame), k.index);
    int64_t expectClock = std::clamp<int64_t>(k.targetUs, 0, p.durationUs());
    EXPECT_EQ(p.currentTimeUs(), std::optional<int64_t>(expectClock));
  }
}

INSTANTIATE_TEST_SUITE_P(FrameRates, VideoPlayerTest, ::testing::Values(24, 25, 30, 60));

TEST(VideoPlayer, ClockRunsAtItsRateAndFramesFollowIt) {
  videotest::Clip c;  // 30 fps, 60 frames, with a sound track the player ignores
  c.audio = true;
  std::string path = clip("clock.mp4", c);
  FakeClock clock;
  VideoPlayer p(path, clock.options());
  ASSERT_EQ(p.waitOpened(10), VideoPlayer::Status::Ready) << p.error();
  EXPECT_EQ(p.durationUs(), 2'000'000);  // the video's length, not the longer audio's
  EXPECT_EQ(p.currentTimeUs(), std::optional<int64_t>(0));
  EXPECT_EQ(shownIndex(p), 0);

  // Rate 0: time stands still.
  clock.advance(0.5);
  EXPECT_EQ(p.currentTimeUs(), std::optional<int64_t>(0));

  p.setRate(1.0f);
  clock.advance(0.5);
  EXPECT_EQ(p.currentTimeUs(), std::optional<int64_t>(500'000));
  EXPECT_EQ(shownIndex(p, [](int32_t i) { return i == 15; }), 15);

  p.setRate(2.0f);
  clock.advance(0.25);
  EXPECT_EQ(p.currentTimeUs(), std::optional<int64_t>(1'000'000));
  EXPECT_EQ(shownIndex(p, [](int32_t i) { return i == 30; }), 30);

  // Backwards: the decoder goes back for the frames before the clock.
  p.setRate(-1.0f);
  EXPECT_EQ(p.rate(), -1.0f);
  clock.advance(0.25);  // clock steps that binary fractions hold exactly
  EXPECT_EQ(p.currentTimeUs(), std::optional<int64_t>(750'000));
  EXPECT_EQ(shownIndex(p, [](int32_t i) { return i == 22; }), 22);
  clock.advance(0.125);
  EXPECT_EQ(shownIndex(p, [](int32_t i) { return i == 18; }), 18);
  // Down to 0 and no further, with no end reported.
  clock.advance(5.0);
  EXPECT_EQ(p.currentTimeUs(), std::optional<int64_t>(0));
  EXPECT_FALSE(p.takeEnded());
  EXPECT_EQ(shownIndex(p, [](int32_t i) { return i == 0; }), 0);

  // Forwards again from where it stands.
  p.setRate(1.0f);
  clock.advance(0.25);
  EXPECT_EQ(shownIndex(p, [](int32_t i) { return i == 7; }), 7);
}

TEST(VideoPlayer, EndHoldsTheClockAndIsReportedOnce) {
  videotest::Clip c;
  std::string path = clip("end.mp4", c);
  FakeClock clock;
  VideoPlayer p(path, clock.options());
  ASSERT_EQ(p.waitOpened(10), VideoPlayer::Status::Ready);
  ASSERT_EQ(seekAndWait(p, 1'900'000), std::optional<bool>(true));
  p.setRate(1.0f);
  clock.advance(0.05);
  EXPECT_FALSE(p.takeEnded());
  clock.advance(0.2);
  EXPECT_EQ(p.currentTimeUs(), std::optional<int64_t>(2'000'000));
  EXPECT_TRUE(p.takeEnded());
  EXPECT_FALSE(p.takeEnded());
  // Neither paused nor advancing.
  EXPECT_EQ(p.rate(), 1.0f);
  clock.advance(1.0);
  EXPECT_EQ(p.currentTimeUs(), std::optional<int64_t>(2'000'000));
  EXPECT_FALSE(p.takeEnded());
  EXPECT_EQ(shownIndex(p, [](int32_t i) { return i == 59; }), 59);

  // A seek leaves the end; running into it again reports it again.
  ASSERT_EQ(seekAndWait(p, 0), std::optional<bool>(true));
  EXPECT_EQ(shownIndex(p), 0);
  clock.advance(2.5);
  EXPECT_TRUE(p.takeEnded());
}

TEST(VideoPlayer, ALaterSeekReplacesAnEarlierOne) {
  videotest::Clip c;
  c.gop = 60;
  c.bframes = false;
  std::string path = clip("replace.mp4", c);
  FakeClock clock;
  VideoPlayer p(path, clock.options());
  ASSERT_EQ(p.waitOpened(10), VideoPlayer::Status::Ready);
  std::atomic<int> firstCalls{0};
  p.seek(1'800'000, [&](bool) { firstCalls++; });
  auto second = seekAndWait(p, 400'000);
  ASSERT_TRUE(second.has_value());
  EXPECT_TRUE(*second);
  EXPECT_EQ(firstCalls.load(), 1);  // called once, finished or not
  EXPECT_EQ(shownIndex(p), 12);
  EXPECT_EQ(p.currentTimeUs(), std::optional<int64_t>(400'000));
}

TEST(VideoPlayer, BadFilesFailCleanlyAndNeverHang) {
  const std::string dir = mediaDir();
  {
    VideoPlayer p(dir + "/does-not-exist.mp4");
    EXPECT_EQ(p.waitOpened(10), VideoPlayer::Status::Failed);
    EXPECT_FALSE(p.error().empty());
    EXPECT_EQ(p.currentTimeUs(), std::nullopt);
    EXPECT_EQ(p.frameForHostTime(p.hostTime()), nullptr);
    EXPECT_EQ(seekAndWait(p, 1000), std::optional<bool>(false));
    p.setRate(1.0f);  // harmless
    EXPECT_FALSE(p.takeEnded());
  }
  {
    std::ofstream(dir + "/notes.mp4") << "this is not a movie, only some words in a file\n";
    VideoPlayer p(dir + "/notes.mp4");
    EXPECT_EQ(p.waitOpened(10), VideoPlayer::Status::Failed);
    EXPECT_EQ(p.currentTimeUs(), std::nullopt);
  }
  {
    // A seek asked for while the file is still opening completes with false
    // once it fails.
    auto done = std::make_shared<std::promise<bool>>();
    auto f = done->get_future();
    VideoPlayer p(dir + "/notes.mp4");
    p.seek(0, [done](bool ok) { done->set_value(ok); });
    ASSERT_EQ(f.wait_for(10s), std::future_status::ready);
    EXPECT_FALSE(f.get());
  }
  {
    // Cut in the middle: the front plays, and the clock's end moves to the
    // last picture that decodes.
    videotest::Clip c;
    c.seconds = 4.0;
    std::string whole = clip("whole.mp4", c);
    std::string cut = dir + "/cut.mp4";
    auto size = std::filesystem::file_size(whole);
    std::filesystem::copy_file(whole, cut, std::filesystem::copy_options::overwrite_existing);
    std::filesystem::resize_file(cut, size / 2);
    FakeClock clock;
    VideoPlayer p(cut, clock.options());
    ASSERT_EQ(p.waitOpened(10), VideoPlayer::Status::Ready);
    EXPECT_EQ(shownIndex(p), 0);
    auto done = seekAndWait(p, 3'900'000);
    ASSERT_TRUE(done.has_value());  // completes, whatever it found
    int32_t last = shownIndex(p);
    EXPECT_GT(last, 20);
    EXPECT_LT(last, 117);
    EXPECT_LT(p.durationUs(), 3'900'000);
    p.setRate(1.0f);
    clock.advance(10.0);
    EXPECT_TRUE(p.takeEnded());
  }
  {
    // Damage in the middle: decoding goes on past it, seeks across it
    // complete, and the clock still reaches the end.
    std::string whole = clip("whole.mp4", videotest::Clip{});
    std::string bad = dir + "/damaged.mp4";
    std::filesystem::copy_file(whole, bad, std::filesystem::copy_options::overwrite_existing);
    {
      std::fstream f(bad, std::ios::in | std::ios::out | std::ios::binary);
      f.seekp(static_cast<std::streamoff>(std::filesystem::file_size(bad) * 2 / 5));
      for (int i = 0; i < 4096; i++) f.put(static_cast<char>((i * 7919) & 0xff));
    }
    FakeClock clock;
    VideoPlayer p(bad, clock.options());
    ASSERT_EQ(p.waitOpened(10), VideoPlayer::Status::Ready);
    for (int64_t t : {1'000'000, 300'000, 1'900'000}) EXPECT_TRUE(seekAndWait(p, t).has_value()) << t;
    // Some picture shows (damaged pictures may carry any code).
    EXPECT_NE(shownIndex(p), -2);
    p.setRate(4.0f);
    clock.advance(1.0);
    EXPECT_TRUE(p.takeEnded());
  }
  {
    // Only the first bytes: no stream information, so no player.
    std::string whole = clip("whole.mp4", videotest::Clip{});
    std::string stub = dir + "/stub.mp4";
    std::filesystem::copy_file(whole, stub, std::filesystem::copy_options::overwrite_existing);
    std::filesystem::resize_file(stub, 200);
    VideoPlayer p(stub);
    EXPECT_EQ(p.waitOpened(10), VideoPlayer::Status::Failed);
  }
}

// Several threads drive one player the way a renderer and seek completions
// do, while the decode thread works; every completion runs exactly once.
TEST(VideoPlayerThread, ConcurrentSeeksRatesAndFramesAreSafe) {
  videotest::Clip c;
  c.seconds = 3.0;
  std::string path = clip("threads.mp4", c);
  std::atomic<int> started{0}, completed{0};
  {
    VideoPlayer p(path);
    ASSERT_EQ(p.waitOpened(10), VideoPlayer::Status::Ready);
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
      for (int i = 0; !stop; i++) {
        started++;
        p.seek((i * 370'000) % 3'000'000, [&](bool) { completed++; });
        std::this_thread::sleep_for(3ms);
      }
    });
    threads.emplace_back([&] {
      const float rates[] = {1.0f, 0.0f, 2.0f, -1.0f, 0.5f};
      for (int i = 0; !stop; i++) {
        p.setRate(rates[i % 5]);
        (void)p.takeEnded();
        std::this_thread::sleep_for(2ms);
      }
    });
    threads.emplace_back([&] {
      while (!stop) {
        VideoPlayer::FramePtr f = p.frameForHostTime(p.hostTime());
        if (f) {
          EXPECT_GE(videotest::indexOfFrame(f->frame), 0);
        }
        (void)p.currentTimeUs();
        std::this_thread::sleep_for(1ms);
      }
    });
    std::this_thread::sleep_for(1500ms);
    stop = true;
    for (auto& t : threads) t.join();
    EXPECT_GT(p.framesDecoded(), 0);
    // A seek still pending is answered when the player goes.
    p.seek(100'000, [&](bool) { completed++; });
    started++;
  }
  EXPECT_GT(started.load(), 10);
  EXPECT_EQ(completed.load(), started.load());
}
