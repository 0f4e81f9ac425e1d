// Audio modulation: signals become envelopes (one-pole smoothing with attack
// and release), and envelopes change properties of a resolved layer.
//
// Two roads lead to an envelope. Live modulations keep a running value in the
// handle's envelope table, stepped once a frame from the named live sources.
// File modulations keep no state at all: the envelope is recomputed from the
// signal tables of the track's clips over a short warm-up window, so it is the
// same after a jump of the play head as after playing up to there.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "engine_internal.h"

namespace {

constexpr int32_t kMaxEnvelopes = 64;  // per layer, in resolve_all
constexpr int32_t kMaxSourceReads = 16;
constexpr double kGridMs = 10.0;

char* dup_string(const char* s) {
  size_t n = strlen(s) + 1;
  char* d = static_cast<char*>(malloc(n));
  if (d) memcpy(d, s, n);
  return d;
}

const char* id_of(const kvl_modulation* m) { return m->id ? m->id : ""; }

double clamp01(double v) {
  if (!(v >= 0.0)) return 0.0;  // NaN too
  return v > 1.0 ? 1.0 : v;
}

// The live source a modulation listens to, or null when it belongs to the
// file road: no track means the default source "", an input track means the
// source named by the track's id.
const char* live_source_name(const kvl_scene* scene, const kvl_modulation* m) {
  if (!m->track) return "";
  const kvl_audio_track* t = kvl_scene_audio_track(scene, m->track);
  if (t && t->is_input && t->id) return t->id;
  return nullptr;
}

// Index in the live envelope table, or -1.
int32_t find_envelope(const kvl_engine* e, const char* id) {
  for (int32_t i = 0; i < e->env_count; i++)
    if (strcmp(e->env_ids[i], id) == 0) return i;
  return -1;
}

double live_envelope(const kvl_engine* e, const kvl_modulation* m) {
  int32_t i = find_envelope(e, id_of(m));
  return i >= 0 ? e->env_values[i] : -1.0;
}

void free_envelopes(kvl_engine* e) {
  for (int32_t i = 0; i < e->env_count; i++) free(e->env_ids[i]);
  free(e->env_ids);
  free(e->env_values);
  e->env_ids = nullptr;
  e->env_values = nullptr;
  e->env_count = 0;
}

// A fresh envelope table being built by one step; installed whole at the end.
struct EnvTable {
  char** ids = nullptr;
  double* values = nullptr;
  int32_t count = 0;
  int32_t capacity = 0;

