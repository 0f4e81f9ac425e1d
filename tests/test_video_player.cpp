// VideoPlayer on ffmpeg-made movies: frame-exact seeks, the clock and its
// rate, the end, bad files, and the decode thread under concurrent use.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "media_samples.h"
#include "video_player.h"
#include "video_test_media.h"

namespace {

using namespace std::chrono_literals;
using Opt = std::optional<int64_t>;

std::string clip(const std::string& name, const videotest::Clip& c = {}) {
  std::string path = mediatest::pathOf(name);
  EXPECT_TRUE(std::filesystem::exists(path) || videotest::makeClip(path, c)) << name;
  return path;
}

// A host clock that moves only when the test says so.
struct FakeClock {
  std::shared_ptr<std::atomic<double>> now = std::make_shared<std::atomic<double>>(100.0);
  VideoPlayer::Options options() const { return {.hostClock = [n = now] { return n->load(); }}; }
  void advance(double s) { now->store(now->load() + s); }
};

// Seeks and waits; the completion's argument, or nothing on a time-out.
std::optional<bool> seekAndWait(VideoPlayer& p, int64_t us) {
  auto done = std::make_shared<std::promise<bool>>();
  std::future<bool> f = done->get_future();
  p.seek(us, [done](bool finished) { done->set_value(finished); });
  if (f.wait_for(10s) != std::future_status::ready) return std::nullopt;
  return f.get();
}

// The index on screen now, waiting up to two seconds for `want` (any when -1).
int32_t shownIndex(VideoPlayer& p, int32_t want = -1) {
  int32_t idx = -2;
  for (int i = 0; i < 400; i++) {
    if (VideoPlayer::FramePtr f = p.frameForHostTime(p.hostTime())) {
      idx = videotest::indexOfFrame(f->frame);
      if (want < 0 || idx == want) return idx;
    }
    std::this_thread::sleep_for(5ms);
  }
  return idx;
}

}  // namespace

