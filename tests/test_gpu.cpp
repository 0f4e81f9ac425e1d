// The GPU output renderer on a headless GL ES context: failures, modes, the
// texture caches, the media pass, and its pictures against the CPU's
// (`kavlen render --gpu` against the CPU path: test_render_gpu_video).
#include <EGL/egl.h>
#include <EGL/eglext.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "gpu_test_util.h"

// Fontconfig and Pango keep their font caches for the life of the process
// (Pango's per thread), which the leak checker cannot see as reachable.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libfontconfig.so\nleak:libpango-1.0.so\nleak:libpangoft2-1.0.so\nleak:libpangocairo-1.0.so\n";
}

namespace {

using gputest::drawGpu;
using gputest::GpuTest;
using gputest::Picture;

std::string solidScene(int w, int h) {
  return R"({"outputs":[{"id":"out-1","resolution":[)" + std::to_string(w) + "," + std::to_string(h) +
         R"(]}],"mappings":[{"id":"a","corners":[[0,0],[1,0],[1,1],[0,1]],"paint":{"type":"color","argb":4278255360}}]})";
}

std::string state(const std::string& scene, const std::string& extra = "") {
  return R"({"scene":)" + scene + (extra.empty() ? "" : "," + extra) + "}";
}

void fill(const GlOffscreen& fb, float r, float g, float b) {
  glBindFramebuffer(GL_FRAMEBUFFER, fb.framebuffer());
  glDisable(GL_SCISSOR_TEST);
  glClearColor(r, g, b, 1);
  glClear(GL_COLOR_BUFFER_BIT);
}

void writePng(const std::string& path, int32_t w, int32_t h, const std::vector<uint8_t>& px) {
  std::string err;
  EXPECT_TRUE(ImageFile::write_png(path, px.data(), w, h, w * 4, err)) << err;
}

class GpuRenderer : public GpuTest {};

TEST_F(GpuRenderer, NoContextOrBrokenShaderGivesNoRenderer) {
  ASSERT_TRUE(eglMakeCurrent(gl->display(), EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT));
  ::testing::internal::CaptureStderr();
  auto r = GlOutputRenderer::create([] { return std::string(); });
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  ASSERT_TRUE(gl->makeCurrent());
  EXPECT_EQ(r, nullptr);

  GlShaderSources broken = GlShaderSources::builtIn();
  broken.fsLayer += "\nvoid broken( {\n";
  ::testing::internal::CaptureStderr();
  r = GlOutputRenderer::create([] { return std::string(); }, &broken);
  const std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(r, nullptr);
  EXPECT_EQ(err.rfind("[kavlen] Metal: kvl_fs_layer: ", 0), 0u) << err;
  EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
  EXPECT_NE(GlOutputRenderer::create([] { return std::string(); }), nullptr);
}

TEST_F(GpuRenderer, LostContextIsReportedOnceAndEveryLaterFrameRefused) {
  auto r = makeRenderer();
  r->setState(state(solidScene(32, 18)));
  GlOffscreen fb;
  std::string e;
  ASSERT_TRUE(fb.create(32, 18, e));
  ASSERT_TRUE(r->drawFrame(0, fb.target()));
  EXPECT_FALSE(r->failed());

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
  EXPECT_TRUE(r->setState(state(solidScene(32, 18))).has_value());
}

TEST_F(GpuRenderer, BlackoutAndChartClearAndKeepTheSceneWaiting) {
  auto r = makeRenderer();
  GlOffscreen fb;
  std::string e;
  ASSERT_TRUE(fb.create(40, 30, e));
  std::vector<uint8_t> px;
  GlTarget keep = fb.target();
  keep.clear = false;
  r->setState(state(solidScene(40, 30), R"("mode":"blackout")"));
  fill(fb, 1, 0, 0);
  ASSERT_TRUE(r->draw(keep));  // draw() clears to opaque black regardless
  ASSERT_TRUE(fb.read(px));
  for (size_t i = 0; i < px.size(); i += 4) ASSERT_EQ(px[i] | px[i + 1] | px[i + 2], 0) << "pixel " << i / 4;
  EXPECT_EQ(r->engine(), nullptr);
  EXPECT_TRUE(r->shared().pendingScene.has_value());
  r->setState(state(solidScene(40, 30), R"("mode":"testPattern")"));
  ASSERT_TRUE(r->draw(fb.target()));
  EXPECT_EQ(r->engine(), nullptr);
  r->setState(state(solidScene(40, 30), R"("mode":"someday")"));
  ASSERT_TRUE(r->draw(fb.target()));
  EXPECT_NE(r->engine(), nullptr);
  EXPECT_FALSE(r->shared().pendingScene.has_value());
}

TEST_F(GpuRenderer, ImagesDecodeOnceMissingFilesAreRetriedBrokenOnesAreNot) {
  auto r = makeRenderer();
  const std::vector<uint8_t> white(6 * 3 * 4, 255);
  EXPECT_FALSE(r->imageTexture("late.png").has_value());
  EXPECT_FALSE(r->isMissingImage("late.png"));
  writePng(media + "/late.png", 6, 3, white);
  auto t = r->imageTexture("late.png");
  ASSERT_TRUE(t.has_value());
  EXPECT_EQ(t->width, 6);
  std::filesystem::remove(media + "/late.png");
  EXPECT_EQ(r->imageTexture("late.png").value_or(GlTexture{}).id, t->id);  // a cache hit

  std::ofstream(media + "/broken.png") << "\x89PNG\r\n\x1a\nnot really";
  EXPECT_FALSE(r->imageTexture("broken.png").has_value());
  EXPECT_TRUE(r->isMissingImage("broken.png"));
  writePng(media + "/broken.png", 6, 3, white);
  EXPECT_FALSE(r->imageTexture("broken.png").has_value());  // never tried again
}

// ---- the GPU against the CPU compositor ----------------------------------
// Images go to the CPU as pixels and to the GPU as PNG files. Most scenes
// are 1280 x 720, where a pixel's centre is a surface texel's centre, so the
// CPU's nearest mask lookup and the GPU's linear one read the same byte.

class GpuVsCpu : public GpuTest {
 protected:
  struct Image { std::string key; int32_t w, h; std::vector<uint8_t> rgba; };

