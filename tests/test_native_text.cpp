// Text of the offline renderer: effect passes, flat and arc layouts against
// checked-in pictures, the text keys of output windows, bad input, and the
// same text on the CPU, GPU and offline paths.
//
// Text pictures are compared within 8 levels on 99.5% of pixels: another
// FreeType or Cairo release may place a glyph edge a little differently.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <chrono>
#include <filesystem>
#include <fstream>

#include "image_file.h"
#include "native_test_util.h"
#include "native_text.h"
#include "output_text_rasterizer.h"

// Fontconfig and Pango keep their font caches for the life of the process
// (Pango's per thread), which the leak checker cannot see as reachable.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libfontconfig.so\nleak:libpango-1.0.so\nleak:libpangoft2-1.0.so\nleak:libpangocairo-1.0.so\n";
}

namespace {

using namespace kavlen::native;
using nativetest::Frame;

Frame surface(const TextSpec& spec, const Effects& e = {}, uint32_t argb = 0xFFFFFFFF) {
  nativetest::useBundledFonts();
  kavlen::img::Image im = renderText(spec, argb, e);
  Frame f{1280, 720, {}};
  if (!im.isNull()) f.rgba = kavlen::img::renderBytes(im, {0, 0, 1280, 720}, kavlen::img::PixelOrder::RGBA);
  return f;
}

TextSpec spec(const std::string& text, double arc = 0, const std::string& align = "center") {
  TextSpec s;
  s.text = text;
  s.arc = arc;
  s.align = align;
  return s;
}

// Bounds of the pixels with any alpha: x0, y0 (top), x1, y1.
std::array<int, 4> ink(const Frame& f) {
  std::array<int, 4> b{f.w, f.h, -1, -1};
  for (int y = 0; y < f.h; y++)
    for (int x = 0; x < f.w; x++)
      if (f.at(x, y)[3] > 16) b = {std::min(b[0], x), std::min(b[1], y), std::max(b[2], x), std::max(b[3], y)};
  return b;
}

Effects allEffects() {
  return Effects::json(*valueFromJson(R"({"stroke": {"width": 4, "argb": 4278190335}, "shadow": {"argb": 2566914048},
    "glow": {"radius": 20, "argb": 4294901760}, "bevel": {"depth": 9}})"));
}

TEST(NativeText, PassesInDrawingOrder) {
  EXPECT_EQ(textPasses(Effects{}).size(), 1u);
  std::vector<TextPass> p = textPasses(allEffects());
  ASSERT_EQ(p.size(), 6u);
  const double q = 2.0 / 3.0;
  EXPECT_DOUBLE_EQ(p[0].dx, 8 * q);           // shadow
  EXPECT_DOUBLE_EQ(p[0].blur, 12 * q * 0.5);
  EXPECT_DOUBLE_EQ(p[1].stroke, 20 * q);      // glow
  EXPECT_EQ(p[2].argb, 0xB3000000u);          // bevel shadow to the lower right
  EXPECT_GT(p[2].dx, 0);
  EXPECT_GT(p[2].dy, 0);
  EXPECT_EQ(p[3].argb, 0xB3FFFFFFu);          // highlight to the upper left
  EXPECT_LT(p[3].dy, 0);
  EXPECT_DOUBLE_EQ(p[4].stroke, 2 * 4 * q);   // stroke
  EXPECT_TRUE(p[5].ownColor);                 // fill last
}

std::string textLayer(const std::string& corners, const std::string& paint, const std::string& extra = "") {
  return R"({"id": "x", "corners": )" + corners + R"(, "paint": {"type": "text", )" + paint + "}" + extra + "}";
}

TEST(NativeText, GoldenLayouts) {
  std::string scene = R"({"mappings": [)" +
      textLayer("[[0,0],[0.5,0],[0.5,0.5],[0,0.5]]", R"("text": "Left aligned\nsecond line", "align": "left", "argb": 4294967295)") + "," +
      textLayer("[[0.5,0],[1,0],[1,0.5],[0.5,0.5]]", R"("text": "Right, bold", "align": "right", "bold": true, "argb": 4294950912)") + "," +
      textLayer("[[0,0.5],[0.5,0.5],[0.5,1],[0,1]]", R"("text": "Centred italic words that wrap over the margins of the surface", "italic": true, "argb": 4278255615, "size": 0.15)") + "," +
      textLayer("[[0.5,0.5],[1,0.5],[1,1],[0.5,1]]", R"("text": "Named family", "font": "DejaVu Sans", "argb": 4294901887, "size": 0.2)") +
      "]}";
  nativetest::expectGolden(nativetest::render(scene, 640, 360), "text_layouts", 8, 0.995);
}

TEST(NativeText, GoldenArcsAndEffects) {
  std::string scene = R"({"mappings": [)" +
      textLayer("[[0,0],[0.5,0],[0.5,0.5],[0,0.5]]", R"("text": "Over the hilltop", "arc": 120, "argb": 4294967295)") + "," +
      textLayer("[[0.5,0],[1,0],[1,0.5],[0.5,0.5]]", R"("text": "Down the valley", "arc": -90, "argb": 4294950912)") + "," +
      textLayer("[[0,0.5],[1,0.5],[1,1],[0,1]]", R"("text": "Effects", "size": 0.3, "argb": 4294967295)",
                R"(, "effects": {"stroke": {"width": 4, "argb": 4278190335}, "shadow": {"argb": 2566914048},
                   "glow": {"radius": 20, "argb": 4294901760}, "bevel": {"depth": 9}})") +
      "]}";
  nativetest::expectGolden(nativetest::render(scene, 640, 360), "text_arcs_effects", 8, 0.995);
}

