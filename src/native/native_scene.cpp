#include "native_scene.h"

#include <cjson/cJSON.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace kavlen::native {

using host::ValueList;

namespace {

// Typed reads: a value of another type reads as absent.
std::optional<double> num(const Value* v) {
  if (!v) return std::nullopt;
  if (const double* d = v->asDouble()) return *d;
  if (const int64_t* i = v->asInt()) return static_cast<double>(*i);
  return std::nullopt;
}

std::optional<int64_t> i64(const Value* v) {
  if (!v) return std::nullopt;
  if (const int64_t* i = v->asInt()) return *i;
  if (const double* d = v->asDouble())
    if (std::isfinite(*d) && *d == std::floor(*d) && std::fabs(*d) < 9.2e18) return static_cast<int64_t>(*d);
  return std::nullopt;
}

std::optional<uint32_t> u32(const Value* v) {
  if (std::optional<int64_t> i = i64(v)) return static_cast<uint32_t>(static_cast<uint64_t>(*i) & 0xFFFFFFFFu);
  return std::nullopt;
}

std::optional<bool> boolean(const Value* v) {
  if (v && v->asBool()) return *v->asBool();
  return std::nullopt;
}

std::optional<std::string> str(const Value* v) {
  if (v && v->asString()) return *v->asString();
  return std::nullopt;
}

const Value* key(const Value& m, const char* k) { return m.isMap() ? m.find(k) : nullptr; }

// An array of numbers, from a list or one of the typed lists.
std::optional<std::vector<double>> numbers(const Value* v) {
  if (!v) return std::nullopt;
  std::vector<double> out;
  if (const ValueList* l = v->asList()) {
    for (const Value& e : *l) {
      std::optional<double> d = num(&e);
      if (!d) return std::nullopt;
      out.push_back(*d);
    }
    return out;
  }
  if (const auto* a = v->asFloat64List()) return std::vector<double>(a->begin(), a->end());
  if (const auto* a = v->asFloat32List()) return std::vector<double>(a->begin(), a->end());
  if (const auto* a = v->asInt32List()) return std::vector<double>(a->begin(), a->end());
  if (const auto* a = v->asInt64List()) {
    for (int64_t i : *a) out.push_back(static_cast<double>(i));
    return out;
  }
  return std::nullopt;
}

std::optional<Point> handle(const Value* v) {
  std::optional<std::vector<double>> n = numbers(v);
  if (!n || n->size() < 2) return std::nullopt;
  return Point{(*n)[0], (*n)[1]};
}

TextSpec textSpec(const Value& p) {
  TextSpec t;
  if (auto s = str(key(p, "text"))) t.text = *s;
  if (auto d = num(key(p, "size"))) t.size = *d;
  if (auto s = str(key(p, "align"))) t.align = *s;
  if (auto b = boolean(key(p, "bold"))) t.bold = *b;
  if (auto b = boolean(key(p, "italic"))) t.italic = *b;
  t.font = str(key(p, "font"));
  if (auto d = num(key(p, "arc"))) t.arc = *d;
  return t;
}

Clip clip(const Value& c) {
  Clip k;
  if (auto i = i64(key(c, "startMs"))) k.startMs = *i;
  if (auto i = i64(key(c, "lengthMs"))) k.lengthMs = *i;
  if (const Value* p = key(c, "paint")) k.paint = Paint::json(*p);
  if (auto d = num(key(c, "opacity"))) k.opacity = *d;
  if (auto i = i64(key(c, "fadeInMs"))) k.fadeInMs = *i;
  if (auto i = i64(key(c, "fadeOutMs"))) k.fadeOutMs = *i;
  if (auto i = i64(key(c, "trimStartMs"))) k.trimStartMs = *i;
  if (auto d = num(key(c, "speed"))) k.speed = *d;
  if (auto b = boolean(key(c, "loop"))) k.loop = *b;
  k.mediaDurationMs = i64(key(c, "mediaDurationMs"));
  return k;
}

Layer layer(const Value& m) {
  Layer l;
  if (auto s = str(key(m, "id"))) l.id = *s;
  std::tie(l.kind, l.vertices) = parseShape(m);
  if (const Value* p = key(m, "paint")) l.paint = Paint::json(*p);
  if (auto d = num(key(m, "opacity"))) l.opacity = *d;
  if (auto b = boolean(key(m, "visible"))) l.visible = *b;
  if (const Value* cs = key(m, "clips"); cs && cs->asList())
    for (const Value& c : *cs->asList())
      if (c.isMap()) l.clips.push_back(clip(c));
  l.groupId = str(key(m, "groupId"));
  if (const Value* c = key(m, "content"); c && c->isMap()) {
    if (auto d = num(key(*c, "x"))) l.content.x = *d;
    if (auto d = num(key(*c, "y"))) l.content.y = *d;
    if (auto d = num(key(*c, "scale"))) l.content.scale = *d;
    if (auto d = num(key(*c, "rotation"))) l.content.rotation = *d;
  }
  if (const Value* ks = key(m, "keyframes"); ks && ks->asList())
    for (const Value& k : *ks->asList()) {
      if (!k.isMap()) continue;
      Keyframe f;
      if (auto s = str(key(k, "prop"))) f.prop = *s;
      if (auto i = i64(key(k, "timeMs"))) f.timeMs = *i;
      if (auto d = num(key(k, "value"))) f.value = *d;
      if (auto s = str(key(k, "easing"))) f.easing = *s;
      l.keyframes.push_back(std::move(f));
    }
  if (const Value* mk = key(m, "mask"); mk && mk->isMap()) {
    Mask k;
    if (const Value* vs = key(*mk, "vertices")) k.vertices = parseVertices(*vs);
    if (auto d = num(key(*mk, "feather"))) k.feather = *d;
    if (auto b = boolean(key(*mk, "inverted"))) k.inverted = *b;
    l.mask = std::move(k);
  }
  if (const Value* e = key(m, "effects")) l.effects = Effects::json(*e);
  if (auto b = boolean(key(m, "lumaKey"))) l.lumaKey = *b;
  if (const Value* ms = key(m, "mesh")) l.mesh = Mesh::parse(*ms);
  return l;
}

double ease(const std::string& easing, double f) {
  if (easing == "easeIn") return f * f;
  if (easing == "easeOut") return 1 - (1 - f) * (1 - f);
  if (easing == "easeInOut") return f < 0.5 ? 2 * f * f : 1 - 0.5 * (2 - 2 * f) * (2 - 2 * f);
  if (easing == "hold") return 0;
  return f;
}

Point catmullRom(Point q0, Point q1, Point q2, Point q3, double u) {
  auto f = [u](double a, double b, double c, double d) {
    return 0.5 * (2 * b + (c - a) * u + (2 * a - 5 * b + 4 * c - d) * u * u + (3 * b - a - 3 * c + d) * u * u * u);
  };
  return {f(q0.x, q1.x, q2.x, q3.x), f(q0.y, q1.y, q2.y, q3.y)};
}

}  // namespace

