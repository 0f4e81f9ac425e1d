// CPU frame compositor.
//
// kvl_render_frame prepares every resolved layer on the calling thread, then
// cuts the frame into chunks of rows, which the threads take one at a time
// and draw all layers into. Every pixel's layers are drawn in order by one
// thread, so the picture does not depend on the thread count. render_internal.h tells
// where the rest of the compositor lives.
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include "render_internal.h"

namespace kvl_px {

namespace {

constexpr int32_t kMaxJobs = 32;

// The work of one thread: the chunks of rows it takes from `next`.
struct kvl_job {
  const kvl_prep* layers;
  int32_t count;
  uint8_t* pixels;
  int32_t width, height;
  int32_t stride;
  const kernels* k;
  int32_t* next;    // the next chunk to draw, shared by the threads
  int32_t chunks;   // chunks in the frame
  bool fill;        // each chunk starts from opaque black
  int64_t settled;  // out: pixels whose lower layers were skipped
};

// One layer over rows y0..y1, with the given opacity and luma flag (a private
// band buffer gets 1 and false). With `h`, layer `index` of the job is drawn
// onto the frame, skipping its hidden pixels.
void draw_layer(const kvl_prep* p, const canvas& cv, int32_t y0, int32_t y1, double opacity, bool luma,
                const kernels* k, const hidden* h = nullptr, int32_t index = 0) {
  shade s = make_shade(p, opacity, luma, k);
  s.frame = cv.opaque;
  if (h) {
    hook(&s, h);
    s.op = h->first[index];
  }
  const bool own = h && h->can[index], restores = h && h->probes[index];
  const int32_t nb = p->behind_count < 0 ? 0 : (p->behind_count > 2 ? 2 : p->behind_count);
  const int32_t nf = p->front_count < 0 ? 0 : (p->front_count > 3 ? 3 : p->front_count);
  for (int32_t i = 0; i < nb; i++) raster_fx(p->behind[i], cv, y0, y1, opacity, luma, k);
  if (p->polygon) {
    draw_polygon(s, p, cv, y0, y1);
    if (restores)
      restore(*h, cv, s.op, p->box_x, p->box_y, static_cast<int64_t>(p->box_x) + p->box_w,
              static_cast<int64_t>(p->box_y) + p->box_h);
  } else if (p->cells) {
    for (int32_t i = 0; i < p->cell_count; i++) {
      const kvl_cell& c = p->cells[i];
      if (own) s.op = h->first[index] + i;
      draw_cell(s, c, cv, y0, y1);
      if (restores) restore(*h, cv, s.op, c.x0, c.y0, c.x1, c.y1);
    }
  }
  for (int32_t i = 0; i < nf; i++) raster_fx(p->front[i], cv, y0, y1, opacity, luma, k);
}

// The rectangle a layer can touch within a band: the union of its cell, body
// and effect boxes. Nothing outside it is written.
struct rect {
  int32_t x0, y0, x1, y1;
};

void grow(rect* r, int64_t x0, int64_t y0, int64_t x1, int64_t y1) {
  if (x0 >= x1 || y0 >= y1) return;
  if (r->x0 >= r->x1) {
    r->x0 = static_cast<int32_t>(x0 < INT32_MIN ? INT32_MIN : x0);
    r->y0 = static_cast<int32_t>(y0 < INT32_MIN ? INT32_MIN : y0);
    r->x1 = static_cast<int32_t>(x1 > INT32_MAX ? INT32_MAX : x1);
    r->y1 = static_cast<int32_t>(y1 > INT32_MAX ? INT32_MAX : y1);
    return;
  }
  if (x0 < r->x0) r->x0 = static_cast<int32_t>(x0 < INT32_MIN ? INT32_MIN : x0);
  if (y0 < r->y0) r->y0 = static_cast<int32_t>(y0 < INT32_MIN ? INT32_MIN : y0);
  if (x1 > r->x1) r->x1 = static_cast<int32_t>(x1 > INT32_MAX ? INT32_MAX : x1);
  if (y1 > r->y1) r->y1 = static_cast<int32_t>(y1 > INT32_MAX ? INT32_MAX : y1);
}

rect layer_bounds(const kvl_prep* p, int32_t width, int32_t y0, int32_t y1) {
  rect r = {0, 0, 0, 0};
  auto fx_box = [&](const kvl_fx& f) {
    if (f.mask) grow(&r, f.x, f.y, static_cast<int64_t>(f.x) + f.w, static_cast<int64_t>(f.y) + f.h);
  };
  const int32_t nb = p->behind_count < 0 ? 0 : (p->behind_count > 2 ? 2 : p->behind_count);
  const int32_t nf = p->front_count < 0 ? 0 : (p->front_count > 3 ? 3 : p->front_count);
  for (int32_t i = 0; i < nb; i++) fx_box(p->behind[i]);
  for (int32_t i = 0; i < nf; i++) fx_box(p->front[i]);
  if (p->polygon) {
    if (p->poly_mask)
      grow(&r, p->box_x, p->box_y, static_cast<int64_t>(p->box_x) + p->box_w,
           static_cast<int64_t>(p->box_y) + p->box_h);
  } else if (p->cells) {
    for (int32_t i = 0; i < p->cell_count; i++) {
      const kvl_cell& c = p->cells[i];
      grow(&r, c.x0, c.y0, c.x1, c.y1);
    }
  }
  if (r.x0 < 0) r.x0 = 0;
  if (r.x1 > width) r.x1 = width;
  if (r.y0 < y0) r.y0 = y0;
  if (r.y1 > y1) r.y1 = y1;
  return r;
}

// Layer i over the chunk of rows y0..y1. `band` is the job's private buffer
// of kChunkRows rows, allocated at the first need.
void draw_in_chunk(const kvl_job* job, const canvas& frame, const hidden* h, int32_t i, int32_t y0, int32_t y1,
                   uint8_t** band) {
  const kvl_prep* p = &job->layers[i];
  if (!p->isolate) {
    draw_layer(p, frame, y0, y1, p->opacity, p->luma, job->k, h, i);
    return;
  }
  // The layer and its effects are drawn into a zeroed private buffer and
  // then faded or keyed as one whole, so a shadow does not show through
  // the body. Only the layer's bounds are cleared and read back: nothing
  // outside them is ever written.
  const rect r = layer_bounds(p, job->width, y0, y1);
  if (r.x0 >= r.x1 || r.y0 >= r.y1) return;
  if (!*band) {
    *band = static_cast<uint8_t*>(malloc(static_cast<size_t>(kChunkRows) * static_cast<size_t>(job->stride)));
    if (!*band) return;
  }
  const canvas priv = {*band, job->stride, y0, job->width, false};
  for (int32_t y = r.y0; y < r.y1; y++)
    memset(canvas_row(priv.base, priv.stride, priv.row0, y) + 4 * static_cast<ptrdiff_t>(r.x0), 0,
           4 * static_cast<size_t>(r.x1 - r.x0));
  draw_layer(p, priv, r.y0, r.y1, 1.0, false, job->k);
  for (int32_t y = r.y0; y < r.y1; y++) {
    const uint8_t* src = canvas_row(priv.base, priv.stride, priv.row0, y) + 4 * static_cast<ptrdiff_t>(r.x0);
    uint8_t* dst = canvas_row(frame.base, frame.stride, frame.row0, y) + 4 * static_cast<ptrdiff_t>(r.x0);
    job->k->reblend_span(src, dst, r.x1 - r.x0, p->luma, p->opacity);
  }
}

// Rows y0..y1 of the frame in opaque black: the first pixel by pixel, the
// others as copies of it.
void fill_background(uint8_t* pixels, int32_t width, int32_t stride, int32_t y0, int32_t y1) {
  if (width < 1 || y0 >= y1) return;
  static const uint8_t opaque_black[4] = {0, 0, 0, 255};
  uint8_t* first = pixels + static_cast<ptrdiff_t>(y0) * stride;
  for (int32_t x = 0; x < width; x++) memcpy(first + 4 * static_cast<ptrdiff_t>(x), opaque_black, 4);
  for (int32_t y = y0 + 1; y < y1; y++)
    memcpy(pixels + static_cast<ptrdiff_t>(y) * stride, first, 4 * static_cast<size_t>(width));
}

// The frame is drawn in chunks of kChunkRows rows, each with its hidden
// pixels probed first; chunks keep the hidden-pixel maps and the private
// buffer small. The threads take the chunks one by one from a shared
// counter, so that none waits long for another however the work lies across
// the frame: a chunk's bytes do not depend on which thread draws it, nor on
// the order of the chunks.
void run_job(kvl_job* job) {
  const canvas frame = {job->pixels, job->stride, 0, job->width, true};
  hidden h;
  hidden_plan(&h, job->layers, job->count, job->width);
  uint8_t* band = nullptr;
  for (;;) {
    const int32_t c = __atomic_fetch_add(job->next, 1, __ATOMIC_RELAXED);
    if (c >= job->chunks) break;
    const int32_t ya = c * kChunkRows, yb = job->height - ya > kChunkRows ? ya + kChunkRows : job->height;
    // Filling here rather than beforehand keeps the rows in the cache for the
    // layers, and shares the filling out among the threads.
    if (job->fill) fill_background(job->pixels, job->width, job->stride, ya, yb);
    if (h.hid) probe_chunk(&h, job->layers, job->count, frame, ya, yb, job->k);
    for (int32_t i = 0; i < job->count; i++) draw_in_chunk(job, frame, h.hid ? &h : nullptr, i, ya, yb, &band);
  }
  free(band);
  job->settled = 0;
  for (int32_t i = 0; h.hid && i < job->count; i++) job->settled += h.tally[2 * i + 1];
  hidden_free(&h);
}

void* job_thread(void* arg) {
  run_job(static_cast<kvl_job*>(arg));
  return nullptr;
}

// Draws prepared layers on `threads` threads, the calling one included, into
// a frame whose background is set already or, with `fill`, opaque black.
// `settled`, where given, receives the number of pixels that hid what lay
// beneath them (for tests).
void composite(const kvl_prep* layers, int32_t count, uint8_t* pixels, int32_t width, int32_t height, int32_t stride,
               int32_t threads, bool fill, int64_t* settled) {
  if (height < 1) return;
  const kernels* k = active_kernels();
  const int32_t chunks = static_cast<int32_t>((static_cast<int64_t>(height) + kChunkRows - 1) / kChunkRows);
  int32_t jobs = threads < 1 ? 1 : threads;
  if (jobs > chunks) jobs = chunks;
  if (jobs > kMaxJobs) jobs = kMaxJobs;
  int32_t next = 0;
  kvl_job job[kMaxJobs];
  for (int32_t i = 0; i < jobs; i++) job[i] = {layers, count, pixels, width, height, stride, k, &next, chunks, fill, 0};
  pthread_t tid[kMaxJobs];
  bool started[kMaxJobs] = {};
  for (int32_t i = 1; i < jobs; i++) started[i] = pthread_create(&tid[i], nullptr, job_thread, &job[i]) == 0;
  // The calling thread draws too; chunks that a thread which could not be
  // created would have taken go to the others.
  run_job(&job[0]);
  for (int32_t i = 1; i < jobs; i++)
    if (started[i]) pthread_join(tid[i], nullptr);
  if (settled) {
    *settled = 0;
    for (int32_t i = 0; i < jobs; i++) *settled += job[i].settled;
  }
}


}  // namespace

}  // namespace kvl_px