TEST(NativeText, LayoutRules) {
  // An arc of 0.4 is flat, one of 0.5 is on a circle; 400 is laid out as 350.
  EXPECT_EQ(surface(spec("Arc", 0.4)).rgba, surface(spec("Arc", 0)).rgba);
  EXPECT_NE(surface(spec("Arc", 0.5)).rgba, surface(spec("Arc", 0)).rgba);
  EXPECT_EQ(surface(spec("Round", 400)).rgba, surface(spec("Round", 350)).rgba);
  // On an arc a line break reads as a space.
  EXPECT_EQ(surface(spec("a\nb", 60)).rgba, surface(spec("a b", 60)).rgba);
  // Any alignment but left or right centres.
  EXPECT_EQ(surface(spec("Middle", 0, "justify")).rgba, surface(spec("Middle", 0)).rgba);
  // Left text starts at the margin of 51.2; a block of lines sits centred in height.
  std::array<int, 4> left = ink(surface(spec("Left\nLines\nThree", 0, "left")));
  EXPECT_GE(left[0], 51);
  EXPECT_LE(left[0], 62);
  int lineH = int(0.12 * 720 * 1.2);
  EXPECT_NEAR(left[1], 360 - 1.5 * lineH, 0.45 * lineH);
  EXPECT_NEAR(left[3], 360 + 1.5 * lineH, 0.45 * lineH);
}

TEST(NativeText, BadInputGivesThePartsResult) {
  Frame empty = surface(spec(""));
  ASSERT_FALSE(empty.rgba.empty());  // flat: a transparent picture
  EXPECT_EQ(ink(empty)[2], -1);
  EXPECT_TRUE(surface(spec("", 45)).rgba.empty());  // arc: nothing
  EXPECT_EQ(ink(surface(spec("\u200B\u200B", 45)))[2], -1);  // zero-width only: an empty picture
  // A combining accent stays with its letter: as wide as the composed letter.
  std::array<int, 4> decomposed = ink(surface(spec("ae\u0301z", 40))), composed = ink(surface(spec("a\u00E9z", 40)));
  EXPECT_NEAR(decomposed[0], composed[0], 2);
  EXPECT_NEAR(decomposed[2], composed[2], 2);
  // A family that doesn't exist is matched to another; size 0 takes 12.
  TextSpec missing = spec("Fallback");
  missing.font = "No Such Family 42";
  EXPECT_NE(ink(surface(missing))[2], -1);
  TextSpec zero = spec("tiny");
  zero.size = 0;
  std::array<int, 4> z = ink(surface(zero));
  EXPECT_LT(z[3] - z[1], 20);
  // A huge size covers the surface, without unbounded work.
  TextSpec huge = spec("W");
  huge.size = 100000;
  auto t0 = std::chrono::steady_clock::now();
  Frame big = surface(huge);
  EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(20));
  EXPECT_EQ(big.rgba.size(), 1280u * 720 * 4);
}

