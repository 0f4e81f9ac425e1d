// The AVX2 kernel set: four pixels at a time, the same doubles as the plain
// code. Each function here names the function of render_plain.cpp whose
// arithmetic it repeats. This file is compiled for AVX2 and runs only where
// the processor has it (render_dispatch.cpp).
#include <immintrin.h>

#include "render_internal.h"

namespace kvl_px {

namespace {

__attribute__((always_inline)) inline __m256d v_round(__m256d x) {
  const __m256d t = _mm256_round_pd(x, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
  const __m256d up = _mm256_cmp_pd(_mm256_sub_pd(x, t), _mm256_set1_pd(0.5), _CMP_GE_OQ);
  return _mm256_add_pd(t, _mm256_and_pd(up, _mm256_set1_pd(1.0)));
}

__attribute__((always_inline)) inline __m256d v_channel(__m128i px, int shift) {
  return _mm256_cvtepi32_pd(_mm_and_si128(_mm_srli_epi32(px, shift), _mm_set1_epi32(255)));
}

__attribute__((always_inline)) inline __m256d v_alpha(__m128i px) { return _mm256_cvtepi32_pd(_mm_srli_epi32(px, 24)); }

__attribute__((always_inline)) inline __m128i v_lane_mask(int bits) {
  return _mm_set_epi32((bits & 8) ? -1 : 0, (bits & 4) ? -1 : 0, (bits & 2) ? -1 : 0, (bits & 1) ? -1 : 0);
}

// blend_weight() for four pixels.
__attribute__((always_inline)) inline __m256d v_weight(__m256d cr, __m256d cg, __m256d cb, __m256d ca, __m256d aK,
                                                       bool luma) {
  __m256d t = _mm256_mul_pd(aK, ca);
  if (luma) {
    __m256d y = _mm256_add_pd(_mm256_mul_pd(_mm256_set1_pd(0.598), cr), _mm256_mul_pd(_mm256_set1_pd(1.174), cg));
    y = _mm256_add_pd(y, _mm256_mul_pd(_mm256_set1_pd(0.228), cb));
    y = _mm256_sub_pd(_mm256_mul_pd(y, _mm256_set1_pd(kInv255)), _mm256_set1_pd(0.04));
    y = _mm256_min_pd(_mm256_max_pd(y, _mm256_setzero_pd()), _mm256_set1_pd(1.0));
    t = _mm256_mul_pd(t, y);
  }
  return t;
}

// blend() for four pixels at px, with per-lane colour, alpha * 1/255 (aK) and
// the lanes to touch.
__attribute__((always_inline)) inline void v_blend(uint8_t* px, __m256d cr, __m256d cg, __m256d cb, __m256d ca,
                                                   __m256d aK, bool luma, __m256d act) {
  const __m256d zero = _mm256_setzero_pd(), one = _mm256_set1_pd(1.0);
  __m256d t = v_weight(cr, cg, cb, ca, aK, luma);
  act = _mm256_and_pd(act, _mm256_cmp_pd(t, zero, _CMP_GT_OQ));
  int bits = _mm256_movemask_pd(act);
  if (!bits) return;
  t = _mm256_min_pd(t, one);
  const __m128i old = _mm_loadu_si128(reinterpret_cast<const __m128i*>(px));
  const __m256d dr = v_channel(old, 0), dg = v_channel(old, 8), db = v_channel(old, 16);
  const __m128i olda = _mm_srli_epi32(old, 24);
  const __m256d da = _mm256_mul_pd(_mm256_cvtepi32_pd(olda), _mm256_set1_pd(kInv255));
  const __m256d opaque = _mm256_cmp_pd(da, one, _CMP_GE_OQ);
  const __m256d omt = _mm256_sub_pd(one, t);
  __m256d r = v_round(_mm256_add_pd(_mm256_mul_pd(omt, dr), _mm256_mul_pd(t, cr)));
  __m256d g = v_round(_mm256_add_pd(_mm256_mul_pd(omt, dg), _mm256_mul_pd(t, cg)));
  __m256d b = v_round(_mm256_add_pd(_mm256_mul_pd(omt, db), _mm256_mul_pd(t, cb)));
  __m128i a = olda;
  if ((_mm256_movemask_pd(opaque) & bits) != bits) {
    const __m256d oa = _mm256_add_pd(t, _mm256_mul_pd(da, omt));
    act = _mm256_and_pd(act, _mm256_or_pd(opaque, _mm256_cmp_pd(oa, zero, _CMP_GT_OQ)));
    bits = _mm256_movemask_pd(act);
    if (!bits) return;
    const __m256d ws = _mm256_div_pd(t, oa), wd = _mm256_div_pd(_mm256_mul_pd(da, omt), oa);
    const __m256d r2 = v_round(_mm256_add_pd(_mm256_mul_pd(wd, dr), _mm256_mul_pd(ws, cr)));
    const __m256d g2 = v_round(_mm256_add_pd(_mm256_mul_pd(wd, dg), _mm256_mul_pd(ws, cg)));
    const __m256d b2 = v_round(_mm256_add_pd(_mm256_mul_pd(wd, db), _mm256_mul_pd(ws, cb)));
    const __m256d a2 = v_round(_mm256_mul_pd(_mm256_set1_pd(255.0), oa));
    r = _mm256_blendv_pd(r2, r, opaque);
    g = _mm256_blendv_pd(g2, g, opaque);
    b = _mm256_blendv_pd(b2, b, opaque);
    const __m128i op32 = _mm256_cvtpd_epi32(_mm256_and_pd(opaque, one));
    a = _mm_blendv_epi8(_mm256_cvttpd_epi32(a2), olda, _mm_cmpgt_epi32(op32, _mm_setzero_si128()));
  }
  __m128i outv = _mm256_cvttpd_epi32(r);
  outv = _mm_or_si128(outv, _mm_slli_epi32(_mm256_cvttpd_epi32(g), 8));
  outv = _mm_or_si128(outv, _mm_slli_epi32(_mm256_cvttpd_epi32(b), 16));
  outv = _mm_or_si128(outv, _mm_slli_epi32(a, 24));
  if (bits != 15) outv = _mm_blendv_epi8(old, outv, v_lane_mask(bits));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(px), outv);
}

// settle() for the four pixels from x on of a probed row.
__attribute__((always_inline)) inline void v_settle(const shade& s, hid_rows hr, int32_t x, __m256d cr, __m256d cg,
                                                    __m256d cb, __m256d ca, __m256d aK, __m256d act) {
  const __m256d zero = _mm256_setzero_pd(), one = _mm256_set1_pd(1.0), full = _mm256_set1_pd(255.0);
  __m256d t = v_weight(cr, cg, cb, ca, aK, s.luma);
  act = _mm256_and_pd(act, _mm256_cmp_pd(t, zero, _CMP_GT_OQ));
  int bits = _mm256_movemask_pd(act);
  if (!bits) return;
  s.tally[0] += __builtin_popcount(static_cast<unsigned>(bits));
  t = _mm256_min_pd(t, one);
  const __m256d omt = _mm256_sub_pd(one, t);
  __m128i out = _mm_set1_epi32(static_cast<int32_t>(0xFF000000u));
  const __m256d ch[3] = {cr, cg, cb};
  for (int i = 0; i < 3; i++) {
    const __m256d tc = _mm256_mul_pd(t, ch[i]);
    const __m256d lo = v_round(_mm256_add_pd(_mm256_mul_pd(omt, zero), tc));
    const __m256d hi = v_round(_mm256_add_pd(_mm256_mul_pd(omt, full), tc));
    bits &= _mm256_movemask_pd(_mm256_cmp_pd(lo, hi, _CMP_EQ_OQ));
    out = _mm_or_si128(out, _mm_slli_epi32(_mm256_cvttpd_epi32(lo), 8 * i));
  }
  if (!bits) return;
  alignas(16) uint32_t px[4];
  _mm_store_si128(reinterpret_cast<__m128i*>(px), out);
  for (unsigned m = static_cast<unsigned>(bits); m; m &= m - 1) {
    const int l = __builtin_ctz(m);
    memcpy(hr.k + 4 * static_cast<ptrdiff_t>(x + l), &px[l], 4);
    hr.h[x + l] = static_cast<uint16_t>(s.op);
  }
  s.tally[1] += __builtin_popcount(static_cast<unsigned>(bits));
}

// The lanes of the four pixels from x on that take part in this pass.
__attribute__((always_inline)) inline __m256d v_open(const shade& s, const uint16_t* h, int32_t x) {
  int64_t four;
  memcpy(&four, h + x, 8);
  const __m128i e = _mm_cvtepu16_epi32(_mm_cvtsi64_si128(four));
  const __m128i open = s.probe ? _mm_cmpeq_epi32(e, _mm_setzero_si128()) : _mm_cmplt_epi32(e, _mm_set1_epi32(s.op));
  return _mm256_castsi256_pd(_mm256_cvtepi32_epi64(open));
}

// sample_src() for four lanes; lanes outside `act` may hold anything, their
// texel indices are clamped into the image all the same.
__attribute__((always_inline)) inline void v_sample(const shade& s, __m256d x, __m256d y, __m256d* r, __m256d* g,
                                                    __m256d* b, __m256d* a) {
  const __m256d one = _mm256_set1_pd(1.0), half = _mm256_set1_pd(0.5);
  const __m256d fx = _mm256_sub_pd(x, half), fy = _mm256_sub_pd(y, half);
  const __m256d flx = _mm256_floor_pd(fx), fly = _mm256_floor_pd(fy);
  const __m256d tx = _mm256_sub_pd(fx, flx), ty = _mm256_sub_pd(fy, fly);
  const __m128i ix = _mm256_cvttpd_epi32(flx), iy = _mm256_cvttpd_epi32(fly);
  const __m128i zero = _mm_setzero_si128(), i1 = _mm_set1_epi32(1);
  const __m128i wl = _mm_set1_epi32(s.sw - 1), hl = _mm_set1_epi32(s.sh - 1);
  const __m128i x0 = _mm_min_epi32(_mm_max_epi32(ix, zero), wl);
  const __m128i x1 = _mm_min_epi32(_mm_max_epi32(_mm_add_epi32(ix, i1), zero), wl);
  const __m128i y0 = _mm_min_epi32(_mm_max_epi32(iy, zero), hl);
  const __m128i y1 = _mm_min_epi32(_mm_max_epi32(_mm_add_epi32(iy, i1), zero), hl);
  const __m128i w = _mm_set1_epi32(s.sw);
  const __m128i r0 = _mm_mullo_epi32(y0, w), r1 = _mm_mullo_epi32(y1, w);
  const int* base = reinterpret_cast<const int*>(s.src);
  __m128i t00, t10, t01, t11;
  // Away from the image's border no clamp changed anything, and the two
  // texels of a row are neighbours in memory: two 8-byte loads a lane are
  // cheaper than four gathers. The texels are the same either way.
  const __m128i unclamped = _mm_and_si128(
      _mm_and_si128(_mm_cmpeq_epi32(ix, x0), _mm_cmpeq_epi32(iy, y0)),
      _mm_and_si128(_mm_cmpeq_epi32(_mm_add_epi32(ix, i1), x1), _mm_cmpeq_epi32(_mm_add_epi32(iy, i1), y1)));
  const bool inner = _mm_movemask_ps(_mm_castsi128_ps(unclamped)) == 15;
  // Often the four lanes read the same two rows within a run of 8 texels:
  // then one 32-byte load a row and a permutation fetch them all. The run
  // is read whole only where it lies within the image's buffer.
  const int32_t lx = _mm_cvtsi128_si32(x0), hx = _mm_extract_epi32(x0, 3);
  const int32_t run = lx < hx ? lx : hx, row0 = _mm_cvtsi128_si32(y0);
  const __m128i rel = _mm_sub_epi32(x0, _mm_set1_epi32(run));
  const bool flat = _mm_movemask_ps(_mm_castsi128_ps(_mm_cmpeq_epi32(y0, _mm_set1_epi32(row0)))) == 15;
  // rel <= 6 for every lane, as unsigned: min(rel, 6) == rel.
  const __m128i capped = _mm_min_epu32(rel, _mm_set1_epi32(6));
  const bool narrow_run = _mm_movemask_ps(_mm_castsi128_ps(_mm_cmpeq_epi32(capped, rel))) == 15;
  if (inner && flat && narrow_run &&
      (static_cast<int64_t>(row0) + 1) * s.sw + run + 8 <= static_cast<int64_t>(s.sw) * s.sh) {
    const int* p0 = base + (static_cast<ptrdiff_t>(row0) * s.sw + run);
    const __m256i b0 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p0));
    const __m256i b1 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p0 + s.sw));
    const __m256i n0 = _mm256_castsi128_si256(rel), n1 = _mm256_castsi128_si256(_mm_add_epi32(rel, i1));
    t00 = _mm256_castsi256_si128(_mm256_permutevar8x32_epi32(b0, n0));
    t10 = _mm256_castsi256_si128(_mm256_permutevar8x32_epi32(b0, n1));
    t01 = _mm256_castsi256_si128(_mm256_permutevar8x32_epi32(b1, n0));
    t11 = _mm256_castsi256_si128(_mm256_permutevar8x32_epi32(b1, n1));
  } else if (inner) {
    alignas(16) int32_t o0[4], o1[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(o0), _mm_add_epi32(r0, x0));
    _mm_store_si128(reinterpret_cast<__m128i*>(o1), _mm_add_epi32(r1, x0));
    auto pair = [&](int32_t lo, int32_t hi) {
      return _mm_castpd_si128(
          _mm_loadh_pd(_mm_castsi128_pd(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(base + lo))),
                       reinterpret_cast<const double*>(base + hi)));
    };
    const __m128 a01 = _mm_castsi128_ps(pair(o0[0], o0[1])), a23 = _mm_castsi128_ps(pair(o0[2], o0[3]));
    const __m128 b01 = _mm_castsi128_ps(pair(o1[0], o1[1])), b23 = _mm_castsi128_ps(pair(o1[2], o1[3]));
    t00 = _mm_castps_si128(_mm_shuffle_ps(a01, a23, _MM_SHUFFLE(2, 0, 2, 0)));
    t10 = _mm_castps_si128(_mm_shuffle_ps(a01, a23, _MM_SHUFFLE(3, 1, 3, 1)));
    t01 = _mm_castps_si128(_mm_shuffle_ps(b01, b23, _MM_SHUFFLE(2, 0, 2, 0)));
    t11 = _mm_castps_si128(_mm_shuffle_ps(b01, b23, _MM_SHUFFLE(3, 1, 3, 1)));
  } else {
    t00 = _mm_i32gather_epi32(base, _mm_add_epi32(r0, x0), 4);
    t10 = _mm_i32gather_epi32(base, _mm_add_epi32(r0, x1), 4);
    t01 = _mm_i32gather_epi32(base, _mm_add_epi32(r1, x0), 4);
    t11 = _mm_i32gather_epi32(base, _mm_add_epi32(r1, x1), 4);
  }
  const __m256d omtx = _mm256_sub_pd(one, tx), omty = _mm256_sub_pd(one, ty);
  const __m256d w00 = _mm256_mul_pd(omtx, omty), w10 = _mm256_mul_pd(tx, omty);
  const __m256d w01 = _mm256_mul_pd(omtx, ty), w11 = _mm256_mul_pd(tx, ty);
  const __m256d a00 = v_alpha(t00), a10 = v_alpha(t10), a01 = v_alpha(t01), a11 = v_alpha(t11);
  __m256d sa = _mm256_add_pd(_mm256_mul_pd(w00, a00), _mm256_mul_pd(w10, a10));
  sa = _mm256_add_pd(sa, _mm256_mul_pd(w01, a01));
  sa = _mm256_add_pd(sa, _mm256_mul_pd(w11, a11));
  *a = sa;
  const __m256d q00 = _mm256_div_pd(w00, sa), q10 = _mm256_div_pd(w10, sa);
  const __m256d q01 = _mm256_div_pd(w01, sa), q11 = _mm256_div_pd(w11, sa);
  __m256d out[3];
  for (int c = 0; c < 3; c++) {
    const int sh = 8 * c;
    __m256d acc = _mm256_add_pd(_mm256_mul_pd(_mm256_mul_pd(q00, v_channel(t00, sh)), a00),
                                _mm256_mul_pd(_mm256_mul_pd(q10, v_channel(t10, sh)), a10));
    acc = _mm256_add_pd(acc, _mm256_mul_pd(_mm256_mul_pd(q01, v_channel(t01, sh)), a01));
    acc = _mm256_add_pd(acc, _mm256_mul_pd(_mm256_mul_pd(q11, v_channel(t11, sh)), a11));
    out[c] = acc;
  }
  *r = out[0];
  *g = out[1];
  *b = out[2];
}

