// The CPU compositor's inner interface, shared by its files:
//
//   render_plain.cpp     the per-pixel formulas, once, one pixel at a time
//   render_avx2.cpp      the same arithmetic four pixels at a time (AVX2)
//   render_avx512.cpp    and eight at a time (AVX-512)
//   render_dispatch.cpp  which of those kernel sets runs, chosen once
//   render_cells.cpp     cell edges and coverage, polygon rows, effect masks
//   render_hidden.cpp    skipping pixels that an opaque step settles
//   kvl_render.cpp       layers, chunks, bands and their threads
//
// The per-pixel arithmetic is fixed, down to the order of the operations:
// the same picture has to come out of every build, every processor and the
// GPU path. The vector kernels therefore compute exactly the same doubles as
// the plain code, and only skip work whose outcome they can prove:
//   - doubles in SIMD lanes give the same bits as scalar doubles as long as
//     each operation and its order are the same, and nothing is fused (the
//     build switches contraction off for the whole core, so no FMA is
//     emitted even where a target would allow one);
//   - rounding halves away from zero is done as trunc plus an exact
//     fractional test, identical for the scalar and the vector code;
//   - a division by a power of two is the product by its exact reciprocal,
//     and a product by 1 is the number itself;
//   - texels are fetched by whichever loads are cheapest, but always the
//     same texels.
// The order in which the pixels of one layer are visited is free: a pixel's
// result depends only on its own earlier value.
//
// The vector files are compiled with their own instruction-set flags. So
// that no code of theirs can stand in for the plain code's on a processor
// without those instructions, every function defined in this header has
// internal linkage (static), and no type here has member functions.
#pragma once

#include <math.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "kavlen/kavlen.h"