  // Smooth and opaque, optionally with a transparent hole.
  Image gradientImage(const std::string& key, int32_t w, int32_t h, bool hole) {
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
    writePng(media + "/" + key, w, h, img.rgba);
    return img;
  }

  Picture drawCpu(const std::string& scene, int32_t w, int32_t h, const std::vector<const Image*>& imgs) {
    Picture p{w, h, std::vector<uint8_t>(static_cast<size_t>(w) * h * 4)};
    kvl_engine* e = kvl_engine_create(scene.c_str(), w, h, nullptr);
    EXPECT_NE(e, nullptr) << kvl_last_error();
    if (!e) return p;
    for (const Image* img : imgs) EXPECT_EQ(kvl_engine_set_source(e, img->key.c_str(), img->rgba.data(), img->w, img->h, img->w * 4), 0);
    EXPECT_EQ(kvl_engine_render(e, 0, p.px.data(), w * 4), 0);
    kvl_engine_destroy(e);
    return p;
  }

  void expectClose(const std::string& name, const Picture& gpu, const Picture& cpu, double minLit) {
    gputest::Comparison c = gputest::compare(gpu, cpu);
    EXPECT_TRUE(c.within >= 0.995 && c.offEdge == 0) << name << ": " << c.within << " within, max diff " << c.maxDiff
                                                     << ", off edge " << c.offEdge << " first " << c.firstOffEdge;
    EXPECT_GE(static_cast<double>(c.lit) / (static_cast<double>(cpu.w) * cpu.h), minLit) << name;
  }