// surface_color() and blend() for up to kBatch groups of four pixels, each
// pixel with its own blend alpha. The work goes in passes over the whole
// batch: coordinates and tests first, then the source samples, then the
// blends. One pixel's chain of dependent steps is long (the homography's
// division, then the cover division, the texel loads, the weight divisions,
// the blend), and fused into one loop body it is too long for the processor
// to overlap one group with the next; in passes, the groups of a pass are
// independent and their latencies hide behind each other. Every lane goes
// through exactly the operations of the scalar code, in the same order.
constexpr int kBatch = 16;

struct v_batch {
  __m256d u[kBatch], v[kBatch], alpha[kBatch], act[kBatch];
  uint8_t* px[kBatch];
  int32_t x[kBatch];  // the group's first pixel, for probing
  hid_rows hr;
  int n;
};

__attribute__((always_inline)) inline void v_shade_batch(const shade& s, v_batch* b) {
  const __m256d zero = _mm256_setzero_pd(), one = _mm256_set1_pd(1.0);
  __m256d me[kBatch], ca[kBatch];
  const int n = b->n;
  // Pass 1: ellipse, mask, content and cover tests. For a source with
  // pixels, u and v are replaced by the source coordinates.
  for (int i = 0; i < n; i++) {
    const __m256d u = b->u[i], v = b->v[i];
    __m256d act = b->act[i];
    __m256d m = one, e = one;
    if (s.ellipse) {
      const __m256d du = _mm256_sub_pd(_mm256_div_pd(u, _mm256_set1_pd(kSurfW)), _mm256_set1_pd(0.5));
      const __m256d dv = _mm256_sub_pd(_mm256_div_pd(v, _mm256_set1_pd(kSurfH)), _mm256_set1_pd(0.5));
      const __m256d r = _mm256_sqrt_pd(_mm256_add_pd(_mm256_mul_pd(du, du), _mm256_mul_pd(dv, dv)));
      // NaN comes out as 0 here and as NaN in clamp01; either way the content
      // test below refuses such a point.
      e = _mm256_min_pd(
          _mm256_max_pd(_mm256_sub_pd(_mm256_set1_pd(360.5), _mm256_mul_pd(_mm256_set1_pd(720.0), r)), zero), one);
      act = _mm256_and_pd(act, _mm256_cmp_pd(e, zero, _CMP_NEQ_UQ));
    }
    if (s.mask && _mm256_movemask_pd(act)) {
      const __m256d col = _mm256_min_pd(_mm256_max_pd(_mm256_round_pd(u, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC), zero),
                                        _mm256_set1_pd(1279.0));
      const __m256d row = _mm256_min_pd(_mm256_max_pd(_mm256_round_pd(v, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC), zero),
                                        _mm256_set1_pd(719.0));
      const __m128i idx =
          _mm_add_epi32(_mm_mullo_epi32(_mm256_cvttpd_epi32(row), _mm_set1_epi32(1280)), _mm256_cvttpd_epi32(col));
      alignas(16) int32_t ix[4];
      _mm_store_si128(reinterpret_cast<__m128i*>(ix), idx);
      const __m128i bytes = _mm_set_epi32(s.mask[ix[3]], s.mask[ix[2]], s.mask[ix[1]], s.mask[ix[0]]);
      m = _mm256_mul_pd(_mm256_cvtepi32_pd(bytes), _mm256_set1_pd(kInv255));
      act = _mm256_and_pd(act, _mm256_cmp_pd(m, zero, _CMP_NEQ_UQ));
    }
    __m256d cu = u, cv = v;
    if (!s.ic_identity) {
      cu = _mm256_add_pd(
          _mm256_add_pd(_mm256_mul_pd(_mm256_set1_pd(s.ic[0]), u), _mm256_mul_pd(_mm256_set1_pd(s.ic[1]), v)),
          _mm256_set1_pd(s.ic[2]));
      cv = _mm256_add_pd(
          _mm256_add_pd(_mm256_mul_pd(_mm256_set1_pd(s.ic[3]), u), _mm256_mul_pd(_mm256_set1_pd(s.ic[4]), v)),
          _mm256_set1_pd(s.ic[5]));
    }
    act = _mm256_and_pd(act, _mm256_cmp_pd(cu, zero, _CMP_GE_OQ));
    act = _mm256_and_pd(act, _mm256_cmp_pd(cu, _mm256_set1_pd(kSurfW), _CMP_LT_OQ));
    act = _mm256_and_pd(act, _mm256_cmp_pd(cv, zero, _CMP_GE_OQ));
    act = _mm256_and_pd(act, _mm256_cmp_pd(cv, _mm256_set1_pd(kSurfH), _CMP_LT_OQ));
    me[i] = _mm256_mul_pd(m, e);
    if (s.probe)
      act = _mm256_and_pd(act, _mm256_cmp_pd(_mm256_mul_pd(b->alpha[i], me[i]), _mm256_set1_pd(kSettles), _CMP_GE_OQ));
    if (s.kind == FILL_SOLID) {
      ca[i] = _mm256_mul_pd(me[i], _mm256_set1_pd(s.ca));
    } else if (s.kind == FILL_PIXELS) {
      __m256d sx = cu, sy = cv;
      if (s.cover_identity) {
      } else if (s.cover_mul) {
        // The scale is a power of two: the product by its exact reciprocal
        // is the same correctly rounded number as the quotient.
        const __m256d ci = _mm256_set1_pd(s.cover_inv);
        sx = _mm256_mul_pd(_mm256_sub_pd(cu, _mm256_set1_pd(s.cover_ox)), ci);
        sy = _mm256_mul_pd(_mm256_sub_pd(cv, _mm256_set1_pd(s.cover_oy)), ci);
      } else {
        const __m256d cs = _mm256_set1_pd(s.cover_scale);
        sx = _mm256_div_pd(_mm256_sub_pd(cu, _mm256_set1_pd(s.cover_ox)), cs);
        sy = _mm256_div_pd(_mm256_sub_pd(cv, _mm256_set1_pd(s.cover_oy)), cs);
      }
      act = _mm256_and_pd(act, _mm256_cmp_pd(sx, zero, _CMP_GE_OQ));
      act = _mm256_and_pd(act, _mm256_cmp_pd(sx, _mm256_set1_pd(s.dsw), _CMP_LT_OQ));
      act = _mm256_and_pd(act, _mm256_cmp_pd(sy, zero, _CMP_GE_OQ));
      act = _mm256_and_pd(act, _mm256_cmp_pd(sy, _mm256_set1_pd(s.dsh), _CMP_LT_OQ));
      b->u[i] = sx;
      b->v[i] = sy;
    } else {
      ca[i] = _mm256_mul_pd(_mm256_mul_pd(_mm256_set1_pd(255.0), m), e);
    }
    b->act[i] = act;
  }
  // Pass 2: the colours. Without ellipse and mask, m e is 1 and m e a is a
  // itself.
  const bool plain_me = !s.ellipse && !s.mask;
  __m256d cr[kBatch], cg[kBatch], cb[kBatch];
  if (s.kind == FILL_PIXELS) {
    for (int i = 0; i < n; i++) {
      if (!_mm256_movemask_pd(b->act[i])) continue;
      __m256d sa;
      v_sample(s, b->u[i], b->v[i], &cr[i], &cg[i], &cb[i], &sa);
      ca[i] = plain_me ? sa : _mm256_mul_pd(me[i], sa);
    }
  } else {
    const __m256d r = _mm256_set1_pd(s.kind == FILL_SOLID ? s.cr : 51.0);
    const __m256d g = _mm256_set1_pd(s.kind == FILL_SOLID ? s.cg : 51.0);
    const __m256d bl = _mm256_set1_pd(s.kind == FILL_SOLID ? s.cb : 51.0);
    for (int i = 0; i < n; i++) {
      cr[i] = r;
      cg[i] = g;
      cb[i] = bl;
    }
  }
  // Pass 3: the blends. Apart, the samples of pass 2 overlap better.
  for (int i = 0; i < n; i++) {
    if (!_mm256_movemask_pd(b->act[i])) continue;
    const __m256d aK = _mm256_mul_pd(b->alpha[i], _mm256_set1_pd(kInv255));
    const __m256d act = _mm256_and_pd(b->act[i], _mm256_cmp_pd(ca[i], zero, _CMP_GT_OQ));
    if (s.probe)
      v_settle(s, b->hr, b->x[i], cr[i], cg[i], cb[i], ca[i], aK, act);
    else
      v_blend(b->px[i], cr[i], cg[i], cb[i], ca[i], aK, s.luma, act);
  }
}