  bool init(int32_t n) {
    capacity = n > 0 ? n : 1;
    ids = static_cast<char**>(calloc(capacity, sizeof(char*)));
    values = static_cast<double*>(calloc(capacity, sizeof(double)));
    return ids && values;
  }
  bool has(const char* id) const {
    for (int32_t i = 0; i < count; i++)
      if (strcmp(ids[i], id) == 0) return true;
    return false;
  }
  bool add(const char* id, double v) {
    if (count >= capacity) return false;
    char* copy = dup_string(id);
    if (!copy) return false;
    ids[count] = copy;
    values[count] = v;
    count++;
    return true;
  }
  void release() {
    for (int32_t i = 0; i < count; i++) free(ids[i]);
    free(ids);
    free(values);
  }
  void install(kvl_engine* e) {
    free_envelopes(e);
    e->env_ids = ids;
    e->env_values = values;
    e->env_count = count;
  }
};

int32_t selected_modulation_count(const kvl_engine* e) {
  int64_t total = 0;
  for (int32_t i = 0; i < e->layer_count; i++) total += e->layers[i]->modulation_count;
  return total > 0x7fffffff ? 0x7fffffff : static_cast<int32_t>(total);
}

// The envelope a step starts from: the old value under the id, or 0.
double previous_envelope(const kvl_engine* e, const char* id) {
  int32_t i = find_envelope(e, id);
  if (i < 0 || !(e->env_values[i] >= 0.0)) return 0.0;
  return e->env_values[i];
}

// Appends a (key, table) entry to the handle's signal tables; the table may be
// null, standing for a failed load. Out of memory frees the table and
// returns false, leaving the tables as they were.
bool append_signals(kvl_engine* e, const char* key, kvl_signals* table) {
  char* key_copy = dup_string(key);
  auto* keys = static_cast<char**>(realloc(e->signal_keys, (e->signal_count + 1) * sizeof(char*)));
  if (keys) e->signal_keys = keys;
  auto* tables =
      static_cast<kvl_signals**>(realloc(e->signal_tables, (e->signal_count + 1) * sizeof(kvl_signals*)));
  if (tables) e->signal_tables = tables;
  if (!key_copy || !keys || !tables) {
    free(key_copy);
    kvl_signals_free(table);
    return false;
  }
  e->signal_keys[e->signal_count] = key_copy;
  e->signal_tables[e->signal_count] = table;
  e->signal_count++;
  return true;
}

// Signal table for a media key, loaded beside the media on first use. A failed
// load is remembered as a null entry, so a missing file costs one disk access
// until the next scene or media-root change sweeps the failures out.
const kvl_signals* signals_for(kvl_engine* e, const char* key) {
  if (!key) key = "";
  for (int32_t i = 0; i < e->signal_count; i++)
    if (strcmp(e->signal_keys[i], key) == 0) return e->signal_tables[i];

  const char* root = e->media_root;
  bool absolute = key[0] == '/' || (key[0] != '\0' && key[1] == ':');
  int n;
  char small[512];
  char* path = small;
  if (root && root[0] && !absolute) {
    n = snprintf(small, sizeof small, "%s/%s.signals", root, key);
    if (n >= static_cast<int>(sizeof small)) {
      path = static_cast<char*>(malloc(static_cast<size_t>(n) + 1));
      if (path) snprintf(path, static_cast<size_t>(n) + 1, "%s/%s.signals", root, key);
    }
  } else {
    n = snprintf(small, sizeof small, "%s.signals", key);
    if (n >= static_cast<int>(sizeof small)) {
      path = static_cast<char*>(malloc(static_cast<size_t>(n) + 1));
      if (path) snprintf(path, static_cast<size_t>(n) + 1, "%s.signals", key);
    }
  }
  kvl_signals* table = (n >= 0 && path) ? kvl_signals_load(path) : nullptr;
  if (path != small) free(path);

  // Out of memory: nothing is remembered, and the modulation stays silent.
  return append_signals(e, key, table) ? table : nullptr;
}

// Fade factor of an audio clip at a timeline moment; 0 outside the clip.
double clip_ramp(const kvl_audio_clip* clip, double time_ms) {
  const double start = static_cast<double>(clip->start_ms);
  const double end = start + static_cast<double>(clip->length_ms);
  if (!(time_ms >= start && time_ms < end)) return 0.0;
  double r = 1.0;
  if (clip->fade_in_ms >= 1 && time_ms - start < static_cast<double>(clip->fade_in_ms))
    r = (time_ms - start) / static_cast<double>(clip->fade_in_ms);
  double q = end - time_ms;
  if (clip->fade_out_ms >= 1 && q < static_cast<double>(clip->fade_out_ms)) {
    double out = q / static_cast<double>(clip->fade_out_ms);
    if (out < r) r = out;
  }
  return r;
}

// One signal of a table at a moment, exactly as kvl_signals_at gives it
// (interpolated, rounded to float, 0 outside the table), without computing
// the four signals that the envelope does not use.
float table_signal(const kvl_signals* tb, int32_t source, double time_ms) {
  if (!tb || tb->frame_count == 0) return 0.0f;
  const double n = static_cast<double>(tb->frame_count);
  double p = (static_cast<double>(tb->frame_rate) * 0.001) * (time_ms - static_cast<double>(tb->start_ms));
  if (!(p >= 0.0) || p > n - 1.0) return 0.0f;
  uint32_t i = static_cast<uint32_t>(p);
  double f = p - static_cast<double>(i);
  uint32_t j = i + 1 < tb->frame_count ? i + 1 : i;
  double bi = tb->frames[static_cast<size_t>(i) * 5 + source], bj = tb->frames[static_cast<size_t>(j) * 5 + source];
  return static_cast<float>((bi + (bj - bi) * f) / 255.0);
}

// Clip tables of one track, looked up once per envelope for the first
// kCachedClips clips; clips past those (rare) are looked up by key on each
// use, so an envelope never allocates.
constexpr int32_t kCachedClips = 32;
struct ClipTables {
  kvl_engine* engine;
  const kvl_audio_track* track;
  const kvl_signals* cached[kCachedClips];
  const kvl_signals* get(int32_t c) const {
    return c < kCachedClips ? cached[c] : signals_for(engine, track->clips[c].path);
  }
};

// The signal `source` of a file track at time s: clips combine by maximum,
// each scaled by its fade ramp.
double track_signal_at(const ClipTables& tables, int32_t source, double s) {
  const kvl_audio_track* t = tables.track;
  double best = 0.0;
  if (t->muted) return best;
  for (int32_t c = 0; c < t->clip_count; c++) {
    const kvl_audio_clip* clip = &t->clips[c];
    double r = clip_ramp(clip, s);
    if (!(r > 0.0)) continue;
    double media = s + static_cast<double>(clip->trim_start_ms) - static_cast<double>(clip->start_ms);
    double x = static_cast<double>(table_signal(tables.get(c), source, media)) * r;
    if (x > best) best = x;
  }
  return best;
}

// Stateless envelope of a file-road modulation at time t (ms): replays the
// signal over a warm-up window long enough for the smoothing to forget where
// it started, on a 10 ms grid so nearby frames see the same history.
double track_envelope(kvl_engine* e, const kvl_modulation* m, double t) {
  const kvl_audio_track* track = kvl_scene_audio_track(e->scene, m->track);
  if (!track) return -1.0;

  ClipTables tables{e, track, {}};
  for (int32_t c = 0; c < track->clip_count; c++) {
    const kvl_signals* table = signals_for(e, track->clips[c].path);
    if (!table) return -1.0;  // one missing table silences the whole track
    if (c < kCachedClips) tables.cached[c] = table;
  }
  double w = 5.0 * (m->attack_ms > m->release_ms ? m->attack_ms : m->release_ms);
  if (!(w >= 10.0)) w = 10.0;
  if (w > 8000.0) w = 8000.0;
  double s = kGridMs * std::floor((t - w) / kGridMs);
  double env = 0.0;
  const int32_t source = m->source >= 0 && m->source < 5 ? m->source : 0;
  // Whole grid steps share their smoothing factors, computed once here:
  // the same values kvl_envelope_step computes, without 800 calls to exp.
  const bool smooth_up = m->attack_ms > 0.0, smooth_down = m->release_ms > 0.0;
  const double up = smooth_up ? 1.0 - std::exp(-kGridMs / m->attack_ms) : 1.0;
  const double down = smooth_down ? 1.0 - std::exp(-kGridMs / m->release_ms) : 1.0;
  // The window is at most 8010 ms, so about 800 steps; the bound only
  // guards against times so large that adding 10 no longer moves s.
  for (int32_t guard = 0; s < t && guard < 1000; guard++) {
    double step = t - s < kGridMs ? t - s : kGridMs;
    s += step;
    const double value = track_signal_at(tables, source, s);
    if (step == kGridMs) {
      const double x = clamp01(value);
      const bool rising = x > env;
      if (rising ? smooth_up : smooth_down) env += (rising ? up : down) * (x - env);
      else env = x;
    } else {
      env = kvl_envelope_step(m, env, value, step);
    }
  }
  return env;
}

// Envelope of one modulation at frame time time_ms, on whichever road it is.
double envelope_of(kvl_engine* e, const kvl_modulation* m, double time_ms) {
  if (live_source_name(e->scene, m)) return live_envelope(e, m);
  double t = e->audio_time >= 0.0 ? e->audio_time : time_ms;
  return track_envelope(e, m, t);
}

}  // namespace

