// The GPU output renderer on a headless GL ES context: construction and its
// failures, the modes, the caller's target, the texture caches, the media
// pass with images and text, and the test chart.
#include <EGL/egl.h>
#include <EGL/eglext.h>

#include <cstring>
#include <filesystem>
#include <set>

#include "gpu_test_util.h"
#include "test_pattern.h"

// Fontconfig and Pango keep their font caches for the life of the process
// (Pango's per thread), which the leak checker cannot see as reachable.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libfontconfig.so\nleak:libpango-1.0.so\nleak:libpangoft2-1.0.so\nleak:libpangocairo-1.0.so\n";
}

namespace {

using gputest::drawGpu;
using gputest::GpuTest;
using gputest::Picture;

std::string solidScene(int w, int h, const std::string& extraLayers = "") {
  return R"({"outputs":[{"id":"out-1","resolution":[)" + std::to_string(w) + "," + std::to_string(h) +
         R"(]}],"mappings":[{"id":"a","corners":[[0,0],[1,0],[1,1],[0,1]],"paint":{"type":"color","argb":4278255360}})" +
         extraLayers + "]}";
}

std::string state(const std::string& scene, const std::string& extra = "") {
  return R"({"scene":)" + scene + (extra.empty() ? "" : "," + extra) + "}";
}

bool allPixels(const Picture& p, uint8_t r, uint8_t g, uint8_t b) {
  for (size_t i = 0; i < p.px.size(); i += 4)
    if (p.px[i] != r || p.px[i + 1] != g || p.px[i + 2] != b) return false;
  return true;
}

// Fills a target with one colour, to see what a frame keeps or clears.
void fill(const GlOffscreen& fb, float r, float g, float b) {
  glBindFramebuffer(GL_FRAMEBUFFER, fb.framebuffer());
  glDisable(GL_SCISSOR_TEST);
  glClearColor(r, g, b, 1);
  glClear(GL_COLOR_BUFFER_BIT);
}

const kvl_source* sourceOf(kvl_engine* e, const char* key) {
  const kvl_sources* s = kvl_engine_sources(e);
  for (int32_t i = 0; s && i < s->count; i++)
    if (std::strcmp(s->entries[i].key, key) == 0) return &s->entries[i];
  return nullptr;
}

// ---- construction and failure --------------------------------------------

class GpuRenderer : public GpuTest {};

TEST_F(GpuRenderer, NoCurrentContextGivesNoRendererAndNoMessage) {
  ASSERT_TRUE(eglMakeCurrent(gl->display(), EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT));
  ::testing::internal::CaptureStderr();
  auto r = GlOutputRenderer::create([] { return std::string(); });
  std::string err = ::testing::internal::GetCapturedStderr();
  ASSERT_TRUE(gl->makeCurrent());
  EXPECT_EQ(r, nullptr);
  EXPECT_EQ(err, "");
}

TEST_F(GpuRenderer, ShaderThatFailsToCompileLogsAndGivesNoRenderer) {
  GlShaderSources broken = GlShaderSources::builtIn();
  broken.fsLayer += "\nvoid broken( {\n";
  ::testing::internal::CaptureStderr();
  auto r = GlOutputRenderer::create([] { return std::string(); }, &broken);
  std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(r, nullptr);
  EXPECT_EQ(err.rfind("[kavlen] Metal: kvl_fs_layer: ", 0), 0u) << err;
  EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
  // The built-in stages still build afterwards.
  EXPECT_NE(GlOutputRenderer::create([] { return std::string(); }), nullptr);
}

TEST_F(GpuRenderer, LostContextIsReportedOnceAndEveryLaterFrameRefused) {
  auto r = makeRenderer();
  ASSERT_NE(r, nullptr);
  r->setState(state(solidScene(32, 18)));
  GlOffscreen fb;
  std::string e;
  ASSERT_TRUE(fb.create(32, 18, e));
  ASSERT_TRUE(r->drawFrame(0, fb.target()));
  EXPECT_FALSE(r->failed());

  // Another context current in its place: the renderer's objects are gone
  // from the GL's point of view.
  const EGLint attrs[] = {EGL_CONTEXT_MAJOR_VERSION, 3, EGL_NONE};
  EGLContext other = eglCreateContext(gl->display(), EGL_NO_CONFIG_KHR, EGL_NO_CONTEXT, attrs);
  ASSERT_NE(other, EGL_NO_CONTEXT);
  ASSERT_TRUE(eglMakeCurrent(gl->display(), EGL_NO_SURFACE, EGL_NO_SURFACE, other));
  ::testing::internal::CaptureStderr();
  EXPECT_FALSE(r->drawFrame(0, GlTarget{0, 32, 18}));
  EXPECT_FALSE(r->draw(GlTarget{0, 32, 18}));
  std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_TRUE(r->failed());
  EXPECT_EQ(err.rfind("[kavlen] Metal: contexto GL perdido", 0), 0u) << err;
  EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;

  ASSERT_TRUE(gl->makeCurrent());
  eglDestroyContext(gl->display(), other);
  EXPECT_FALSE(r->drawFrame(0, fb.target()));  // failure is final
  // The state side still answers, and destruction is harmless.
  EXPECT_TRUE(r->setState(state(solidScene(32, 18))).has_value());
  r.reset();
}

TEST_F(GpuRenderer, StateAndListLinesShareOneBudgetOfEight) {
  auto r = makeRenderer();
  GlOffscreen fb;
  std::string e;
  ASSERT_TRUE(fb.create(32, 18, e));
  ::testing::internal::CaptureStderr();
  for (int i = 0; i < 3; i++) r->setState(state(solidScene(32, 18)));
  for (int i = 0; i < 7; i++) ASSERT_TRUE(r->drawFrame(0, fb.target()));
  r->setState(state(solidScene(32, 18)));  // the state line is silent past five
  ASSERT_TRUE(r->drawFrame(0, fb.target()));
  std::string err = ::testing::internal::GetCapturedStderr();
  auto count = [&](const std::string& what) {
    size_t n = 0;
    for (size_t at = err.find(what); at != std::string::npos; at = err.find(what, at + 1)) n++;
    return n;
  };
  EXPECT_EQ(count("[kavlen] saída Metal: cena "), 3u) << err;
  EXPECT_EQ(count("[kavlen] saída Metal: lista 1 cmds, 4 vértices, 0 máscaras, alvo 32x18\n"), 5u) << err;
  EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 8) << err;
  EXPECT_EQ(r->logCount(), 8);
}

