// VideoPlayer on ffmpeg-made movies: frame-exact seeks, the clock and its
// rate, the end, bad files, and the decode thread under concurrent use.
#include <gtest/gtest.h>

#include <future>
#include <vector>

#include "media_samples.h"
#include "video_player.h"
#include "video_test_media.h"

namespace {

using namespace std::chrono_literals;
using videotest::FakeClock;
using Opt = std::optional<int64_t>;
const std::optional<bool> kFinished(true), kUnfinished(false);

std::string clip(const std::string& name, const videotest::Clip& c = {}) {
  std::string path = mediatest::pathOf(name);
  EXPECT_TRUE(std::filesystem::exists(path) || videotest::makeClip(path, c)) << name;
  return path;
}

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
  videotest::waitUntil([&] {
    VideoPlayer::FramePtr f = p.frameForHostTime(p.hostTime());
    if (f) idx = videotest::indexOfFrame(f->frame);
    return f && (want < 0 || idx == want);
  }, 2s);
  return idx;
}

}  // namespace

TEST(VideoPlayer, SeeksAreFrameExactAtEveryRateAndCompleteWithTheFrameReady) {
  for (int32_t fps : {24, 60}) {
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
      ASSERT_EQ(seekAndWait(p, target), kFinished);
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
  clock.advance(0.5);  // rate 0: time stands still
  EXPECT_EQ(p.currentTimeUs(), Opt(0));
  // {rate, clock step, clock after, index shown}; backwards the decoder goes
  // back for earlier frames, and reaching 0 that way is no end.
  for (auto [rate, step, us, index] : {std::tuple{1.0f, 0.5, 500'000, 15}, {2.0f, 0.25, 1'000'000, 30},
                                       {-1.0f, 0.25, 750'000, 22}, {-1.0f, 5.0, 0, 0}, {1.0f, 0.25, 250'000, 7}}) {
    p.setRate(rate);
    clock.advance(step);
    EXPECT_EQ(p.currentTimeUs(), Opt(us)) << us;
    EXPECT_EQ(shownIndex(p, index), index);
    EXPECT_FALSE(p.takeEnded());
  }

  ASSERT_EQ(seekAndWait(p, 1'900'000), kFinished);
  clock.advance(0.25);
  EXPECT_EQ(p.currentTimeUs(), Opt(2'000'000));
  EXPECT_TRUE(p.takeEnded());
  EXPECT_FALSE(p.takeEnded());  // reported once
  EXPECT_EQ(p.rate(), 1.0f);    // neither paused nor advancing
  EXPECT_EQ(shownIndex(p, 59), 59);
  ASSERT_EQ(seekAndWait(p, 0), kFinished);  // a seek leaves the end
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
  EXPECT_EQ(seekAndWait(p, 400'000), kFinished);
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
    EXPECT_EQ(seekAndWait(early, 0), kUnfinished);
    VideoPlayer p(bad);
    EXPECT_EQ(p.waitOpened(10), VideoPlayer::Status::Failed);
    EXPECT_FALSE(p.error().empty());
    EXPECT_TRUE(!p.currentTimeUs() && !p.frameForHostTime(p.hostTime()));
    EXPECT_EQ(seekAndWait(p, 1000), kUnfinished);
    p.setRate(1.0f);
    EXPECT_FALSE(p.takeEnded());
  }
  // Cut in the middle, the end moves to the last picture that decodes; damaged
  // there, seeks across the damage complete. Either way the clock reaches the end.
  videotest::Clip four;
  four.seconds = 4.0;
  for (auto [path, seekTo] : {std::pair{mediatest::truncatedCopy(clip("whole4.mp4", four), 0.5, "cut.mp4"), 3'900'000},
                              {mediatest::corruptedCopy(whole, 0.4, 4096, "damaged.mp4"), 1'900'000}}) {
    SCOPED_TRACE(path);
    FakeClock clock;
    VideoPlayer p(path, clock.options());
    ASSERT_EQ(p.waitOpened(10), VideoPlayer::Status::Ready);
    for (int64_t t : {1'000'000, 300'000, seekTo}) EXPECT_TRUE(seekAndWait(p, t).has_value()) << t;
    int32_t last = shownIndex(p);
    if (seekTo == 3'900'000) {
      EXPECT_TRUE(last > 20 && last < 117) << last;
      EXPECT_LT(p.durationUs(), 3'900'000);
    }
    EXPECT_NE(last, -2);
    p.setRate(4.0f);
    clock.advance(10.0);
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
      for (int i = 0; !stop; i++, std::this_thread::sleep_for(3ms)) {
        started++;
        p.seek((i * 370'000) % 3'000'000, [&](bool) { completed++; });
      }
    });
    threads.emplace_back([&] {
      const float rates[] = {1.0f, 0.0f, 2.0f, -1.0f, 0.5f};
      for (int i = 0; !stop; i++, std::this_thread::sleep_for(2ms)) {
        p.setRate(rates[i % 5]);
        (void)p.takeEnded();
      }
    });
    threads.emplace_back([&] {
      for (; !stop; std::this_thread::sleep_for(1ms)) {
        VideoPlayer::FramePtr f = p.frameForHostTime(p.hostTime());
        EXPECT_TRUE(!f || videotest::indexOfFrame(f->frame) >= 0);
        (void)p.currentTimeUs();
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