  void expectSame(const std::string& name, const std::string& scene, int32_t w, int32_t h,
                  std::vector<const Image*> imgs = {}, double minLit = 0.05) {
    Picture cpu = drawCpu(scene, w, h, imgs);
    auto r = makeRenderer();
    ASSERT_TRUE(r && r->setState(state(scene)).has_value());
    expectClose(name, drawGpu(*r, w, h), cpu, minLit);
    EXPECT_NE(r->engine(), nullptr);
    for (const Image* img : imgs) EXPECT_EQ(r->declared().count(img->key), 1u) << name;
  }

  static std::string scene720(const std::string& mappings, const std::string& extra = "") {
    return R"({"outputs":[{"id":"out-1","resolution":[1280,720]}],"mappings":[)" + mappings + "]" + extra + "}";
  }
};

const char kBackdrop[] =
    R"({"id":"bg","corners":[[0.02,0.03],[0.97,0.01],[0.99,0.96],[0.01,0.98]],"paint":{"type":"color","argb":4281545523}},)";
const char kFx[] =
    R"({"id":"fx","corners":[[0.2,0.2],[0.75,0.15],[0.8,0.8],[0.25,0.75]],"paint":{"type":"image","path":"a.png"},"effects":{)";

TEST_F(GpuVsCpu, ScenesAgree) {
  std::string offsets;
  for (int i = 0; i < 16; i++)
    offsets += (i ? ",[" : "[") + std::to_string(0.03 * std::sin(i * 1.7)) + "," + std::to_string(0.025 * std::cos(i * 2.3)) + "]";
  const struct {
    const char* name;
    int w, h;
    bool hole;
    std::string layers, extra;
  } cases[] = {
      {"image-quads", 320, 180, true,
       R"({"id":"warp","corners":[[0.05,0.1],[0.62,0.02],[0.55,0.9],[0.12,0.7]],"paint":{"type":"image","path":"a.png"}},
          {"id":"moved","corners":[[0.5,0.3],[0.95,0.35],[0.9,0.95],[0.45,0.85]],"paint":{"type":"image","path":"b.png"},
           "content":{"x":0.1,"y":-0.05,"scale":0.8,"rotation":17},"opacity":0.7})"},
      {"mesh", 256, 144, true,
       R"({"id":"mesh","corners":[[0.1,0.1],[0.9,0.12],[0.88,0.9],[0.12,0.85]],"paint":{"type":"image","path":"a.png"},
           "mesh":{"cols":3,"rows":3,"offsets":[)" + offsets + "]}}"},
      {"polygon", 300, 200, true,
       R"({"id":"poly","shape":{"kind":"polygon","vertices":[[0.1,0.1],{"x":0.5,"y":0.05,"in":[-0.1,0.05],"out":[0.1,0.05]},
           [0.7,0.4],[0.4,0.8],[0.08,0.6]]},"paint":{"type":"image","path":"a.png"}},
          {"id":"tri","shape":{"kind":"triangle","vertices":[[0.6,0.5],[0.95,0.6],[0.7,0.95]]},
           "paint":{"type":"color","argb":4294934352},"mask":{"vertices":[[0,0],[1,0],[1,0.5],[0,1]],"feather":6}})"},
      {"ellipse", 320, 320, false,
       R"({"id":"e1","shape":{"kind":"ellipse","vertices":[[0.05,0.1],[0.5,0.1],[0.5,0.9],[0.05,0.9]]},
           "paint":{"type":"color","argb":4294952960}},
          {"id":"e2","shape":{"kind":"ellipse","vertices":[[0.45,0.05],[0.95,0.2],[0.9,0.8],[0.5,0.95]]},
           "paint":{"type":"image","path":"a.png"},"opacity":0.8})"},
      // Masked layers span the whole frame, where both read the texel under a pixel's centre.
      {"masks", 320, 180, false,
       R"({"id":"m1","corners":[[0,0],[1,0],[1,1],[0,1]],"paint":{"type":"image","path":"a.png"},
           "mask":{"vertices":[[0.08,0.11],[0.86,0.17],[0.7,0.9],[0.16,0.83]],"feather":24}},
          {"id":"m2","corners":[[0,0],[1,0],[1,1],[0,1]],"paint":{"type":"color","argb":2852192000},
           "mask":{"vertices":[[0.23,0.28],[0.78,0.28],[0.5,0.83]],"feather":0,"inverted":true}})"},
      {"luma", 320, 180, true,
       R"({"id":"k1","corners":[[0.05,0.05],[0.7,0.05],[0.7,0.7],[0.05,0.7]],"paint":{"type":"image","path":"a.png"},"lumaKey":true},
          {"id":"k2","corners":[[0.5,0.4],[0.95,0.4],[0.95,0.95],[0.5,0.95]],"paint":{"type":"color","argb":4287137928},
           "lumaKey":true,"opacity":0.9})"},
      {"shadow", 320, 180, false, std::string(kFx) + R"("shadow":{"dx":30,"dy":20,"blur":12,"argb":3422552064}}})"},
      {"bevel", 320, 180, false, std::string(kFx) + R"("bevel":{"depth":10}}})"},
      // Isolated, with stroke and glow: effects at half opacity (the shadow must not show through
      // the body), and a luma-keyed layer in a group at 0.6.
      {"groups", 320, 180, false,
       R"({"id":"g1","corners":[[0.1,0.1],[0.6,0.1],[0.6,0.7],[0.1,0.7]],"paint":{"type":"color","argb":4294901760},
           "opacity":0.5,"effects":{"shadow":{"dx":40,"dy":30,"blur":0,"argb":4278190080},"stroke":{"width":8}}},
          {"id":"g2","groupId":"half","corners":[[0.45,0.35],[0.95,0.3],[0.9,0.9],[0.5,0.95]],
           "paint":{"type":"image","path":"a.png"},"lumaKey":true,"effects":{"glow":{"radius":20}}})",
       R"(,"groups":[{"id":"half","opacity":0.6}])"},
  };
  for (const auto& c : cases) {
    Image a = gradientImage("a.png", c.w, c.h, c.hole), b = gradientImage("b.png", 200, 300, false);
    std::vector<const Image*> imgs{&a};
    if (c.layers.find("b.png") != std::string::npos) imgs.push_back(&b);
    expectSame(c.name, scene720(kBackdrop + c.layers, c.extra), 1280, 720, imgs);
  }
}