Paint Paint::json(const Value& v) {
  Paint p;
  if (!v.isMap()) return p;
  if (auto s = str(key(v, "type"))) p.type = *s;
  if (auto a = u32(key(v, "argb"))) p.argb = *a;
  p.path = str(key(v, "path"));
  if (!p.path) p.path = str(key(v, "asset"));
  if (p.type == "text") p.text = textSpec(v);
  return p;
}

Effects Effects::json(const Value& v) {
  Effects e;
  if (const Value* s = key(v, "stroke"); s && s->isMap()) {
    e.strokeWidth = num(key(*s, "width")).value_or(6.0);
    e.strokeArgb = u32(key(*s, "argb")).value_or(0);
  }
  if (const Value* s = key(v, "shadow"); s && s->isMap()) {
    e.hasShadow = true;
    e.shadowDx = num(key(*s, "dx")).value_or(8.0);
    e.shadowDy = num(key(*s, "dy")).value_or(8.0);
    e.shadowBlur = num(key(*s, "blur")).value_or(12.0);
    e.shadowArgb = u32(key(*s, "argb")).value_or(0);
  }
  if (const Value* s = key(v, "glow"); s && s->isMap()) {
    e.glowRadius = num(key(*s, "radius")).value_or(24.0);
    e.glowArgb = u32(key(*s, "argb")).value_or(0);
  }
  if (const Value* s = key(v, "bevel"); s && s->isMap()) {
    e.bevelDepth = num(key(*s, "depth")).value_or(8.0);
    e.bevelHi = u32(key(*s, "highlight")).value_or(0xB3FFFFFFu);
    e.bevelLo = u32(key(*s, "shadow")).value_or(0xB3000000u);
  }
  return e;
}

std::string Effects::dump() const {
  char b[512];
  snprintf(b, sizeof b, "%.17g,%u,%.17g,%.17g,%.17g,%u,%d,%.17g,%u,%.17g,%u,%u", strokeWidth, strokeArgb, shadowDx,
           shadowDy, shadowBlur, shadowArgb, hasShadow ? 1 : 0, glowRadius, glowArgb, bevelDepth, bevelHi, bevelLo);
  return b;
}

