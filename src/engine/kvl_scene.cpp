// Scene document parsing and layer resolution.
//
// Parsing builds plain records straight from the cJSON tree in one pass. Every
// array is sized once, every string is its own allocation (so kvl_scene_free
// can release a scene that was only partly built), and every number that lands
// in an integer field is saturated first: a document may hold 1e999 or -1e300,
// and converting such a double to an integer type is undefined behaviour.
//
// Resolution runs per frame for every layer, so it never allocates and walks
// a layer's keyframes once for all of its properties instead of once per
// property name.
#include <cjson/cJSON.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "engine_internal.h"

namespace {

// ---------------------------------------------------------------------------
// Number conversions. NaN reads as 0; values beyond the target's range clamp
// to its ends; everything else truncates toward zero.

int64_t to_i64(double v) {
  if (!(v == v)) return 0;
  if (v >= 9223372036854775808.0) return INT64_MAX;
  if (v <= -9223372036854775808.0) return INT64_MIN;
  return static_cast<int64_t>(v);
}

int32_t to_i32(double v) {
  if (!(v == v)) return 0;
  if (v >= 2147483647.0) return INT32_MAX;
  if (v <= -2147483648.0) return INT32_MIN;
  return static_cast<int32_t>(v);
}

uint32_t to_u32(double v) {
  if (!(v > 0.0)) return 0;  // also NaN; -0.9 truncates to 0 anyway
  if (v >= 4294967295.0) return 0xFFFFFFFFu;
  return static_cast<uint32_t>(v);
}

// ---------------------------------------------------------------------------
// Typed reads from a JSON object. A missing key or a value of another type
// gives the default. `obj` may be null (an element that is not an object).

const cJSON* member(const cJSON* obj, const char* key) {
  return obj ? cJSON_GetObjectItemCaseSensitive(obj, key) : nullptr;
}

double number_or(const cJSON* obj, const char* key, double def) {
  const cJSON* it = member(obj, key);
  return cJSON_IsNumber(it) ? it->valuedouble : def;
}

bool bool_or(const cJSON* obj, const char* key, bool def) {
  const cJSON* it = member(obj, key);
  return cJSON_IsBool(it) ? cJSON_IsTrue(it) != 0 : def;
}

const char* string_or(const cJSON* obj, const char* key, const char* def) {
  const cJSON* it = member(obj, key);
  return (cJSON_IsString(it) && it->valuestring) ? it->valuestring : def;
}

uint32_t argb_or(const cJSON* obj, const char* key, uint32_t def) {
  const cJSON* it = member(obj, key);
  return cJSON_IsNumber(it) ? to_u32(it->valuedouble) : def;
}

int64_t time_or(const cJSON* obj, const char* key, int64_t def) {
  const cJSON* it = member(obj, key);
  return cJSON_IsNumber(it) ? to_i64(it->valuedouble) : def;
}

const cJSON* object_at(const cJSON* obj, const char* key) {
  const cJSON* it = member(obj, key);
  return cJSON_IsObject(it) ? it : nullptr;
}

const cJSON* array_at(const cJSON* obj, const char* key) {
  const cJSON* it = member(obj, key);
  return cJSON_IsArray(it) ? it : nullptr;
}

const cJSON* as_object(const cJSON* it) { return cJSON_IsObject(it) ? it : nullptr; }

double element_number(const cJSON* it) { return cJSON_IsNumber(it) ? it->valuedouble : 0.0; }

// First two elements of an array, read positionally; fewer than two gives (0, 0).
void read_pair(const cJSON* arr, double* a, double* b) {
  *a = 0.0;
  *b = 0.0;
  const cJSON* first = arr ? arr->child : nullptr;
  if (!first || !first->next) return;
  *a = element_number(first);
  *b = element_number(first->next);
}

// Number of elements of an array, or 0 for anything else. The count is held
// in an int32 field, so an impossible count beyond that reads as "too many".
int32_t length_of(const cJSON* arr) {
  if (!cJSON_IsArray(arr)) return 0;
  int n = cJSON_GetArraySize(arr);
  return n > 0 ? static_cast<int32_t>(n) : 0;
}

char* copy_string(const char* s) {
  size_t n = strlen(s) + 1;
  char* d = static_cast<char*>(malloc(n));
  if (d) memcpy(d, s, n);
  return d;
}

template <class T>
T* new_array(int32_t n) {
  return static_cast<T*>(calloc(static_cast<size_t>(n), sizeof(T)));
}

// ---------------------------------------------------------------------------
// Records. Each reader returns false only when an allocation failed; what it
// built so far stays reachable from the scene, which the caller then frees.

void read_vertex(const cJSON* e, kvl_vertex* v) {
  if (cJSON_IsArray(e)) {
    read_pair(e, &v->x, &v->y);
    return;
  }
  const cJSON* o = as_object(e);
  v->x = number_or(o, "x", 0.0);
  v->y = number_or(o, "y", 0.0);
  const cJSON* in = array_at(o, "in");
  if (in) {
    v->has_in = true;
    read_pair(in, &v->in_x, &v->in_y);
  }
  const cJSON* out = array_at(o, "out");
  if (out) {
    v->has_out = true;
    read_pair(out, &v->out_x, &v->out_y);
  }
}

bool read_vertices(const cJSON* arr, int32_t* count, kvl_vertex** vertices) {
  int32_t n = length_of(arr);
  if (n == 0) return true;
  kvl_vertex* v = new_array<kvl_vertex>(n);
  if (!v) return false;
  *vertices = v;
  *count = n;
  int32_t i = 0;
  for (const cJSON* e = arr->child; e && i < n; e = e->next) read_vertex(e, &v[i++]);
  return true;
}

// Key under which the caller supplies rasterised text: "text:<id>" for the
// layer's own paint, "text:<id>#<clip index>" for a clip's.
char* text_key(const char* layer_id, int32_t clip_index) {
  size_t n = strlen(layer_id) + sizeof "text:#-2147483648";
  char* key = static_cast<char*>(malloc(n));
  if (!key) return nullptr;
  if (clip_index < 0)
    snprintf(key, n, "text:%s", layer_id);
  else
    snprintf(key, n, "text:%s#%d", layer_id, clip_index);
  return key;
}

bool read_paint(const cJSON* p, kvl_paint* paint, const char* layer_id, int32_t clip_index) {
  paint->kind = KVL_PAINT_NONE;
  paint->argb = 0;
  paint->ref = nullptr;
  const cJSON* o = as_object(p);
  if (!o) return true;
  const char* type = string_or(o, "type", "none");
  if (strcmp(type, "color") == 0) {
    paint->kind = KVL_PAINT_COLOR;
    paint->argb = argb_or(o, "argb", 0xFF000000u);
    return true;
  }
  const char* ref = nullptr;
  if (strcmp(type, "image") == 0) {
    paint->kind = KVL_PAINT_IMAGE;
    ref = string_or(o, "path", "");
  } else if (strcmp(type, "video") == 0) {
    paint->kind = KVL_PAINT_VIDEO;
    ref = string_or(o, "path", "");
  } else if (strcmp(type, "asset_video") == 0) {
    paint->kind = KVL_PAINT_ASSET_VIDEO;
    ref = string_or(o, "asset", "");
  } else if (strcmp(type, "text") == 0) {
    paint->kind = KVL_PAINT_TEXT;
    paint->ref = text_key(layer_id, clip_index);
    return paint->ref != nullptr;
  } else {
    return true;
  }
  paint->ref = copy_string(ref);
  return paint->ref != nullptr;
}

kvl_easing easing_of(const char* s) {
  if (strcmp(s, "easeIn") == 0) return KVL_EASE_IN;
  if (strcmp(s, "easeOut") == 0) return KVL_EASE_OUT;
  if (strcmp(s, "easeInOut") == 0) return KVL_EASE_IN_OUT;
  if (strcmp(s, "hold") == 0) return KVL_EASE_HOLD;
  return KVL_EASE_LINEAR;
}

bool read_keyframes(const cJSON* arr, kvl_layer* layer) {
  int32_t n = length_of(arr);
  if (n == 0) return true;
  layer->keyframes = new_array<kvl_keyframe>(n);
  if (!layer->keyframes) return false;
  layer->keyframe_count = n;
  int32_t i = 0;
  for (const cJSON* e = arr->child; e && i < n; e = e->next, i++) {
    const cJSON* o = as_object(e);
    kvl_keyframe* k = &layer->keyframes[i];
    k->prop = copy_string(string_or(o, "prop", ""));
    if (!k->prop) return false;
    k->time_ms = time_or(o, "timeMs", 0);
    k->value = number_or(o, "value", 0.0);
    k->easing = easing_of(string_or(o, "easing", "linear"));
  }
  return true;
}

bool read_clips(const cJSON* arr, kvl_layer* layer) {
  int32_t n = length_of(arr);
  if (n == 0) return true;
  layer->clips = new_array<kvl_clip>(n);
  if (!layer->clips) return false;
  layer->clip_count = n;
  int32_t i = 0;
  for (const cJSON* e = arr->child; e && i < n; e = e->next, i++) {
    const cJSON* o = as_object(e);
    kvl_clip* c = &layer->clips[i];
    c->start_ms = time_or(o, "startMs", 0);
    c->length_ms = time_or(o, "lengthMs", 0);
    if (!read_paint(member(o, "paint"), &c->paint, layer->id, i)) return false;
    c->opacity = number_or(o, "opacity", 1.0);
    c->fade_in_ms = time_or(o, "fadeInMs", 0);
    c->fade_out_ms = time_or(o, "fadeOutMs", 0);
    c->trim_start_ms = time_or(o, "trimStartMs", 0);
    c->speed = number_or(o, "speed", 1.0);
    c->loop = bool_or(o, "loop", false);
    const cJSON* d = member(o, "mediaDurationMs");
    if (cJSON_IsNumber(d)) {
      c->has_media_duration = true;
      c->media_duration_ms = to_i64(d->valuedouble);
    }
  }
  return true;
}

bool signal_source_of(const char* s, kvl_signal_source* out) {
  static const char* const names[] = {"level", "bass", "mid", "high", "beat"};
  for (int32_t i = 0; i < 5; i++) {
    if (strcmp(s, names[i]) == 0) {
      *out = i;
      return true;
    }
  }
  return false;
}

// A modulation whose source is missing or unknown takes no slot at all.
bool read_modulations(const cJSON* arr, kvl_layer* layer) {
  int32_t n = length_of(arr);
  if (n == 0) return true;
  layer->modulations = new_array<kvl_modulation>(n);
  if (!layer->modulations) return false;
  int32_t seen = 0;
  for (const cJSON* e = arr->child; e && seen < n; e = e->next, seen++) {
    const cJSON* o = as_object(e);
    kvl_signal_source source;
    const char* s = string_or(o, "source", nullptr);
    if (!s || !signal_source_of(s, &source)) continue;
    // Counted before its strings exist, so that a failure below frees them.
    kvl_modulation* m = &layer->modulations[layer->modulation_count++];
    m->source = source;
    m->id = copy_string(string_or(o, "id", ""));
    m->prop = copy_string(string_or(o, "prop", ""));
    if (!m->id || !m->prop) return false;
    m->mode = strcmp(string_or(o, "mode", "set"), "add") == 0 ? KVL_MOD_ADD : KVL_MOD_SET;
    m->min = number_or(o, "min", 0.0);
    m->max = number_or(o, "max", 1.0);
    m->attack_ms = number_or(o, "attackMs", 10.0);
    m->release_ms = number_or(o, "releaseMs", 250.0);
    m->enabled = bool_or(o, "enabled", true);
    const char* track = string_or(o, "track", nullptr);
    if (track) {
      m->track = copy_string(track);
      if (!m->track) return false;
    }
  }
  if (layer->modulation_count == 0) {
    free(layer->modulations);
    layer->modulations = nullptr;
  }
  return true;
}

int32_t mesh_cells(const cJSON* mesh, const char* key) {
  const cJSON* it = member(mesh, key);
  int32_t n = cJSON_IsNumber(it) ? to_i32(it->valuedouble) : 3;
  return n < 1 ? 1 : (n > 12 ? 12 : n);
}

bool read_mesh(const cJSON* mesh, kvl_layer* layer) {
  layer->has_mesh = true;
  layer->mesh_cols = mesh_cells(mesh, "cols");
  layer->mesh_rows = mesh_cells(mesh, "rows");
  int32_t points = (layer->mesh_cols + 1) * (layer->mesh_rows + 1);
  layer->mesh_offsets = static_cast<double*>(calloc(static_cast<size_t>(points) * 2, sizeof(double)));
  if (!layer->mesh_offsets) return false;
  // An offsets array of any other length belongs to another grid: ignore it whole.
  const cJSON* arr = array_at(mesh, "offsets");
  if (!arr || length_of(arr) != points) return true;
  int32_t i = 0;
  for (const cJSON* e = arr->child; e && i < points; e = e->next, i++) {
    if (cJSON_IsArray(e)) read_pair(e, &layer->mesh_offsets[2 * i], &layer->mesh_offsets[2 * i + 1]);
  }
  return true;
}

void read_effects(const cJSON* fx, kvl_layer* layer) {
  // Defaults stand even for an effect that is off, so a record is never half-set.
  layer->stroke_width = 6.0;
  layer->stroke_argb = 0xFFFFFFFFu;
  layer->shadow_argb = 0x99000000u;
  layer->glow_radius = 24.0;
  layer->glow_argb = 0xFF42C8F5u;
  layer->bevel_depth = 8.0;
  layer->bevel_highlight = 0xB3FFFFFFu;
  layer->bevel_shadow = 0xB3000000u;
  if (const cJSON* s = object_at(fx, "stroke")) {
    layer->has_stroke = true;
    layer->stroke_width = number_or(s, "width", 6.0);
    layer->stroke_argb = argb_or(s, "argb", 0xFFFFFFFFu);
  }
  if (const cJSON* s = object_at(fx, "shadow")) {
    layer->has_shadow = true;
    layer->shadow_dx = number_or(s, "dx", 0.0);
    layer->shadow_dy = number_or(s, "dy", 0.0);
    layer->shadow_blur = number_or(s, "blur", 0.0);
    layer->shadow_argb = argb_or(s, "argb", 0x99000000u);
  }
  if (const cJSON* g = object_at(fx, "glow")) {
    layer->has_glow = true;
    layer->glow_radius = number_or(g, "radius", 24.0);
    layer->glow_argb = argb_or(g, "argb", 0xFF42C8F5u);
  }
  if (const cJSON* b = object_at(fx, "bevel")) {
    layer->has_bevel = true;
    layer->bevel_depth = number_or(b, "depth", 8.0);
    layer->bevel_highlight = argb_or(b, "highlight", 0xB3FFFFFFu);
    layer->bevel_shadow = argb_or(b, "shadow", 0xB3000000u);
  }
}

kvl_shape_kind shape_kind_of(const char* s) {
  if (strcmp(s, "ellipse") == 0) return KVL_SHAPE_ELLIPSE;
  if (strcmp(s, "triangle") == 0) return KVL_SHAPE_TRIANGLE;
  if (strcmp(s, "polygon") == 0) return KVL_SHAPE_POLYGON;
  return KVL_SHAPE_QUAD;
}

bool read_layer(const cJSON* e, kvl_layer* layer) {
  const cJSON* m = as_object(e);
  layer->id = copy_string(string_or(m, "id", ""));
  if (!layer->id) return false;
  if (const char* g = string_or(m, "groupId", nullptr)) {
    if (!(layer->group_id = copy_string(g))) return false;
  }
  if (const char* o = string_or(m, "output", nullptr)) {
    if (!(layer->output = copy_string(o))) return false;
  }

  layer->shape = KVL_SHAPE_QUAD;
  if (const cJSON* shape = object_at(m, "shape")) {
    layer->shape = shape_kind_of(string_or(shape, "kind", "quad"));
    if (!read_vertices(member(shape, "vertices"), &layer->vertex_count, &layer->vertices)) return false;
  } else if (!read_vertices(member(m, "corners"), &layer->vertex_count, &layer->vertices)) {
    return false;
  }

  if (!read_paint(member(m, "paint"), &layer->paint, layer->id, -1)) return false;
  layer->opacity = number_or(m, "opacity", 1.0);
  layer->visible = bool_or(m, "visible", true);
  layer->luma_key = bool_or(m, "lumaKey", false);

  const cJSON* content = object_at(m, "content");
  layer->content_x = number_or(content, "x", 0.0);
  layer->content_y = number_or(content, "y", 0.0);
  layer->content_scale = number_or(content, "scale", 1.0);
  layer->content_rotation = number_or(content, "rotation", 0.0);

  if (!read_keyframes(member(m, "keyframes"), layer)) return false;
  if (!read_clips(member(m, "clips"), layer)) return false;

  if (const cJSON* mask = object_at(m, "mask")) {
    layer->has_mask = true;
    if (!read_vertices(member(mask, "vertices"), &layer->mask_vertex_count, &layer->mask_vertices)) return false;
    layer->mask_feather = number_or(mask, "feather", 0.0);
    layer->mask_inverted = bool_or(mask, "inverted", false);
  }

  read_effects(object_at(m, "effects"), layer);
  if (!read_modulations(member(m, "modulations"), layer)) return false;
  if (const cJSON* mesh = object_at(m, "mesh")) {
    if (!read_mesh(mesh, layer)) return false;
  }
  return true;
}

// Both forms of resolution: positional, a non-number element reads as 0, and
// each dimension not above 0 falls back on its own.
void read_resolution(const cJSON* res, double* w, double* h) {
  read_pair(cJSON_IsArray(res) ? res : nullptr, w, h);
  if (!(*w > 0.0)) *w = 1920.0;
  if (!(*h > 0.0)) *h = 1080.0;
}

bool read_outputs(const cJSON* root, kvl_scene* scene) {
  const cJSON* arr = array_at(root, "outputs");
  int32_t n = length_of(arr);
  if (n == 0) {
    scene->outputs = new_array<kvl_output>(1);
    if (!scene->outputs) return false;
    scene->output_count = 1;
    kvl_output* out = &scene->outputs[0];
    read_resolution(member(root, "resolution"), &out->width, &out->height);
    out->id = copy_string("main");
    return out->id != nullptr;
  }
  scene->outputs = new_array<kvl_output>(n);
  if (!scene->outputs) return false;
  scene->output_count = n;
  int32_t i = 0;
  for (const cJSON* e = arr->child; e && i < n; e = e->next, i++) {
    const cJSON* o = as_object(e);
    kvl_output* out = &scene->outputs[i];
    out->id = copy_string(string_or(o, "id", "main"));
    if (!out->id) return false;
    read_resolution(member(o, "resolution"), &out->width, &out->height);
  }
  return true;
}

bool read_groups(const cJSON* root, kvl_scene* scene) {
  const cJSON* arr = array_at(root, "groups");
  int32_t n = length_of(arr);
  if (n == 0) return true;
  scene->groups = new_array<kvl_group>(n);
  if (!scene->groups) return false;
  scene->group_count = n;
  int32_t i = 0;
  for (const cJSON* e = arr->child; e && i < n; e = e->next, i++) {
    const cJSON* o = as_object(e);
    kvl_group* g = &scene->groups[i];
    g->id = copy_string(string_or(o, "id", ""));
    if (!g->id) return false;
    g->visible = bool_or(o, "visible", true);
    g->opacity = number_or(o, "opacity", 1.0);
  }
  return true;
}

bool read_track(const cJSON* e, kvl_audio_track* t) {
  const cJSON* o = as_object(e);
  t->id = copy_string(string_or(o, "id", ""));
  if (!t->id) return false;
  t->muted = bool_or(o, "muted", false);
  t->is_input = object_at(o, "input") != nullptr;
  const cJSON* arr = array_at(o, "clips");
  int32_t n = length_of(arr);
  if (n == 0) return true;
  t->clips = new_array<kvl_audio_clip>(n);
  if (!t->clips) return false;
  t->clip_count = n;
  int32_t i = 0;
  for (const cJSON* c = arr->child; c && i < n; c = c->next, i++) {
    const cJSON* co = as_object(c);
    kvl_audio_clip* clip = &t->clips[i];
    clip->start_ms = time_or(co, "startMs", 0);
    clip->length_ms = time_or(co, "lengthMs", 0);
    clip->trim_start_ms = time_or(co, "trimStartMs", 0);
    clip->fade_in_ms = time_or(co, "fadeInMs", 0);
    clip->fade_out_ms = time_or(co, "fadeOutMs", 0);
    clip->path = copy_string(string_or(co, "path", ""));
    if (!clip->path) return false;
  }
  return true;
}

bool read_scene(const cJSON* json, kvl_scene* scene) {
  const cJSON* root = as_object(json);
  const cJSON* maps = array_at(root, "mappings");
  int32_t n = length_of(maps);
  if (n > 0) {
    scene->layers = new_array<kvl_layer>(n);
    if (!scene->layers) return false;
    scene->layer_count = n;
    int32_t i = 0;
    for (const cJSON* e = maps->child; e && i < n; e = e->next) {
      if (!read_layer(e, &scene->layers[i++])) return false;
    }
  }
  if (!read_groups(root, scene)) return false;
  if (!read_outputs(root, scene)) return false;

  const cJSON* tracks = array_at(root, "audioTracks");
  int32_t nt = length_of(tracks);
  if (nt > 0) {
    scene->tracks = new_array<kvl_audio_track>(nt);
    if (!scene->tracks) return false;
    scene->track_count = nt;
    int32_t i = 0;
    for (const cJSON* e = tracks->child; e && i < nt; e = e->next) {
      if (!read_track(e, &scene->tracks[i++])) return false;
    }
  }
  return true;
}

void write_invalid(char* error, int32_t error_size, const char* where) {
  if (error && error_size > 0) snprintf(error, static_cast<size_t>(error_size), "JSON inválido perto de: %.40s", where);
}

void write_out_of_memory(char* error, int32_t error_size) {
  if (error && error_size > 0) snprintf(error, static_cast<size_t>(error_size), "sem memória");
}

void free_layer(kvl_layer* l) {
  free(l->id);
  free(l->group_id);
  free(l->output);
  free(l->vertices);
  free(l->paint.ref);
  for (int32_t k = 0; k < l->keyframe_count; k++) free(l->keyframes[k].prop);
  free(l->keyframes);
  for (int32_t c = 0; c < l->clip_count; c++) free(l->clips[c].paint.ref);
  free(l->clips);
  free(l->mask_vertices);
  free(l->mesh_offsets);
  for (int32_t m = 0; m < l->modulation_count; m++) {
    free(l->modulations[m].id);
    free(l->modulations[m].prop);
    free(l->modulations[m].track);
  }
  free(l->modulations);
}

// ---------------------------------------------------------------------------
// Keyframes.

// The keyframes of one property that bracket a moment: `prev` is the latest at
// or before it (the last in the array among equal times), `next` the earliest
// after it (the first among equal times). -1 when there is none.
struct Span {
  int32_t prev, next;
};

inline void span_add(Span* s, const kvl_keyframe* kf, int32_t i, double t) {
  int64_t ti = kf[i].time_ms;
  if (static_cast<double>(ti) <= t) {
    if (s->prev < 0 || ti >= kf[s->prev].time_ms) s->prev = i;
  } else if (s->next < 0 || ti < kf[s->next].time_ms) {
    s->next = i;
  }
}

inline bool span_any(const Span& s) { return s.prev >= 0 || s.next >= 0; }

double eased(kvl_easing easing, double u) {
  switch (easing) {
    case KVL_EASE_IN:
      return u * u;
    case KVL_EASE_OUT:
      return 1.0 - (1.0 - u) * (1.0 - u);
    case KVL_EASE_IN_OUT:
      return u < 0.5 ? 2.0 * u * u : 1.0 - 0.5 * (2.0 - 2.0 * u) * (2.0 - 2.0 * u);
    case KVL_EASE_HOLD:
      return 0.0;
    default:
      return u;
  }
}

// Value of a span that holds at least one keyframe.
double span_value(const Span& s, const kvl_keyframe* kf, double t) {
  if (s.prev < 0) return kf[s.next].value;
  if (s.next < 0) return kf[s.prev].value;
  const kvl_keyframe& a = kf[s.prev];
  const kvl_keyframe& b = kf[s.next];
  double t0 = static_cast<double>(a.time_ms);
  double width = static_cast<double>(b.time_ms) - t0;
  // Distinct int64 times far beyond 2^53 can meet as one double.
  double u = width > 0.0 ? (t - t0) / width : 0.0;
  return a.value + (b.value - a.value) * eased(a.easing, u);
}

// Properties that resolution animates, and the code for a vertex coordinate.
enum {
  PROP_OPACITY,
  PROP_CONTENT_X,
  PROP_CONTENT_Y,
  PROP_CONTENT_SCALE,
  PROP_CONTENT_ROTATION,
  PROP_STROKE_WIDTH,
  PROP_SHADOW_X,
  PROP_SHADOW_Y,
  PROP_SHADOW_BLUR,
  PROP_GLOW_RADIUS,
  PROP_BEVEL_DEPTH,
  PROP_NAMED_COUNT,
  PROP_VERTEX = PROP_NAMED_COUNT,  // *index and *axis say which coordinate
  PROP_NONE = -1
};

// Reads "c<i>x" / "c<i>y" the way "c%dx" writes it: decimal, no sign, no
// leading zero. Only indices of existing vertices count.
int32_t vertex_prop(const char* s, int32_t vertex_count, int32_t* index, int32_t* axis) {
  const char* p = s + 1;
  if (*p < '0' || *p > '9') return PROP_NONE;
  if (*p == '0' && p[1] >= '0' && p[1] <= '9') return PROP_NONE;
  int64_t i = 0;
  while (*p >= '0' && *p <= '9') {
    i = i * 10 + (*p - '0');
    if (i >= vertex_count) return PROP_NONE;
    p++;
  }
  if ((*p != 'x' && *p != 'y') || p[1] != '\0') return PROP_NONE;
  *index = static_cast<int32_t>(i);
  *axis = *p == 'y';
  return PROP_VERTEX;
}

int32_t classify(const char* s, int32_t vertex_count, int32_t* index, int32_t* axis) {
  if (!s) return PROP_NONE;
  switch (s[0]) {
    case 'o':
      return strcmp(s, "opacity") == 0 ? PROP_OPACITY : PROP_NONE;
    case 'c':
      if (s[1] >= '0' && s[1] <= '9') return vertex_prop(s, vertex_count, index, axis);
      if (strncmp(s, "content", 7) != 0) return PROP_NONE;
      if (strcmp(s + 7, "X") == 0) return PROP_CONTENT_X;
      if (strcmp(s + 7, "Y") == 0) return PROP_CONTENT_Y;
      if (strcmp(s + 7, "Scale") == 0) return PROP_CONTENT_SCALE;
      if (strcmp(s + 7, "Rotation") == 0) return PROP_CONTENT_ROTATION;
      return PROP_NONE;
    case 's':
      if (strcmp(s, "strokeWidth") == 0) return PROP_STROKE_WIDTH;
      if (strncmp(s, "shadow", 6) != 0) return PROP_NONE;
      if (strcmp(s + 6, "X") == 0) return PROP_SHADOW_X;
      if (strcmp(s + 6, "Y") == 0) return PROP_SHADOW_Y;
      if (strcmp(s + 6, "Blur") == 0) return PROP_SHADOW_BLUR;
      return PROP_NONE;
    case 'g':
      return strcmp(s, "glowRadius") == 0 ? PROP_GLOW_RADIUS : PROP_NONE;
    case 'b':
      return strcmp(s, "bevelDepth") == 0 ? PROP_BEVEL_DEPTH : PROP_NONE;
    default:
      return PROP_NONE;
  }
}

// Vertex coordinates are gathered this many vertices at a time, so that the
// per-frame state fits on the stack whatever the layer's vertex count.
constexpr int32_t kVertexBatch = 32;

void init_spans(Span* spans, int32_t n) {
  // All bits set is -1 in both fields.
  memset(spans, 0xff, sizeof(Span) * static_cast<size_t>(n));
}

void apply_vertex_spans(const Span* spans, const kvl_keyframe* kf, double* vertices, int32_t base,
                        int32_t vertex_count, double t) {
  int32_t n = vertex_count - base < kVertexBatch ? vertex_count - base : kVertexBatch;
  for (int32_t j = 0; j < 2 * n; j++) {
    if (span_any(spans[j])) vertices[2 * base + j] = span_value(spans[j], kf, t);
  }
}

// Applies the keyframes of vertices [base, base + kVertexBatch), for the rare
// layer whose animated vertices do not fit in the first batch.
void apply_vertex_batch(const kvl_layer* layer, double* vertices, int32_t base, double t) {
  Span spans[2 * kVertexBatch];
  init_spans(spans, 2 * kVertexBatch);
  const kvl_keyframe* kf = layer->keyframes;
  for (int32_t k = 0; k < layer->keyframe_count; k++) {
    const char* p = kf[k].prop;
    if (!p || p[0] != 'c') continue;
    int32_t index, axis;
    if (vertex_prop(p, layer->vertex_count, &index, &axis) != PROP_VERTEX) continue;
    if (index < base || index - base >= kVertexBatch) continue;
    span_add(&spans[2 * (index - base) + axis], kf, k, t);
  }
  apply_vertex_spans(spans, kf, vertices, base, layer->vertex_count, t);
}

double clamp01(double v) { return v < 0.0 ? 0.0 : (v > 1.0 ? 1.0 : v); }

}  // namespace