// ---- modes and the caller's target ----------------------------------------

TEST_F(GpuRenderer, BlackoutClearsAndKeepsTheSceneWaiting) {
  auto r = makeRenderer();
  GlOffscreen fb;
  std::string e;
  ASSERT_TRUE(fb.create(40, 30, e));
  r->setState(state(solidScene(40, 30), R"("mode":"blackout")"));
  fill(fb, 1, 0, 0);
  ASSERT_TRUE(r->draw(fb.target()));
  Picture p;
  p.w = 40;
  p.h = 30;
  ASSERT_TRUE(fb.read(p.px));
  EXPECT_TRUE(allPixels(p, 0, 0, 0));
  EXPECT_EQ(r->engine(), nullptr);  // no engine during blackout
  EXPECT_TRUE(r->shared().pendingScene.has_value());

  // The chart mode keeps it waiting too; any scene-showing mode applies it.
  r->setState(state(solidScene(40, 30), R"("mode":"testPattern")"));
  ASSERT_TRUE(r->draw(fb.target()));
  EXPECT_EQ(r->engine(), nullptr);
  r->setState(state(solidScene(40, 30), R"("mode":"someday")"));
  ASSERT_TRUE(r->draw(fb.target()));
  EXPECT_NE(r->engine(), nullptr);
  EXPECT_FALSE(r->shared().pendingScene.has_value());
}

TEST_F(GpuRenderer, CallersTargetKeepsItsContentUnlessItAsksForAClear) {
  auto r = makeRenderer();
  GlOffscreen fb;
  std::string e;
  ASSERT_TRUE(fb.create(16, 8, e));
  Picture p{16, 8, {}};
  // No state yet: no engine, and a frame is one empty pass.
  fill(fb, 0, 0, 1);
  GlTarget keep = fb.target();
  keep.clear = false;
  ASSERT_TRUE(r->drawFrame(0, keep));
  ASSERT_TRUE(fb.read(p.px));
  EXPECT_TRUE(allPixels(p, 0, 0, 255));

  GlTarget grey = fb.target();
  grey.clearColor[0] = grey.clearColor[1] = grey.clearColor[2] = 0.5f;
  ASSERT_TRUE(r->drawFrame(0, grey));
  ASSERT_TRUE(fb.read(p.px));
  EXPECT_TRUE(allPixels(p, 128, 128, 128));

  // draw() is a window's frame: opaque black first.
  ASSERT_TRUE(r->draw(keep));
  ASSERT_TRUE(fb.read(p.px));
  EXPECT_TRUE(allPixels(p, 0, 0, 0));
}

// ---- texture caches ----------------------------------------------------------

class GpuTextures : public GpuTest {};

kvl_draw_ref maskRef(std::vector<uint8_t>& bytes, int32_t w, int32_t h, uint64_t hash) {
  bytes.assign(static_cast<size_t>(w) * h, static_cast<uint8_t>(hash));
  return kvl_draw_ref{bytes.data(), w, h, hash};
}

TEST_F(GpuTextures, MaskCacheHoldsSixtyFourFirstInFirstOut) {
  auto r = makeRenderer();
  std::vector<uint8_t> bytes;
  for (uint64_t k = 1; k <= 64; k++) ASSERT_TRUE(r->maskTexture(maskRef(bytes, 8, 4, k)).has_value());
  EXPECT_EQ(r->maskCacheSize(), 64u);
  EXPECT_EQ(r->stats().maskUploads, 64);

  // A hit does not refresh a mask's place: mask 1 is still the oldest.
  auto first = r->maskTexture(maskRef(bytes, 8, 4, 1));
  ASSERT_TRUE(first.has_value());
  EXPECT_EQ(r->stats().maskUploads, 64);
  ASSERT_TRUE(r->maskTexture(maskRef(bytes, 8, 4, 65)).has_value());
  EXPECT_EQ(r->maskCacheSize(), 64u);
  EXPECT_FALSE(r->hasMask(1));
  EXPECT_TRUE(r->hasMask(2));
  EXPECT_TRUE(r->hasMask(65));
  // Next use of mask 1 uploads it again and pushes out mask 2.
  ASSERT_TRUE(r->maskTexture(maskRef(bytes, 8, 4, 1)).has_value());
  EXPECT_EQ(r->stats().maskUploads, 66);
  EXPECT_FALSE(r->hasMask(2));

  // The key is the hash alone: other bytes under a known hash share the texture.
  std::vector<uint8_t> other(32, 200);
  auto same = r->maskTexture(kvl_draw_ref{other.data(), 8, 4, 65});
  EXPECT_EQ(r->stats().maskUploads, 66);
  ASSERT_TRUE(same.has_value());

  // A reference without data makes no texture, after eviction as usual.
  EXPECT_FALSE(r->maskTexture(kvl_draw_ref{nullptr, 8, 4, 999}).has_value());
  EXPECT_EQ(r->maskCacheSize(), 63u);
  EXPECT_FALSE(r->maskTexture(kvl_draw_ref{other.data(), 0, 4, 1000}).has_value());
}