void cell_span_avx2(const shade& s, const double* m, int32_t y, int32_t xa, int32_t xb, uint8_t* row) {
  const double cy = y + 0.5;
  const __m256d m0 = _mm256_set1_pd(m[0]), m3 = _mm256_set1_pd(m[3]), m6 = _mm256_set1_pd(m[6]);
  const __m256d m1cy = _mm256_set1_pd(m[1] * cy), m4cy = _mm256_set1_pd(m[4] * cy), m7cy = _mm256_set1_pd(m[7] * cy);
  const __m256d m2 = _mm256_set1_pd(m[2]), m5 = _mm256_set1_pd(m[5]), m8 = _mm256_set1_pd(m[8]);
  const __m256d alpha = _mm256_set1_pd(s.opacity);
  const __m256d all = _mm256_castsi256_pd(_mm256_set1_epi64x(-1));
  const __m128i lane = _mm_set_epi32(3, 2, 1, 0);
  v_batch b;
  b.hr = hid_at(s, y);
  int32_t x = xa;
  while (x + 4 <= xb) {
    int n = 0;
    for (; n < kBatch && x + 4 <= xb; x += 4) {
      const __m256d act = b.hr.h ? v_open(s, b.hr.h, x) : all;
      if (!_mm256_movemask_pd(act)) continue;
      const __m256d cx = _mm256_add_pd(_mm256_cvtepi32_pd(_mm_add_epi32(_mm_set1_epi32(x), lane)), _mm256_set1_pd(0.5));
      const __m256d w = _mm256_add_pd(_mm256_add_pd(_mm256_mul_pd(m6, cx), m7cy), m8);
      b.u[n] = _mm256_div_pd(_mm256_add_pd(_mm256_add_pd(_mm256_mul_pd(m0, cx), m1cy), m2), w);
      b.v[n] = _mm256_div_pd(_mm256_add_pd(_mm256_add_pd(_mm256_mul_pd(m3, cx), m4cy), m5), w);
      b.alpha[n] = alpha;
      b.act[n] = act;
      b.px[n] = row + 4 * static_cast<ptrdiff_t>(x);
      b.x[n] = x;
      n++;
    }
    b.n = n;
    if (n) v_shade_batch(s, &b);
  }
  for (; x < xb; x++) cell_pixel(s, m, x, cy, s.opacity, row, b.hr);
}

