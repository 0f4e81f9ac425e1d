// The offline compositor's reading of the scene document: defaults, the
// layer rules at a moment, and the warp geometry.
#include <gtest/gtest.h>

#include <cmath>

#include "native_scene.h"

namespace {

using namespace kavlen::native;

NativeScene scene(const std::string& json) { return NativeScene::jsonText(json, 1920, 1080); }

Layer layer(const std::string& mapping) { return scene(R"({"mappings": [)" + mapping + "]}").layers.at(0); }

TEST(NativeScene, ReadsDefaultsWhereTheEngineDiffers) {
  NativeScene s = scene(R"({"outputs": [{"id": "x"}], "groups": [{"id": "g", "opacity": 0.5}, {"id": "g", "opacity": 0.25}],
    "mappings": [{"id": "a", "corners": [[0,0],[1,0],[1,1],[0,1]], "paint": {"type": "color"},
      "effects": {"stroke": {}, "shadow": {}, "glow": {}, "bevel": {}}},
     {"shape": {"kind": "star", "vertices": [[0,0],[0.5],{"x": 1, "y": 0, "in": [0.1, 0.2], "out": "no"},[1,1]]},
      "paint": {"type": "video", "asset": "assets/v.mp4"}, "mesh": {"cols": 0, "rows": 99}},
     {"paint": {"type": "text"}}]})");
  ASSERT_EQ(s.layers.size(), 3u);
  EXPECT_EQ(s.groups.at("g").opacity, 0.25);  // the later entry of an id wins
  const Layer& a = s.layers[0];
  EXPECT_EQ(a.kind, "quad");
  EXPECT_EQ(a.vertices.size(), 4u);
  EXPECT_EQ(a.paint.argb, 0u);
  const Effects& e = a.effects;
  EXPECT_EQ(e.strokeWidth, 6.0);
  EXPECT_EQ(e.strokeArgb, 0u);
  EXPECT_TRUE(e.hasShadow);
  EXPECT_EQ(e.shadowDx, 8.0);
  EXPECT_EQ(e.shadowBlur, 12.0);
  EXPECT_EQ(e.glowRadius, 24.0);
  EXPECT_EQ(e.bevelHi, 0xB3FFFFFFu);
  EXPECT_EQ(e.bevelLo, 0xB3000000u);
  const Layer& b = s.layers[1];
  EXPECT_EQ(b.kind, "star");
  ASSERT_EQ(b.vertices.size(), 3u);  // [0.5] is dropped
  ASSERT_TRUE(b.vertices[1].inH.has_value());
  EXPECT_EQ(b.vertices[1].inH->y, 0.2);
  EXPECT_FALSE(b.vertices[1].outH.has_value());
  EXPECT_EQ(b.paint.path.value_or(""), "assets/v.mp4");
  ASSERT_TRUE(b.mesh.has_value());
  EXPECT_EQ(b.mesh->cols, 1);
  EXPECT_EQ(b.mesh->rows, 12);
  ASSERT_TRUE(s.layers[2].paint.text.has_value());
  EXPECT_EQ(s.layers[2].paint.text->size, 0.12);
  EXPECT_EQ(s.layers[2].paint.text->align, "center");
  EXPECT_TRUE(scene("not json").layers.empty());
}

TEST(NativeScene, ClipsFadeAndPlaceMedia) {
  Clip c;
  c.lengthMs = 1000;
  c.fadeInMs = c.fadeOutMs = 1000;
  EXPECT_DOUBLE_EQ(c.opacityAt(500), 0.5);
  EXPECT_EQ(c.opacityAt(1000), 0.0);  // the end is outside
  Clip z;
  EXPECT_EQ(z.opacityAt(0), 0.0);  // length 0 is never active
  Clip l;
  l.startMs = 1000;
  l.lengthMs = 100000;
  l.trimStartMs = 500;
  l.loop = true;
  l.mediaDurationMs = 2500;
  EXPECT_EQ(l.mediaPositionMs(1000 + 2000), 500);
  EXPECT_EQ(l.mediaPositionMs(1000 + 2999), 1499);
  l.speed = -1;  // a negative remainder isn't wrapped
  EXPECT_EQ(l.mediaPositionMs(1000 + 300), 200);
  EXPECT_EQ(l.mediaPositionMs(1000 + 4400), 100);
}