TEST_F(GpuVsCpu, SquareSceneIsLetterboxedIntoAWideTarget) {
  Image a = gradientImage("a.png", 300, 300, false);
  // Content is independent of the frame size: the CPU picture at 1080 x 1080
  // is the GPU's centre. The last layer reaches past the scene: the scissor
  // keeps the bars black.
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
  expectClose("letterbox", centre, cpu, 0.5 + 1e-9);
}

// A quad warped by a mesh of n x n cells gives a list of many vertices.
std::string meshScene(int n) {
  std::string offsets;
  for (int i = 0; i < (n + 1) * (n + 1); i++)
    offsets += (i ? ",[" : "[") + std::to_string(0.01 * std::sin(i * 0.9)) + "," + std::to_string(0.01 * std::cos(i * 1.3)) + "]";
  const std::string layer = R"({"id":"m","corners":[[0.1,0.1],[0.9,0.1],[0.9,0.9],[0.1,0.9]],
    "paint":{"type":"color","argb":4294901760},"mesh":{"cols":)" + std::to_string(n) + R"(,"rows":)" +
                       std::to_string(n) + R"(,"offsets":[)" + offsets + "]}}";
  return R"({"outputs":[{"id":"out-1","resolution":[640,360]}],"mappings":[)" + layer + "]}";
}

