// The shared library exports the engine's C interface by name, and nothing
// that is not part of it: outside code binds these at run time with dlsym.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <set>
#include <string>

namespace {

const char* kInterface[] = {
    "kvl_version", "kvl_last_error", "kvl_engine_create", "kvl_engine_destroy", "kvl_engine_set_scene",
    "kvl_engine_set_media_root", "kvl_engine_set_source", "kvl_engine_declare_source", "kvl_engine_sources",
    "kvl_engine_set_threads", "kvl_engine_layer_count", "kvl_engine_render", "kvl_engine_draw_list",
    "kvl_engine_media_at", "kvl_engine_envelope_at", "kvl_engine_set_signals", "kvl_engine_set_track_signals",
    "kvl_engine_set_audio_time", "kvl_engine_step_audio", "kvl_audio_source_start", "kvl_audio_source_stop",
    "kvl_audio_source_push", "kvl_audio_source_read", "kvl_audio_start", "kvl_audio_stop", "kvl_audio_push",
    "kvl_audio_read", "kvl_audio_set_gain", "kvl_audio_analyze_file", "kvl_signals_parse", "kvl_signals_load",
    "kvl_signals_at", "kvl_signals_free", "kvl_signals_analyze_file", "kvl_yuv420_to_rgba", "kvl_rgba_to_yuv420",
    "kvl_scene_parse", "kvl_scene_free", "kvl_layer_resolve", "kvl_animated", "kvl_hash", "kvl_cache_create",
    "kvl_cache_put", "kvl_cache_get", "kvl_h_unit_to_quad", "kvl_h_invert", "kvl_raster_polygon", "kvl_blur8",
};

TEST(Exports, InterfaceNamesResolveWithCLinkage) {
  void* so = dlopen(KAVLEN_ENGINE_SO, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(so, nullptr) << dlerror();
  for (const char* name : kInterface) EXPECT_NE(dlsym(so, name), nullptr) << name;
  auto version = reinterpret_cast<const char* (*)()>(dlsym(so, "kvl_version"));
  ASSERT_NE(version, nullptr);
  EXPECT_STREQ(version(), "0.1.0");
  dlclose(so);
}

TEST(Exports, OnlyKvlNamesAreExported) {
  // nm -D lists the dynamic symbols; every defined one must carry the prefix.
  std::string cmd = std::string("nm -D --defined-only ") + KAVLEN_ENGINE_SO;
  FILE* p = popen(cmd.c_str(), "r");
  ASSERT_NE(p, nullptr);
  char line[512];
  int count = 0;
  while (fgets(line, sizeof line, p)) {
    char addr[64], type[8], name[400];
    if (sscanf(line, "%63s %7s %399s", addr, type, name) != 3 || !strchr("TDBRW", type[0])) continue;
    if (!strcmp(name, "_init") || !strcmp(name, "_fini")) continue;
    EXPECT_EQ(strncmp(name, "kvl_", 4), 0) << "unexpected export " << name;
    count++;
  }
  pclose(p);
  EXPECT_GT(count, 40);
}

}  // namespace
