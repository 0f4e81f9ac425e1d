// Layer resolution: keyframe ties and easings, the active clip with its fades
// and media time, and the group rule.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
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
    {"prop":"contentX","timeMs":1000,"value":1},
    {"prop":"contentX","timeMs":1000,"value":2},
    {"prop":"contentX","timeMs":2000,"value":4},
    {"prop":"contentX","timeMs":2000,"value":8})"));
  const kvl_layer* l = &r.scene->layers[0];
  double v = 0;
  ASSERT_TRUE(kvl_animated(l, "contentX", &v, 500));
  EXPECT_EQ(v, 1.0);  // before t0 the earlier one in the array is next
  ASSERT_TRUE(kvl_animated(l, "contentX", &v, 1000));
  EXPECT_EQ(v, 2.0);
  ASSERT_TRUE(kvl_animated(l, "contentX", &v, 1500));
  EXPECT_EQ(v, 3.0);  // from the later 1000 ms keyframe to the first 2000 ms one
  ASSERT_TRUE(kvl_animated(l, "contentX", &v, 1999.999));
  EXPECT_NEAR(v, 4.0, 1e-5);
  ASSERT_TRUE(kvl_animated(l, "contentX", &v, 2000));
  EXPECT_EQ(v, 8.0);
  ASSERT_TRUE(kvl_animated(l, "contentX", &v, 1e12));
  EXPECT_EQ(v, 8.0);
  EXPECT_EQ(r.at(1500).content_x, 3.0);
}

TEST(ResolveKeyframes, Easings) {
  auto value = [](const char* easing, double t) {
    Resolver r(with_keyframes(std::string(R"({"prop":"contentRotation","timeMs":0,"value":0,"easing":")") +
                              easing + R"("},{"prop":"contentRotation","timeMs":1000,"value":100,"easing":"hold"})"));
    return r.at(t).content_rotation;
  };
  EXPECT_DOUBLE_EQ(value("linear", 250), 25.0);
  EXPECT_DOUBLE_EQ(value("bounce", 250), 25.0);
  EXPECT_DOUBLE_EQ(value("easeIn", 250), 6.25);
  EXPECT_DOUBLE_EQ(value("easeOut", 250), 43.75);
  EXPECT_DOUBLE_EQ(value("easeInOut", 250), 12.5);
  EXPECT_DOUBLE_EQ(value("easeInOut", 500), 50.0);
  EXPECT_DOUBLE_EQ(value("easeInOut", 750), 87.5);
  EXPECT_DOUBLE_EQ(value("hold", 0), 0.0);
  EXPECT_DOUBLE_EQ(value("hold", 999.999), 0.0);  // held up to, not including, the next time
  EXPECT_DOUBLE_EQ(value("hold", 1000), 100.0);
  // The last keyframe's own easing ("hold") shapes nothing after it.
  EXPECT_DOUBLE_EQ(value("easeIn", 5000), 100.0);
}

TEST(ResolveKeyframes, KeyframedOpacityIsLimitedButBaseOpacityIsNot) {
  Resolver plain(R"({"mappings":[{"opacity":7},{"opacity":-2}]})");
  EXPECT_EQ(plain.at(0, 0).opacity, 7.0);
  EXPECT_EQ(plain.at(0, 1).opacity, -2.0);
  Resolver r(with_keyframes(R"({"prop":"opacity","timeMs":0,"value":-1},{"prop":"opacity","timeMs":1000,"value":3})",
                            R"(,"opacity":0.1)"));
  EXPECT_EQ(r.at(0).opacity, 0.0);
  EXPECT_DOUBLE_EQ(r.at(500).opacity, 1.0);  // -1 + 4 * 0.5 = 1
  EXPECT_DOUBLE_EQ(r.at(400).opacity, 0.6);
  EXPECT_EQ(r.at(2000).opacity, 1.0);
}