// ---------------------------------------------------------------------------
// Public interface.

kvl_scene* kvl_scene_parse(const char* text, char* error, int32_t error_size) {
  if (!text) {
    write_invalid(error, error_size, "");
    return nullptr;
  }
  const char* where = nullptr;
  cJSON* root = cJSON_ParseWithOpts(text, &where, 0);
  if (!root) {
    write_invalid(error, error_size, where ? where : "");
    return nullptr;
  }
  auto* scene = static_cast<kvl_scene*>(calloc(1, sizeof(kvl_scene)));
  bool ok = scene && read_scene(root, scene);
  cJSON_Delete(root);
  if (!ok) {
    kvl_scene_free(scene);
    write_out_of_memory(error, error_size);
    return nullptr;
  }
  return scene;
}

void kvl_scene_free(kvl_scene* scene) {
  if (!scene) return;
  for (int32_t i = 0; i < scene->layer_count; i++) free_layer(&scene->layers[i]);
  free(scene->layers);
  for (int32_t i = 0; i < scene->group_count; i++) free(scene->groups[i].id);
  free(scene->groups);
  for (int32_t i = 0; i < scene->output_count; i++) free(scene->outputs[i].id);
  free(scene->outputs);
  for (int32_t i = 0; i < scene->track_count; i++) {
    kvl_audio_track* t = &scene->tracks[i];
    free(t->id);
    for (int32_t c = 0; c < t->clip_count; c++) free(t->clips[c].path);
    free(t->clips);
  }
  free(scene->tracks);
  free(scene);
}

