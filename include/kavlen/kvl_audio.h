/* Kavlen engine: the live audio analyser and the process-wide named sources.
 *
 * An analyser turns mono float samples into level, bass, mid, high (0..1), a
 * beat pulse and a tempo. It works on blocks of 512 samples with a Hann window
 * of 1024 and its own sample clock; nothing on its path allocates.
 *
 * Up to 16 named sources live in one process-wide table behind one mutex;
 * the name "" (or null) is the default source. Push from capture threads,
 * read from the render thread: only kvl_audio_state crosses the lock.
 */
#ifndef KAVLEN_KVL_AUDIO_H
#define KAVLEN_KVL_AUDIO_H

#include "kvl_base.h"

typedef struct kvl_audio_state {
  float level, bass, mid, high, beat, bpm;
  uint32_t beat_count;
  uint32_t live;
} kvl_audio_state;

typedef struct kvl_audio {
  int32_t sample_rate;
  float samples[1024];
  int32_t fill;
  float window[1024];
  float re[1024], im[1024];
  int32_t band_lo[5], band_hi[5];
  float peak_db[5];
  float flux_history[160];
  int32_t flux_count, flux_index;
  float bass_history[10];
  int32_t bass_count, bass_index;
  bool above;
  bool pending;
  float onset_db;
  double clock;
  double last_beat;
  float intervals[16];
  int32_t interval_count, interval_index;
  kvl_audio_state state;
} kvl_audio;

KVL_API kvl_audio* kvl_audio_create(int32_t sample_rate);
KVL_API void kvl_audio_destroy(kvl_audio* audio);
KVL_API void kvl_audio_feed(kvl_audio* audio, const float* samples, int32_t count);
KVL_API void kvl_audio_get(const kvl_audio* audio, kvl_audio_state* out);

KVL_API void kvl_audio_source_start(const char* name, int32_t sample_rate);
KVL_API void kvl_audio_source_stop(const char* name);
KVL_API void kvl_audio_source_push(const char* name, const float* samples, int32_t count);
KVL_API void kvl_audio_source_read(const char* name, kvl_audio_state* out);
KVL_API void kvl_audio_start(int32_t sample_rate);
KVL_API void kvl_audio_stop(void);
KVL_API void kvl_audio_push(const float* interleaved, int32_t frames, int32_t channels);
KVL_API void kvl_audio_read(kvl_audio_state* out);
KVL_API void kvl_audio_set_gain(float gain);

/* Same as kvl_signals_analyze_file. */
KVL_API int32_t kvl_audio_analyze_file(const char* samples_path, int32_t sample_rate, const char* signals_path);

#endif