TEST(NativeScene, KeyframesEaseAndOrderEqualTimes) {
  Layer l = layer(R"({"keyframes": [{"prop": "p", "timeMs": 0, "value": 0, "easing": "easeInOut"},
    {"prop": "p", "timeMs": 1000, "value": 10}, {"prop": "p", "timeMs": 1000, "value": 20},
    {"prop": "p", "timeMs": 2000, "value": 30, "easing": "hold"}, {"prop": "p", "timeMs": 3000, "value": 40}]})");
  EXPECT_DOUBLE_EQ(*l.animated("p", 250), 10 * 0.125);
  EXPECT_DOUBLE_EQ(*l.animated("p", 999), 10 * (1 - 0.5 * 0.002 * 0.002));
  EXPECT_EQ(*l.animated("p", 1000), 20);  // the later of equal times
  EXPECT_EQ(*l.animated("p", 2500), 30);  // hold
  EXPECT_EQ(*l.animated("p", -5), 0);
  EXPECT_EQ(*l.animated("p", 9000), 40);
  EXPECT_FALSE(l.animated("q", 0).has_value());
}

TEST(NativeScene, ResolvesClipsGroupsAndAnimatedValues) {
  NativeScene s = scene(R"({"groups": [{"id": "g", "opacity": 0.5}], "mappings": [
    {"id": "hidden", "visible": false, "opacity": 0.2, "groupId": "g", "corners": [[0,0],[1,0],[1,1],[0,1]],
     "paint": {"type": "color"}, "clips": [{"startMs": 100, "lengthMs": 100, "paint": {"type": "video", "path": "v.mp4"}}]},
    {"id": "anim", "corners": [[0,0],[1,0],[1,1],[0,1]], "paint": {"type": "color"}, "effects": {"glow": {"radius": 0}},
     "keyframes": [{"prop": "opacity", "value": 1.5}, {"prop": "c2y", "value": 0.25}, {"prop": "glowRadius", "value": 9},
                   {"prop": "contentScale", "value": 2}]},
    {"id": "nopaint", "corners": [[0,0],[1,0],[1,1],[0,1]]}]})");
  EXPECT_FALSE(s.resolve(s.layers[0], 50).has_value());  // invisible without a clip
  std::optional<Resolved> r = s.resolve(s.layers[0], 150);
  ASSERT_TRUE(r.has_value());  // a clip shows on an invisible layer
  EXPECT_EQ(r->paint.type, "video");
  EXPECT_DOUBLE_EQ(r->opacity, 0.5);  // clip fade 1 times the group; the layer's 0.2 plays no part
  EXPECT_EQ(r->mediaMs.value_or(-1), 50);
  r = s.resolve(s.layers[1], 0);
  ASSERT_TRUE(r.has_value());
  EXPECT_EQ(r->opacity, 1.5);  // not limited
  EXPECT_EQ(r->vertices[2].p.y, 0.25);
  EXPECT_EQ(r->effects.glowRadius, 0);  // only an effect already > 0 animates
  EXPECT_EQ(r->content.scale, 2);
  EXPECT_FALSE(s.resolve(s.layers[2], 0).has_value());
}

TEST(NativeScene, MeshGeometry) {
  std::array<Point, 4> unit{Point{0, 0}, Point{1, 0}, Point{1, 1}, Point{0, 1}};
  std::array<Point, 4> q{Point{0.1, 0.2}, Point{0.9, 0.1}, Point{0.8, 0.9}, Point{0.2, 0.7}};
  Homography h = homography(q);
  for (int i = 0; i < 4; i++) {
    Point p = kavlen::native::apply(h, unit[i]);
    EXPECT_NEAR(p.x, q[i].x, 1e-12);
    EXPECT_NEAR(p.y, q[i].y, 1e-12);
  }
  struct Case {
    int64_t cols, rows;
    size_t cells;
  };
  for (Case c : {Case{3, 3, 144}, Case{12, 1, 12}, Case{5, 5, 100}, Case{12, 12, 144}}) {
    Mesh m;
    m.cols = c.cols;
    m.rows = c.rows;
    m.offsets.assign(size_t((c.cols + 1) * (c.rows + 1)), Point{});
    EXPECT_EQ(m.subCells(unit).size(), c.cells) << c.cols << "x" << c.rows;
  }
  // Offsets read row by row; a row of one number keeps it as x. Neighbours
  // past the grid's edge repeat it, so the corner itself is exact.
  Layer l = layer(R"({"mesh": {"cols": 1, "rows": 1, "offsets": [[0.5], [0, 0], [0, 0], [0, 0.25]]}})");
  ASSERT_TRUE(l.mesh.has_value());
  EXPECT_TRUE(l.mesh->offsets[0] == (Point{0.5, 0}));
  EXPECT_TRUE(l.mesh->offsetAt(0, 0) == (Point{0.5, 0}));
  EXPECT_TRUE(l.mesh->offsetAt(1, 1) == (Point{0, 0.25}));
  EXPECT_TRUE(layer(R"({"mesh": {"offsets": [[1, 1]]}})").mesh->offsets[0] == Point{});  // wrong count: zeros
}

}  // namespace