std::vector<Vertex> parseVertices(const Value& v) {
  std::vector<Vertex> out;
  const ValueList* l = v.asList();
  if (!l) return out;
  for (const Value& e : *l) {
    if (std::optional<std::vector<double>> n = numbers(&e)) {
      if (n->size() >= 2) out.push_back(Vertex{{(*n)[0], (*n)[1]}, std::nullopt, std::nullopt});
      continue;
    }
    if (!e.isMap()) continue;
    std::optional<double> x = num(key(e, "x")), y = num(key(e, "y"));
    if (!x || !y) continue;
    out.push_back(Vertex{{*x, *y}, handle(key(e, "in")), handle(key(e, "out"))});
  }
  return out;
}

std::pair<std::string, std::vector<Vertex>> parseShape(const Value& m) {
  if (const Value* s = key(m, "shape"); s && s->isMap()) {
    std::string kind = str(key(*s, "kind")).value_or("quad");
    const Value* vs = key(*s, "vertices");
    return {kind, vs ? parseVertices(*vs) : std::vector<Vertex>{}};
  }
  if (const Value* c = key(m, "corners"); c && c->asList()) {
    std::vector<Vertex> out;
    bool ok = true;
    std::vector<Vertex> rows;
    for (const Value& r : *c->asList()) {
      std::optional<std::vector<double>> n = numbers(&r);
      if (!n) {
        ok = false;
        break;
      }
      // A row of fewer than two numbers is dropped like an unreadable vertex.
      if (n->size() >= 2) rows.push_back(Vertex{{(*n)[0], (*n)[1]}, std::nullopt, std::nullopt});
    }
    if (ok) return {"quad", rows};
  }
  return {"quad", {}};
}

std::optional<Mesh> Mesh::parse(const Value& v) {
  if (!v.isMap()) return std::nullopt;
  Mesh m;
  m.cols = std::clamp<int64_t>(i64(key(v, "cols")).value_or(3), 1, 12);
  m.rows = std::clamp<int64_t>(i64(key(v, "rows")).value_or(3), 1, 12);
  size_t n = static_cast<size_t>((m.cols + 1) * (m.rows + 1));
  m.offsets.assign(n, Point{});
  if (const Value* o = key(v, "offsets"); o && o->asList() && o->asList()->size() == n) {
    std::vector<Point> read;
    for (const Value& r : *o->asList()) {
      std::optional<std::vector<double>> row = numbers(&r);
      if (!row || !r.asList()) break;
      read.push_back(Point{row->size() > 0 ? (*row)[0] : 0, row->size() > 1 ? (*row)[1] : 0});
    }
    if (read.size() == n) m.offsets = std::move(read);
  }
  return m;
}

bool Mesh::hasOffset() const {
  return std::any_of(offsets.begin(), offsets.end(), [](Point p) { return p.x != 0 || p.y != 0; });
}

Point Mesh::offsetAt(double x, double y) const {
  int64_t i = std::clamp<int64_t>(static_cast<int64_t>(std::floor(x)), 0, cols - 1);
  int64_t j = std::clamp<int64_t>(static_cast<int64_t>(std::floor(y)), 0, rows - 1);
  double u = std::clamp(x - static_cast<double>(i), 0.0, 1.0), v = std::clamp(y - static_cast<double>(j), 0.0, 1.0);
  auto at = [&](int64_t c, int64_t r) {
    c = std::clamp<int64_t>(c, 0, cols);
    r = std::clamp<int64_t>(r, 0, rows);
    return offsets[static_cast<size_t>(r * (cols + 1) + c)];
  };
  Point rowsAt[4];
  for (int k = 0; k < 4; k++) {
    int64_t r = j - 1 + k;
    rowsAt[k] = catmullRom(at(i - 1, r), at(i, r), at(i + 1, r), at(i + 2, r), u);
  }
  return catmullRom(rowsAt[0], rowsAt[1], rowsAt[2], rowsAt[3], v);
}