TEST(ResolveKeyframes, EffectPropertiesOnlyMoveEffectsThatAreOn) {
  const std::string kfs = R"(
    {"prop":"strokeWidth","timeMs":0,"value":20},{"prop":"shadowX","timeMs":0,"value":21},
    {"prop":"shadowY","timeMs":0,"value":22},{"prop":"shadowBlur","timeMs":0,"value":23},
    {"prop":"glowRadius","timeMs":0,"value":24.5},{"prop":"bevelDepth","timeMs":0,"value":25})";
  Resolver off(with_keyframes(kfs));
  kvl_resolved a = off.at(100);
  EXPECT_FALSE(a.has_stroke || a.has_shadow || a.has_glow || a.has_bevel);
  EXPECT_EQ(a.stroke_width, 6.0);
  EXPECT_EQ(a.shadow_dx, 0.0);
  EXPECT_EQ(a.shadow_dy, 0.0);
  EXPECT_EQ(a.shadow_blur, 0.0);
  EXPECT_EQ(a.glow_radius, 24.0);
  EXPECT_EQ(a.bevel_depth, 8.0);
  Resolver on(with_keyframes(kfs, R"(,"effects":{"stroke":{"argb":5},"shadow":{"dx":1,"argb":6},
    "glow":{"argb":7},"bevel":{"highlight":8,"shadow":9}})"));
  kvl_resolved b = on.at(100);
  EXPECT_TRUE(b.has_stroke && b.has_shadow && b.has_glow && b.has_bevel);
  EXPECT_EQ(b.stroke_width, 20.0);
  EXPECT_EQ(b.shadow_dx, 21.0);
  EXPECT_EQ(b.shadow_dy, 22.0);
  EXPECT_EQ(b.shadow_blur, 23.0);
  EXPECT_EQ(b.glow_radius, 24.5);
  EXPECT_EQ(b.bevel_depth, 25.0);
  EXPECT_EQ(b.stroke_argb, 5u);
  EXPECT_EQ(b.shadow_argb, 6u);
  EXPECT_EQ(b.glow_argb, 7u);
  EXPECT_EQ(b.bevel_highlight, 8u);
  EXPECT_EQ(b.bevel_shadow, 9u);
  // One effect on, the others off.
  Resolver some(with_keyframes(kfs, R"(,"effects":{"glow":{}})"));
  kvl_resolved c = some.at(100);
  EXPECT_EQ(c.glow_radius, 24.5);
  EXPECT_EQ(c.stroke_width, 6.0);
  EXPECT_EQ(c.bevel_depth, 8.0);
}

TEST(ResolveKeyframes, VertexPropertiesNameVerticesInDecimal) {
  Resolver r(with_keyframes(R"(
    {"prop":"c0x","timeMs":0,"value":0.5},
    {"prop":"c3y","timeMs":0,"value":0},{"prop":"c3y","timeMs":100,"value":0.5},
    {"prop":"c01x","value":9},{"prop":"c4x","value":9},{"prop":"c1z","value":9},
    {"prop":"c1","value":9},{"prop":"c-1x","value":9},{"prop":"c1xx","value":9},
    {"prop":"c99999999999999999999x","value":9},{"prop":"C2x","value":9})"));
  kvl_resolved res = r.at(50);
  ASSERT_EQ(res.vertices, r.rows.data());
  const std::vector<double> want = {0.5, 0, 1, 0, 1, 1, 0, 0.25};
  for (size_t i = 0; i < want.size(); i++) EXPECT_EQ(r.rows[i], want[i]) << i;
  EXPECT_EQ(r.rows[8], -99.0);  // nothing written past the layer's vertices
}

TEST(ResolveKeyframes, ManyVerticesAllReachable) {
  // A 100-vertex polygon animated at both ends and in the middle.
  std::string vertices, keyframes;
  for (int i = 0; i < 100; i++) {
    vertices += (i ? "," : "") + std::string("[") + std::to_string(i) + "," + std::to_string(-i) + "]";
  }
  for (int i : {0, 31, 32, 63, 64, 99}) {
    keyframes += (keyframes.empty() ? "" : ",") + std::string(R"({"prop":"c)") + std::to_string(i) +
                 R"(y","timeMs":0,"value":0},{"prop":"c)" + std::to_string(i) +
                 R"(y","timeMs":1000,"value":)" + std::to_string(1000 + i) + "}";
  }
  keyframes += R"(,{"prop":"c100x","value":5})";
  Resolver r(R"({"mappings":[{"shape":{"kind":"polygon","vertices":[)" + vertices + R"(]},"keyframes":[)" +
             keyframes + "]}]}");
  r.at(500);
  for (int i = 0; i < 100; i++) {
    bool animated = i == 0 || i == 31 || i == 32 || i == 63 || i == 64 || i == 99;
    EXPECT_EQ(r.rows[2 * i], i) << i;
    EXPECT_EQ(r.rows[2 * i + 1], animated ? (1000 + i) / 2.0 : -i) << i;
  }
  EXPECT_EQ(r.rows[200], -99.0);
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
  EXPECT_TRUE(std::isfinite(r.at(1e300).content_y));
  EXPECT_TRUE(std::isfinite(r.at(-1e300).content_x));
}