TEST_F(GpuTextures, ImagesDecodeOnceMissingFilesAreRetriedBrokenOnesAreNot) {
  auto r = makeRenderer();
  EXPECT_FALSE(r->imageTexture("late.png").has_value());
  EXPECT_FALSE(r->isMissingImage("late.png"));  // not recorded: tried again
  writeImage("late.png", 6, 3, [](int32_t x, int32_t, uint8_t* p) {
    p[0] = static_cast<uint8_t>(x * 40);
    p[1] = 0;
    p[2] = 0;
    p[3] = 255;
  });
  auto t = r->imageTexture("late.png");
  ASSERT_TRUE(t.has_value());
  EXPECT_EQ(t->width, 6);
  EXPECT_EQ(t->height, 3);
  std::filesystem::remove(media + "/late.png");
  auto again = r->imageTexture("late.png");  // a cache hit, no file needed
  ASSERT_TRUE(again.has_value());
  EXPECT_EQ(again->id, t->id);

  FILE* f = fopen((media + "/broken.png").c_str(), "wb");
  ASSERT_NE(f, nullptr);
  fputs("\x89PNG\r\n\x1a\nnot really", f);
  fclose(f);
  EXPECT_FALSE(r->imageTexture("broken.png").has_value());
  EXPECT_TRUE(r->isMissingImage("broken.png"));
  writeImage("broken.png", 2, 2, [](int32_t, int32_t, uint8_t* p) { std::memset(p, 255, 4); });
  EXPECT_FALSE(r->imageTexture("broken.png").has_value());  // never tried again

  // A movie's key is the players' business, whatever the file holds.
  writeImage("clip.MOV", 2, 2, [](int32_t, int32_t, uint8_t* p) { std::memset(p, 255, 4); });
  EXPECT_FALSE(r->imageTexture("clip.MOV").has_value());
  EXPECT_FALSE(r->isMissingImage("clip.MOV"));
}

TEST_F(GpuTextures, KeysResolveUnderTheRootOrTheAssetsFolder) {
  auto r = makeRenderer();
  EXPECT_EQ(r->resolve("a/b.png"), media + "/a/b.png");
  setenv("KAVLEN_ASSETS", "/opt/kavlen/flutter_assets/", 1);
  EXPECT_EQ(r->resolve("assets/x.png"), "/opt/kavlen/flutter_assets/assets/x.png");
  unsetenv("KAVLEN_ASSETS");
  auto bare = GlOutputRenderer::create([] { return std::string(); });
  EXPECT_EQ(bare->resolve("rel/x.png"), "rel/x.png");
}

TEST_F(GpuTextures, MediaPassDeclaresImagesAndAsksTheTextProviderOncePerState) {
  writeImage("wall.png", 12, 5, [](int32_t, int32_t, uint8_t* p) { std::memset(p, 255, 4); });
  std::string scene = R"({"outputs":[{"id":"out-1","resolution":[64,36]}],"mappings":[
      {"id":"w","corners":[[0,0],[1,0],[1,1],[0,1]],"paint":{"type":"image","path":"wall.png"}},
      {"id":"t","corners":[[0,0],[1,0],[1,1],[0,1]],"paint":{"type":"text"}},
      {"id":"u","corners":[[0,0],[1,0],[1,1],[0,1]],"paint":{"type":"text"}},
      {"id":"v","corners":[[0,0],[1,0],[1,1],[0,1]],"paint":{"type":"video","path":"m.mp4"}}]})";
  auto r = makeRenderer();
  std::map<std::string, int> asked;
  std::map<std::string, std::optional<std::string>> specSeen;
  int version = 1;
  r->textProvider = [&](const std::string& key, const std::optional<std::string>& spec) -> std::optional<TextRendering> {
    asked[key]++;
    specSeen[key] = spec;
    if (key != "text:t") return std::nullopt;  // "u" is unknown to the provider
    std::string want = "v" + std::to_string(version);
    if (spec && *spec == want) return TextRendering{want, std::nullopt};
    ImageFile img;
    img.width = 4 + version;
    img.height = 2;
    img.rgba.assign(static_cast<size_t>(img.width) * 2 * 4, 255);
    return TextRendering{want, img};
  };
  r->setState(state(scene));
  drawGpu(*r, 64, 36);
  kvl_engine* e = r->engine();
  ASSERT_NE(e, nullptr);
  const kvl_source* wall = sourceOf(e, "wall.png");
  ASSERT_NE(wall, nullptr);
  EXPECT_EQ(wall->width, 12);
  EXPECT_EQ(wall->height, 5);
  EXPECT_EQ(wall->pixels, nullptr);  // declared: the pixels stay on the GPU
  const kvl_source* text = sourceOf(e, "text:t");
  ASSERT_NE(text, nullptr);
  EXPECT_EQ(text->width, 5);
  EXPECT_EQ(sourceOf(e, "m.mp4"), nullptr);  // videos wait for their first frame
  EXPECT_EQ(asked["text:t"], 1);
  EXPECT_FALSE(specSeen["text:t"].has_value());

  // Frames without a new state leave known text alone; unknown text is
  // asked on every frame.
  drawGpu(*r, 64, 36);
  EXPECT_EQ(asked["text:t"], 1);
  EXPECT_EQ(asked["text:u"], 2);

  // A state that changes nothing: asked with the old spec, nothing changes.
  r->setState(state(scene));
  drawGpu(*r, 64, 36);
  EXPECT_EQ(asked["text:t"], 2);
  EXPECT_EQ(specSeen["text:t"], std::optional<std::string>("v1"));
  EXPECT_EQ(sourceOf(e, "text:t")->width, 5);

  // A changed text is declared again with its new size.
  version = 2;
  r->setState(state(scene));
  drawGpu(*r, 64, 36);
  EXPECT_EQ(sourceOf(e, "text:t")->width, 6);

  // mediaReset: images are declared again from the cache without the file;
  // text only when the provider has a new rendering.
  std::filesystem::remove(media + "/wall.png");
  r->setState("mediaReset");
  EXPECT_TRUE(r->declared().empty());
  drawGpu(*r, 64, 36);
  EXPECT_EQ(r->declared().count("wall.png"), 1u);
  EXPECT_EQ(r->declared().count("text:t"), 0u);
  EXPECT_EQ(r->engine(), e);
}

// ---- the test chart -----------------------------------------------------------

class GpuPattern : public GpuTest {};

