// NativeScene: the scene document as the offline compositor reads it.
//
// Usage:
//   kavlen::host::Value doc = kavlen::native::valueFromJson(text);  // or a channel's map
//   kavlen::native::NativeScene scene = NativeScene::json(doc, 1920, 1080);
//   for (const auto& layer : scene.layers)
//     if (auto r = scene.resolve(layer, timeMs)) draw(*r);
//
// It stands apart from the engine core: it reads only "groups" and
// "mappings", has no audio reaction and no outputs, and a frame depends on the
// document and the time alone. Geometry is normalised (x right, y down in the
// unit square of the output); content x and y are fractions of the 1280x720
// surface; times are integer milliseconds. Reading never fails: a key that is
// missing or of another type takes its default, and unreadable vertices are
// dropped. All values are plain and immutable; resolve works on copies.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "value.h"

struct cJSON;

namespace kavlen::native {

using host::Value;

struct Point {
  double x = 0, y = 0;
  bool operator==(const Point&) const = default;
};

struct Vertex {
  Point p;
  std::optional<Point> inH;   // handles are offsets from p
  std::optional<Point> outH;
};

struct TextSpec {
  std::string text;
  double size = 0.12;  // fraction of the 720-unit surface height
  std::string align = "center";
  bool bold = false;
  bool italic = false;
  std::optional<std::string> font;
  double arc = 0;  // degrees
};

struct Paint {
  std::string type = "none";
  uint32_t argb = 0;
  std::optional<std::string> path;
  std::optional<TextSpec> text;  // exactly when type is "text"
  static Paint json(const Value& v);
};

struct Keyframe {
  std::string prop;
  int64_t timeMs = 0;
  double value = 0;
  std::string easing = "linear";
};

struct Clip {
  int64_t startMs = 0, lengthMs = 0;
  Paint paint;
  double opacity = 1.0;
  int64_t fadeInMs = 0, fadeOutMs = 0, trimStartMs = 0;
  double speed = 1.0;
  bool loop = false;
  std::optional<int64_t> mediaDurationMs;

  double opacityAt(int64_t t) const;
  int64_t mediaPositionMs(int64_t t) const;
};

struct Effects {
  double strokeWidth = 0;
  uint32_t strokeArgb = 0;
  double shadowDx = 0, shadowDy = 0, shadowBlur = 0;
  uint32_t shadowArgb = 0;
  bool hasShadow = false;
  double glowRadius = 0;
  uint32_t glowArgb = 0;
  double bevelDepth = 0;
  uint32_t bevelHi = 0, bevelLo = 0;

  static Effects json(const Value& v);
  bool any() const { return strokeWidth > 0 || hasShadow || glowRadius > 0 || bevelDepth > 0; }
  // Every field, as text: two dumps differ whenever a field does.
  std::string dump() const;
};

struct Content {
  double x = 0, y = 0, scale = 1.0, rotation = 0;
};

struct Mask {
  std::vector<Vertex> vertices;
  double feather = 0;
  bool inverted = false;
};

struct Rect {
  double x = 0, y = 0, w = 0, h = 0;
};

struct SubCell {
  Rect src;                    // in the unit square, top-down
  std::array<Point, 4> dst;    // normalised scene points
};

struct Mesh {
  int64_t cols = 3, rows = 3;
  std::vector<Point> offsets;  // (cols + 1) * (rows + 1), row by row

  static std::optional<Mesh> parse(const Value& v);
  bool hasOffset() const;
  Point offsetAt(double x, double y) const;
  std::vector<SubCell> subCells(const std::array<Point, 4>& corners) const;
};

using Homography = std::array<double, 8>;
// The projective map of the unit square onto p0..p3 ((0,0), (1,0), (1,1), (0,1)).
Homography homography(const std::array<Point, 4>& corners);
Point apply(const Homography& h, Point uv);

struct Layer {
  std::string id;
  std::string kind = "quad";
  std::vector<Vertex> vertices;
  Paint paint;
  double opacity = 1.0;
  bool visible = true;
  std::vector<Clip> clips;
  std::optional<std::string> groupId;
  Content content;
  std::vector<Keyframe> keyframes;
  std::optional<Mask> mask;
  Effects effects;
  bool lumaKey = false;
  std::optional<Mesh> mesh;

  std::optional<double> animated(const std::string& prop, int64_t t) const;
};

struct Group {
  std::string id;
  bool visible = true;
  double opacity = 1.0;
};

struct Resolved {
  Paint paint;
  double opacity = 1.0;
  std::optional<int64_t> mediaMs;
  std::vector<Vertex> vertices;
  Content content;
  Effects effects;
};

std::vector<Vertex> parseVertices(const Value& v);
std::pair<std::string, std::vector<Vertex>> parseShape(const Value& mapping);

struct NativeScene {
  int64_t width = 0, height = 0;
  std::vector<Layer> layers;
  std::map<std::string, Group> groups;

  static NativeScene json(const Value& doc, int64_t width, int64_t height);
  // The same from JSON text; text that is not JSON gives an empty scene.
  static NativeScene jsonText(const std::string& text, int64_t width, int64_t height);
  std::optional<Resolved> resolve(const Layer& layer, int64_t t) const;
};

// JSON text to a channel value: objects become maps with text keys, whole
// numbers that fit int64 become integers, other numbers doubles. Nothing when
// the text is not JSON.
std::optional<Value> valueFromJson(const std::string& text);
// The same from a parsed cJSON value (null gives a null value).
Value valueFromCjson(const cJSON* json);

}  // namespace kavlen::native