TEST(NativeText, TextKeysOfOutputWindows) {
  nativetest::useBundledFonts();
  NativeScene s = NativeScene::jsonText(R"({"mappings": [
    {"id": "a#b", "paint": {"type": "text", "text": "hash"}},
    {"id": "t", "paint": {"type": "text", "text": "layer"}, "clips": [
      {"startMs": 0, "lengthMs": 10, "paint": {"type": "text", "text": "first"}},
      {"startMs": 10, "lengthMs": 10, "paint": {"type": "text", "text": "second"}}]},
    {"id": "c", "paint": {"type": "color"}}]})", 1280, 720);
  NativeCompositor c(NativeScene::jsonText("{}", 1280, 720), "");
  auto specOf = [&](const std::string& key) {
    std::optional<NativeTextImage> r = c.textImage(key, s, std::nullopt);
    return r ? r->spec.substr(0, r->spec.find('|')) : std::string("(none)");
  };
  EXPECT_EQ(specOf("text:t"), "layer");
  EXPECT_EQ(specOf("text:t#1"), "second");
  EXPECT_EQ(specOf("text:t#2"), "layer");  // no such clip
  EXPECT_EQ(specOf("text:t#x"), "layer");
  EXPECT_EQ(specOf("text:a#b"), "(none)");  // cut at the first "#"
  EXPECT_EQ(specOf("text:c"), "(none)");
  EXPECT_EQ(specOf("text:"), "(none)");
  std::optional<NativeTextImage> first = c.textImage("text:t", s, std::nullopt);
  ASSERT_TRUE(first && first->image);
  EXPECT_EQ(first->image->width, 1280);
  int64_t renders = c.stats().textRenders;
  std::optional<NativeTextImage> again = c.textImage("text:t", s, first->spec);
  ASSERT_TRUE(again.has_value());
  EXPECT_FALSE(again->image.has_value());  // unchanged: no picture made
  EXPECT_EQ(c.stats().textRenders, renders);

  OutputTextRasterizer texts;
  EXPECT_FALSE(texts.text("text:t", std::nullopt).has_value());  // before any scene
  texts.setScene(s);
  EXPECT_TRUE(texts.text("text:t", std::nullopt)->image.has_value());
}

// One text layer over the whole frame, through `kavlen render` on each path.
TEST(NativeText, SameTextOnEveryPath) {
  nativetest::useBundledFonts();
  std::filesystem::path dir = std::filesystem::temp_directory_path() / ("kavlen-text-" + std::to_string(getpid()));
  std::filesystem::create_directories(dir);
  std::ofstream(dir / "scene.json") << R"({"outputs": [{"id": "o", "resolution": [640, 360]}], "mappings": [
    {"id": "title", "corners": [[0,0],[1,0],[1,1],[0,1]], "paint": {"type": "text", "text": "Same text\neverywhere",
     "argb": 4294950912, "size": 0.2}, "effects": {"stroke": {"width": 3, "argb": 4278190335}}}]})";
  std::map<std::string, Frame> frames;
  for (const char* path : {"", "--gpu", "--native"}) {
    std::string out = (dir / (std::string("f") + path + ".png")).string();
    std::string cmd = std::string(KAVLEN_EXE) + " render " + (dir / "scene.json").string() + " -o " + out + " " + path +
                      " > /dev/null 2>&1";
    int rc = system(cmd.c_str());
    ImageFile im;
    std::string err;
    if (std::string(path) == "--gpu" && (rc != 0 || !ImageFile::load(out, im, err))) continue;  // no GL here
    ASSERT_EQ(rc, 0) << cmd;
    ASSERT_TRUE(ImageFile::load(out, im, err)) << err;
    frames[path] = Frame{im.width, im.height, im.rgba};
  }
  std::filesystem::remove_all(dir);
  EXPECT_NE(ink(frames[""])[2], -1);
  // The CPU and GPU paths draw the same bitmap with their own filters.
  EXPECT_GE(nativetest::agreement(frames[""], frames["--native"], 8), 0.99);
  if (frames.count("--gpu")) {
    EXPECT_GE(nativetest::agreement(frames["--gpu"], frames["--native"], 8), 0.99);
  }
}

}  // namespace