bool isAccent(const uint8_t* p) { return p[2] > 180 && p[0] < 140 && p[1] > 140; }
bool isWhite(const uint8_t* p) { return p[0] > 200 && p[1] > 200 && p[2] > 200; }

TEST(GpuPatternChart, LabelsNameTheTargetOnlyWhenItDiffers) {
  EXPECT_EQ(testChartLabels(1920, 1080, 1920, 1080), std::vector<std::string>{"1920 \u00d7 1080"});
  EXPECT_EQ(testChartLabels(1920, 1080, 1280, 1024),
            (std::vector<std::string>{"1920 \u00d7 1080", "\u2192 1280 \u00d7 1024"}));
  std::vector<uint8_t> px;
  EXPECT_FALSE(drawTestChart(0, 10, {}, px));
  EXPECT_TRUE(px.empty());
}

TEST(GpuPatternChart, SquareChartKeepsTheCircleATenthInsideAndSecondLabelBelow) {
  const int32_t n = 400;
  std::vector<uint8_t> px;
  ASSERT_TRUE(drawTestChart(n, n, testChartLabels(400, 400, 800, 600), px));
  auto at = [&](int32_t x, int32_t y) { return &px[(static_cast<size_t>(y) * n + x) * 4]; };
  // Opaque everywhere, black between the lines.
  EXPECT_EQ(at(n / 4 + 5, n / 4 + 5)[3], 255);
  EXPECT_EQ(at(n / 4 + 5, n / 4 + 5)[0], 0);
  // The large circle's extreme points, away from the corner marks.
  int32_t minX = n, maxX = 0, minY = n, maxY = 0;
  const int32_t corner = static_cast<int32_t>(n * 0.06) + 4;
  for (int32_t y = corner; y < n - corner; y++)
    for (int32_t x = corner; x < n - corner; x++)
      if (isAccent(at(x, y))) {
        if (std::abs(y - n / 2) < n / 4 && std::abs(x - n / 2) < n / 4) continue;  // the second label
        minX = std::min(minX, x), maxX = std::max(maxX, x), minY = std::min(minY, y), maxY = std::max(maxY, y);
      }
  EXPECT_NEAR(minX, n / 10, 2);
  EXPECT_NEAR(maxX, n - n / 10 - 1, 2);
  EXPECT_NEAR(minY, n / 10, 2);
  EXPECT_NEAR(maxY, n - n / 10 - 1, 2);
  // Corner marks are accent; the bottom-left corner is the chart's origin.
  EXPECT_TRUE(isAccent(at(5, n - 1)));
  EXPECT_TRUE(isAccent(at(n - 1, 5)));

  // Labels: white text above accent text, both below the centre line.
  double whiteY = 0, accentY = 0;
  int64_t whites = 0, accents = 0;
  for (int32_t y = n / 2 + 4; y < n / 2 + n * 0.18; y++)
    for (int32_t x = n / 2 - n / 10; x < n / 2 + n / 10; x++) {
      if (std::abs(x - n / 2) < 3) continue;  // the cross
      if (isWhite(at(x, y))) whiteY += y, whites++;
      if (isAccent(at(x, y))) accentY += y, accents++;
    }
  ASSERT_GT(whites, 20);
  ASSERT_GT(accents, 10);
  EXPECT_LT(whiteY / whites, accentY / accents);
}

TEST_F(GpuPattern, ChartIsLetterboxedAndCachedPerSizeAndLabels) {
  auto r = makeRenderer();
  r->setState(state(solidScene(1920, 1080), R"("mode":"testPattern")"));
  Picture p = drawGpu(*r, 1280, 1024);
  EXPECT_EQ(r->stats().patternDraws, 1);
  // 1280 by 720 in the middle, bars of 152 rows above and below.
  auto rowLit = [&](int32_t y) {
    for (int32_t x = 0; x < p.w; x++)
      if (p.at(x, y)[0] || p.at(x, y)[1] || p.at(x, y)[2]) return true;
    return false;
  };
  for (int32_t y : {0, 100, 151, 872, 900, 1023}) EXPECT_FALSE(rowLit(y)) << y;
  EXPECT_TRUE(rowLit(152));
  EXPECT_TRUE(rowLit(871));
  EXPECT_TRUE(isWhite(p.at(640, 512)));  // the centre cross
  EXPECT_EQ(p.at(0, 0)[3], 255);

  for (int i = 0; i < 3; i++) drawGpu(*r, 1280, 1024);
  EXPECT_EQ(r->stats().patternDraws, 1);  // nothing drawn again on the processor
  const int64_t allocations = r->stats().gpuAllocations;
  drawGpu(*r, 1280, 1024);
  EXPECT_EQ(r->stats().gpuAllocations, allocations);

  // Same size on the target: one label and the chart fills it.
  Picture q = drawGpu(*r, 1920, 1080);
  EXPECT_EQ(r->stats().patternDraws, 2);
  EXPECT_TRUE(rowLit(0) || true);
  EXPECT_TRUE(isAccent(q.at(3, 1078)));  // a corner mark at the very corner
  EXPECT_TRUE(isAccent(q.at(1916, 1)));
}

// ---- the GPU against the CPU compositor ----------------------------------------
//
// Each scene is drawn twice: by kvl_engine_render with its images handed over
// as pixels, and through GlOutputRenderer with the same images as PNG files
// under its media root. `gputest::compare` measures the result: at least
// 99.5 % of pixels within 2 per channel, and every pixel off by more than 2
// must sit on a geometric step of the CPU picture (see gpu_test_util.h). Most
// scenes use a 1280 x 720 frame, where a frame pixel's centre is a surface
// texel's centre, so that the CPU's nearest mask lookup and the GPU's linear
// one read the same byte.