TEST(VideoPlayer, SeeksAreFrameExactAtEveryRateAndCompleteWithTheFrameReady) {
  for (int32_t fps : {24, 25, 30, 60}) {
    SCOPED_TRACE("fps " + std::to_string(fps));
    videotest::Clip c;
    c.fps = fps;
    FakeClock clock;
    VideoPlayer p(clip("exact" + std::to_string(fps) + ".mp4", c), clock.options());
    ASSERT_EQ(p.waitOpened(10), VideoPlayer::Status::Ready) << p.error();
    EXPECT_TRUE(p.width() == 320 && p.height() == 180 && p.rate() == 0.0f && !p.hardwareDecoding());
    EXPECT_NEAR(static_cast<double>(p.durationUs()), 2e6, 1e6 / fps);
    const int32_t last = 2 * fps - 1;
    auto begins = [&](int32_t k) { return static_cast<int64_t>(std::llround(k * 1e6 / fps)); };
    // {target, index}: a frame's first and last microsecond, back past a key frame, past both ends.
    std::vector<std::pair<int64_t, int32_t>> cases = {{begins(37), 37}, {begins(38) - 1, 37}, {begins(38), 38},
        {0, 0}, {begins(last), last}, {begins(5), 5}, {50'000'000, last}, {-5'000, 0}};
    for (auto [target, index] : cases) {
      SCOPED_TRACE("target " + std::to_string(target));
      ASSERT_EQ(seekAndWait(p, target), std::optional<bool>(true));
      VideoPlayer::FramePtr f = p.frameForHostTime(p.hostTime());  // ready at completion
      ASSERT_NE(f, nullptr);
      EXPECT_EQ(videotest::indexOfFrame(f->frame), index);
      EXPECT_EQ(p.currentTimeUs(), Opt(std::clamp<int64_t>(target, 0, p.durationUs())));
    }
  }
}

TEST(VideoPlayer, ClockRateBackwardsPlayAndTheEnd) {
  videotest::Clip c;  // 30 fps, 60 frames, a sound track the player ignores
  c.audio = true;
  FakeClock clock;
  VideoPlayer p(clip("clock.mp4", c), clock.options());
  ASSERT_EQ(p.waitOpened(10), VideoPlayer::Status::Ready) << p.error();
  EXPECT_EQ(p.durationUs(), 2'000'000);  // the video's length, not the longer audio's
  EXPECT_EQ(shownIndex(p), 0);
  clock.advance(0.5);  // rate 0: time stands still
  EXPECT_EQ(p.currentTimeUs(), Opt(0));
  // {rate, clock step, clock after, index shown}; backwards the decoder goes back for earlier frames.
  for (auto [rate, step, us, index] : {std::tuple{1.0f, 0.5, 500'000, 15}, {2.0f, 0.25, 1'000'000, 30},
                                       {-1.0f, 0.25, 750'000, 22}, {-1.0f, 0.125, 625'000, 18}, {-1.0f, 5.0, 0, 0},
                                       {1.0f, 0.25, 250'000, 7}}) {
    p.setRate(rate);
    clock.advance(step);
    EXPECT_EQ(p.currentTimeUs(), Opt(us)) << us;
    EXPECT_EQ(shownIndex(p, index), index);
    EXPECT_FALSE(p.takeEnded());  // not even at 0 going backwards
  }

  ASSERT_EQ(seekAndWait(p, 1'900'000), std::optional<bool>(true));
  clock.advance(0.05);
  EXPECT_FALSE(p.takeEnded());
  clock.advance(0.2);
  EXPECT_EQ(p.currentTimeUs(), Opt(2'000'000));
  EXPECT_TRUE(p.takeEnded());
  EXPECT_FALSE(p.takeEnded());  // reported once
  EXPECT_EQ(p.rate(), 1.0f);    // neither paused nor advancing
  clock.advance(1.0);
  EXPECT_EQ(p.currentTimeUs(), Opt(2'000'000));
  EXPECT_FALSE(p.takeEnded());
  EXPECT_EQ(shownIndex(p, 59), 59);
  ASSERT_EQ(seekAndWait(p, 0), std::optional<bool>(true));  // a seek leaves the end
  EXPECT_EQ(shownIndex(p), 0);
  clock.advance(2.5);
  EXPECT_TRUE(p.takeEnded());
}

TEST(VideoPlayer, ALaterSeekReplacesAnEarlierOne) {
  videotest::Clip c;
  c.gop = 60;
  c.bframes = false;
  FakeClock clock;
  VideoPlayer p(clip("replace.mp4", c), clock.options());
  ASSERT_EQ(p.waitOpened(10), VideoPlayer::Status::Ready);
  std::atomic<int> firstCalls{0};
  p.seek(1'800'000, [&](bool) { firstCalls++; });
  EXPECT_EQ(seekAndWait(p, 400'000), std::optional<bool>(true));
  EXPECT_EQ(firstCalls.load(), 1);  // called once, finished or not
  EXPECT_EQ(shownIndex(p), 12);
  EXPECT_EQ(p.currentTimeUs(), Opt(400'000));
}

TEST(VideoPlayer, BadFilesFailCleanlyAndNeverHang) {
  std::string whole = clip("whole.mp4");
  for (std::string bad : {mediatest::pathOf("does-not-exist.mp4"), mediatest::textFile("notes.mp4", "not a movie\n"),
                          mediatest::truncatedCopy(whole, 200.0 / std::filesystem::file_size(whole), "stub.mp4")}) {
    SCOPED_TRACE(bad);
    VideoPlayer early(bad);  // a seek asked while opening completes with false
    EXPECT_EQ(seekAndWait(early, 0), std::optional<bool>(false));
    VideoPlayer p(bad);
    EXPECT_EQ(p.waitOpened(10), VideoPlayer::Status::Failed);
    EXPECT_FALSE(p.error().empty());
    EXPECT_EQ(p.currentTimeUs(), std::nullopt);
    EXPECT_EQ(p.frameForHostTime(p.hostTime()), nullptr);
    EXPECT_EQ(seekAndWait(p, 1000), std::optional<bool>(false));
    p.setRate(1.0f);
    EXPECT_FALSE(p.takeEnded());
  }
  {
    // Cut in the middle: the front plays; the end moves to the last picture that decodes.
    videotest::Clip c;
    c.seconds = 4.0;
    FakeClock clock;
    VideoPlayer p(mediatest::truncatedCopy(clip("whole4.mp4", c), 0.5, "cut.mp4"), clock.options());
    ASSERT_EQ(p.waitOpened(10), VideoPlayer::Status::Ready);
    EXPECT_EQ(shownIndex(p), 0);
    EXPECT_TRUE(seekAndWait(p, 3'900'000).has_value());
    int32_t last = shownIndex(p);
    EXPECT_GT(last, 20);
    EXPECT_LT(last, 117);
    EXPECT_LT(p.durationUs(), 3'900'000);
    p.setRate(1.0f);
    clock.advance(10.0);
    EXPECT_TRUE(p.takeEnded());
  }
  {
    // Damage in the middle: seeks across it complete and the clock reaches the end.
    FakeClock clock;
    VideoPlayer p(mediatest::corruptedCopy(whole, 0.4, 4096, "damaged.mp4"), clock.options());
    ASSERT_EQ(p.waitOpened(10), VideoPlayer::Status::Ready);
    for (int64_t t : {1'000'000, 300'000, 1'900'000}) EXPECT_TRUE(seekAndWait(p, t).has_value()) << t;
    EXPECT_NE(shownIndex(p), -2);
    p.setRate(4.0f);
    clock.advance(1.0);
    EXPECT_TRUE(p.takeEnded());
  }
}

// Threads drive one player as a renderer and seek completions do, while the
// decode thread works; every completion runs exactly once.
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
        EXPECT_TRUE(!f || videotest::indexOfFrame(f->frame) >= 0);
        (void)p.currentTimeUs();
        std::this_thread::sleep_for(1ms);
      }
    });
    std::this_thread::sleep_for(1500ms);
    stop = true;
    for (auto& t : threads) t.join();
    EXPECT_GT(p.framesDecoded(), 0);
    p.seek(100'000, [&](bool) { completed++; });  // still pending when the player goes
    started++;
  }
  EXPECT_GT(started.load(), 10);
  EXPECT_EQ(completed.load(), started.load());
}