const kvl_audio_track* kvl_scene_audio_track(const kvl_scene* scene, const char* id) {
  if (!scene || !id) return nullptr;
  for (int32_t i = 0; i < scene->track_count; i++) {
    const char* tid = scene->tracks[i].id;
    if (tid && strcmp(tid, id) == 0) return &scene->tracks[i];
  }
  return nullptr;
}

bool kvl_animated(const kvl_layer* layer, const char* prop, double* out, double time_ms) {
  if (!layer || !prop) return false;
  Span s = {-1, -1};
  const kvl_keyframe* kf = layer->keyframes;
  for (int32_t k = 0; k < layer->keyframe_count; k++) {
    if (kf[k].prop && strcmp(kf[k].prop, prop) == 0) span_add(&s, kf, k, time_ms);
  }
  if (!span_any(s)) return false;
  if (out) *out = span_value(s, kf, time_ms);
  return true;
}

void kvl_layer_resolve(const kvl_scene* scene, const kvl_layer* layer, double* vertices, kvl_resolved* out,
                       double t) {
  if (!out) return;
  memset(out, 0, sizeof *out);
  if (!layer) return;

  // 1. Base values.
  out->layer = layer;
  out->vertices = vertices;
  out->paint = layer->paint;
  out->opacity = layer->opacity;
  out->visible = layer->visible;
  out->content_x = layer->content_x;
  out->content_y = layer->content_y;
  out->content_scale = layer->content_scale;
  out->content_rotation = layer->content_rotation;
  if (vertices && layer->vertices) {
    for (int32_t i = 0; i < layer->vertex_count; i++) {
      vertices[2 * i] = layer->vertices[i].x;
      vertices[2 * i + 1] = layer->vertices[i].y;
    }
  }

  // 2. Keyframes: one pass gathers the span of every named property and of
  // the first batch of vertex coordinates.
  const kvl_keyframe* kf = layer->keyframes;
  Span named[PROP_NAMED_COUNT];
  init_spans(named, PROP_NAMED_COUNT);
  Span first_batch[2 * kVertexBatch];
  bool any_vertex = false;
  int32_t highest_vertex = -1;
  for (int32_t k = 0; k < layer->keyframe_count; k++) {
    int32_t index = 0, axis = 0;
    int32_t code = classify(kf[k].prop, layer->vertex_count, &index, &axis);
    if (code == PROP_NONE) continue;
    if (code != PROP_VERTEX) {
      span_add(&named[code], kf, k, t);
      continue;
    }
    if (!any_vertex) {
      // Only the coordinates of existing vertices are ever read back.
      init_spans(first_batch, 2 * (layer->vertex_count < kVertexBatch ? layer->vertex_count : kVertexBatch));
      any_vertex = true;
    }
    if (index > highest_vertex) highest_vertex = index;
    if (index < kVertexBatch) span_add(&first_batch[2 * index + axis], kf, k, t);
  }
  if (span_any(named[PROP_OPACITY])) out->opacity = clamp01(span_value(named[PROP_OPACITY], kf, t));
  if (span_any(named[PROP_CONTENT_X])) out->content_x = span_value(named[PROP_CONTENT_X], kf, t);
  if (span_any(named[PROP_CONTENT_Y])) out->content_y = span_value(named[PROP_CONTENT_Y], kf, t);
  if (span_any(named[PROP_CONTENT_SCALE])) out->content_scale = span_value(named[PROP_CONTENT_SCALE], kf, t);
  if (span_any(named[PROP_CONTENT_ROTATION]))
    out->content_rotation = span_value(named[PROP_CONTENT_ROTATION], kf, t);

  out->has_stroke = layer->has_stroke;
  out->has_shadow = layer->has_shadow;
  out->has_glow = layer->has_glow;
  out->has_bevel = layer->has_bevel;
  out->stroke_width = layer->stroke_width;
  out->stroke_argb = layer->stroke_argb;
  out->shadow_dx = layer->shadow_dx;
  out->shadow_dy = layer->shadow_dy;
  out->shadow_blur = layer->shadow_blur;
  out->shadow_argb = layer->shadow_argb;
  out->glow_radius = layer->glow_radius;
  out->glow_argb = layer->glow_argb;
  out->bevel_depth = layer->bevel_depth;
  out->bevel_highlight = layer->bevel_highlight;
  out->bevel_shadow = layer->bevel_shadow;
  // An animated property of an effect that is off stays as it was.
  if (layer->has_stroke && span_any(named[PROP_STROKE_WIDTH]))
    out->stroke_width = span_value(named[PROP_STROKE_WIDTH], kf, t);
  if (layer->has_shadow) {
    if (span_any(named[PROP_SHADOW_X])) out->shadow_dx = span_value(named[PROP_SHADOW_X], kf, t);
    if (span_any(named[PROP_SHADOW_Y])) out->shadow_dy = span_value(named[PROP_SHADOW_Y], kf, t);
    if (span_any(named[PROP_SHADOW_BLUR])) out->shadow_blur = span_value(named[PROP_SHADOW_BLUR], kf, t);
  }
  if (layer->has_glow && span_any(named[PROP_GLOW_RADIUS]))
    out->glow_radius = span_value(named[PROP_GLOW_RADIUS], kf, t);
  if (layer->has_bevel && span_any(named[PROP_BEVEL_DEPTH]))
    out->bevel_depth = span_value(named[PROP_BEVEL_DEPTH], kf, t);

  if (any_vertex && vertices) {
    apply_vertex_spans(first_batch, kf, vertices, 0, layer->vertex_count, t);
    for (int32_t base = kVertexBatch; base <= highest_vertex; base += kVertexBatch) {
      apply_vertex_batch(layer, vertices, base, t);
    }
  }

  // 3. Active clip: the last one in the array whose [start, start + length)
  // holds t. Sums are taken in doubles: int64 times from a document can be
  // anything, and their sum must not overflow.
  const kvl_clip* clip = nullptr;
  for (int32_t i = 0; i < layer->clip_count; i++) {
    const kvl_clip* c = &layer->clips[i];
    double start = static_cast<double>(c->start_ms);
    if (start <= t && t < start + static_cast<double>(c->length_ms)) clip = c;
  }
  if (clip) {
    double start = static_cast<double>(clip->start_ms);
    double d = t - start;
    double f = 1.0;
    if (clip->fade_in_ms >= 1 && d < static_cast<double>(clip->fade_in_ms)) {
      f = d / static_cast<double>(clip->fade_in_ms);
    }
    double left = start + static_cast<double>(clip->length_ms) - t;
    if (clip->fade_out_ms >= 1 && left < static_cast<double>(clip->fade_out_ms)) {
      double g = left / static_cast<double>(clip->fade_out_ms);
      if (g < f) f = g;
    }
    double c = clamp01(clip->opacity * f);
    out->opacity = span_any(named[PROP_OPACITY]) ? out->opacity * c : c;
    out->paint = clip->paint;
    if (clip->paint.kind == KVL_PAINT_VIDEO || clip->paint.kind == KVL_PAINT_ASSET_VIDEO) {
      out->has_media_time = true;
      out->media_speed = clip->speed;
      double trim = static_cast<double>(clip->trim_start_ms);
      double played = d * clip->speed;
      double pos = trim + played;
      if (clip->loop && clip->has_media_duration && clip->media_duration_ms > clip->trim_start_ms) {
        double span = static_cast<double>(clip->media_duration_ms) - trim;
        pos = fmod(played, span) + trim;
        if (pos < trim) pos += span;  // a negative speed runs backwards into the span
      }
      out->media_time_ms = pos;
    }
  } else if (layer->paint.kind == KVL_PAINT_VIDEO || layer->paint.kind == KVL_PAINT_ASSET_VIDEO) {
    out->has_media_time = true;
    out->media_time_ms = t;
    out->media_speed = 1.0;
  }

  // 4. Group.
  if (scene && layer->group_id) {
    for (int32_t i = 0; i < scene->group_count; i++) {
      const kvl_group* g = &scene->groups[i];
      if (!g->id || strcmp(g->id, layer->group_id) != 0) continue;
      out->visible = out->visible && g->visible;
      out->opacity *= g->opacity;
      break;
    }
  }
}