void poly_span_avx2(const shade& s, const kvl_prep* p, int32_t y, double v, int32_t xa, int32_t xb, const uint8_t* cov,
                    uint8_t* row) {
  const __m256d zero = _mm256_setzero_pd();
  const __m256d ox = _mm256_set1_pd(p->poly_ox), sc = _mm256_set1_pd(p->poly_scale);
  const __m256d k = _mm256_set1_pd(kInv255 * s.opacity);
  const __m256d vv = _mm256_set1_pd(v);
  const __m128i lane = _mm_set_epi32(3, 2, 1, 0);
  v_batch b;
  b.hr = hid_at(s, y);
  int32_t x = xa;
  while (x + 4 <= xb) {
    int n = 0;
    for (; n < kBatch && x + 4 <= xb; x += 4) {
      int32_t c4;
      memcpy(&c4, cov + (x - xa), 4);
      if (!c4) continue;
      const __m256d c = _mm256_cvtepi32_pd(_mm_cvtepu8_epi32(_mm_cvtsi32_si128(c4)));
      const __m256d cx = _mm256_add_pd(_mm256_cvtepi32_pd(_mm_add_epi32(_mm_set1_epi32(x), lane)), _mm256_set1_pd(0.5));
      const __m256d u = _mm256_div_pd(_mm256_sub_pd(cx, ox), sc);
      __m256d act = _mm256_cmp_pd(c, zero, _CMP_NEQ_OQ);
      if (b.hr.h) act = _mm256_and_pd(act, v_open(s, b.hr.h, x));
      act = _mm256_and_pd(act, _mm256_cmp_pd(u, zero, _CMP_GE_OQ));
      act = _mm256_and_pd(act, _mm256_cmp_pd(u, _mm256_set1_pd(kSurfW), _CMP_LT_OQ));
      if (!_mm256_movemask_pd(act)) continue;
      b.u[n] = u;
      b.v[n] = vv;
      b.alpha[n] = _mm256_mul_pd(c, k);
      b.act[n] = act;
      b.px[n] = row + 4 * static_cast<ptrdiff_t>(x);
      b.x[n] = x;
      n++;
    }
    b.n = n;
    if (n) v_shade_batch(s, &b);
  }
  if (x < xb) poly_span_plain(s, p, y, v, x, xb, cov + (x - xa), row);
}

