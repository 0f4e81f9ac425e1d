// The AVX-512 kernel set: the passes of the AVX2 kernels over eight pixels at
// a time. The lanes compute exactly what the four-wide code computes; only the
// lane count and the way masks are held differ. The last group of a span may
// be partial: its missing lanes are masked off, loads and stores included.
// This file is compiled for AVX-512 and runs only where the processor has it
// (render_dispatch.cpp).

// GCC 12's AVX-512 headers leave the unused pass-through operand of unmasked
// intrinsics uninitialised on purpose, and its warning about that fires at
// every inlined use.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <immintrin.h>
#pragma GCC diagnostic pop
#else
#include <immintrin.h>
#endif

#include "render_internal.h"

namespace kvl_px {

namespace {

__attribute__((always_inline)) inline __m512d w_round(__m512d x) {
  const __m512d t = _mm512_roundscale_pd(x, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
  const __mmask8 up = _mm512_cmp_pd_mask(_mm512_sub_pd(x, t), _mm512_set1_pd(0.5), _CMP_GE_OQ);
  return _mm512_mask_add_pd(t, up, t, _mm512_set1_pd(1.0));
}

__attribute__((always_inline)) inline __m512d w_channel(__m256i px, int shift) {
  return _mm512_cvtepi32_pd(_mm256_and_si256(_mm256_srli_epi32(px, shift), _mm256_set1_epi32(255)));
}

__attribute__((always_inline)) inline __m512d w_alpha(__m256i px) {
  return _mm512_cvtepi32_pd(_mm256_srli_epi32(px, 24));
}

// blend_weight() for eight pixels.
__attribute__((always_inline)) inline __m512d w_weight(__m512d cr, __m512d cg, __m512d cb, __m512d ca, __m512d aK,
                                                       bool luma) {
  __m512d t = _mm512_mul_pd(aK, ca);
  if (luma) {
    __m512d y = _mm512_add_pd(_mm512_mul_pd(_mm512_set1_pd(0.598), cr), _mm512_mul_pd(_mm512_set1_pd(1.174), cg));
    y = _mm512_add_pd(y, _mm512_mul_pd(_mm512_set1_pd(0.228), cb));
    y = _mm512_sub_pd(_mm512_mul_pd(y, _mm512_set1_pd(kInv255)), _mm512_set1_pd(0.04));
    y = _mm512_min_pd(_mm512_max_pd(y, _mm512_setzero_pd()), _mm512_set1_pd(1.0));
    t = _mm512_mul_pd(t, y);
  }
  return t;
}

// blend() for eight pixels; only the lanes of `act` are read and stored. With
// `frame` the pixels are known to be opaque (the frame's always are) and their
// alpha is not looked at.
__attribute__((always_inline)) inline void w_blend(uint8_t* px, __m512d cr, __m512d cg, __m512d cb, __m512d ca,
                                                   __m512d aK, bool luma, __mmask8 act, bool frame) {
  const __m512d zero = _mm512_setzero_pd(), one = _mm512_set1_pd(1.0);
  __m512d t = w_weight(cr, cg, cb, ca, aK, luma);
  act &= _mm512_cmp_pd_mask(t, zero, _CMP_GT_OQ);
  if (!act) return;
  t = _mm512_min_pd(t, one);
  // Masked: the last group of a span may reach past the frame's last pixel.
  const __m256i old = _mm256_maskz_loadu_epi32(act, px);
  const __m512d dr = w_channel(old, 0), dg = w_channel(old, 8), db = w_channel(old, 16);
  const __m512d omt = _mm512_sub_pd(one, t);
  __m512d r = w_round(_mm512_add_pd(_mm512_mul_pd(omt, dr), _mm512_mul_pd(t, cr)));
  __m512d g = w_round(_mm512_add_pd(_mm512_mul_pd(omt, dg), _mm512_mul_pd(t, cg)));
  __m512d b = w_round(_mm512_add_pd(_mm512_mul_pd(omt, db), _mm512_mul_pd(t, cb)));
  __m256i outa = _mm256_and_si256(old, _mm256_set1_epi32(static_cast<int32_t>(0xFF000000u)));
  const __m256i olda = _mm256_srli_epi32(old, 24);
  const __m512d da = frame ? one : _mm512_mul_pd(_mm512_cvtepi32_pd(olda), _mm512_set1_pd(kInv255));
  const __mmask8 opaque = frame ? act : _mm512_cmp_pd_mask(da, one, _CMP_GE_OQ);
  if ((opaque & act) != act) {
    const __m512d oa = _mm512_add_pd(t, _mm512_mul_pd(da, omt));
    act &= static_cast<__mmask8>(opaque | _mm512_cmp_pd_mask(oa, zero, _CMP_GT_OQ));
    if (!act) return;
    const __m512d ws = _mm512_div_pd(t, oa), wd = _mm512_div_pd(_mm512_mul_pd(da, omt), oa);
    const __m512d r2 = w_round(_mm512_add_pd(_mm512_mul_pd(wd, dr), _mm512_mul_pd(ws, cr)));
    const __m512d g2 = w_round(_mm512_add_pd(_mm512_mul_pd(wd, dg), _mm512_mul_pd(ws, cg)));
    const __m512d b2 = w_round(_mm512_add_pd(_mm512_mul_pd(wd, db), _mm512_mul_pd(ws, cb)));
    const __m512d a2 = w_round(_mm512_mul_pd(_mm512_set1_pd(255.0), oa));
    r = _mm512_mask_blend_pd(opaque, r2, r);
    g = _mm512_mask_blend_pd(opaque, g2, g);
    b = _mm512_mask_blend_pd(opaque, b2, b);
    outa = _mm256_slli_epi32(_mm256_mask_blend_epi32(opaque, _mm512_cvttpd_epi32(a2), olda), 24);
  }
  __m256i outv = _mm512_cvttpd_epi32(r);
  outv = _mm256_or_si256(outv, _mm256_slli_epi32(_mm512_cvttpd_epi32(g), 8));
  outv = _mm256_or_si256(outv, _mm256_slli_epi32(_mm512_cvttpd_epi32(b), 16));
  outv = _mm256_or_si256(outv, outa);
  _mm256_mask_storeu_epi32(px, act, outv);
}

// settle() for the eight pixels from x on of a probed row.
__attribute__((always_inline)) inline void w_settle(const shade& s, hid_rows hr, int32_t x, __m512d cr, __m512d cg,
                                                    __m512d cb, __m512d ca, __m512d aK, __mmask8 act) {
  const __m512d zero = _mm512_setzero_pd(), one = _mm512_set1_pd(1.0), full = _mm512_set1_pd(255.0);
  __m512d t = w_weight(cr, cg, cb, ca, aK, s.luma);
  act &= _mm512_cmp_pd_mask(t, zero, _CMP_GT_OQ);
  if (!act) return;
  s.tally[0] += __builtin_popcount(act);
  t = _mm512_min_pd(t, one);
  const __m512d omt = _mm512_sub_pd(one, t);
  __m256i out = _mm256_set1_epi32(static_cast<int32_t>(0xFF000000u));
  const __m512d ch[3] = {cr, cg, cb};
  for (int i = 0; i < 3; i++) {
    const __m512d tc = _mm512_mul_pd(t, ch[i]);
    const __m512d lo = w_round(_mm512_add_pd(_mm512_mul_pd(omt, zero), tc));
    const __m512d hi = w_round(_mm512_add_pd(_mm512_mul_pd(omt, full), tc));
    act &= _mm512_cmp_pd_mask(lo, hi, _CMP_EQ_OQ);
    out = _mm256_or_si256(out, _mm256_slli_epi32(_mm512_cvttpd_epi32(lo), 8 * i));
  }
  if (!act) return;
  _mm256_mask_storeu_epi32(hr.k + 4 * static_cast<ptrdiff_t>(x), act, out);
  for (unsigned m = act; m; m &= m - 1) hr.h[x + __builtin_ctz(m)] = static_cast<uint16_t>(s.op);
  s.tally[1] += __builtin_popcount(act);
}

// The lanes among `lanes` of the eight pixels from x on that take part in
// this pass.
__attribute__((always_inline)) inline __mmask8 w_open(const shade& s, const uint16_t* h, int32_t x, __mmask8 lanes) {
  __m128i e16;
  if (lanes == 0xFF) {
    e16 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(h + x));
  } else {  // the row may end before the group does
    alignas(16) uint16_t part[8] = {};
    memcpy(part, h + x, 2 * static_cast<size_t>(32 - __builtin_clz(static_cast<unsigned>(lanes))));
    e16 = _mm_load_si128(reinterpret_cast<const __m128i*>(part));
  }
  const __m256i e = _mm256_cvtepu16_epi32(e16);
  const __mmask8 open = s.probe ? _mm256_cmpeq_epi32_mask(e, _mm256_setzero_si256())
                                : _mm256_cmplt_epi32_mask(e, _mm256_set1_epi32(s.op));
  return lanes & open;
}

// v_sample() for eight lanes comes in two steps, w_fetch() and w_mix(), run
// as two passes over a batch: the texel loads of one group then hide behind
// those of the others. w_texels holds what passes between them: the four
// texels of each lane and their bilinear weights.
struct w_texels {
  __m512d w00, w10, w01, w11;
  __m256i t00, t10, t01, t11;
};

// The first half of sample_src() for eight lanes: texels and weights. Lanes
// outside the caller's mask may hold anything; their texel indices are
// clamped into the image all the same.
__attribute__((always_inline)) inline void w_fetch(const shade& s, __m512d x, __m512d y, w_texels* out) {
  const __m512d one = _mm512_set1_pd(1.0), half = _mm512_set1_pd(0.5);
  const __m512d fx = _mm512_sub_pd(x, half), fy = _mm512_sub_pd(y, half);
  const __m512d flx = _mm512_roundscale_pd(fx, _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC);
  const __m512d fly = _mm512_roundscale_pd(fy, _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC);
  const __m512d tx = _mm512_sub_pd(fx, flx), ty = _mm512_sub_pd(fy, fly);
  const __m256i ix = _mm512_cvttpd_epi32(flx), iy = _mm512_cvttpd_epi32(fly);
  const __m256i zero = _mm256_setzero_si256(), i1 = _mm256_set1_epi32(1);
  const int* base = reinterpret_cast<const int*>(s.src);
  __m256i t00, t10, t01, t11;
  // Lanes whose four texels all lie inside the image, 0 <= ix <= W - 2 and
  // 0 <= iy <= H - 2 (as unsigned compares): there no clamp changes anything,
  // and the two texels of a row are neighbours in memory.
  const __mmask8 inside = s.sw >= 2 && s.sh >= 2 ? _mm256_cmple_epu32_mask(ix, _mm256_set1_epi32(s.sw - 2)) &
                                                       _mm256_cmple_epu32_mask(iy, _mm256_set1_epi32(s.sh - 2))
                                                 : 0;
  // Often all eight lanes read within a run of 16 texels of the same two or
  // three rows (the image is not shrunk much): then one 64-byte load a row
  // and a permutation across two rows fetch all texels. A run is read whole
  // only where it lies within the image's buffer.
  bool run_fits = false;
  int32_t run = 0, row0 = 0;
  __m256i rel = zero, dy = zero;
  bool flat = false;
  if (inside == 0xFF) {
    const int32_t lx = _mm256_cvtsi256_si32(ix), hx = _mm256_extract_epi32(ix, 7);
    const int32_t ly = _mm256_cvtsi256_si32(iy), hy = _mm256_extract_epi32(iy, 7);
    run = lx < hx ? lx : hx;
    row0 = ly < hy ? ly : hy;
    rel = _mm256_sub_epi32(ix, _mm256_set1_epi32(run));
    dy = _mm256_sub_epi32(iy, _mm256_set1_epi32(row0));
    flat = _mm256_cmpeq_epi32_mask(dy, zero) == 0xFF;
    const int64_t end = (static_cast<int64_t>(row0) + (flat ? 1 : 2)) * s.sw + run + 16;
    run_fits = _mm256_cmple_epu32_mask(rel, _mm256_set1_epi32(14)) == 0xFF && _mm256_cmple_epu32_mask(dy, i1) == 0xFF &&
               end <= static_cast<int64_t>(s.sw) * s.sh;
  }
  if (run_fits) {
    const int* p0 = base + (static_cast<ptrdiff_t>(row0) * s.sw + run);
    const __m512i b0 = _mm512_loadu_si512(p0), b1 = _mm512_loadu_si512(p0 + s.sw);
    const __m512i b2 = flat ? b1 : _mm512_loadu_si512(p0 + 2 * static_cast<ptrdiff_t>(s.sw));
    // Index bit 4 picks the second of the two rows for lanes one row down.
    const __m256i n0 = _mm256_add_epi32(rel, _mm256_slli_epi32(dy, 4));
    const __m512i w0 = _mm512_castsi256_si512(n0), w1 = _mm512_castsi256_si512(_mm256_add_epi32(n0, i1));
    t00 = _mm512_castsi512_si256(_mm512_permutex2var_epi32(b0, w0, b1));
    t10 = _mm512_castsi512_si256(_mm512_permutex2var_epi32(b0, w1, b1));
    t01 = _mm512_castsi512_si256(_mm512_permutex2var_epi32(b1, w0, b2));
    t11 = _mm512_castsi512_si256(_mm512_permutex2var_epi32(b1, w1, b2));
  } else if (inside == 0xFF) {
    // One 8-byte load a lane and row fetches both texels of the row, which
    // is cheaper than a gather.
    const __m256i w = _mm256_set1_epi32(s.sw);
    const __m256i o0 = _mm256_add_epi32(_mm256_mullo_epi32(iy, w), ix);
    alignas(32) int32_t off[2][8];
    _mm256_store_si256(reinterpret_cast<__m256i*>(off[0]), o0);
    _mm256_store_si256(reinterpret_cast<__m256i*>(off[1]), _mm256_add_epi32(o0, w));
    auto pair = [&](int32_t lo, int32_t hi) {
      return _mm_castpd_ps(_mm_loadh_pd(_mm_castsi128_pd(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(base + lo))),
                                        reinterpret_cast<const double*>(base + hi)));
    };
    __m256i t[2][2];
    for (int rr = 0; rr < 2; rr++) {
      const int32_t* o = off[rr];
      // Lanes 0, 1, 4, 5 in one register and 2, 3, 6, 7 in the other, so
      // that the in-lane shuffles below put the texels back in lane order.
      const __m256 lo = _mm256_insertf128_ps(_mm256_castps128_ps256(pair(o[0], o[1])), pair(o[4], o[5]), 1);
      const __m256 hi = _mm256_insertf128_ps(_mm256_castps128_ps256(pair(o[2], o[3])), pair(o[6], o[7]), 1);
      t[rr][0] = _mm256_castps_si256(_mm256_shuffle_ps(lo, hi, _MM_SHUFFLE(2, 0, 2, 0)));
      t[rr][1] = _mm256_castps_si256(_mm256_shuffle_ps(lo, hi, _MM_SHUFFLE(3, 1, 3, 1)));
    }
    t00 = t[0][0];
    t10 = t[0][1];
    t01 = t[1][0];
    t11 = t[1][1];
  } else {
    // Near the border (or in lanes that take no part): clamped indices.
    const __m256i wl = _mm256_set1_epi32(s.sw - 1), hl = _mm256_set1_epi32(s.sh - 1);
    const __m256i x0 = _mm256_min_epi32(_mm256_max_epi32(ix, zero), wl);
    const __m256i x1 = _mm256_min_epi32(_mm256_max_epi32(_mm256_add_epi32(ix, i1), zero), wl);
    const __m256i y0 = _mm256_min_epi32(_mm256_max_epi32(iy, zero), hl);
    const __m256i y1 = _mm256_min_epi32(_mm256_max_epi32(_mm256_add_epi32(iy, i1), zero), hl);
    const __m256i w = _mm256_set1_epi32(s.sw);
    const __m256i o0 = _mm256_add_epi32(_mm256_mullo_epi32(y0, w), x0);
    const __m256i o1 = _mm256_add_epi32(_mm256_mullo_epi32(y1, w), x0);
    const __m256i d = _mm256_sub_epi32(x1, x0);
    t00 = _mm256_i32gather_epi32(base, o0, 4);
    t10 = _mm256_i32gather_epi32(base, _mm256_add_epi32(o0, d), 4);
    t01 = _mm256_i32gather_epi32(base, o1, 4);
    t11 = _mm256_i32gather_epi32(base, _mm256_add_epi32(o1, d), 4);
  }
  const __m512d omtx = _mm512_sub_pd(one, tx), omty = _mm512_sub_pd(one, ty);
  out->w00 = _mm512_mul_pd(omtx, omty);
  out->w10 = _mm512_mul_pd(tx, omty);
  out->w01 = _mm512_mul_pd(omtx, ty);
  out->w11 = _mm512_mul_pd(tx, ty);
  out->t00 = t00;
  out->t10 = t10;
  out->t01 = t01;
  out->t11 = t11;
}

// The rest of sample_src() for eight lanes, from their texels and weights.
__attribute__((always_inline)) inline void w_mix(const w_texels& tx, __m512d* r, __m512d* g, __m512d* b, __m512d* a) {
  const __m512d w00 = tx.w00, w10 = tx.w10, w01 = tx.w01, w11 = tx.w11;
  const __m256i t00 = tx.t00, t10 = tx.t10, t01 = tx.t01, t11 = tx.t11;
  const __m512d a00 = w_alpha(t00), a10 = w_alpha(t10), a01 = w_alpha(t01), a11 = w_alpha(t11);
  __m512d sa = _mm512_add_pd(_mm512_mul_pd(w00, a00), _mm512_mul_pd(w10, a10));
  sa = _mm512_add_pd(sa, _mm512_mul_pd(w01, a01));
  sa = _mm512_add_pd(sa, _mm512_mul_pd(w11, a11));
  *a = sa;
  const __m512d q00 = _mm512_div_pd(w00, sa), q10 = _mm512_div_pd(w10, sa);
  const __m512d q01 = _mm512_div_pd(w01, sa), q11 = _mm512_div_pd(w11, sa);
  __m512d out[3];
  for (int c = 0; c < 3; c++) {
    const int sh = 8 * c;
    __m512d acc = _mm512_add_pd(_mm512_mul_pd(_mm512_mul_pd(q00, w_channel(t00, sh)), a00),
                                _mm512_mul_pd(_mm512_mul_pd(q10, w_channel(t10, sh)), a10));
    acc = _mm512_add_pd(acc, _mm512_mul_pd(_mm512_mul_pd(q01, w_channel(t01, sh)), a01));
    acc = _mm512_add_pd(acc, _mm512_mul_pd(_mm512_mul_pd(q11, w_channel(t11, sh)), a11));
    out[c] = acc;
  }
  *r = out[0];
  *g = out[1];
  *b = out[2];
}

constexpr int kWideBatch = 8;

struct w_batch {
  __m512d u[kWideBatch], v[kWideBatch], alpha[kWideBatch];
  __mmask8 act[kWideBatch];
  uint8_t* px[kWideBatch];
  int32_t x[kWideBatch];  // the group's first pixel, for probing
  hid_rows hr;
  int n;
};

// v_shade_batch() for groups of eight pixels.
__attribute__((always_inline)) inline void w_shade_batch(const shade& s, w_batch* b) {
  const __m512d zero = _mm512_setzero_pd(), one = _mm512_set1_pd(1.0);
  __m512d me[kWideBatch], ca[kWideBatch];
  const int n = b->n;
  for (int i = 0; i < n; i++) {
    const __m512d u = b->u[i], v = b->v[i];
    __mmask8 act = b->act[i];
    __m512d m = one, e = one;
    if (s.ellipse) {
      const __m512d du = _mm512_sub_pd(_mm512_div_pd(u, _mm512_set1_pd(kSurfW)), _mm512_set1_pd(0.5));
      const __m512d dv = _mm512_sub_pd(_mm512_div_pd(v, _mm512_set1_pd(kSurfH)), _mm512_set1_pd(0.5));
      const __m512d r = _mm512_sqrt_pd(_mm512_add_pd(_mm512_mul_pd(du, du), _mm512_mul_pd(dv, dv)));
      e = _mm512_min_pd(
          _mm512_max_pd(_mm512_sub_pd(_mm512_set1_pd(360.5), _mm512_mul_pd(_mm512_set1_pd(720.0), r)), zero), one);
      act &= _mm512_cmp_pd_mask(e, zero, _CMP_NEQ_UQ);
    }
    if (s.mask && act) {
      const __m512d col = _mm512_min_pd(
          _mm512_max_pd(_mm512_roundscale_pd(u, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC), zero), _mm512_set1_pd(1279.0));
      const __m512d row = _mm512_min_pd(
          _mm512_max_pd(_mm512_roundscale_pd(v, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC), zero), _mm512_set1_pd(719.0));
      const __m256i idx = _mm256_add_epi32(_mm256_mullo_epi32(_mm512_cvttpd_epi32(row), _mm256_set1_epi32(1280)),
                                           _mm512_cvttpd_epi32(col));
      alignas(32) int32_t ix[8];
      _mm256_store_si256(reinterpret_cast<__m256i*>(ix), idx);
      const __m256i bytes = _mm256_setr_epi32(s.mask[ix[0]], s.mask[ix[1]], s.mask[ix[2]], s.mask[ix[3]], s.mask[ix[4]],
                                              s.mask[ix[5]], s.mask[ix[6]], s.mask[ix[7]]);
      m = _mm512_mul_pd(_mm512_cvtepi32_pd(bytes), _mm512_set1_pd(kInv255));
      act &= _mm512_cmp_pd_mask(m, zero, _CMP_NEQ_UQ);
    }
    __m512d cu = u, cv = v;
    if (!s.ic_identity) {
      cu = _mm512_add_pd(
          _mm512_add_pd(_mm512_mul_pd(_mm512_set1_pd(s.ic[0]), u), _mm512_mul_pd(_mm512_set1_pd(s.ic[1]), v)),
          _mm512_set1_pd(s.ic[2]));
      cv = _mm512_add_pd(
          _mm512_add_pd(_mm512_mul_pd(_mm512_set1_pd(s.ic[3]), u), _mm512_mul_pd(_mm512_set1_pd(s.ic[4]), v)),
          _mm512_set1_pd(s.ic[5]));
    }
    act &= _mm512_cmp_pd_mask(cu, zero, _CMP_GE_OQ) & _mm512_cmp_pd_mask(cu, _mm512_set1_pd(kSurfW), _CMP_LT_OQ) &
           _mm512_cmp_pd_mask(cv, zero, _CMP_GE_OQ) & _mm512_cmp_pd_mask(cv, _mm512_set1_pd(kSurfH), _CMP_LT_OQ);
    me[i] = _mm512_mul_pd(m, e);
    if (s.probe) act &= _mm512_cmp_pd_mask(_mm512_mul_pd(b->alpha[i], me[i]), _mm512_set1_pd(kSettles), _CMP_GE_OQ);
    if (s.kind == FILL_SOLID) {
      ca[i] = _mm512_mul_pd(me[i], _mm512_set1_pd(s.ca));
    } else if (s.kind == FILL_PIXELS) {
      __m512d sx = cu, sy = cv;
      if (s.cover_identity) {
      } else if (s.cover_mul) {
        const __m512d ci = _mm512_set1_pd(s.cover_inv);
        sx = _mm512_mul_pd(_mm512_sub_pd(cu, _mm512_set1_pd(s.cover_ox)), ci);
        sy = _mm512_mul_pd(_mm512_sub_pd(cv, _mm512_set1_pd(s.cover_oy)), ci);
      } else {
        const __m512d cs = _mm512_set1_pd(s.cover_scale);
        sx = _mm512_div_pd(_mm512_sub_pd(cu, _mm512_set1_pd(s.cover_ox)), cs);
        sy = _mm512_div_pd(_mm512_sub_pd(cv, _mm512_set1_pd(s.cover_oy)), cs);
      }
      act &= _mm512_cmp_pd_mask(sx, zero, _CMP_GE_OQ) & _mm512_cmp_pd_mask(sx, _mm512_set1_pd(s.dsw), _CMP_LT_OQ) &
             _mm512_cmp_pd_mask(sy, zero, _CMP_GE_OQ) & _mm512_cmp_pd_mask(sy, _mm512_set1_pd(s.dsh), _CMP_LT_OQ);
      b->u[i] = sx;
      b->v[i] = sy;
    } else {
      ca[i] = _mm512_mul_pd(_mm512_mul_pd(_mm512_set1_pd(255.0), m), e);
    }
    b->act[i] = act;
  }
  const bool plain_me = !s.ellipse && !s.mask;
  __m512d cr[kWideBatch], cg[kWideBatch], cb[kWideBatch];
  if (s.kind == FILL_PIXELS) {
    // Fetches first, then the arithmetic: the loads of one group hide
    // behind the others'.
    w_texels tex[kWideBatch];
    for (int i = 0; i < n; i++)
      if (b->act[i]) w_fetch(s, b->u[i], b->v[i], &tex[i]);
    for (int i = 0; i < n; i++) {
      if (!b->act[i]) continue;
      __m512d sa;
      w_mix(tex[i], &cr[i], &cg[i], &cb[i], &sa);
      ca[i] = plain_me ? sa : _mm512_mul_pd(me[i], sa);
    }
  } else {
    const __m512d r = _mm512_set1_pd(s.kind == FILL_SOLID ? s.cr : 51.0);
    const __m512d g = _mm512_set1_pd(s.kind == FILL_SOLID ? s.cg : 51.0);
    const __m512d bl = _mm512_set1_pd(s.kind == FILL_SOLID ? s.cb : 51.0);
    for (int i = 0; i < n; i++) {
      cr[i] = r;
      cg[i] = g;
      cb[i] = bl;
    }
  }
  for (int i = 0; i < n; i++) {
    if (!b->act[i]) continue;
    const __m512d aK = _mm512_mul_pd(b->alpha[i], _mm512_set1_pd(kInv255));
    const __mmask8 act = b->act[i] & _mm512_cmp_pd_mask(ca[i], zero, _CMP_GT_OQ);
    if (s.probe)
      w_settle(s, b->hr, b->x[i], cr[i], cg[i], cb[i], ca[i], aK, act);
    else
      w_blend(b->px[i], cr[i], cg[i], cb[i], ca[i], aK, s.luma, act, s.frame);
  }
}

// A run of cell pixels [xa, xb) of row y. Without `cover`, every pixel blends
// with the layer's opacity; with it, pixel xa + k blends with cover[k] as its
// alpha, and a negative cover[k] skips the pixel.
void cell_cover_avx512(const shade& s, const double* m, int32_t y, int32_t xa, int32_t xb, uint8_t* row,
                       const double* cover) {
  const double cy = y + 0.5;
  const __m512d m0 = _mm512_set1_pd(m[0]), m3 = _mm512_set1_pd(m[3]), m6 = _mm512_set1_pd(m[6]);
  const __m512d m1cy = _mm512_set1_pd(m[1] * cy), m4cy = _mm512_set1_pd(m[4] * cy), m7cy = _mm512_set1_pd(m[7] * cy);
  const __m512d m2 = _mm512_set1_pd(m[2]), m5 = _mm512_set1_pd(m[5]), m8 = _mm512_set1_pd(m[8]);
  const __m512d alpha = _mm512_set1_pd(s.opacity);
  const __m256i lane = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
  w_batch b;
  b.hr = hid_at(s, y);
  int32_t x = xa;
  // The last group may be partial: its lanes past xb start inactive and are
  // neither read nor written.
  while (x < xb) {
    int n = 0;
    for (; n < kWideBatch && x < xb; x += 8) {
      __mmask8 lanes = xb - x >= 8 ? 0xFF : static_cast<__mmask8>((1u << (xb - x)) - 1);
      if (b.hr.h && !(lanes = w_open(s, b.hr.h, x, lanes))) continue;
      const __m512d cx =
          _mm512_add_pd(_mm512_cvtepi32_pd(_mm256_add_epi32(_mm256_set1_epi32(x), lane)), _mm512_set1_pd(0.5));
      const __m512d w = _mm512_add_pd(_mm512_add_pd(_mm512_mul_pd(m6, cx), m7cy), m8);
      b.u[n] = _mm512_div_pd(_mm512_add_pd(_mm512_add_pd(_mm512_mul_pd(m0, cx), m1cy), m2), w);
      b.v[n] = _mm512_div_pd(_mm512_add_pd(_mm512_add_pd(_mm512_mul_pd(m3, cx), m4cy), m5), w);
      if (cover) {
        b.alpha[n] = _mm512_maskz_loadu_pd(lanes, cover + (x - xa));
        b.act[n] = _mm512_mask_cmp_pd_mask(lanes, b.alpha[n], _mm512_setzero_pd(), _CMP_GE_OQ);
      } else {
        b.alpha[n] = alpha;
        b.act[n] = lanes;
      }
      b.px[n] = row + 4 * static_cast<ptrdiff_t>(x);
      b.x[n] = x;
      n++;
    }
    b.n = n;
    if (n) w_shade_batch(s, &b);
  }
}

void poly_span_avx512(const shade& s, const kvl_prep* p, int32_t y, double v, int32_t xa, int32_t xb,
                      const uint8_t* cov, uint8_t* row) {
  const __m512d zero = _mm512_setzero_pd();
  const __m512d ox = _mm512_set1_pd(p->poly_ox), sc = _mm512_set1_pd(p->poly_scale);
  const __m512d k = _mm512_set1_pd(kInv255 * s.opacity);
  const __m512d vv = _mm512_set1_pd(v);
  const __m256i lane = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
  w_batch b;
  b.hr = hid_at(s, y);
  int32_t x = xa;
  while (x < xb) {
    int n = 0;
    for (; n < kWideBatch && x < xb; x += 8) {
      int64_t c8 = 0;
      memcpy(&c8, cov + (x - xa), xb - x >= 8 ? 8 : static_cast<size_t>(xb - x));
      if (!c8) continue;
      const __m512d c = _mm512_cvtepi32_pd(_mm256_cvtepu8_epi32(_mm_cvtsi64_si128(c8)));
      __mmask8 act = _mm512_cmp_pd_mask(c, zero, _CMP_NEQ_OQ);
      if (b.hr.h && !(act = w_open(s, b.hr.h, x, act))) continue;
      const __m512d cx =
          _mm512_add_pd(_mm512_cvtepi32_pd(_mm256_add_epi32(_mm256_set1_epi32(x), lane)), _mm512_set1_pd(0.5));
      const __m512d u = _mm512_div_pd(_mm512_sub_pd(cx, ox), sc);
      act &= _mm512_cmp_pd_mask(u, zero, _CMP_GE_OQ) & _mm512_cmp_pd_mask(u, _mm512_set1_pd(kSurfW), _CMP_LT_OQ);
      if (!act) continue;
      b.u[n] = u;
      b.v[n] = vv;
      b.alpha[n] = _mm512_mul_pd(c, k);
      b.act[n] = act;
      b.px[n] = row + 4 * static_cast<ptrdiff_t>(x);
      b.x[n] = x;
      n++;
    }
    b.n = n;
    if (n) w_shade_batch(s, &b);
  }
}

void fx_span_avx512(const kvl_color& col, bool luma, double k, const uint8_t* cov, int32_t n, uint8_t* row,
                    bool frame) {
  const __m512d zero = _mm512_setzero_pd();
  const __m512d cr = _mm512_set1_pd(col.r), cg = _mm512_set1_pd(col.g), cb = _mm512_set1_pd(col.b);
  const __m512d ca = _mm512_set1_pd(col.a), kk = _mm512_set1_pd(k), inv = _mm512_set1_pd(kInv255);
  for (int32_t i = 0; i < n; i += 8) {
    int64_t c8 = 0;
    memcpy(&c8, cov + i, n - i >= 8 ? 8 : static_cast<size_t>(n - i));
    if (!c8) continue;
    const __m512d c = _mm512_cvtepi32_pd(_mm256_cvtepu8_epi32(_mm_cvtsi64_si128(c8)));
    w_blend(row + 4 * static_cast<ptrdiff_t>(i), cr, cg, cb, ca, _mm512_mul_pd(_mm512_mul_pd(c, kk), inv), luma,
            _mm512_cmp_pd_mask(c, zero, _CMP_NEQ_OQ), frame);
  }
}

void reblend_span_avx512(const uint8_t* band, uint8_t* row, int32_t n, bool luma, double opacity) {
  const __m512d zero = _mm512_setzero_pd();
  const __m512d aK = _mm512_set1_pd(opacity * kInv255);
  for (int32_t i = 0; i < n; i += 8) {
    const __mmask8 lanes = n - i >= 8 ? 0xFF : static_cast<__mmask8>((1u << (n - i)) - 1);
    const __m256i b = _mm256_maskz_loadu_epi32(lanes, band + 4 * static_cast<ptrdiff_t>(i));
    if (_mm256_testz_si256(b, _mm256_set1_epi32(static_cast<int32_t>(0xFF000000u)))) continue;
    const __m512d a = w_alpha(b);
    w_blend(row + 4 * static_cast<ptrdiff_t>(i), w_channel(b, 0), w_channel(b, 8), w_channel(b, 16), a, aK, luma,
            _mm512_cmp_pd_mask(a, zero, _CMP_NEQ_OQ), true);
  }
}

void cell_span_avx512(const shade& s, const double* m, int32_t y, int32_t xa, int32_t xb, uint8_t* row) {
  cell_cover_avx512(s, m, y, xa, xb, row, nullptr);
}

}  // namespace

const kernels kAvx512Kernels = {
    "avx512", cell_span_avx512, cell_cover_avx512, poly_span_avx512, fx_span_avx512, reblend_span_avx512, true};

}  // namespace kvl_px
