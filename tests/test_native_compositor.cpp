// The offline compositor on whole frames: the warps, masks and cuts against
// checked-in pictures (within 2 levels on 99.9% of pixels), the rules that
// skip layers, bad input, and agreement with the CPU compositor where the
// two models agree.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "image_file.h"
#include "kavlen/kavlen.h"
#include "native_test_util.h"

// Fontconfig and Pango keep their font caches for the life of the process
// (Pango's per thread), which the leak checker cannot see as reachable.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libfontconfig.so\nleak:libpango-1.0.so\nleak:libpangoft2-1.0.so\nleak:libpangocairo-1.0.so\n";
}

namespace {

using nativetest::Frame;
using nativetest::render;

const std::string kDemo = KAVLEN_SOURCE_DIR "/examples/demo";
const std::string kFull = R"([[0,0],[1,0],[1,1],[0,1]])";

std::string mappings(const std::string& body) { return R"({"mappings": [)" + body + "]}"; }

bool allBlack(const Frame& f) {
  for (size_t i = 0; i < f.rgba.size(); i += 4)
    if (f.rgba[i] || f.rgba[i + 1] || f.rgba[i + 2] || f.rgba[i + 3] != 255) return false;
  return true;
}

TEST(NativeCompositor, GoldenWarps) {
  std::string scene = mappings(R"(
    {"corners": [[0.02,0.05],[0.45,0.1],[0.4,0.48],[0.05,0.42]], "paint": {"type": "image", "path": "media/checker.png"}},
    {"corners": [[0.55,0.05],[0.97,0.05],[0.97,0.48],[0.55,0.48]], "paint": {"type": "image", "path": "media/checker.png"},
     "mesh": {"cols": 2, "rows": 2, "offsets": [[0,0],[0,0],[0,0],[0,0],[0.05,-0.04],[0,0],[0,0],[0,0],[0,0]]}},
    {"shape": {"kind": "triangle", "vertices": [[0.05,0.95],[0.25,0.55],[0.45,0.95]]}, "paint": {"type": "image", "path": "media/spectrum.png"}},
    {"shape": {"kind": "polygon", "vertices": [{"x": 0.55, "y": 0.6, "out": [0.2, -0.1]}, {"x": 0.95, "y": 0.6},
     {"x": 0.95, "y": 0.95}, {"x": 0.55, "y": 0.95, "in": [0.1, 0.1]}]}, "paint": {"type": "image", "path": "media/waves.png"},
     "content": {"x": 0.1, "scale": 1.5, "rotation": 20}})");
  nativetest::expectGolden(render(scene, 320, 180, 0, kDemo), "warps", 2, 0.999);
}

TEST(NativeCompositor, GoldenMasksCutsAndEffects) {
  std::string scene = mappings(R"(
    {"corners": [[0.02,0.05],[0.32,0.05],[0.32,0.45],[0.02,0.45]], "paint": {"type": "image", "path": "media/spectrum.png"},
     "mask": {"vertices": [[0.1,0.1],[0.9,0.2],[0.7,0.9],[0.2,0.8]], "feather": 80}},
    {"corners": [[0.35,0.05],[0.65,0.05],[0.65,0.45],[0.35,0.45]], "paint": {"type": "image", "path": "media/spectrum.png"},
     "mask": {"vertices": [[0.3,0.3],[0.7,0.3],[0.5,0.7]], "inverted": true}},
    {"shape": {"kind": "ellipse", "vertices": [[0.68,0.05],[0.98,0.1],[0.95,0.45],[0.7,0.4]]}, "paint": {"type": "image", "path": "media/waves.png"},
     "effects": {"glow": {"radius": 30, "argb": 4282566901}}},
    {"corners": [[0.05,0.55],[0.3,0.55],[0.3,0.95],[0.05,0.95]], "paint": {"type": "color", "argb": 4280263935},
     "effects": {"bevel": {"depth": 12}, "shadow": {"dx": -10, "dy": 12, "blur": 8, "argb": 2566914048}}},
    {"shape": {"kind": "polygon", "vertices": [[0.4,0.6],[0.6,0.55],[0.65,0.95],[0.38,0.9]]}, "paint": {"type": "color", "argb": 4294944000},
     "effects": {"stroke": {"width": 8, "argb": 4294967295}}},
    {"corners": [[0.72,0.55],[0.95,0.55],[0.95,0.95],[0.72,0.95]], "paint": {"type": "image", "path": "media/waves.png"},
     "lumaKey": true, "opacity": 0.8})");
  nativetest::expectGolden(render(scene, 320, 180, 0, kDemo), "masks", 2, 0.999);
}

TEST(NativeCompositor, LayersThatDrawNothing) {
  EXPECT_TRUE(allBlack(render("{}", 32, 18)));
  // Two vertices; a polygon on one line; a missing image and video; a text
  // that draws nothing on an arc; an unknown paint type.
  EXPECT_TRUE(allBlack(render(mappings(R"(
    {"corners": [[0,0],[1,1]], "paint": {"type": "color", "argb": 4294967295}},
    {"shape": {"kind": "polygon", "vertices": [[0,0],[0.5,0.5],[1,1]]}, "paint": {"type": "color", "argb": 4294967295}},
    {"corners": )" + kFull + R"(, "paint": {"type": "image", "path": "nope.png"}},
    {"corners": )" + kFull + R"(, "paint": {"type": "video", "path": "nope.mp4"}},
    {"corners": )" + kFull + R"(, "paint": {"type": "text", "text": "", "arc": 90}},
    {"corners": )" + kFull + R"(, "paint": {"type": "gradient", "argb": 4294967295}})"), 32, 18)));
}

// Collapsed or collinear corners, far-away points, offsets and effect sizes
// of 1e9 and more: the frame is still made, in bounded time and memory.
TEST(NativeCompositor, AbsurdGeometryAndSizes) {
  Frame f = render(mappings(R"(
    {"corners": [[0.5,0.5],[0.5,0.5],[0.5,0.5],[0.5,0.5]], "paint": {"type": "color", "argb": 4294967295}},
    {"corners": [[0.1,0.1],[0.5,0.5],[0.9,0.9],[0.2,0.2]], "paint": {"type": "color", "argb": 4294967295},
     "effects": {"stroke": {"width": 5, "argb": 4294901760}, "glow": {"radius": 1e7}}},
    {"corners": [[1e9,0],[1,0],[1,1],[0,1]], "paint": {"type": "color", "argb": 4294967295}},
    {"corners": )" + kFull + R"(, "paint": {"type": "color", "argb": 4278190335}, "mesh": {"cols": 12, "rows": 12}},
    {"shape": {"kind": "ellipse", "vertices": [[0,0],[1,0],[1,1]]}, "paint": {"type": "text", "text": "x", "size": -3,
     "arc": 1e308}, "effects": {"bevel": {"depth": 1e9}}},
    {"corners": )" + kFull + R"(, "paint": {"type": "text", "text": "blur"}, "effects": {"shadow": {"blur": 1e12}}})"),
                   160, 90);
  EXPECT_EQ(f.at(80, 45)[3], 255);
}

// Exports run a compositor each on their own threads: frames drawn side by
// side, text included, are those drawn alone.
TEST(NativeCompositor, ConcurrentCompositorsDrawAlike) {
  std::ifstream f(kDemo + "/scene.json");
  std::stringstream text;
  text << f.rdbuf();
  std::string scene = text.str();
  scene.insert(scene.rfind(']'), R"(, {"id": "cap", "corners": [[0.1,0.1],[0.9,0.1],[0.9,0.9],[0.1,0.9]],
    "paint": {"type": "text", "text": "Side by side", "argb": 4294967295}, "effects": {"stroke": {"width": 3}}})");
  auto frames = [&] {
    std::vector<std::vector<uint8_t>> out;
    kavlen::native::NativeCompositor c(kavlen::native::NativeScene::jsonText(scene, 160, 90), kDemo);
    for (int64_t ms : {0, 500, 1000}) {
      out.emplace_back(160 * 90 * 4);
      c.render(ms, out.back().data(), 160 * 4);
    }
    return out;
  };
  nativetest::useBundledFonts();
  std::vector<std::vector<uint8_t>> alone = frames(), a, b;
  std::thread t1([&] { a = frames(); }), t2([&] { b = frames(); });
  t1.join();
  t2.join();
  EXPECT_EQ(a, alone);
  EXPECT_EQ(b, alone);
}

TEST(NativeCompositor, MeshRulesAndOpacity) {
  const std::string quad = R"("corners": [[0.1,0.1],[0.9,0.2],[0.8,0.9],[0.2,0.8]], "paint": {"type": "image", "path": "media/checker.png"})";
  Frame plain = render(mappings("{" + quad + "}"), 64, 36, 0, kDemo);
  // All-zero offsets take the quad warp: the very same frame.
  EXPECT_EQ(render(mappings("{" + quad + R"(, "mesh": {"cols": 3, "rows": 3}})"), 64, 36, 0, kDemo).rgba, plain.rgba);
  // A 12x12 mesh with offsets draws (144 cells) and stays close to the quad.
  std::string offs = "[";
  for (int i = 0; i < 169; i++) offs += std::string(i ? "," : "") + (i == 84 ? "[0.001,0]" : "[0,0]");
  Frame mesh = render(mappings("{" + quad + R"(, "mesh": {"cols": 12, "rows": 12, "offsets": )" + offs + "]}}"), 64, 36, 0, kDemo);
  EXPECT_GE(nativetest::agreement(mesh, plain, 24), 0.97);
  // Opacity above 1 from keyframes is as at 1.
  EXPECT_EQ(render(mappings("{" + quad + R"(, "keyframes": [{"prop": "opacity", "value": 3}]})"), 64, 36, 0, kDemo).rgba,
            plain.rgba);
}

TEST(NativeCompositor, ZeroSizedPicturesAndFramesAreLeftOut) {
  // A picture file of no pixels (a PNG header claiming 0x0) is no image.
  std::filesystem::path dir = std::filesystem::temp_directory_path() / "kavlen-native-empty";
  std::filesystem::create_directories(dir);
  std::ofstream(dir / "empty.png", std::ios::binary) << "\x89PNG\r\n\x1a\n";
  EXPECT_TRUE(allBlack(render(mappings(R"({"corners": )" + kFull + R"(, "paint": {"type": "image", "path": "empty.png"}})"),
                              16, 16, 0, dir.string())));
  std::filesystem::remove_all(dir);
  // A frame of 0x0 renders nothing and doesn't fail.
  kavlen::native::NativeCompositor c(kavlen::native::NativeScene::jsonText("{}", 0, 0), "");
  uint8_t b[4] = {1, 2, 3, 4};
  c.render(0, b, 4);
  EXPECT_EQ(b[0], 1);
}

// Where both models read a scene alike (explicit colours, no modulations, no
// effects, no masks), the offline frame and the CPU compositor's agree within
// 4 levels on 99% of the pixels (98.9% within 2): they sample pictures with
// their own filters and rasterise edges their own way, which shows on the
// edges of shapes and in the checker's sharp steps.
TEST(NativeCompositor, AgreesWithTheCpuCompositor) {
  std::string scene = R"({"outputs": [{"id": "o", "resolution": [320, 180]}], "mappings": [
    {"id": "bg", "corners": )" + kFull + R"(, "paint": {"type": "image", "path": "media/waves.png"}},
    {"id": "q", "corners": [[0.05,0.1],[0.5,0.15],[0.45,0.6],[0.1,0.55]], "paint": {"type": "image", "path": "media/checker.png"}},
    {"id": "t", "shape": {"kind": "polygon", "vertices": [[0.6,0.6],[0.95,0.7],[0.7,0.95]]}, "paint": {"type": "color", "argb": 4280263935}},
    {"id": "c", "corners": [[0.6,0.05],[0.95,0.05],[0.95,0.45],[0.6,0.45]], "paint": {"type": "color", "argb": 3439329279}, "opacity": 0.6}]})";
  Frame native = render(scene, 320, 180, 0, kDemo);
  kvl_engine* e = kvl_engine_create(scene.c_str(), 320, 180, "o");
  ASSERT_NE(e, nullptr);
  for (const char* key : {"media/waves.png", "media/checker.png"}) {
    ImageFile im;
    std::string err;
    ASSERT_TRUE(ImageFile::load(kDemo + "/" + key, im, err)) << err;
    kvl_engine_set_source(e, key, im.rgba.data(), im.width, im.height, im.width * 4);
  }
  Frame cpu{320, 180, std::vector<uint8_t>(320 * 180 * 4)};
  ASSERT_EQ(kvl_engine_render(e, 0, cpu.rgba.data(), 320 * 4), 0);
  kvl_engine_destroy(e);
  EXPECT_GE(nativetest::agreement(native, cpu, 4), 0.99);
}