// The measure itself: a hard step may differ, a flat area may not.
TEST(GpuComparison, DifferencesCountOnlyOnGeometricSteps) {
  Picture cpu{40, 20, std::vector<uint8_t>(40u * 20 * 4, 255)};
  for (int32_t y = 0; y < 20; y++)
    for (int32_t x = 0; x < 20; x++) std::memset(&cpu.px[(static_cast<size_t>(y) * 40 + x) * 4], 0, 3);
  Picture gpu = cpu;
  gpu.px[(5 * 40 + 20) * 4] = 128;  // beside the black-to-white step: an edge pixel
  gputest::Comparison c = gputest::compare(gpu, cpu);
  EXPECT_EQ(c.offEdge, 0);
  EXPECT_EQ(c.maxDiff, 127);
  EXPECT_NEAR(c.within, 799.0 / 800.0, 1e-12);
  gpu.px[(5 * 40 + 30) * 4 + 1] = 252;  // 3 off in a flat white area
  c = gputest::compare(gpu, cpu);
  EXPECT_EQ(c.offEdge, 1);
  EXPECT_EQ(c.firstOffEdge.rfind("(30,5)", 0), 0u) << c.firstOffEdge;
  gpu.px[(5 * 40 + 30) * 4 + 1] = 253;  // 2 off is within
  EXPECT_EQ(gputest::compare(gpu, cpu).offEdge, 0);
  // On a faint step only as much difference as the step itself is allowed.
  for (int32_t y = 0; y < 20; y++)
    for (int32_t x = 0; x < 20; x++) std::memset(&cpu.px[(static_cast<size_t>(y) * 40 + x) * 4], 240, 3);
  gpu = cpu;
  gpu.px[(5 * 40 + 19) * 4] = 245;
  EXPECT_EQ(gputest::compare(gpu, cpu).offEdge, 0);
  gpu.px[(5 * 40 + 19) * 4] = 224;
  EXPECT_EQ(gputest::compare(gpu, cpu).offEdge, 1);
}

class GpuVsCpu : public GpuTest {
 protected:
  struct Image {
    std::string key;
    int32_t w, h;
    std::vector<uint8_t> rgba;
  };

  // A smooth, opaque picture with a transparent hole and a soft half-alpha
  // band, so colour, alpha and the premultiplied filter are all exercised.
  Image gradientImage(const std::string& key, int32_t w, int32_t h, bool hole = true) {
    Image img{key, w, h, std::vector<uint8_t>(static_cast<size_t>(w) * h * 4)};
    for (int32_t y = 0; y < h; y++)
      for (int32_t x = 0; x < w; x++) {
        uint8_t* p = &img.rgba[(static_cast<size_t>(y) * w + x) * 4];
        p[0] = static_cast<uint8_t>(255 * x / (w - 1));
        p[1] = static_cast<uint8_t>(255 * y / (h - 1));
        p[2] = static_cast<uint8_t>(255 - 255 * (x + y) / (w + h - 2));
        p[3] = 255;
        const int32_t dx = x - w / 3, dy = y - h / 2;
        if (hole && dx * dx + dy * dy < (h / 6) * (h / 6)) p[0] = p[1] = p[2] = p[3] = 0;
      }
    std::string err;
    EXPECT_TRUE(ImageFile::write_png(media + "/" + key, img.rgba.data(), w, h, w * 4, err)) << err;
    return img;
  }

  Picture drawCpu(const std::string& scene, int32_t w, int32_t h, const std::vector<const Image*>& images) {
    Picture p{w, h, std::vector<uint8_t>(static_cast<size_t>(w) * h * 4)};
    kvl_engine* e = kvl_engine_create(scene.c_str(), w, h, nullptr);
    EXPECT_NE(e, nullptr) << kvl_last_error();
    if (!e) return p;
    for (const Image* img : images)
      EXPECT_EQ(kvl_engine_set_source(e, img->key.c_str(), img->rgba.data(), img->w, img->h, img->w * 4), 0);
    EXPECT_EQ(kvl_engine_render(e, 0, p.px.data(), w * 4), 0);
    kvl_engine_destroy(e);
    return p;
  }

  // Draws `scene` on both roads at w x h and checks the comparison.
  void expectSame(const std::string& name, const std::string& scene, int32_t w, int32_t h,
                  const std::vector<const Image*>& images = {}, double minLit = 0.05) {
    Picture cpu = drawCpu(scene, w, h, images);
    auto r = makeRenderer();
    ASSERT_NE(r, nullptr);
    ASSERT_TRUE(r->setState(state(scene)).has_value());
    Picture gpu = drawGpu(*r, w, h);
    gputest::dump(name, gpu, cpu);
    gputest::Comparison c = gputest::compare(gpu, cpu);
    printf("  %s: %.3f %% within 2, max diff %d, %lld off edges\n", name.c_str(), c.within * 100.0, c.maxDiff,
           static_cast<long long>(c.offEdge));
    EXPECT_GE(c.within, 0.995) << name << ": max diff " << c.maxDiff;
    EXPECT_EQ(c.offEdge, 0) << name << ": first at " << c.firstOffEdge << ", max diff " << c.maxDiff;
    // A scene that drew nothing would compare too easily.
    EXPECT_GE(static_cast<double>(c.lit) / (static_cast<double>(w) * h), minLit) << name;
    // The list went through: one frame drew, and the engine saw the sizes.
    EXPECT_NE(r->engine(), nullptr);
    for (const Image* img : images) EXPECT_EQ(r->declared().count(img->key), 1u) << img->key;
  }

  static std::string scene720(const std::string& mappings, const std::string& extra = "") {
    return R"({"outputs":[{"id":"out-1","resolution":[1280,720]}],"mappings":[)" + mappings + "]" + extra + "}";
  }
};

// Vertices in frame fractions; colour layers behind give every picture a
// background with structure.
const char kBackdrop[] =
    R"({"id":"bg","corners":[[0.02,0.03],[0.97,0.01],[0.99,0.96],[0.01,0.98]],"paint":{"type":"color","argb":4281545523}})";

