// `kavlen waveform` and `kavlen thumbnail` as a user runs them: the JSON
// printed, the files written, and the one-line errors.
#include <gtest/gtest.h>
#include <stb_image.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

#include "image_file.h"
#include "media_samples.h"

namespace {

using mediatest::CliRun;
using mediatest::kavlen;
using mediatest::q;

// The numbers of the printed JSON's "peaks" list.
std::vector<double> peaksOf(const std::string& json) {
  std::vector<double> values;
  size_t open = json.find("\"peaks\": ["), close = json.find(']', open);
  if (open == std::string::npos || close == std::string::npos) return values;
  std::stringstream list(json.substr(open + 10, close - open - 10));
  for (std::string item; std::getline(list, item, ',');) values.push_back(std::stod(item));
  return values;
}

// A failed run: exit 1, nothing on stdout, one line on stderr starting with `prefix`.
bool refused(const CliRun& r, const std::string& prefix) {
  return r.code == 1 && r.out.empty() && r.err.rfind(prefix, 0) == 0 && std::count(r.err.begin(), r.err.end(), '\n') == 1;
}

}  // namespace

TEST(CliWaveform, PrintsPeaksWritesPcmAndPictureAndFailsInOneLine) {
  std::string tone = mediatest::make(
      "cli_tone.wav", "-f lavfi -i \"aevalsrc=exprs='if(lt(t\\,1)\\,0.25\\,0.75)*sin(2*PI*441*t)':s=22050:d=2\" "
                      "-c:a pcm_f32le");
  std::string pcm = mediatest::pathOf("cli.f32"), png = mediatest::pathOf("cli_wave.png");
  CliRun r = kavlen("waveform " + q(tone) + " --count 5 --pcm " + q(pcm) + " --png " + q(png));
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("\"duration\": 2"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("\"sampleRate\": 44100"), std::string::npos) << r.out;
  std::vector<double> peaks = peaksOf(r.out);
  ASSERT_EQ(peaks.size(), 16u);  // 5 is clamped up to 16
  EXPECT_NEAR(peaks[0], 0.25, 2e-3);
  EXPECT_NEAR(peaks[15], 0.75, 2e-3);
  EXPECT_EQ(std::filesystem::file_size(pcm), 88200u * 4);
  ImageFile picture;
  std::string error;
  ASSERT_TRUE(ImageFile::load(png, picture, error)) << error;
  EXPECT_EQ(picture.width, 16);
  // A louder column reaches nearer the top.
  auto lit = [&](int x, int y) { return picture.rgba[(size_t(y) * picture.width + x) * 4 + 2] > 200; };
  EXPECT_TRUE(lit(15, picture.height / 2 - 60) && !lit(0, picture.height / 2 - 60) && lit(0, picture.height / 2 - 10));
  EXPECT_EQ(peaksOf(kavlen("waveform " + q(tone)).out).size(), 1000u);

  std::string none = mediatest::pathOf("never.f32");
  CliRun missing = kavlen("waveform " + q(mediatest::pathOf("gone.wav")) + " --pcm " + q(none));
  EXPECT_TRUE(refused(missing, "kavlen: waveform: no such file")) << missing.err;
  CliRun silent = kavlen("waveform " + q(mediatest::indexedVideo(30, 1, false)) + " --pcm " + q(none));
  EXPECT_TRUE(refused(silent, "kavlen: waveform: ") && silent.err.find("no audio") != std::string::npos) << silent.err;
  // A cut-off file's pcm is refused and removed.
  std::string full = mediatest::make("cli_long.m4a", "-f lavfi -i \"anoisesrc=d=6:a=0.5\" -c:a aac -movflags +faststart");
  EXPECT_EQ(kavlen("waveform " + q(mediatest::truncatedCopy(full, 0.5, "cli_cut.m4a")) + " --pcm " + q(none)).code, 1);
  EXPECT_FALSE(std::filesystem::exists(none) || std::filesystem::exists(none + ".part"));
  EXPECT_EQ(kavlen("waveform " + q(full) + " --count many").code, 1);
  EXPECT_EQ(kavlen("waveform").code, 1);
}

TEST(CliThumbnail, WritesAFittedUprightJpegAndFailsInOneLine) {
  std::string wide = mediatest::make("cli_wide.mp4", "-f lavfi -i testsrc2=s=320x180:d=2 -pix_fmt yuv420p");
  std::string jpg = mediatest::pathOf("cli_thumb.jpg");
  int w = 0, h = 0, n = 0;
  for (auto [args, size, fw, fh] : {std::tuple{q(mediatest::rotatedCopy(wide, 90, "cli_turned.mp4")) + " --width 100",
                                               "(56x100)", 56, 100}, {q(wide), "(320x180)", 320, 180}}) {
    CliRun r = kavlen("thumbnail " + args + " -o " + q(jpg));
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_NE(r.err.find(size), std::string::npos) << r.err;
    ASSERT_TRUE(stbi_info(jpg.c_str(), &w, &h, &n));
    EXPECT_EQ(std::pair(w, h), std::pair(fw, fh));
  }

  std::string none = mediatest::pathOf("cli_none.jpg");
  CliRun audio = kavlen("thumbnail " + q(mediatest::make("cli_song.m4a", "-f lavfi -i sine=d=1 -c:a aac")) + " -o " + q(none));
  EXPECT_TRUE(refused(audio, "kavlen: thumbnail: no picture")) << audio.err;
  EXPECT_EQ(kavlen("thumbnail " + q(wide)).code, 1);  // no -o
  EXPECT_EQ(kavlen("thumbnail " + q(wide) + " --width -3 -o " + q(none)).code, 1);
  EXPECT_FALSE(std::filesystem::exists(none) || std::filesystem::exists(none + ".part"));
}