double kvl_envelope_step(const kvl_modulation* m, double envelope, double target, double dt_ms) {
  double x = clamp01(target);
  if (!m) return x;
  double tau = x > envelope ? m->attack_ms : m->release_ms;
  if (!(tau > 0.0)) return x;
  return envelope + (1.0 - std::exp(-dt_ms / tau)) * (x - envelope);
}

double kvl_audio_clip_ramp(const kvl_audio_clip* clip, double time_ms) {
  return clip ? clip_ramp(clip, time_ms) : 0.0;
}

void kvl_layer_modulate(const kvl_layer* layer, const double* envelopes, kvl_resolved* out) {
  if (!layer || !envelopes || !out) return;
  const int32_t n = layer->modulation_count < kMaxEnvelopes ? layer->modulation_count : kMaxEnvelopes;
  for (int32_t k = 0; k < n; k++) {
    const kvl_modulation* m = &layer->modulations[k];
    if (!m->enabled || !m->prop) continue;
    const char* p = m->prop;
    double* target = nullptr;
    bool opacity = false;
    if (!strcmp(p, "opacity")) {
      target = &out->opacity;
      opacity = true;
    } else if (!strcmp(p, "contentX")) {
      target = &out->content_x;
    } else if (!strcmp(p, "contentY")) {
      target = &out->content_y;
    } else if (!strcmp(p, "contentScale")) {
      target = &out->content_scale;
    } else if (!strcmp(p, "contentRotation")) {
      target = &out->content_rotation;
    } else if (!strcmp(p, "strokeWidth")) {
      if (out->has_stroke) target = &out->stroke_width;
    } else if (!strcmp(p, "shadowX")) {
      if (out->has_shadow) target = &out->shadow_dx;
    } else if (!strcmp(p, "shadowY")) {
      if (out->has_shadow) target = &out->shadow_dy;
    } else if (!strcmp(p, "shadowBlur")) {
      if (out->has_shadow) target = &out->shadow_blur;
    } else if (!strcmp(p, "glowRadius")) {
      if (out->has_glow) target = &out->glow_radius;
    } else if (!strcmp(p, "bevelDepth")) {
      if (out->has_bevel) target = &out->bevel_depth;
    } else {
      // Vertex form "c<i><x|y>", read the way sscanf reads "c%d%c": the
      // number may have blanks and a sign before it, and only the first
      // character after it counts, so "c2xyz" means the x of vertex 2.
      // strtol saturates where %d would overflow.
      if (p[0] == 'c') {
        char* end = nullptr;
        long index = strtol(p + 1, &end, 10);
        const char axis = end && end != p + 1 ? *end : '\0';
        if (out->vertices && index >= 0 && index < layer->vertex_count) {
          if (axis == 'x') target = &out->vertices[2 * index];
          else if (axis == 'y') target = &out->vertices[2 * index + 1];
        }
      }
    }
    if (!target) continue;

    double env = envelopes[k];
    if (!(env >= 0.0)) continue;
    if (env > 1.0) env = 1.0;
    const double v = m->min + (m->max - m->min) * env;
    if (m->mode == KVL_MOD_ADD) {
      *target += v;
    } else if (opacity) {
      // On opacity "set" scales the timeline value: the music can dim a
      // layer but never make it brighter than its timeline says.
      *target *= v;
    } else {
      *target = v;
    }
    if (opacity) *target = clamp01(*target);
  }
}