namespace kvl_px {

// 1/255 as one constant: every "divide by 255" of the pixel code multiplies
// by it, so that all paths agree bit for bit.
constexpr double kInv255 = 0.00392156862745098;
constexpr double kSurfW = 1280.0, kSurfH = 720.0;

// Below this product of blend alpha, mask and ellipse a pixel cannot settle:
// t stays under 0.996 (1 + 1e-14), so blending over 0 and over 255 lies more
// than one apart and rounds apart. Probing drops such pixels before sampling.
constexpr double kSettles = 0.996;

struct kvl_color {
  double r, g, b, a;
};

enum { FILL_SOLID = 0, FILL_PIXELS = 1, FILL_DECLARED = 2 };

struct kernels;

// What the per-pixel code reads of a layer, taken from its record once.
struct shade {
  double opacity;
  bool luma;
  bool ellipse;
  const uint8_t* mask;
  double ic[6];
  int kind;
  double cr, cg, cb, ca;  // solid colour, straight, 0..255
  const uint8_t* src;
  int32_t sw, sh;
  double dsw, dsh;
  double cover_ox, cover_oy, cover_scale;
  bool cover_mul;    // cover_scale is a power of two with an exact reciprocal
  double cover_inv;  // 1 / cover_scale, exact when cover_mul
  // The content transform or the cover fit changes nothing: 1 u + 0 v + 0 and
  // (u - 0) / 1 give back u, up to the sign of a zero, which no later step
  // tells apart; and where v is not finite the point fails its range test
  // either way. The vector kernels skip the arithmetic then.
  bool ic_identity, cover_identity;
  const kernels* k;  // the kernel set for this layer
  bool frame;        // drawing onto the frame, whose pixels are all opaque
  // Hidden pixels of the chunk (see render_hidden.cpp): `hid` holds, for each
  // pixel, the id of the topmost step whose result there is settled (0:
  // none), and `keep` that result, 4 bytes a pixel; rows of `hid_w` pixels
  // from row `hid_y0`. Null `hid`: every pixel is drawn.
  uint16_t* hid;
  uint8_t* keep;
  int32_t hid_y0, hid_w;
  int32_t op;      // probing: the step's id; drawing: pixels with hid >= op are skipped
  bool probe;      // settle pixels into hid/keep instead of drawing
  int64_t* tally;  // probing: pixels probed, pixels settled
};

// The chunk's hidden-pixel rows for frame row y; both null without culling.
struct hid_rows {
  uint16_t* h;
  uint8_t* k;
};

// One kernel set: the spans that the layers, effects and isolated layers are
// drawn with. Every set gives the same bytes; they differ in speed only.
struct kernels {
  const char* name;
  // Cell pixels [xa, xb) of row y, each at the layer's opacity.
  void (*cell_span)(const shade& s, const double* m, int32_t y, int32_t xa, int32_t xb, uint8_t* row);
  // The same with pixel xa + k at alpha cover[k], skipped where cover[k] < 0;
  // null where one pixel at a time is as fast.
  void (*cell_cover_span)(const shade& s, const double* m, int32_t y, int32_t xa, int32_t xb, uint8_t* row,
                          const double* cover);
  // Polygon pixels [xa, xb) of row y at surface row v, cov their coverage.
  void (*poly_span)(const shade& s, const kvl_prep* p, int32_t y, double v, int32_t xa, int32_t xb, const uint8_t* cov,
                    uint8_t* row);
  // An effect's colour through n coverage bytes; `frame`: the pixels are opaque.
  void (*fx_span)(const kvl_color& col, bool luma, double k, const uint8_t* cov, int32_t n, uint8_t* row, bool frame);
  // A private band row put back onto the frame.
  void (*reblend_span)(const uint8_t* band, uint8_t* row, int32_t n, bool luma, double opacity);
  // Texel offsets are 32-bit: sources of 2^31 texels or more need the plain set.
  bool small_sources_only;
};

// ---------------------------------------------------------------------------
// Small helpers, the same in every file.

static inline uint8_t* canvas_row(uint8_t* base, ptrdiff_t stride, int32_t row0, int32_t y) {
  return base + static_cast<ptrdiff_t>(y - row0) * stride;
}

static inline hid_rows hid_at(const shade& s, int32_t y) {
  if (!s.hid) return {nullptr, nullptr};
  const ptrdiff_t off = static_cast<ptrdiff_t>(y - s.hid_y0) * s.hid_w;
  return {s.hid + off, s.keep + 4 * off};
}

// Whether a pixel with hidden-map entry h takes part in the current pass.
static inline bool hid_open(const shade& s, uint16_t h) { return s.probe ? h == 0 : h < s.op; }

static inline kvl_color argb_color(uint32_t c) {
  kvl_color out;
  out.r = static_cast<double>((c >> 16) & 255u);
  out.g = static_cast<double>((c >> 8) & 255u);
  out.b = static_cast<double>(c & 255u);
  out.a = static_cast<double>(c >> 24);
  return out;
}

// Round to nearest, halves away from zero, for finite x >= 0 below 2^52:
// x - trunc(x) is exact there, so the test on the fraction is too.
static inline uint8_t round_byte(double x) {
  double t = trunc(x);
  if (x - t >= 0.5) t += 1.0;
  return static_cast<uint8_t>(static_cast<int32_t>(t));
}

static inline double clamp01(double x) { return x < 0.0 ? 0.0 : (x > 1.0 ? 1.0 : x); }

// ---------------------------------------------------------------------------
// The plain per-pixel code (render_plain.cpp); the vector kernels call it for
// the pixels left over at the end of a span.

// The shade of a layer drawn with kernel set k (or the plain set, where k
// cannot take its source).
shade make_shade(const kvl_prep* p, double opacity, bool luma, const kernels* k);
// One pixel of a quad cell at blend alpha `alpha`: (u, v) is kvl_h_apply of
// the cell's inverse m at the pixel's centre.
void cell_pixel(const shade& s, const double* m, int32_t x, double cy, double alpha, uint8_t* row, hid_rows hr);
void poly_span_plain(const shade& s, const kvl_prep* p, int32_t y, double v, int32_t xa, int32_t xb, const uint8_t* cov,
                     uint8_t* row);
void fx_span_plain(const kvl_color& col, bool luma, double k, const uint8_t* cov, int32_t n, uint8_t* row, bool frame);
void reblend_span_plain(const uint8_t* band, uint8_t* row, int32_t n, bool luma, double opacity);

// ---------------------------------------------------------------------------
// Kernel sets (render_dispatch.cpp and the vector files).

extern const kernels kPlainKernels;
#if KAVLEN_SIMD_X86
extern const kernels kAvx2Kernels;
extern const kernels kAvx512Kernels;
#endif

// The set in use: the one chosen at the first call (KAVLEN_CPU, or the
// fastest the processor has), or the one set by kvl_cpu_use since.
const kernels* active_kernels();

// ---------------------------------------------------------------------------
// Cells, polygons and effects (render_cells.cpp), over rows y0..y1 of a
// canvas whose row `row0` starts at `base`.

struct canvas {
  uint8_t* base;
  ptrdiff_t stride;
  int32_t row0;
  int32_t width;
  bool opaque;  // the frame, whose pixels are all opaque
};

void draw_cell(const shade& s, const kvl_cell& cell, const canvas& cv, int32_t y0, int32_t y1);
void draw_polygon(const shade& s, const kvl_prep* p, const canvas& cv, int32_t y0, int32_t y1);
void raster_fx(const kvl_fx& fx, const canvas& cv, int32_t y0, int32_t y1, double opacity, bool luma, const kernels* k);

// ---------------------------------------------------------------------------
// Hidden pixels (render_hidden.cpp). A band is drawn in chunks of rows; each
// chunk first probes the layers that may hide others, then draws bottom up,
// skipping the steps below a pixel's settled one.

constexpr int32_t kChunkRows = 32;

// The hidden-pixel state of one band. Each body step (a cell, or a polygon)
// of a layer that may hide what lies beneath has an id, in drawing order from
// 1; `first` gives a layer's first id, or for other layers the next free one.
struct hidden {
  uint16_t* hid;  // kChunkRows rows of `width`; null: no culling
  uint8_t* keep;
  int32_t width, y0, y1;  // the chunk's rows: y0 up to y1
  int32_t* first;
  uint8_t* can;     // the layer has ids
  uint8_t* probes;  // its steps were probed in this chunk
  int64_t* tally;   // two a layer: pixels probed, pixels settled
};

// Numbers the steps; leaves `hid` null where no layer can hide anything or
// memory is short, and every pixel is then drawn.
void hidden_plan(hidden* h, const kvl_prep* layers, int32_t count, int32_t width);
void hidden_free(hidden* h);
// Probes the chunk of rows y0..y1 of the frame.
void probe_chunk(hidden* h, const kvl_prep* layers, int32_t count, const canvas& frame, int32_t y0, int32_t y1,
                 const kernels* k);
// Points a shade at the chunk's hidden-pixel maps.
void hook(shade* s, const hidden* h);
// Puts back the bytes settled by step `op` within a box of the chunk.
void restore(const hidden& h, const canvas& cv, int32_t op, int64_t x0, int64_t y0, int64_t x1, int64_t y1);

}  // namespace kvl_px