void fx_span_avx2(const kvl_color& col, bool luma, double k, const uint8_t* cov, int32_t n, uint8_t* row, bool frame) {
  const __m256d zero = _mm256_setzero_pd();
  const __m256d cr = _mm256_set1_pd(col.r), cg = _mm256_set1_pd(col.g), cb = _mm256_set1_pd(col.b);
  const __m256d ca = _mm256_set1_pd(col.a), kk = _mm256_set1_pd(k), inv = _mm256_set1_pd(kInv255);
  int32_t i = 0;
  for (; i + 4 <= n; i += 4) {
    int32_t c4;
    memcpy(&c4, cov + i, 4);
    if (!c4) continue;
    const __m256d c = _mm256_cvtepi32_pd(_mm_cvtepu8_epi32(_mm_cvtsi32_si128(c4)));
    const __m256d act = _mm256_cmp_pd(c, zero, _CMP_NEQ_OQ);
    v_blend(row + 4 * static_cast<ptrdiff_t>(i), cr, cg, cb, ca, _mm256_mul_pd(_mm256_mul_pd(c, kk), inv), luma, act);
  }
  if (i < n) fx_span_plain(col, luma, k, cov + i, n - i, row + 4 * static_cast<ptrdiff_t>(i), frame);
}

void reblend_span_avx2(const uint8_t* band, uint8_t* row, int32_t n, bool luma, double opacity) {
  const __m256d zero = _mm256_setzero_pd();
  const __m256d aK = _mm256_set1_pd(opacity * kInv255);
  int32_t i = 0;
  for (; i + 4 <= n; i += 4) {
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(band + 4 * static_cast<ptrdiff_t>(i)));
    if (_mm_testz_si128(b, _mm_set1_epi32(static_cast<int32_t>(0xFF000000u)))) continue;
    const __m256d a = v_alpha(b);
    v_blend(row + 4 * static_cast<ptrdiff_t>(i), v_channel(b, 0), v_channel(b, 8), v_channel(b, 16), a, aK, luma,
            _mm256_cmp_pd(a, zero, _CMP_NEQ_OQ));
  }
  if (i < n)
    reblend_span_plain(band + 4 * static_cast<ptrdiff_t>(i), row + 4 * static_cast<ptrdiff_t>(i), n - i, luma, opacity);
}

}  // namespace

const kernels kAvx2Kernels = {"avx2", cell_span_avx2, nullptr, poly_span_avx2, fx_span_avx2, reblend_span_avx2, true};

}  // namespace kvl_px