double modulation_envelope(kvl_engine* e, const kvl_layer* layer, int32_t mi, double time_ms) {
  if (!e || !layer || mi < 0 || mi >= layer->modulation_count) return -1.0;
  return envelope_of(e, &layer->modulations[mi], time_ms);
}

void compact_signals(kvl_engine* e) {
  if (!e) return;
  int32_t kept = 0;
  for (int32_t i = 0; i < e->signal_count; i++) {
    if (!e->signal_tables[i]) {
      free(e->signal_keys[i]);
      continue;
    }
    e->signal_keys[kept] = e->signal_keys[i];
    e->signal_tables[kept] = e->signal_tables[i];
    kept++;
  }
  e->signal_count = kept;
}

void free_audio_tables(kvl_engine* e) {
  if (!e) return;
  free_envelopes(e);
  for (int32_t i = 0; i < e->signal_count; i++) {
    free(e->signal_keys[i]);
    kvl_signals_free(e->signal_tables[i]);
  }
  free(e->signal_keys);
  free(e->signal_tables);
  e->signal_keys = nullptr;
  e->signal_tables = nullptr;
  e->signal_count = 0;
}

double kvl_engine_envelope_at(kvl_engine* e, const char* modulation_id, int64_t time_us) {
  if (!e || !modulation_id) return -1.0;
  // The whole scene, in layer order, other outputs included: the interface
  // shows envelopes of any layer.
  const kvl_scene* scene = e->scene;
  for (int32_t i = 0; i < scene->layer_count; i++) {
    const kvl_layer* layer = &scene->layers[i];
    for (int32_t k = 0; k < layer->modulation_count; k++) {
      const kvl_modulation* m = &layer->modulations[k];
      if (strcmp(id_of(m), modulation_id) == 0) return envelope_of(e, m, static_cast<double>(time_us) * 0.001);
    }
  }
  return -1.0;
}

