// Hand-built prepared layers for compositor tests: random scenes with every
// kind of layer the compositor meets (quads good and bad, meshes, ellipses,
// polygons, masks, sources with alpha, effects, luma, isolation), and small
// helpers for the hand-made cases. The records own nothing; a SceneBuilder
// holds their buffers.
#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "kavlen/kavlen.h"

namespace rscene {

// splitmix64: cheap and fully determined by the seed.
struct Rng {
  uint64_t s;
  explicit Rng(uint64_t seed) : s(seed * 0x9E3779B97F4A7C15ull + 1) {}
  uint64_t next() {
    uint64_t z = (s += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  int range(int lo, int hi) { return lo + (int)(next() % (uint64_t)(hi - lo + 1)); }  // inclusive
  double uni(double lo, double hi) { return lo + (hi - lo) * (double)(next() >> 11) * 0x1.0p-53; }
  bool chance(double p) { return uni(0, 1) < p; }
};

struct SceneBuilder {
  int32_t width, height;
  std::vector<kvl_prep> layers;
  std::deque<std::vector<uint8_t>> bytes;
  std::deque<std::vector<kvl_cell>> cells;
  std::deque<kvl_source> sources;

  SceneBuilder(int32_t w, int32_t h) : width(w), height(h) {}

  uint8_t* keep(std::vector<uint8_t> v);
  // A layer with the identity content transform, opacity 1, a solid colour.
  kvl_prep base(uint32_t argb) const;
  // One cell over four device-pixel corners, mapped to the whole surface.
  kvl_cell cell(const double quad[8]) const;
  // The cell of a surface rectangle, as layer preparation makes it.
  kvl_cell cell(const double quad[8], double ua, double va, double ub, double vb) const;
  void set_cells(kvl_prep* p, std::vector<kvl_cell> c);
  const kvl_source* source(int32_t w, int32_t h, const uint8_t* rgba);  // rgba null: declared only
  void cover(kvl_prep* p, const kvl_source* s) const;                   // the cover fit of a source
  kvl_fx fx(int32_t x, int32_t y, int32_t w, int32_t h, uint32_t argb, uint8_t fill);
};

// A random scene of 1 to max_layers layers on a frame of the builder's size.
// Each layer is, with probability `opaque`, one that can hide what lies
// beneath: full opacity, drawn straight onto the frame, opaque paint.
void random_scene(SceneBuilder* b, Rng* rng, double opaque = 0, int max_layers = 6);

}  // namespace rscene