// Where the models differ by design the frames differ: a colour paint
// without "argb" is transparent here and opaque black in the engine, and a
// clip shows on an invisible layer here while the engine keeps it hidden.
TEST(NativeCompositor, DiffersFromTheEngineWhereTheModelsDo) {
  std::string scene = R"({"outputs": [{"id": "o", "resolution": [40, 20]}], "mappings": [
    {"id": "white", "corners": )" + kFull + R"(, "paint": {"type": "color", "argb": 4294967295}},
    {"id": "noargb", "corners": [[0,0],[0.5,0],[0.5,1],[0,1]], "paint": {"type": "color"}},
    {"id": "hidden", "visible": false, "corners": [[0.5,0],[1,0],[1,1],[0.5,1]], "paint": {"type": "color"},
     "clips": [{"startMs": 0, "lengthMs": 1000, "paint": {"type": "color", "argb": 4294901760}}]}]})";
  Frame native = render(scene, 40, 20);
  kvl_engine* e = kvl_engine_create(scene.c_str(), 40, 20, "o");
  ASSERT_NE(e, nullptr);
  Frame cpu{40, 20, std::vector<uint8_t>(40 * 20 * 4)};
  ASSERT_EQ(kvl_engine_render(e, 0, cpu.rgba.data(), 40 * 4), 0);
  kvl_engine_destroy(e);
  EXPECT_EQ(native.at(10, 10)[1], 255);  // white shows through
  EXPECT_EQ(cpu.at(10, 10)[1], 0);       // opaque black
  EXPECT_EQ(native.at(30, 10)[0], 255);  // the clip's red
  EXPECT_EQ(native.at(30, 10)[1], 0);
  EXPECT_EQ(cpu.at(30, 10)[1], 255);     // still the white below
}

}  // namespace