void kvl_engine_set_signals(kvl_engine* e, const float* signals, double dt_ms) {
  if (!e || !signals) return;
  EnvTable next;
  if (!next.init(selected_modulation_count(e))) {
    next.release();
    return;
  }
  for (int32_t i = 0; i < e->layer_count; i++) {
    const kvl_layer* layer = e->layers[i];
    for (int32_t k = 0; k < layer->modulation_count; k++) {
      const kvl_modulation* m = &layer->modulations[k];
      if (!live_source_name(e->scene, m)) continue;
      const char* id = id_of(m);
      if (next.has(id)) continue;
      const int32_t source = m->source >= 0 && m->source < 5 ? m->source : 0;
      double v = kvl_envelope_step(m, previous_envelope(e, id), signals[source], dt_ms);
      if (!next.add(id, v)) {
        next.release();
        return;
      }
    }
  }
  next.install(e);
}

void kvl_engine_step_audio(kvl_engine* e, double dt_ms) {
  if (!e) return;
  EnvTable next;
  if (!next.init(selected_modulation_count(e))) {
    next.release();
    return;
  }
  // One read per distinct source per step: the audio lock is taken once for
  // each, not once for each modulation.
  const char* names[kMaxSourceReads];
  kvl_audio_state reads[kMaxSourceReads];
  int32_t read_count = 0;
  for (int32_t i = 0; i < e->layer_count; i++) {
    const kvl_layer* layer = e->layers[i];
    for (int32_t k = 0; k < layer->modulation_count; k++) {
      const kvl_modulation* m = &layer->modulations[k];
      const char* name = live_source_name(e->scene, m);
      if (!name) continue;
      const char* id = id_of(m);
      if (next.has(id)) continue;
      int32_t r = 0;
      while (r < read_count && strcmp(names[r], name) != 0) r++;
      if (r == read_count) {
        if (read_count >= kMaxSourceReads) continue;
        names[r] = name;
        kvl_audio_source_read(name, &reads[r]);
        read_count++;
      }
      // A silent source leaves the property alone and forgets the envelope.
      if (!reads[r].live) continue;
      const kvl_audio_state& st = reads[r];
      const float sig[5] = {st.level, st.bass, st.mid, st.high, st.beat};
      const int32_t source = m->source >= 0 && m->source < 5 ? m->source : 0;
      double v = kvl_envelope_step(m, previous_envelope(e, id), sig[source], dt_ms);
      if (!next.add(id, v)) {
        next.release();
        return;
      }
    }
  }
  next.install(e);
}

int32_t kvl_engine_set_track_signals(kvl_engine* e, const char* key, const void* bytes, int32_t length) {
  if (!e || !key) return -1;
  kvl_signals* table = kvl_signals_parse(bytes, length);
  if (!table) return -2;
  for (int32_t i = 0; i < e->signal_count; i++) {
    if (strcmp(e->signal_keys[i], key) == 0) {
      kvl_signals_free(e->signal_tables[i]);
      e->signal_tables[i] = table;
      return 0;
    }
  }
  return append_signals(e, key, table) ? 0 : -2;
}

void kvl_engine_set_audio_time(kvl_engine* e, double time_ms) {
  if (e) e->audio_time = time_ms;
}
