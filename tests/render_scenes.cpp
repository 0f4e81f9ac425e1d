#include "render_scenes.h"

#include <cmath>
#include <cstring>
#include <limits>

namespace rscene {

uint8_t* SceneBuilder::keep(std::vector<uint8_t> v) {
  bytes.push_back(std::move(v));
  return bytes.back().data();
}

kvl_prep SceneBuilder::base(uint32_t argb) const {
  kvl_prep p;
  memset(&p, 0, sizeof p);
  p.argb = argb;
  p.solid = true;
  p.inv_content[0] = 1;
  p.inv_content[4] = 1;
  p.opacity = 1;
  return p;
}

kvl_cell SceneBuilder::cell(const double quad[8]) const { return cell(quad, 0, 0, 1280, 720); }

kvl_cell SceneBuilder::cell(const double quad[8], double ua, double va, double ub, double vb) const {
  kvl_cell c;
  memset(&c, 0, sizeof c);
  memcpy(c.quad, quad, sizeof c.quad);
  kvl_h h = kvl_h_unit_to_quad(quad);
  const double sx = 1 / (ub - ua), sy = 1 / (vb - va), tx = -ua * sx, ty = -va * sy;
  kvl_h m;
  for (int r = 0; r < 3; r++) {
    m.m[3 * r] = h.m[3 * r] * sx;
    m.m[3 * r + 1] = h.m[3 * r + 1] * sy;
    m.m[3 * r + 2] = h.m[3 * r] * tx + h.m[3 * r + 1] * ty + h.m[3 * r + 2];
  }
  if (!kvl_h_invert(&m, &c.inv)) memset(&c.inv, 0, sizeof c.inv);
  const double uv[8] = {ua, va, ub, va, ub, vb, ua, vb};
  memcpy(c.uv, uv, sizeof uv);
  for (int k = 0; k < 4; k++) c.w[k] = m.m[6] * uv[2 * k] + m.m[7] * uv[2 * k + 1] + m.m[8];
  double minx = quad[0], maxx = quad[0], miny = quad[1], maxy = quad[1];
  bool finite = true;
  for (int k = 0; k < 4; k++) {
    const double x = quad[2 * k], y = quad[2 * k + 1];
    if (!std::isfinite(x) || !std::isfinite(y)) finite = false;
    minx = std::fmin(minx, x);
    maxx = std::fmax(maxx, x);
    miny = std::fmin(miny, y);
    maxy = std::fmax(maxy, y);
  }
  if (!finite) {
    c.x0 = c.y0 = 0;
    c.x1 = width;
    c.y1 = height;
  } else {
    auto lim = [](double v, double hi) { return (int32_t)std::fmin(std::fmax(v, 0.0), hi); };
    c.x0 = lim(std::floor(minx) - 1, width);
    c.y0 = lim(std::floor(miny) - 1, height);
    c.x1 = lim(std::ceil(maxx) + 1, width);
    c.y1 = lim(std::ceil(maxy) + 1, height);
  }
  memset(c.edge, 1, 4);
  return c;
}

void SceneBuilder::set_cells(kvl_prep* p, std::vector<kvl_cell> c) {
  cells.push_back(std::move(c));
  p->cells = cells.back().data();
  p->cell_count = (int32_t)cells.back().size();
}

const kvl_source* SceneBuilder::source(int32_t w, int32_t h, const uint8_t* rgba) {
  kvl_source s;
  s.key = nullptr;
  s.width = w;
  s.height = h;
  s.pixels = rgba ? keep(std::vector<uint8_t>(rgba, rgba + (size_t)w * h * 4)) : nullptr;
  sources.push_back(s);
  return &sources.back();
}

void SceneBuilder::cover(kvl_prep* p, const kvl_source* s) const {
  p->source = s;
  p->solid = false;
  p->cover_scale = std::fmax(1280.0 / s->width, 720.0 / s->height);
  p->cover_ox = 640 - s->width * p->cover_scale / 2;
  p->cover_oy = 360 - s->height * p->cover_scale / 2;
}

kvl_fx SceneBuilder::fx(int32_t x, int32_t y, int32_t w, int32_t h, uint32_t argb, uint8_t fill) {
  kvl_fx f;
  memset(&f, 0, sizeof f);
  f.mask = keep(std::vector<uint8_t>((size_t)w * h, fill));
  f.x = x;
  f.y = y;
  f.w = w;
  f.h = h;
  f.argb = argb;
  f.cached = true;
  return f;
}

namespace {

std::vector<uint8_t> blocky(Rng* rng, int w, int h, int block) {
  std::vector<uint8_t> m((size_t)w * h);
  const int bx = (w + block - 1) / block, by = (h + block - 1) / block;
  std::vector<int> kind((size_t)bx * by);
  for (int& k : kind) k = rng->range(0, 4);
  for (int y = 0; y < h; y++)
    for (int x = 0; x < w; x++) {
      const int k = kind[(size_t)(y / block) * bx + x / block];
      uint8_t v = 0;
      if (k == 1 || k == 2) v = 255;
      if (k == 3) v = (uint8_t)rng->next();
      if (k == 4) v = (uint8_t)((x * 7 + y * 3) & 255);
      m[(size_t)y * w + x] = v;
    }
  return m;
}

double snap(Rng* rng, double v) { return rng->chance(0.5) ? std::round(v * 8) / 8 : v; }

// Quads of every kind: around the frame, (tilted, reversed) rectangles, bow
// ties, degenerate and hostile numbers.
void random_quad(SceneBuilder* b, Rng* rng, double q[8]) {
  const double W = b->width, H = b->height;
  const int mode = rng->range(0, 9);
  if (mode <= 2) {  // anything around the frame
    for (int k = 0; k < 4; k++) {
      q[2 * k] = snap(rng, rng->uni(-0.3 * W, 1.3 * W));
      q[2 * k + 1] = snap(rng, rng->uni(-0.3 * H, 1.3 * H));
    }
  } else if (mode <= 5) {  // a rectangle, maybe tilted a little, maybe wound backwards
    double x0 = snap(rng, rng->uni(-0.2 * W, 0.8 * W)), y0 = snap(rng, rng->uni(-0.2 * H, 0.8 * H));
    double x1 = snap(rng, x0 + rng->uni(0.5, 1.2 * W)), y1 = snap(rng, y0 + rng->uni(0.5, 1.2 * H));
    if (mode == 3) {
      x0 = std::round(x0);
      x1 = std::round(x1);
      y0 = std::round(y0);
      y1 = std::round(y1);
    }
    const double r[8] = {x0, y0, x1, y0, x1, y1, x0, y1};
    memcpy(q, r, sizeof r);
    if (mode == 5)
      for (int k = 0; k < 8; k++) q[k] += rng->uni(-3, 3);
    if (rng->chance(0.3)) {  // reversed winding
      std::swap(q[2], q[6]);
      std::swap(q[3], q[7]);
    }
  } else if (mode == 6) {  // bow tie
    for (int k = 0; k < 4; k++) {
      q[2 * k] = rng->uni(0, W);
      q[2 * k + 1] = rng->uni(0, H);
    }
    std::swap(q[4], q[6]);
  } else if (mode == 7) {  // degenerate: collinear or repeated corners
    const double x = rng->uni(0, W), y = rng->uni(0, H), dx = rng->uni(-W, W), dy = rng->uni(-H, H);
    for (int k = 0; k < 4; k++) {
      const double t = rng->chance(0.5) ? rng->uni(0, 1) : 0;
      q[2 * k] = x + t * dx;
      q[2 * k + 1] = y + t * dy;
    }
  } else {  // hostile numbers
    for (int k = 0; k < 4; k++) {
      q[2 * k] = rng->uni(-0.3 * W, 1.3 * W);
      q[2 * k + 1] = rng->uni(-0.3 * H, 1.3 * H);
    }
    const double bad[] = {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(),
                          -std::numeric_limits<double>::infinity(), 1e30, -1e30, 1e300, 3e12, -2e13, 1e-300};
    const int n = rng->range(1, 3);
    for (int i = 0; i < n; i++) q[rng->range(0, 7)] = bad[rng->range(0, 8)];
    if (rng->chance(0.3))  // a tiny quad
      for (int k = 0; k < 8; k++) q[k] = 5 + q[k] * 1e-200;
  }
}

uint32_t random_argb(Rng* rng) {
  uint32_t c = (uint32_t)rng->next();
  const int a = rng->range(0, 3);
  if (a == 0) c |= 0xFF000000u;
  if (a == 1) c &= 0x00FFFFFFu;
  return c;
}

void random_content(Rng* rng, kvl_prep* p) {
  const int mode = rng->range(0, 4);
  if (mode <= 1) return;  // identity
  const double scale = mode == 2 ? 0.0 : rng->uni(0.3, 2.5);
  const double s = scale == 0 ? 0 : 1 / scale;
  const double cx = 1280 * rng->uni(-0.3, 0.3) + 640, cy = 720 * rng->uni(-0.3, 0.3) + 360;
  const double t = -rng->uni(-180, 180) * M_PI / 180;
  double* ic = p->inv_content;
  ic[0] = s * std::cos(t);
  ic[1] = -s * std::sin(t);
  ic[3] = s * std::sin(t);
  ic[4] = s * std::cos(t);
  ic[2] = 640 - ic[1] * cy - ic[0] * cx;
  ic[5] = 360 - ic[4] * cy - ic[3] * cx;
}

void random_fill(SceneBuilder* b, Rng* rng, kvl_prep* p, bool opaque) {
  const int mode = rng->range(0, 5);
  if (mode <= 1) return;  // solid, set by base()
  const int w = rng->range(1, 24), h = rng->range(1, 16);
  if (mode == 2) {
    b->cover(p, b->source(w, h, nullptr));
    return;
  }
  std::vector<uint8_t> img((size_t)w * h * 4);
  for (size_t i = 0; i < img.size(); i += 4) {
    const uint32_t c = random_argb(rng);
    img[i] = (uint8_t)(c >> 16);
    img[i + 1] = (uint8_t)(c >> 8);
    img[i + 2] = (uint8_t)c;
    img[i + 3] = opaque ? 255 : (uint8_t)(c >> 24);
  }
  b->cover(p, b->source(w, h, img.data()));
  if (mode == 5) p->cover_scale *= rng->uni(0.5, 2);
}

kvl_fx random_fx(SceneBuilder* b, Rng* rng) {
  const int x = rng->range(0, b->width - 1), y = rng->range(0, b->height - 1);
  const int w = rng->range(1, b->width - x), h = rng->range(1, b->height - y);
  kvl_fx f = b->fx(x, y, w, h, random_argb(rng), 0);
  std::vector<uint8_t> m = blocky(rng, w, h, rng->range(1, 6));
  memcpy(f.mask, m.data(), m.size());
  return f;
}

}  // namespace

void random_scene(SceneBuilder* b, Rng* rng, double opaque, int max_layers) {
  const int n = rng->range(1, max_layers);
  for (int i = 0; i < n; i++) {
    const bool solid_layer = rng->chance(opaque);
    kvl_prep p = b->base(random_argb(rng) | (solid_layer ? 0xFF000000u : 0u));
    random_fill(b, rng, &p, solid_layer);
    random_content(rng, &p);
    if (rng->chance(0.3)) p.mask = b->keep(blocky(rng, 1280, 720, rng->chance(0.5) ? 16 : 200));
    const int road = rng->range(0, 9);
    if (road <= 4 || road == 5) {  // one cell, a quad or an ellipse
      p.ellipse = road == 5 || rng->chance(0.15);
      double q[8];
      random_quad(b, rng, q);
      kvl_cell c = b->cell(q);
      if (rng->chance(0.2))
        for (int k = 0; k < 4; k++) c.edge[k] = (uint8_t)rng->range(0, 1);
      if (rng->chance(0.1)) {  // an inverse that has nothing to do with the quad
        for (double& m : c.inv.m) m = rng->uni(-3, 3);
        if (rng->chance(0.5)) c.inv.m[6] = c.inv.m[7] = 0;
      }
      b->set_cells(&p, {c});
    } else if (road == 6) {  // a jittered mesh; only the outer ring has edges
      const int nx = rng->range(1, 5), ny = rng->range(1, 5);
      const double W = b->width, H = b->height, j = rng->uni(0, 0.4);
      std::vector<double> gx((size_t)(nx + 1) * (ny + 1)), gy(gx.size());
      const double ox = rng->uni(-0.2 * W, 0.2 * W), oy = rng->uni(-0.2 * H, 0.2 * H);
      for (int r = 0; r <= ny; r++)
        for (int c = 0; c <= nx; c++) {
          gx[(size_t)r * (nx + 1) + c] = ox + W * (c + rng->uni(-j, j)) / nx;
          gy[(size_t)r * (nx + 1) + c] = oy + H * (r + rng->uni(-j, j)) / ny;
        }
      std::vector<kvl_cell> cells;
      for (int r = 0; r < ny; r++)
        for (int c = 0; c < nx; c++) {
          auto at = [&](int cc, int rr, double* out) {
            out[0] = gx[(size_t)rr * (nx + 1) + cc];
            out[1] = gy[(size_t)rr * (nx + 1) + cc];
          };
          double q[8];
          at(c, r, q);
          at(c + 1, r, q + 2);
          at(c + 1, r + 1, q + 4);
          at(c, r + 1, q + 6);
          kvl_cell cell = b->cell(q, c * 1280.0 / nx, r * 720.0 / ny, (c + 1) * 1280.0 / nx, (r + 1) * 720.0 / ny);
          cell.edge[0] = r == 0;
          cell.edge[1] = c == nx - 1;
          cell.edge[2] = r == ny - 1;
          cell.edge[3] = c == 0;
          cells.push_back(cell);
        }
      b->set_cells(&p, cells);
    } else {  // polygon road
      p.polygon = true;
      p.ellipse = rng->chance(0.2);
      p.box_x = rng->range(0, b->width - 1);
      p.box_y = rng->range(0, b->height - 1);
      p.box_w = rng->range(1, b->width - p.box_x);
      p.box_h = rng->range(1, b->height - p.box_y);
      p.poly_mask = b->keep(blocky(rng, p.box_w, p.box_h, rng->range(1, 5)));
      const double bw = p.box_w * rng->uni(0.5, 1.5), bh = p.box_h * rng->uni(0.5, 1.5);
      p.poly_scale = std::fmax(bw / 1280, bh / 720);
      if (rng->chance(0.05)) p.poly_scale = 0;
      p.poly_ox = p.box_x + (bw - 1280 * p.poly_scale) / 2;
      p.poly_oy = p.box_y + (bh - 720 * p.poly_scale) / 2;
    }
    if (rng->chance(0.35)) {
      p.behind_count = rng->range(0, 2);
      p.front_count = rng->range(0, 3);
      for (int k = 0; k < p.behind_count; k++) p.behind[k] = random_fx(b, rng);
      for (int k = 0; k < p.front_count; k++) p.front[k] = random_fx(b, rng);
    }
    p.opacity = solid_layer || rng->chance(0.4) ? 1.0 : rng->uni(0.02, 1);
    p.luma = !solid_layer && rng->chance(0.25);
    p.isolate = !solid_layer && rng->chance(0.4);
    b->layers.push_back(p);
  }
}

}  // namespace rscene
