// Fuzzes the scene document parser and layer resolution: any byte string is
// parsed, and a scene that parses has every layer resolved at ordinary,
// negative, huge and non-finite moments into a vertex row of exactly the
// layer's size, so that a write past it shows up under AddressSanitizer.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "kavlen/kavlen.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  char* text = static_cast<char*>(malloc(size + 1));
  if (!text) return 0;
  memcpy(text, data, size);
  text[size] = '\0';

  char error[48];
  kvl_scene* scene = kvl_scene_parse(text, error, static_cast<int32_t>(sizeof error));
  free(text);
  if (!scene) {
    // The message must fit its buffer, terminator included.
    if (memchr(error, '\0', sizeof error) == nullptr) abort();
    return 0;
  }
  if (scene->output_count < 1 || !scene->outputs) abort();

  static const double kTimes[] = {0.0,     0.5,    999.999, 1000.0, 2500.0,  123456.789, -1.0,
                                  -1e6,    1e15,   9.3e18,  -9.3e18, 1e300,  INFINITY,  -INFINITY,
                                  NAN};
  for (int32_t i = 0; i < scene->layer_count; i++) {
    const kvl_layer* layer = &scene->layers[i];
    size_t doubles = 2 * static_cast<size_t>(layer->vertex_count > 0 ? layer->vertex_count : 0);
    double* row = static_cast<double*>(malloc((doubles ? doubles : 1) * sizeof(double)));
    if (!row) break;
    for (double t : kTimes) {
      kvl_resolved r;
      kvl_layer_resolve(scene, layer, row, &r, t);
      if (r.layer != layer || r.vertices != row) abort();
      double v;
      kvl_animated(layer, "opacity", &v, t);
      kvl_animated(layer, "c0x", &v, t);
    }
    free(row);
  }
  kvl_scene_audio_track(scene, "");
  kvl_scene_free(scene);
  return 0;
}