std::string clip_layer(const std::string& clips, const std::string& extra = "") {
  return R"({"mappings":[{"id":"a","opacity":0.5,"paint":{"type":"color","argb":1}, "corners":[[0,0]])" + extra +
         R"(,"clips":[)" + clips + "]}]}";
}

TEST(ResolveClip, ClipOpacityReplacesBaseOpacityButScalesKeyframedOpacity) {
  const std::string clip = R"({"startMs":1000,"lengthMs":1000,"opacity":1.0,"paint":{"type":"color","argb":2}})";
  Resolver base(clip_layer(clip));
  EXPECT_EQ(base.at(1500).opacity, 1.0);
  EXPECT_EQ(base.at(1500).paint.argb, 2u);
  EXPECT_EQ(base.at(500).opacity, 0.5);
  EXPECT_EQ(base.at(500).paint.argb, 1u);
  Resolver keyed(clip_layer(clip, R"(,"keyframes":[{"prop":"opacity","timeMs":0,"value":0.5}])"));
  EXPECT_EQ(keyed.at(1500).opacity, 0.5);
  // Any opacity keyframe counts, even one far in the future.
  Resolver later(clip_layer(R"({"startMs":0,"lengthMs":1000,"opacity":0.5})",
                            R"(,"keyframes":[{"prop":"opacity","timeMs":99999,"value":0.8}])"));
  EXPECT_DOUBLE_EQ(later.at(10).opacity, 0.4);
}

TEST(ResolveClip, FadesAndLimits) {
  Resolver r(clip_layer(R"({"startMs":1000,"lengthMs":2000,"opacity":0.8,"fadeInMs":500,"fadeOutMs":1000})"));
  EXPECT_DOUBLE_EQ(r.at(1000).opacity, 0.0);
  EXPECT_DOUBLE_EQ(r.at(1250).opacity, 0.4);
  EXPECT_DOUBLE_EQ(r.at(2000).opacity, 0.8);  // 1000 left is not less than the fade
  EXPECT_DOUBLE_EQ(r.at(2500).opacity, 0.4);
  EXPECT_DOUBLE_EQ(r.at(2999).opacity, 0.8 * 0.001);
  // Fades that overlap: the smaller factor.
  Resolver both(clip_layer(R"({"startMs":0,"lengthMs":100,"fadeInMs":100,"fadeOutMs":100})"));
  EXPECT_DOUBLE_EQ(both.at(30).opacity, 0.3);
  EXPECT_DOUBLE_EQ(both.at(80).opacity, 0.2);
  // Fades below 1 ms are off; the clip's opacity is limited to 0..1.
  Resolver tiny(clip_layer(R"({"startMs":0,"lengthMs":100,"fadeInMs":0.9,"fadeOutMs":-5,"opacity":3})"));
  EXPECT_EQ(tiny.at(0).opacity, 1.0);
  EXPECT_EQ(tiny.at(99).opacity, 1.0);
  Resolver negative(clip_layer(R"({"startMs":0,"lengthMs":100,"opacity":-3})"));
  EXPECT_EQ(negative.at(50).opacity, 0.0);
}

