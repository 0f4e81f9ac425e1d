/* Kavlen engine: the scene document and layer resolution.
 *
 * kvl_scene_parse turns one UTF-8 JSON text into plain records with every
 * optional value filled in. Only text that is not JSON fails; any missing or
 * wrongly typed value takes its default. kvl_layer_resolve answers what a
 * layer looks like at one moment (keyframes, active clip, group), and
 * kvl_layer_modulate applies audio envelopes on top.
 *
 * Times are milliseconds. Colours are 0xAARRGGBB. All strings in the records
 * are owned copies freed by kvl_scene_free.
 */
#ifndef KAVLEN_KVL_SCENE_H
#define KAVLEN_KVL_SCENE_H

#include "kvl_base.h"

typedef int32_t kvl_shape_kind;
enum { KVL_SHAPE_QUAD = 0, KVL_SHAPE_ELLIPSE = 1, KVL_SHAPE_TRIANGLE = 2, KVL_SHAPE_POLYGON = 3 };

typedef int32_t kvl_paint_kind;
enum {
  KVL_PAINT_NONE = 0,
  KVL_PAINT_COLOR = 1,
  KVL_PAINT_IMAGE = 2,
  KVL_PAINT_VIDEO = 3,
  KVL_PAINT_ASSET_VIDEO = 4,
  KVL_PAINT_TEXT = 5
};

typedef int32_t kvl_easing;
enum { KVL_EASE_LINEAR = 0, KVL_EASE_IN = 1, KVL_EASE_OUT = 2, KVL_EASE_IN_OUT = 3, KVL_EASE_HOLD = 4 };

typedef int32_t kvl_signal_source;
enum { KVL_SIG_LEVEL = 0, KVL_SIG_BASS = 1, KVL_SIG_MID = 2, KVL_SIG_HIGH = 3, KVL_SIG_BEAT = 4 };

typedef int32_t kvl_mod_mode;
enum { KVL_MOD_SET = 0, KVL_MOD_ADD = 1 };

typedef struct kvl_vertex {
  double x, y;
  bool has_in, has_out;
  double in_x, in_y, out_x, out_y;
} kvl_vertex;

typedef struct kvl_paint {
  kvl_paint_kind kind;
  uint32_t argb;
  char* ref;
} kvl_paint;

typedef struct kvl_keyframe {
  char* prop;
  int64_t time_ms;
  double value;
  kvl_easing easing;
} kvl_keyframe;

typedef struct kvl_clip {
  int64_t start_ms, length_ms;
  kvl_paint paint;
  double opacity;
  int64_t fade_in_ms, fade_out_ms, trim_start_ms;
  double speed;
  bool loop;
  bool has_media_duration;
  int64_t media_duration_ms;
} kvl_clip;

typedef struct kvl_modulation {
  char* id;
  kvl_signal_source source;
  char* prop;
  kvl_mod_mode mode;
  double min, max, attack_ms, release_ms;
  bool enabled;
  char* track;
} kvl_modulation;

typedef struct kvl_layer {
  char* id;
  char* group_id;
  char* output;
  kvl_shape_kind shape;
  int32_t vertex_count;
  kvl_vertex* vertices;
  kvl_paint paint;
  double opacity;
  bool visible;
  bool luma_key;
  double content_x, content_y, content_scale, content_rotation;
  int32_t keyframe_count;
  kvl_keyframe* keyframes;
  int32_t clip_count;
  kvl_clip* clips;
  bool has_mask;
  int32_t mask_vertex_count;
  kvl_vertex* mask_vertices;
  double mask_feather;
  bool mask_inverted;
  bool has_mesh;
  int32_t mesh_cols, mesh_rows;
  double* mesh_offsets; /* (mesh_cols+1)*(mesh_rows+1) (dx, dy) pairs, row by row */
  bool has_stroke, has_shadow, has_glow, has_bevel;
  double stroke_width;
  uint32_t stroke_argb;
  double shadow_dx, shadow_dy, shadow_blur;
  uint32_t shadow_argb;
  double glow_radius;
  uint32_t glow_argb;
  double bevel_depth;
  uint32_t bevel_highlight, bevel_shadow;
  int32_t modulation_count;
  kvl_modulation* modulations;
} kvl_layer;

typedef struct kvl_group {
  char* id;
  bool visible;
  double opacity;
} kvl_group;

typedef struct kvl_output {
  char* id;
  double width, height;
} kvl_output;

typedef struct kvl_audio_clip {
  int64_t start_ms, length_ms, trim_start_ms, fade_in_ms, fade_out_ms;
  char* path;
} kvl_audio_clip;

typedef struct kvl_audio_track {
  char* id;
  bool muted;
  bool is_input;
  int32_t clip_count;
  kvl_audio_clip* clips;
} kvl_audio_track;

typedef struct kvl_scene {
  int32_t layer_count;
  kvl_layer* layers;
  int32_t group_count;
  kvl_group* groups;
  int32_t output_count;
  kvl_output* outputs; /* always at least one */
  int32_t track_count;
  kvl_audio_track* tracks;
} kvl_scene;

/* One layer at one moment: the only thing the renderers read. Holds no owned
 * memory; `vertices` points at vertex_count (x, y) pairs owned by the caller. */
typedef struct kvl_resolved {
  const kvl_layer* layer;
  kvl_paint paint;
  double opacity;
  bool visible;
  bool has_media_time;
  double media_time_ms;
  double media_speed;
  double* vertices;
  double content_x, content_y, content_scale, content_rotation;
  bool has_stroke, has_shadow, has_glow, has_bevel;
  double stroke_width;
  uint32_t stroke_argb;
  double shadow_dx, shadow_dy, shadow_blur;
  uint32_t shadow_argb;
  double glow_radius;
  uint32_t glow_argb;
  double bevel_depth;
  uint32_t bevel_highlight, bevel_shadow;
} kvl_resolved;

/* Parses a scene. On failure returns null and writes a message of at most
 * error_size bytes (including the NUL) into error, when error is not null. */
KVL_API kvl_scene* kvl_scene_parse(const char* text, char* error, int32_t error_size);
KVL_API void kvl_scene_free(kvl_scene* scene);
KVL_API const kvl_audio_track* kvl_scene_audio_track(const kvl_scene* scene, const char* id);

KVL_API bool kvl_animated(const kvl_layer* layer, const char* prop, double* out, double time_ms);
KVL_API void kvl_layer_resolve(const kvl_scene* scene, const kvl_layer* layer, double* vertices,
                               kvl_resolved* out, double time_ms);

/* Applies one envelope per modulation of the layer (in modulation order, at
 * most 64; -1.0 means none) to the resolved record. */
KVL_API void kvl_layer_modulate(const kvl_layer* layer, const double* envelopes, kvl_resolved* out);
KVL_API double kvl_envelope_step(const kvl_modulation* m, double envelope, double target, double dt_ms);
KVL_API double kvl_audio_clip_ramp(const kvl_audio_clip* clip, double time_ms);

#endif