std::vector<SubCell> Mesh::subCells(const std::array<Point, 4>& corners) const {
  Homography h = homography(corners);
  int64_t sub = std::clamp<int64_t>(12 / std::max(cols, rows), 1, 4);
  int64_t nx = cols * sub, ny = rows * sub;
  std::vector<Point> grid;
  grid.reserve(static_cast<size_t>((nx + 1) * (ny + 1)));
  for (int64_t j = 0; j <= ny; j++)
    for (int64_t i = 0; i <= nx; i++) {
      double u = static_cast<double>(i) / static_cast<double>(sub), v = static_cast<double>(j) / static_cast<double>(sub);
      Point p = apply(h, {u / static_cast<double>(cols), v / static_cast<double>(rows)});
      Point o = offsetAt(u, v);
      grid.push_back({p.x + o.x, p.y + o.y});
    }
  auto g = [&](int64_t j, int64_t i) { return grid[static_cast<size_t>(j * (nx + 1) + i)]; };
  std::vector<SubCell> cells;
  cells.reserve(static_cast<size_t>(nx * ny));
  double fx = static_cast<double>(nx), fy = static_cast<double>(ny);
  for (int64_t j = 0; j < ny; j++)
    for (int64_t i = 0; i < nx; i++)
      cells.push_back(SubCell{Rect{static_cast<double>(i) / fx, static_cast<double>(j) / fy, 1 / fx, 1 / fy},
                              {g(j, i), g(j, i + 1), g(j + 1, i + 1), g(j + 1, i)}});
  return cells;
}

Homography homography(const std::array<Point, 4>& c) {
  const Point &p0 = c[0], &p1 = c[1], &p2 = c[2], &p3 = c[3];
  double sx = p0.x - p1.x + p2.x - p3.x, sy = p0.y - p1.y + p2.y - p3.y;
  double g = 0, h = 0;
  if (!(std::fabs(sx) <= 1e-12 && std::fabs(sy) <= 1e-12)) {
    double dx1 = p1.x - p2.x, dx2 = p3.x - p2.x, dy1 = p1.y - p2.y, dy2 = p3.y - p2.y;
    double den = dx1 * dy2 - dx2 * dy1;
    g = (sx * dy2 - dx2 * sy) / den;
    h = (dx1 * sy - sx * dy1) / den;
  }
  return {p1.x - p0.x + g * p1.x, p3.x - p0.x + h * p3.x, p0.x, p1.y - p0.y + g * p1.y, p3.y - p0.y + h * p3.y,
          p0.y, g, h};
}

Point apply(const Homography& m, Point uv) {
  double w = m[6] * uv.x + m[7] * uv.y + 1;
  return {(m[0] * uv.x + m[1] * uv.y + m[2]) / w, (m[3] * uv.x + m[4] * uv.y + m[5]) / w};
}

double Clip::opacityAt(int64_t t) const {
  if (t < startMs || t >= startMs + lengthMs) return 0;
  double a = 1;
  if (fadeInMs >= 1 && t - startMs < fadeInMs)
    a = static_cast<double>(t - startMs) / static_cast<double>(fadeInMs);
  int64_t r = startMs + lengthMs - t;
  if (fadeOutMs >= 1 && r < fadeOutMs) a = std::min(static_cast<double>(r) / static_cast<double>(fadeOutMs), a);
  return std::clamp(a * opacity, 0.0, 1.0);
}

int64_t Clip::mediaPositionMs(int64_t t) const {
  double local = static_cast<double>(t - startMs);
  double pos = speed * local + static_cast<double>(trimStartMs);
  if (loop && mediaDurationMs && trimStartMs < *mediaDurationMs)
    pos = std::fmod(pos - static_cast<double>(trimStartMs), static_cast<double>(*mediaDurationMs - trimStartMs)) +
          static_cast<double>(trimStartMs);
  if (!std::isfinite(pos)) return 0;
  return static_cast<int64_t>(std::clamp(pos, -9.2e18, 9.2e18));
}

std::optional<double> Layer::animated(const std::string& prop, int64_t t) const {
  const Keyframe* before = nullptr;
  const Keyframe* after = nullptr;
  for (const Keyframe& k : keyframes) {
    if (k.prop != prop) continue;
    if (k.timeMs <= t) {
      if (!before || k.timeMs >= before->timeMs) before = &k;
    } else if (!after || k.timeMs < after->timeMs) {
      after = &k;
    }
  }
  if (!before && !after) return std::nullopt;
  if (!before) return after->value;
  if (!after) return before->value;
  double f = static_cast<double>(t - before->timeMs) / static_cast<double>(after->timeMs - before->timeMs);
  return before->value + (after->value - before->value) * ease(before->easing, f);
}