TEST_F(GpuVsCpu, ImageQuadsWithPerspectiveAndContentTransform) {
  Image a = gradientImage("a.png", 320, 180);
  Image b = gradientImage("b.png", 200, 300, false);
  const std::string scene = scene720(std::string(kBackdrop) + R"(,
    {"id":"warp","corners":[[0.05,0.1],[0.62,0.02],[0.55,0.9],[0.12,0.7]],"paint":{"type":"image","path":"a.png"}},
    {"id":"moved","corners":[[0.5,0.3],[0.95,0.35],[0.9,0.95],[0.45,0.85]],"paint":{"type":"image","path":"b.png"},
     "content":{"x":0.1,"y":-0.05,"scale":0.8,"rotation":17},"opacity":0.7})");
  expectSame("image-quads", scene, 1280, 720, {&a, &b});
}

TEST_F(GpuVsCpu, MeshWarpOverAnImage) {
  Image a = gradientImage("a.png", 256, 144);
  std::string offsets;
  for (int i = 0; i < 16; i++) {
    double dx = 0.03 * std::sin(i * 1.7), dy = 0.025 * std::cos(i * 2.3);
    offsets += (i ? "," : "") + std::string("[") + std::to_string(dx) + "," + std::to_string(dy) + "]";
  }
  const std::string scene = scene720(std::string(kBackdrop) +
                                     R"(,{"id":"mesh","corners":[[0.1,0.1],[0.9,0.12],[0.88,0.9],[0.12,0.85]],
      "paint":{"type":"image","path":"a.png"},"mesh":{"cols":3,"rows":3,"offsets":[)" + offsets + "]}}");
  expectSame("mesh", scene, 1280, 720, {&a});
}

TEST_F(GpuVsCpu, PolygonsAndTrianglesClipThroughTheirOutline) {
  Image a = gradientImage("a.png", 300, 200);
  const std::string scene = scene720(std::string(kBackdrop) + R"(,
    {"id":"poly","shape":{"kind":"polygon","vertices":[[0.1,0.1],{"x":0.5,"y":0.05,"in":[-0.1,0.05],"out":[0.1,0.05]},
      [0.7,0.4],[0.4,0.8],[0.08,0.6]]},"paint":{"type":"image","path":"a.png"}},
    {"id":"tri","shape":{"kind":"triangle","vertices":[[0.6,0.5],[0.95,0.6],[0.7,0.95]]},
      "paint":{"type":"color","argb":4294934352},
      "mask":{"vertices":[[0,0],[1,0],[1,0.5],[0,1]],"feather":6}})");
  expectSame("polygon", scene, 1280, 720, {&a});
}

TEST_F(GpuVsCpu, EllipsesOfColourAndImage) {
  Image a = gradientImage("a.png", 320, 320, false);
  const std::string scene = scene720(std::string(kBackdrop) + R"(,
    {"id":"e1","shape":{"kind":"ellipse","vertices":[[0.05,0.1],[0.5,0.1],[0.5,0.9],[0.05,0.9]]},
      "paint":{"type":"color","argb":4294952960}},
    {"id":"e2","shape":{"kind":"ellipse","vertices":[[0.45,0.05],[0.95,0.2],[0.9,0.8],[0.5,0.95]]},
      "paint":{"type":"image","path":"a.png"},"opacity":0.8})");
  expectSame("ellipse", scene, 1280, 720, {&a});
}

// The CPU reads a drawn mask at the nearest texel and the GPU filters it
// linearly, as each road is meant to; the masked layers therefore span the
// whole 1280 x 720 frame, where both read the texel under a pixel's centre.
TEST_F(GpuVsCpu, DrawnMasksFeatheredAndInverted) {
  Image a = gradientImage("a.png", 320, 180, false);
  const std::string scene = scene720(std::string(kBackdrop) + R"(,
    {"id":"m1","corners":[[0,0],[1,0],[1,1],[0,1]],"paint":{"type":"image","path":"a.png"},
      "mask":{"vertices":[[0.08,0.11],[0.86,0.17],[0.7,0.9],[0.16,0.83]],"feather":24}},
    {"id":"m2","corners":[[0,0],[1,0],[1,1],[0,1]],"paint":{"type":"color","argb":2852192000},
      "mask":{"vertices":[[0.23,0.28],[0.78,0.28],[0.5,0.83]],"feather":0,"inverted":true}})");
  expectSame("masks", scene, 1280, 720, {&a});
}

TEST_F(GpuVsCpu, LumaKeyOnImageAndColour) {
  Image a = gradientImage("a.png", 320, 180);
  const std::string scene = scene720(std::string(kBackdrop) + R"(,
    {"id":"k1","corners":[[0.05,0.05],[0.7,0.05],[0.7,0.7],[0.05,0.7]],"paint":{"type":"image","path":"a.png"},
      "lumaKey":true},
    {"id":"k2","corners":[[0.5,0.4],[0.95,0.4],[0.95,0.95],[0.5,0.95]],"paint":{"type":"color","argb":4287137928},
      "lumaKey":true,"opacity":0.9})");
  expectSame("luma", scene, 1280, 720, {&a});
}

TEST_F(GpuVsCpu, EachEffectAlone) {
  Image a = gradientImage("a.png", 320, 180, false);
  const struct {
    const char* name;
    const char* json;
  } effects[] = {
      {"stroke", R"("stroke":{"width":9,"argb":4294967040})"},
      {"shadow", R"("shadow":{"dx":30,"dy":20,"blur":12,"argb":3422552064})"},
      {"glow", R"("glow":{"radius":28,"argb":4282566901})"},
      {"bevel", R"("bevel":{"depth":10})"},
  };
  for (const auto& [fxName, fx] : effects) {
    SCOPED_TRACE(fx);
    const std::string scene = scene720(std::string(kBackdrop) + R"(,
      {"id":"fx","corners":[[0.2,0.2],[0.75,0.15],[0.8,0.8],[0.25,0.75]],"paint":{"type":"image","path":"a.png"},
        "effects":{)" + fx + "}}");
    expectSame(std::string("effect-") + fxName, scene, 1280, 720, {&a});
  }
}