using kvl_px::composite;
using kvl_px::fill_background;

void kvl_composite(const kvl_prep* layers, int32_t count, uint8_t* pixels, int32_t width, int32_t height,
                   int32_t stride, int32_t threads, int64_t* settled) {
  if (settled) *settled = 0;
  if (!pixels || width < 1 || (count > 0 && !layers)) return;
  composite(layers, count < 0 ? 0 : count, pixels, width, height, stride, threads, false, settled);
}

void kvl_render_frame(const kvl_resolved* resolved, int32_t count, const kvl_sources* sources, uint8_t* pixels,
                      int32_t width, int32_t height, int32_t stride, int32_t threads, kvl_cache* cache) {
  if (!pixels) return;
  if (!resolved || count < 0) count = 0;
  auto* preps = static_cast<kvl_prep*>(calloc(count > 0 ? static_cast<size_t>(count) : 1, sizeof(kvl_prep)));
  if (!preps) {
    fill_background(pixels, width, stride, 0, height);
    return;
  }
  int32_t n = 0;
  for (int32_t i = 0; i < count; i++) {
    if (kvl_prepare(&preps[n], &resolved[i], sources, width, height, cache))
      n++;
    else
      kvl_prep_free(&preps[n]);
  }
  composite(preps, n, pixels, width, height, stride, threads, true, nullptr);
  for (int32_t i = 0; i < n; i++) kvl_prep_free(&preps[i]);
  free(preps);
}