NativeScene NativeScene::json(const Value& doc, int64_t width, int64_t height) {
  NativeScene s;
  s.width = width;
  s.height = height;
  if (const Value* gs = key(doc, "groups"); gs && gs->asList())
    for (const Value& g : *gs->asList()) {
      if (!g.isMap()) continue;
      Group grp;
      if (auto id = str(key(g, "id"))) grp.id = *id;
      if (auto b = boolean(key(g, "visible"))) grp.visible = *b;
      if (auto d = num(key(g, "opacity"))) grp.opacity = *d;
      s.groups[grp.id] = grp;
    }
  if (const Value* ms = key(doc, "mappings"); ms && ms->asList())
    for (const Value& m : *ms->asList())
      if (m.isMap()) s.layers.push_back(layer(m));
  return s;
}

NativeScene NativeScene::jsonText(const std::string& text, int64_t width, int64_t height) {
  std::optional<Value> v = valueFromJson(text);
  return json(v ? *v : Value(), width, height);
}

std::optional<Resolved> NativeScene::resolve(const Layer& layer, int64_t t) const {
  Resolved r;
  r.paint = layer.paint;
  std::optional<double> animOpacity = layer.animated("opacity", t);
  r.opacity = animOpacity.value_or(layer.opacity);
  r.vertices = layer.vertices;
  char name[32];
  for (size_t i = 0; i < r.vertices.size(); i++) {
    snprintf(name, sizeof name, "c%zux", i);
    if (auto v = layer.animated(name, t)) r.vertices[i].p.x = *v;
    snprintf(name, sizeof name, "c%zuy", i);
    if (auto v = layer.animated(name, t)) r.vertices[i].p.y = *v;
  }
  r.content = layer.content;
  if (auto v = layer.animated("contentX", t)) r.content.x = *v;
  if (auto v = layer.animated("contentY", t)) r.content.y = *v;
  if (auto v = layer.animated("contentScale", t)) r.content.scale = *v;
  if (auto v = layer.animated("contentRotation", t)) r.content.rotation = *v;
  r.effects = layer.effects;
  Effects& e = r.effects;
  if (e.strokeWidth > 0)
    if (auto v = layer.animated("strokeWidth", t)) e.strokeWidth = *v;
  if (e.hasShadow) {
    if (auto v = layer.animated("shadowX", t)) e.shadowDx = *v;
    if (auto v = layer.animated("shadowY", t)) e.shadowDy = *v;
    if (auto v = layer.animated("shadowBlur", t)) e.shadowBlur = *v;
  }
  if (e.glowRadius > 0)
    if (auto v = layer.animated("glowRadius", t)) e.glowRadius = *v;
  if (e.bevelDepth > 0)
    if (auto v = layer.animated("bevelDepth", t)) e.bevelDepth = *v;

  const Clip* active = nullptr;
  for (const Clip& c : layer.clips)
    if (c.startMs <= t && t < c.startMs + c.lengthMs) active = &c;
  bool visible = layer.visible;
  if (active) {
    r.paint = active->paint;
    double fade = active->opacityAt(t);
    r.opacity = animOpacity ? r.opacity * fade : fade;
    visible = true;
    if (active->paint.type == "video" || active->paint.type == "asset_video") r.mediaMs = active->mediaPositionMs(t);
  }
  if (layer.groupId) {
    auto g = groups.find(*layer.groupId);
    if (g != groups.end()) {
      r.opacity *= g->second.opacity;
      visible = visible && g->second.visible;
    }
  }
  if (!visible || !(r.opacity > 0) || r.paint.type == "none") return std::nullopt;
  return r;
}

Value valueFromCjson(const cJSON* j) {
  if (!j) return Value();
  if (cJSON_IsBool(j)) return Value(cJSON_IsTrue(j) != 0);
  if (cJSON_IsNumber(j)) {
    double d = j->valuedouble;
    if (d == static_cast<double>(static_cast<int64_t>(d)) && d > -9.2e18 && d < 9.2e18)
      return Value(static_cast<int64_t>(d));
    return Value(d);
  }
  if (cJSON_IsString(j)) return Value(std::string(j->valuestring));
  if (cJSON_IsArray(j)) {
    host::ValueList l;
    for (const cJSON* e = j->child; e; e = e->next) l.push_back(valueFromCjson(e));
    return Value(std::move(l));
  }
  if (cJSON_IsObject(j)) {
    host::ValueMap m;
    for (const cJSON* e = j->child; e; e = e->next) m.emplace_back(Value(std::string(e->string)), valueFromCjson(e));
    return Value(std::move(m));
  }
  return Value();
}

std::optional<Value> valueFromJson(const std::string& text) {
  cJSON* root = cJSON_ParseWithLength(text.data(), text.size());
  if (!root) return std::nullopt;
  Value v = valueFromCjson(root);
  cJSON_Delete(root);
  return v;
}

}  // namespace kavlen::native