TEST_F(GpuVsCpu, IsolatedLayersAndGroupsBelowFullOpacity) {
  Image a = gradientImage("a.png", 320, 180, false);
  // A layer with effects at half opacity is drawn through the group texture:
  // its shadow must not show through its body. The second layer belongs to a
  // scene group at 0.6, with a luma key, so it is isolated as well.
  const std::string scene = scene720(std::string(kBackdrop) + R"(,
    {"id":"g1","corners":[[0.1,0.1],[0.6,0.1],[0.6,0.7],[0.1,0.7]],"paint":{"type":"color","argb":4294901760},
      "opacity":0.5,"effects":{"shadow":{"dx":40,"dy":30,"blur":0,"argb":4278190080},"stroke":{"width":8}}},
    {"id":"g2","groupId":"half","corners":[[0.45,0.35],[0.95,0.3],[0.9,0.9],[0.5,0.95]],
      "paint":{"type":"image","path":"a.png"},"lumaKey":true,"effects":{"glow":{"radius":20}}})",
                                     R"(,"groups":[{"id":"half","opacity":0.6}])");
  expectSame("groups", scene, 1280, 720, {&a});
}

TEST_F(GpuVsCpu, SquareSceneIsLetterboxedIntoAWideTarget) {
  Image a = gradientImage("a.png", 300, 300, false);
  // Surface content is independent of the frame size, so the CPU picture of
  // the scene at 1080 x 1080 is what the GPU shows of it scaled by 1.08. The
  // last layer reaches past the scene: the scissor keeps the bars black.
  auto sceneAt = [](int32_t n) {
    return R"({"outputs":[{"id":"out-1","resolution":[)" + std::to_string(n) + "," + std::to_string(n) +
           R"(]}],"mappings":[{"id":"img","corners":[[0.1,0.1],[0.9,0.05],[0.85,0.9],[0.05,0.95]],
           "paint":{"type":"image","path":"a.png"}},
           {"id":"wide","corners":[[-0.3,0.4],[1.3,0.4],[1.3,0.6],[-0.3,0.6]],"paint":{"type":"color","argb":4294967295}}]})";
  };
  Picture cpu = drawCpu(sceneAt(1080), 1080, 1080, {&a});
  auto r = makeRenderer();
  ASSERT_TRUE(r->setState(state(sceneAt(1000))).has_value());
  Picture gpu = drawGpu(*r, 1920, 1080);
  ASSERT_EQ(r->engineW(), 1000);

  Picture centre{1080, 1080, std::vector<uint8_t>(1080u * 1080 * 4)};
  int64_t barsLit = 0;
  for (int32_t y = 0; y < 1080; y++) {
    std::memcpy(&centre.px[static_cast<size_t>(y) * 1080 * 4], gpu.at(420, y), 1080 * 4);
    for (int32_t x : {0, 200, 419, 1500, 1919})
      if (gpu.at(x, y)[0] || gpu.at(x, y)[1] || gpu.at(x, y)[2]) barsLit++;
  }
  EXPECT_EQ(barsLit, 0);
  gputest::dump("letterbox", centre, cpu);
  gputest::Comparison c = gputest::compare(centre, cpu);
  EXPECT_GE(c.within, 0.995) << "max diff " << c.maxDiff;
  EXPECT_EQ(c.offEdge, 0) << c.firstOffEdge;
  EXPECT_GT(c.lit, 1080 * 1080 / 2);
}

// ---- buffers, many masks, odd lists --------------------------------------------

class GpuScene : public GpuVsCpu {};

// A quad warped by a mesh of n x n cells gives a list of many vertices.
std::string meshScene(int n, int extraLayers = 0) {
  std::string offsets;
  for (int i = 0; i < (n + 1) * (n + 1); i++)
    offsets += (i ? ",[" : "[") + std::to_string(0.01 * std::sin(i * 0.9)) + "," +
               std::to_string(0.01 * std::cos(i * 1.3)) + "]";
  std::string layers = R"({"id":"m","corners":[[0.1,0.1],[0.9,0.1],[0.9,0.9],[0.1,0.9]],
    "paint":{"type":"color","argb":4294901760},"mesh":{"cols":)" + std::to_string(n) + R"(,"rows":)" +
                       std::to_string(n) + R"(,"offsets":[)" + offsets + "]}}";
  for (int i = 0; i < extraLayers; i++)
    layers += R"(,{"id":"x)" + std::to_string(i) + R"(","corners":[[0,0],[0.1,0],[0.1,0.1],[0,0.1]],
      "paint":{"type":"color","argb":4278190335}})";
  return R"({"outputs":[{"id":"out-1","resolution":[640,360]}],"mappings":[)" + layers + "]}";
}

TEST_F(GpuScene, BuffersGrowWithTheListAndAreReusedOnSteadyFrames) {
  auto r = makeRenderer();
  GlOffscreen fb;
  std::string e;
  ASSERT_TRUE(fb.create(640, 360, e));
  r->setState(state(meshScene(2)));
  ASSERT_TRUE(r->drawFrame(0, fb.target()));
  const int64_t first = r->stats().gpuAllocations;
  EXPECT_GE(first, 3);  // vertex buffer, index buffer, group texture
  for (int i = 0; i < 5; i++) ASSERT_TRUE(r->drawFrame(0, fb.target()));
  EXPECT_EQ(r->stats().gpuAllocations, first);

  // A list with more quads than ever: both buffers grow, once.
  r->setState(state(meshScene(12)));
  ASSERT_TRUE(r->drawFrame(0, fb.target()));
  const int64_t grown = r->stats().gpuAllocations;
  EXPECT_GT(grown, first);
  EXPECT_LE(grown, first + 2);
  ASSERT_TRUE(r->drawFrame(0, fb.target()));
  EXPECT_EQ(r->stats().gpuAllocations, grown);
  // Smaller again: nothing shrinks, nothing is made.
  r->setState(state(meshScene(3)));
  ASSERT_TRUE(r->drawFrame(0, fb.target()));
  EXPECT_EQ(r->stats().gpuAllocations, grown);

  // A new target size re-creates the group texture on the next frame only.
  GlOffscreen other;
  ASSERT_TRUE(other.create(200, 100, e));
  ASSERT_TRUE(r->drawFrame(0, other.target()));
  EXPECT_EQ(r->stats().gpuAllocations, grown + 1);
  ASSERT_TRUE(r->drawFrame(0, other.target()));
  EXPECT_EQ(r->stats().gpuAllocations, grown + 1);

  // And what the bigger mesh drew is what the CPU draws.
  expectSame("mesh-12", meshScene(12, 3), 640, 360);
}

