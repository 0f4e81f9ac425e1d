// Layer resolution: keyframe ties and easings, the active clip with its fades
// and media time, and the group rule.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kavlen/kavlen.h"

namespace {

// A scene and the vertex rows of its resolved layers.
struct Resolver {
  char err[256] = "";
  std::unique_ptr<kvl_scene, void (*)(kvl_scene*)> scene;
  std::vector<double> rows;
  explicit Resolver(const std::string& json) : scene(kvl_scene_parse(json.c_str(), err, sizeof err), kvl_scene_free) {
    EXPECT_TRUE(scene) << err;
  }
  kvl_resolved at(double t, int32_t layer = 0) {
    kvl_resolved r;
    memset(&r, 0xAB, sizeof r);  // resolution must not leave anything behind
    if (!scene || layer >= scene->layer_count) {
      ADD_FAILURE() << "no layer " << layer;
      return r;
    }
    const kvl_layer* l = &scene->layers[layer];
    rows.assign(2 * static_cast<size_t>(l->vertex_count) + 1, -99.0);
    kvl_layer_resolve(scene.get(), l, rows.data(), &r, t);
    return r;
  }
};

// One mapping with these keyframes (a JSON array's inside).
std::string with_keyframes(const std::string& keyframes, const std::string& extra = "") {
  return R"({"mappings":[{"id":"a","corners":[[0,0],[1,0],[1,1],[0,1]])" + extra + R"(,"keyframes":[)" +
         keyframes + "]}]}";
}

TEST(ResolveKeyframes, EqualTimesLastWinsAtAndAfterFirstWinsBefore) {
  Resolver r(with_keyframes(R"(
    {"prop":"contentX","timeMs":1000,"value":1},{"prop":"contentX","timeMs":1000,"value":2},
    {"prop":"contentX","timeMs":2000,"value":4},{"prop":"contentX","timeMs":2000,"value":8})"));
  // Before t0 the earlier one in the array is next; 1500 runs from the later
  // 1000 ms keyframe to the first 2000 ms one.
  const double cases[][2] = {{500, 1}, {1000, 2}, {1500, 3}, {1999.999, 4}, {2000, 8}, {1e12, 8}};
  for (const auto& c : cases) {
    double v = 0;
    ASSERT_TRUE(kvl_animated(&r.scene->layers[0], "contentX", &v, c[0]));
    EXPECT_NEAR(v, c[1], 1e-5) << c[0];
  }
  EXPECT_EQ(r.at(1500).content_x, 3.0);
}

TEST(ResolveKeyframes, EasingsAndTheKeyframedOpacityLimit) {
  struct Case { const char* easing; double t, want; } cases[] = {
      {"linear", 250, 25}, {"bounce", 250, 25}, {"easeIn", 250, 6.25}, {"easeOut", 250, 43.75},
      {"easeInOut", 250, 12.5}, {"easeInOut", 750, 87.5},
      {"hold", 999.999, 0}, {"hold", 1000, 100},  // held up to, not including, the next time
      {"easeIn", 5000, 100},  // the last keyframe's own easing ("hold") shapes nothing after it
  };
  for (const Case& c : cases) {
    Resolver r(with_keyframes(std::string(R"({"prop":"contentRotation","timeMs":0,"value":0,"easing":")") +
                              c.easing + R"("},{"prop":"contentRotation","timeMs":1000,"value":100,"easing":"hold"})"));
    EXPECT_DOUBLE_EQ(r.at(c.t).content_rotation, c.want) << c.easing << " " << c.t;
  }
  // Keyframed opacity is limited to 0..1; a plain one is not.
  Resolver plain(R"({"mappings":[{"opacity":7},{"opacity":-2}]})");
  EXPECT_TRUE(plain.at(0, 0).opacity == 7.0 && plain.at(0, 1).opacity == -2.0);
  Resolver r(with_keyframes(R"({"prop":"opacity","timeMs":0,"value":-1},{"prop":"opacity","timeMs":1000,"value":3})",
                            R"(,"opacity":0.1)"));
  EXPECT_EQ(r.at(0).opacity, 0.0);
  EXPECT_DOUBLE_EQ(r.at(400).opacity, 0.6);
  EXPECT_EQ(r.at(2000).opacity, 1.0);
}

TEST(ResolveKeyframes, EffectPropertiesOnlyMoveEffectsThatAreOn) {
  const std::string kfs = R"(
    {"prop":"strokeWidth","timeMs":0,"value":20},{"prop":"shadowX","timeMs":0,"value":21},
    {"prop":"shadowY","timeMs":0,"value":22},{"prop":"shadowBlur","timeMs":0,"value":23},
    {"prop":"glowRadius","timeMs":0,"value":24.5},{"prop":"bevelDepth","timeMs":0,"value":25})";
  using Six = std::array<double, 6>;
  auto values = [](const kvl_resolved& a) {
    return Six{a.stroke_width, a.shadow_dx, a.shadow_dy, a.shadow_blur, a.glow_radius, a.bevel_depth};
  };
  Resolver off(with_keyframes(kfs));
  kvl_resolved a = off.at(100);
  EXPECT_FALSE(a.has_stroke || a.has_shadow || a.has_glow || a.has_bevel);
  EXPECT_EQ(values(a), (Six{6, 0, 0, 0, 24, 8}));
  Resolver on(with_keyframes(kfs, R"(,"effects":{"stroke":{},"shadow":{"dx":1},"glow":{},"bevel":{}})"));
  kvl_resolved b = on.at(100);
  EXPECT_TRUE(b.has_stroke && b.has_shadow && b.has_glow && b.has_bevel);
  EXPECT_EQ(values(b), (Six{20, 21, 22, 23, 24.5, 25}));
  Resolver some(with_keyframes(kfs, R"(,"effects":{"glow":{}})"));  // one on, the others off
  EXPECT_EQ(values(some.at(100)), (Six{6, 0, 0, 0, 24.5, 8}));
}

TEST(ResolveKeyframes, VertexPropertiesNameVerticesInDecimal) {
  Resolver r(with_keyframes(R"(
    {"prop":"c0x","timeMs":0,"value":0.5},
    {"prop":"c3y","timeMs":0,"value":0},{"prop":"c3y","timeMs":100,"value":0.5},
    {"prop":"c01x","value":9},{"prop":"c4x","value":9},{"prop":"c1z","value":9},
    {"prop":"c1","value":9},{"prop":"c-1x","value":9},{"prop":"c1xx","value":9},
    {"prop":"c99999999999999999999x","value":9},{"prop":"C2x","value":9})"));
  const kvl_resolved res = r.at(50);  // before rows.data(): at() refills the rows
  ASSERT_EQ(res.vertices, r.rows.data());
  // The last entry: nothing written past the layer's vertices.
  EXPECT_EQ(r.rows, (std::vector<double>{0.5, 0, 1, 0, 1, 1, 0, 0.25, -99}));
}

TEST(ResolveKeyframes, ManyVerticesAllReachable) {
  // A 100-vertex polygon animated at both ends and across the 32 and 64 marks.
  const std::vector<int> animated = {0, 31, 32, 63, 64, 99};
  std::string vertices, keyframes = R"({"prop":"c100x","value":5})";
  for (int i = 0; i < 100; i++) vertices += (i ? ",[" : "[") + std::to_string(i) + "," + std::to_string(-i) + "]";
  for (int i : animated) {
    const std::string p = R"(,{"prop":"c)" + std::to_string(i) + R"(y","timeMs":)";
    keyframes += p + R"(0,"value":0})" + p + R"(1000,"value":)" + std::to_string(1000 + i) + "}";
  }
  Resolver r(R"({"mappings":[{"shape":{"kind":"polygon","vertices":[)" + vertices + R"(]},"keyframes":[)" +
             keyframes + "]}]}");
  r.at(500);
  std::vector<double> want(201, -99.0);
  for (int i = 0; i < 100; i++) want[2 * i] = i, want[2 * i + 1] = -i;
  for (int i : animated) want[2 * i + 1] = (1000 + i) / 2.0;
  EXPECT_EQ(r.rows, want);
}

TEST(ResolveKeyframes, ExtremeTimesStayFinite) {
  Resolver r(with_keyframes(R"(
    {"prop":"contentX","timeMs":-1e999,"value":0},{"prop":"contentX","timeMs":1e999,"value":10},
    {"prop":"contentY","timeMs":4e18,"value":1},{"prop":"contentY","timeMs":3e18,"value":2},
    {"prop":"contentScale","timeMs":9223372036854775807,"value":1},
    {"prop":"contentScale","timeMs":9223372036854775806,"value":2})"));
  kvl_resolved a = r.at(0);
  EXPECT_NEAR(a.content_x, 5.0, 1e-9);
  EXPECT_EQ(a.content_y, 2.0);  // both later: the strictly earlier one is next
  EXPECT_EQ(a.content_scale, 1.0);  // both saturate to one time: the first is next
  EXPECT_TRUE(std::isfinite(r.at(1e300).content_y) && std::isfinite(r.at(-1e300).content_x));
}

std::string clip_layer(const std::string& clips, const std::string& extra = "") {
  return R"({"mappings":[{"id":"a","opacity":0.5,"paint":{"type":"color","argb":1}, "corners":[[0,0]])" + extra +
         R"(,"clips":[)" + clips + "]}]}";
}

TEST(ResolveClip, ClipOpacityReplacesBaseOpacityButScalesKeyframedOpacity) {
  const std::string clip = R"({"startMs":1000,"lengthMs":1000,"opacity":1.0,"paint":{"type":"color","argb":2}})";
  Resolver base(clip_layer(clip));
  EXPECT_TRUE(base.at(1500).opacity == 1.0 && base.at(1500).paint.argb == 2u);
  Resolver keyed(clip_layer(clip, R"(,"keyframes":[{"prop":"opacity","timeMs":0,"value":0.5}])"));
  EXPECT_EQ(keyed.at(1500).opacity, 0.5);
  // Any opacity keyframe counts, even one far in the future.
  Resolver later(clip_layer(R"({"startMs":0,"lengthMs":1000,"opacity":0.5})",
                            R"(,"keyframes":[{"prop":"opacity","timeMs":99999,"value":0.8}])"));
  EXPECT_DOUBLE_EQ(later.at(10).opacity, 0.4);
}

TEST(ResolveClip, FadesAndLimits) {
  // At 2000 ms, 1000 left is not less than the fade out; overlapping fades
  // take the smaller factor; fades below 1 ms are off; opacity is limited to 0..1.
  const std::pair<const char*, std::vector<std::pair<double, double>>> cases[] = {
      {R"("startMs":1000,"lengthMs":2000,"opacity":0.8,"fadeInMs":500,"fadeOutMs":1000)",
       {{1000, 0}, {1250, 0.4}, {2000, 0.8}, {2999, 0.8 * 0.001}}},
      {R"("startMs":0,"lengthMs":100,"fadeInMs":100,"fadeOutMs":100)", {{30, 0.3}, {80, 0.2}}},
      {R"("startMs":0,"lengthMs":100,"fadeInMs":0.9,"fadeOutMs":-5,"opacity":3)", {{0, 1}, {99, 1}}},
      {R"("startMs":0,"lengthMs":100,"opacity":-3)", {{50, 0}}},
  };
  for (const auto& [clip, at] : cases) {
    Resolver r(clip_layer(std::string("{") + clip + "}"));
    for (auto [t, want] : at) EXPECT_DOUBLE_EQ(r.at(t).opacity, want) << clip << " at " << t;
  }
}

TEST(ResolveClip, LastQualifyingClipWinsAndTheEndIsExclusive) {
  Resolver r(clip_layer(R"(
    {"startMs":0,"lengthMs":3000,"opacity":0.1,"paint":{"type":"image","path":"late-start.png"}},
    {"startMs":1000,"lengthMs":1000,"opacity":0.2,"paint":{"type":"image","path":"inner.png"}},
    {"startMs":500,"lengthMs":2000,"opacity":0.3,"paint":{"type":"image","path":"last.png"}},
    {"startMs":4000,"lengthMs":0,"opacity":0.4}, {"startMs":5000,"lengthMs":-100,"opacity":0.5},
    {"startMs":6000,"lengthMs":1000})"));
  EXPECT_STREQ(r.at(1500).paint.ref, "last.png");  // later in the array, earlier start
  EXPECT_STREQ(r.at(2499).paint.ref, "last.png");
  EXPECT_STREQ(r.at(2500).paint.ref, "late-start.png");
  // Past every clip, at a zero-length or negative clip and in a gap: the layer's own paint and opacity.
  for (double t : {3000.0, 4000.0, 4900.0, 5000.0, -1.0}) {
    kvl_resolved x = r.at(t);
    EXPECT_TRUE(x.paint.kind == KVL_PAINT_COLOR && x.opacity == 0.5 && x.visible) << t;
  }
  // A clip of kind none still replaces the paint.
  kvl_resolved none = r.at(6500);
  EXPECT_TRUE(none.paint.kind == KVL_PAINT_NONE && none.paint.ref == nullptr && none.opacity == 1.0 &&
              !none.has_media_time);
}

TEST(ResolveMedia, NoWrapWithoutLoopOrUsableDuration) {
  // Loop without a duration; a duration not past the trim; a duration without loop.
  for (const char* extra : {R"("loop":true)", R"("loop":true,"mediaDurationMs":1000)", R"("mediaDurationMs":5000)"}) {
    Resolver r(clip_layer(R"({"startMs":0,"lengthMs":100000,"paint":{"type":"video"},"trimStartMs":1000,"speed":2,)" +
                          std::string(extra) + "}"));
    EXPECT_DOUBLE_EQ(r.at(3000).media_time_ms, 7000.0) << extra;
  }
}

TEST(ResolveGroup, VisibilityAndOpacityCombine) {
  Resolver r(R"({
    "groups":[{"id":"hidden","visible":false,"opacity":0.5},{"id":"bright","opacity":2},
              {"id":"hidden","visible":true,"opacity":0.1}],
    "mappings":[
      {"groupId":"hidden","opacity":0.8},
      {"groupId":"bright","opacity":0.3,"visible":false},
      {"groupId":"bright","opacity":0.3},
      {"groupId":"nobody","opacity":0.3,"visible":true},
      {"groupId":"bright","clips":[{"lengthMs":100,"opacity":0.75}]}]})");
  // The first group of an id decides; the group's opacity is not limited and
  // applies after the clip.
  struct Case { double t; bool visible; double opacity; } cases[] = {
      {0, false, 0.4}, {0, false, 0.6}, {0, true, 0.6}, {0, true, 0.3}, {50, true, 1.5}};
  for (int i = 0; i < 5; i++) {
    kvl_resolved x = r.at(cases[i].t, i);
    EXPECT_TRUE(x.visible == cases[i].visible && std::fabs(x.opacity - cases[i].opacity) < 1e-12) << i;
  }
}

TEST(ResolveRecord, NullArgumentsAndExtremeClipNumbersAreHarmless) {
  Resolver r(with_keyframes(R"({"prop":"c0x","value":3})"));
  kvl_resolved out;
  memset(&out, 0xAB, sizeof out);
  kvl_layer_resolve(r.scene.get(), nullptr, nullptr, &out, 0);
  EXPECT_TRUE(out.layer == nullptr && out.opacity == 0.0);
  kvl_layer_resolve(r.scene.get(), &r.scene->layers[0], nullptr, nullptr, 0);
  // No vertex row: everything else still resolves.
  kvl_layer_resolve(r.scene.get(), &r.scene->layers[0], nullptr, &out, 0);
  EXPECT_TRUE(out.vertices == nullptr && out.opacity == 1.0);

  Resolver x(clip_layer(R"(
    {"startMs":9.2e18,"lengthMs":9.2e18,"fadeInMs":1e999,"fadeOutMs":1e999,"paint":{"type":"video"},
     "trimStartMs":-9.2e18,"loop":true,"mediaDurationMs":9.2e18,"speed":1e308},
    {"startMs":-1e999,"lengthMs":1e999,"paint":{"type":"video"},"loop":true,"mediaDurationMs":1e999,
     "trimStartMs":-1e999,"speed":-1e999})"));
  for (double t : {9.3e18, -1.0}) {
    kvl_resolved a = x.at(t);
    EXPECT_TRUE(a.has_media_time && a.opacity >= 0.0 && a.opacity <= 1.0) << t << " " << a.opacity;
  }
}

}  // namespace
