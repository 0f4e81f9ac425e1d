// Hidden pixels are not drawn. Over an opaque pixel, blend() gives
// round((1 - t) D + t c) for each channel, which grows with D; where it gives
// the same byte for D = 0 and D = 255, it gives that byte whatever lies
// beneath (with t = 1, always). A band is drawn in chunks of rows, and each
// chunk first probes the opaque-looking layers from the top down: every
// pixel remembers the topmost drawing step (a cell or a polygon) whose result
// there is settled, and that result. Drawing then runs bottom up as usual,
// skipping the steps below a pixel's settled step and putting the remembered
// bytes back at it. The bytes are the ones the full drawing would give; only
// work whose outcome is overwritten is left out.
#include <stdlib.h>

#include "render_internal.h"

namespace kvl_px {

namespace {

// Whether a layer can settle pixels at all: it must be drawn straight onto
// the frame at full opacity, without a key, and with a paint that can be
// opaque. The bottom layer has nothing beneath worth skipping.
bool may_hide(const kvl_prep* p, int32_t index) {
  if (index == 0 || p->isolate || p->luma || !(p->opacity >= 1.0)) return false;
  if (p->solid || !p->source) return (p->argb >> 24) == 255u;
  return true;
}

int32_t body_steps(const kvl_prep* p) {
  if (p->polygon) return p->poly_mask ? 1 : 0;
  return p->cells && p->cell_count > 0 ? p->cell_count : 0;
}

}  // namespace

void hidden_free(hidden* h) {
  free(h->hid);
  free(h->keep);
  free(h->first);
  free(h->can);
  free(h->probes);
  free(h->tally);
  memset(h, 0, sizeof *h);
}

void hidden_plan(hidden* h, const kvl_prep* layers, int32_t count, int32_t width) {
  memset(h, 0, sizeof *h);
  if (count < 2 || width < 1) return;
  const size_t n = static_cast<size_t>(count);
  h->first = static_cast<int32_t*>(malloc(n * sizeof(int32_t)));
  h->can = static_cast<uint8_t*>(calloc(n, 1));
  h->probes = static_cast<uint8_t*>(calloc(n, 1));
  h->tally = static_cast<int64_t*>(calloc(2 * n, sizeof(int64_t)));
  if (!h->first || !h->can || !h->probes || !h->tally) return hidden_free(h);
  int32_t next = 1;
  for (int32_t i = 0; i < count; i++) {
    const int32_t steps = body_steps(&layers[i]);
    h->first[i] = next;
    if (steps > 0 && steps <= 65536 - next && may_hide(&layers[i], i)) {
      h->can[i] = 1;
      next += steps;
    }
  }
  h->width = width;
  const size_t px = static_cast<size_t>(kChunkRows) * static_cast<size_t>(width);
  if (next > 1) {
    h->hid = static_cast<uint16_t*>(malloc(px * sizeof(uint16_t)));
    h->keep = static_cast<uint8_t*>(malloc(px * 4));
  }
  if (!h->hid || !h->keep) hidden_free(h);
}

void hook(shade* s, const hidden* h) {
  s->hid = h->hid;
  s->keep = h->keep;
  s->hid_y0 = h->y0;
  s->hid_w = h->width;
}

// Probes the steps of the layers that may hide others, top down, over rows
// y0..y1. A layer that settles few of the pixels it probes (a source with
// transparent parts) is left alone for the rest of the job: its pixels would
// be computed twice for little gain.
void probe_chunk(hidden* h, const kvl_prep* layers, int32_t count, const canvas& frame, int32_t y0, int32_t y1,
                 const kernels* k) {
  h->y0 = y0;
  h->y1 = y1;
  memset(h->hid, 0, static_cast<size_t>(y1 - y0) * static_cast<size_t>(h->width) * sizeof(uint16_t));
  for (int32_t i = count - 1; i >= 0; i--) {
    int64_t* t = h->tally + 2 * i;
    h->probes[i] = h->can[i] && !(t[0] >= 4096 && t[1] * 8 < t[0]);
    if (!h->probes[i]) continue;
    const kvl_prep* p = &layers[i];
    shade s = make_shade(p, p->opacity, p->luma, k);
    hook(&s, h);
    s.probe = true;
    s.tally = t;
    if (p->polygon) {
      s.op = h->first[i];
      draw_polygon(s, p, frame, y0, y1);
    } else {
      for (int32_t c = p->cell_count - 1; c >= 0; c--) {
        s.op = h->first[i] + c;
        draw_cell(s, p->cells[c], frame, y0, y1);
      }
    }
  }
}

void restore(const hidden& h, const canvas& cv, int32_t op, int64_t x0, int64_t y0, int64_t x1, int64_t y1) {
  const int64_t ya = y0 > h.y0 ? y0 : h.y0, yb = y1 < h.y1 ? y1 : h.y1;
  const int64_t xa = x0 > 0 ? x0 : 0, xb = x1 < h.width ? x1 : h.width;
  for (int64_t y = ya; y < yb; y++) {
    const ptrdiff_t off = static_cast<ptrdiff_t>(y - h.y0) * h.width;
    const uint16_t* hr = h.hid + off;
    const uint8_t* kr = h.keep + 4 * off;
    uint8_t* row = canvas_row(cv.base, cv.stride, cv.row0, static_cast<int32_t>(y));
    for (int64_t x = xa; x < xb; x++)
      if (hr[x] == op) memcpy(row + 4 * x, kr + 4 * x, 4);
  }
}

}  // namespace kvl_px