TEST(ResolveClip, LastQualifyingClipWinsAndTheEndIsExclusive) {
  Resolver r(clip_layer(R"(
    {"startMs":0,"lengthMs":3000,"opacity":0.1,"paint":{"type":"image","path":"late-start.png"}},
    {"startMs":1000,"lengthMs":1000,"opacity":0.2,"paint":{"type":"image","path":"inner.png"}},
    {"startMs":500,"lengthMs":2000,"opacity":0.3,"paint":{"type":"image","path":"last.png"}},
    {"startMs":4000,"lengthMs":0,"opacity":0.4,"paint":{"type":"image","path":"empty.png"}},
    {"startMs":5000,"lengthMs":-100,"opacity":0.5},
    {"startMs":6000,"lengthMs":1000})"));
  EXPECT_STREQ(r.at(200).paint.ref, "late-start.png");
  EXPECT_STREQ(r.at(1500).paint.ref, "last.png");  // later in the array, earlier start
  EXPECT_STREQ(r.at(2499).paint.ref, "last.png");
  EXPECT_STREQ(r.at(2500).paint.ref, "late-start.png");
  // Past every clip, at a zero-length clip and in a gap: the layer's own paint and opacity.
  for (double t : {3000.0, 4000.0, 4900.0, 5000.0, 7000.0, -1.0}) {
    kvl_resolved x = r.at(t);
    EXPECT_EQ(x.paint.kind, KVL_PAINT_COLOR) << t;
    EXPECT_EQ(x.opacity, 0.5) << t;
    EXPECT_TRUE(x.visible) << t;
  }
  // A clip of kind none still replaces the paint.
  kvl_resolved none = r.at(6500);
  EXPECT_EQ(none.paint.kind, KVL_PAINT_NONE);
  EXPECT_EQ(none.paint.ref, nullptr);
  EXPECT_EQ(none.opacity, 1.0);
  EXPECT_FALSE(none.has_media_time);
}

TEST(ResolveMedia, NoWrapWithoutLoopOrUsableDuration) {
  const char* clips[] = {
      // Loop without a duration.
      R"({"startMs":0,"lengthMs":100000,"paint":{"type":"video"},"trimStartMs":1000,"speed":2,"loop":true})",
      // Duration not past the trim.
      R"({"startMs":0,"lengthMs":100000,"paint":{"type":"video"},"trimStartMs":1000,"speed":2,"loop":true,"mediaDurationMs":1000})",
      // A duration, but no loop: past the end stays past the end.
      R"({"startMs":0,"lengthMs":100000,"paint":{"type":"video"},"trimStartMs":1000,"speed":2,"mediaDurationMs":5000})",
  };
  for (const char* clip : clips) {
    Resolver r(clip_layer(clip));
    EXPECT_DOUBLE_EQ(r.at(3000).media_time_ms, 7000.0) << clip;
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
  kvl_resolved a = r.at(0, 0);
  EXPECT_FALSE(a.visible);  // the first group of that id decides
  EXPECT_DOUBLE_EQ(a.opacity, 0.4);
  kvl_resolved b = r.at(0, 1);
  EXPECT_FALSE(b.visible);
  EXPECT_DOUBLE_EQ(b.opacity, 0.6);  // the group's opacity is not limited
  kvl_resolved c = r.at(0, 2);
  EXPECT_TRUE(c.visible);
  EXPECT_DOUBLE_EQ(c.opacity, 0.6);
  kvl_resolved d = r.at(0, 3);
  EXPECT_TRUE(d.visible);
  EXPECT_EQ(d.opacity, 0.3);
  EXPECT_DOUBLE_EQ(r.at(50, 4).opacity, 1.5);  // the group applies after the clip
}

TEST(ResolveRecord, NullArgumentsAreHarmless) {
  Resolver r(with_keyframes(R"({"prop":"c0x","value":3})"));
  kvl_resolved out;
  memset(&out, 0xAB, sizeof out);
  kvl_layer_resolve(r.scene.get(), nullptr, nullptr, &out, 0);
  EXPECT_EQ(out.layer, nullptr);
  EXPECT_EQ(out.opacity, 0.0);
  kvl_layer_resolve(r.scene.get(), &r.scene->layers[0], nullptr, nullptr, 0);
  // No vertex row: everything else still resolves.
  kvl_layer_resolve(r.scene.get(), &r.scene->layers[0], nullptr, &out, 0);
  EXPECT_EQ(out.vertices, nullptr);
  EXPECT_EQ(out.opacity, 1.0);
}

TEST(ResolveRecord, ExtremeClipNumbersDoNotOverflow) {
  Resolver r(clip_layer(R"(
    {"startMs":9.2e18,"lengthMs":9.2e18,"fadeInMs":1e999,"fadeOutMs":1e999,"paint":{"type":"video"},
     "trimStartMs":-9.2e18,"loop":true,"mediaDurationMs":9.2e18,"speed":1e308},
    {"startMs":-1e999,"lengthMs":1e999,"paint":{"type":"video"},"loop":true,"mediaDurationMs":1e999,
     "trimStartMs":-1e999,"speed":-1e999})"));
  kvl_resolved a = r.at(9.3e18);
  EXPECT_TRUE(a.has_media_time);
  EXPECT_GE(a.opacity, 0.0);
  EXPECT_LE(a.opacity, 1.0);
  kvl_resolved b = r.at(-1);
  EXPECT_TRUE(b.has_media_time);
  EXPECT_GE(b.opacity, 0.0);
  EXPECT_LE(b.opacity, 1.0);
}

}  // namespace