TEST_F(GpuVsCpu, BuffersGrowWithTheListAndTheGroupTextureFollowsTheTargetSize) {
  auto r = makeRenderer();
  GlOffscreen fb, other;
  std::string e;
  ASSERT_TRUE(fb.create(640, 360, e));
  ASSERT_TRUE(other.create(200, 100, e));
  r->setState(state(meshScene(2)));
  ASSERT_TRUE(r->drawFrame(0, fb.target()));
  const int64_t first = r->stats().gpuAllocations;
  EXPECT_GE(first, 3);  // vertex buffer, index buffer, group texture
  ASSERT_TRUE(r->drawFrame(0, fb.target()));
  EXPECT_EQ(r->stats().gpuAllocations, first);
  r->setState(state(meshScene(12)));
  ASSERT_TRUE(r->drawFrame(0, fb.target()));
  const int64_t grown = r->stats().gpuAllocations;
  EXPECT_TRUE(grown > first && grown <= first + 2) << grown - first;
  r->setState(state(meshScene(3)));  // smaller: nothing shrinks; a new size re-creates once
  for (auto [target, allocations] : {std::pair{fb.target(), grown}, {other.target(), grown + 1}, {other.target(), grown + 1}}) {
    ASSERT_TRUE(r->drawFrame(0, target));
    EXPECT_EQ(r->stats().gpuAllocations, allocations);
  }
}

TEST_F(GpuVsCpu, MoreThanSixtyFourMasksInOneFrameStillDrawRight) {
  std::string layers;
  for (int i = 0; i < 70; i++) {
    const double x = 0.02 + (i % 10) * 0.097, y = 0.03 + (i / 10) * 0.135, s = 0.05 + 0.003 * (i % 7);
    char buf[320];
    snprintf(buf, sizeof buf,
             R"(%s{"id":"t%d","shape":{"kind":"triangle","vertices":[[%.4f,%.4f],[%.4f,%.4f],[%.4f,%.4f]]},)"
             R"("paint":{"type":"color","argb":%u}})",
             i ? "," : "", i, x, y, x + s + 0.01 * (i % 3), y + 0.02, x + 0.01 * (i % 5), y + s * 1.8,
             0xFF000000u | (static_cast<uint32_t>(i * 37 % 256) << 16) | (static_cast<uint32_t>(255 - i * 3) << 8) | 200u);
    layers += buf;
  }
  const std::string scene = scene720(layers);
  Picture cpu = drawCpu(scene, 1280, 720, {});
  auto r = makeRenderer();
  r->setState(state(scene));
  expectClose("many-masks", drawGpu(*r, 1280, 720), cpu, 0.02);
  const int64_t uploads = r->stats().maskUploads;
  EXPECT_GE(uploads, 70);
  EXPECT_EQ(r->maskCacheSize(), 64u);  // first in, first out
  expectClose("many-masks-again", drawGpu(*r, 1280, 720), cpu, 0.02);
  EXPECT_GE(r->stats().maskUploads - uploads, 64);  // all evicted in turn
}

TEST_F(GpuVsCpu, AGroupFirstLoadsTheClearedTarget) {
  auto r = makeRenderer();
  GlOffscreen fb;
  std::string e;
  ASSERT_TRUE(fb.create(64, 36, e));
  std::vector<uint8_t> px;
  // The only layer is isolated: the list opens with a group begin.
  const std::string scene = R"({"outputs":[{"id":"out-1","resolution":[64,36]}],"mappings":[
      {"id":"g","corners":[[0.25,0.25],[0.75,0.25],[0.75,0.75],[0.25,0.75]],"paint":{"type":"color","argb":4294967295},
       "opacity":0.5,"effects":{"stroke":{"width":2}}}]})";
  r->setState(state(scene));
  fill(fb, 0, 1, 0);
  ASSERT_TRUE(r->draw(fb.target()));
  ASSERT_TRUE(fb.read(px));
  EXPECT_EQ(px[(2 * 64 + 2) * 4 + 1], 0);
  EXPECT_NEAR(px[(18 * 64 + 32) * 4], 128, 2);
  expectSame("group-first", scene, 64, 36, {}, 0.1);
}

}  // namespace