TEST_F(GpuScene, MoreThanSixtyFourMasksInOneFrameStillDrawRight) {
  // 70 small triangles of different shapes: each has its own outline
  // coverage, so every frame evicts and uploads masks again.
  std::string layers;
  for (int i = 0; i < 70; i++) {
    const double x = 0.02 + (i % 10) * 0.097, y = 0.03 + (i / 10) * 0.135;
    const double s = 0.05 + 0.003 * (i % 7);
    char buf[320];
    snprintf(buf, sizeof buf,
             R"(%s{"id":"t%d","shape":{"kind":"triangle","vertices":[[%.4f,%.4f],[%.4f,%.4f],[%.4f,%.4f]]},)"
             R"("paint":{"type":"color","argb":%u}})",
             i ? "," : "", i, x, y, x + s + 0.01 * (i % 3), y + 0.02, x + 0.01 * (i % 5), y + s * 1.8,
             0xFF000000u | (static_cast<uint32_t>(i * 37 % 256) << 16) | (static_cast<uint32_t>(255 - i * 3) << 8) | 200u);
    layers += buf;
  }
  const std::string scene = scene720(layers);
  expectSame("many-masks", scene, 1280, 720, {}, 0.02);

  auto r = makeRenderer();
  r->setState(state(scene));
  drawGpu(*r, 1280, 720);
  const int64_t uploads = r->stats().maskUploads;
  EXPECT_GE(uploads, 70);
  EXPECT_EQ(r->maskCacheSize(), 64u);
  Picture again = drawGpu(*r, 1280, 720);
  EXPECT_GE(r->stats().maskUploads - uploads, 64);  // first in, first out: all evicted in turn
  expectSame("many-masks-again", scene, 1280, 720, {}, 0.02);
}

TEST_F(GpuScene, AnEmptyListStillClearsAndAGroupFirstLoadsTheClearedTarget) {
  auto r = makeRenderer();
  GlOffscreen fb;
  std::string e;
  ASSERT_TRUE(fb.create(64, 36, e));
  r->setState(state(R"({"outputs":[{"id":"out-1","resolution":[64,36]}],"mappings":[]})"));
  fill(fb, 0, 1, 0);
  ASSERT_TRUE(r->draw(fb.target()));
  Picture p{64, 36, {}};
  ASSERT_TRUE(fb.read(p.px));
  EXPECT_TRUE(allPixels(p, 0, 0, 0));
  ASSERT_NE(r->engine(), nullptr);

  // The only layer is isolated (effects at half opacity): its list opens
  // with a group begin, so the target's first pass only clears it.
  const std::string scene = R"({"outputs":[{"id":"out-1","resolution":[64,36]}],"mappings":[
      {"id":"g","corners":[[0.25,0.25],[0.75,0.25],[0.75,0.75],[0.25,0.75]],"paint":{"type":"color","argb":4294967295},
       "opacity":0.5,"effects":{"stroke":{"width":2}}}]})";
  r->setState(state(scene));
  fill(fb, 0, 1, 0);
  ASSERT_TRUE(r->draw(fb.target()));
  ASSERT_TRUE(fb.read(p.px));
  EXPECT_EQ(p.at(2, 2)[1], 0);  // no green left in the bars of the clear
  EXPECT_NEAR(p.at(32, 18)[0], 128, 2);  // half white over black
  expectSame("group-first", scene, 64, 36, {}, 0.1);
}

// `kavlen render --gpu` writes what the CPU path writes, give or take edges.
TEST_F(GpuScene, RenderCommandOnBothPaths) {
  Image a = gradientImage("a.png", 160, 90);
  const std::string scene = R"({"outputs":[{"id":"out-1","resolution":[640,360]}],"mappings":[
      {"id":"q","corners":[[0.05,0.1],[0.9,0.05],[0.95,0.9],[0.1,0.95]],"paint":{"type":"image","path":"a.png"},
       "effects":{"shadow":{"dx":8,"dy":8,"blur":4}}}]})";
  {
    FILE* f = fopen((media + "/scene.json").c_str(), "w");
    ASSERT_NE(f, nullptr);
    fputs(scene.c_str(), f);
    fclose(f);
  }
  Picture pics[2];
  const char* modes[2] = {"", "--gpu "};
  for (int k = 0; k < 2; k++) {
    const std::string out = media + "/out" + std::to_string(k) + ".png";
    // Leaks of the command are not this comparison's business (and Mesa's
    // driver, unloaded at its exit, would show as one under a sanitizer).
    const std::string cmd = "ASAN_OPTIONS=detect_leaks=0 timeout 120 '" + std::string(KAVLEN_EXE) + "' render " + modes[k] + "'" + media +
                            "/scene.json' -o '" + out + "' 2>/dev/null";
    ASSERT_EQ(system(cmd.c_str()), 0) << cmd;
    ImageFile img;
    std::string err;
    ASSERT_TRUE(ImageFile::load(out, img, err)) << err;
    ASSERT_EQ(img.width, 640);
    ASSERT_EQ(img.height, 360);
    pics[k] = Picture{img.width, img.height, img.rgba};
  }
  gputest::Comparison c = gputest::compare(pics[1], pics[0]);
  EXPECT_GE(c.within, 0.995);
  EXPECT_EQ(c.offEdge, 0) << c.firstOffEdge;
  EXPECT_GT(c.lit, 640 * 360 / 2);
}

}  // namespace
