// Fuzzes the output state message of an output window: any byte string is a
// reset, an ignored text or a state, never a crash. A state must carry a
// scene that is itself a JSON object, whose serialised form survives being
// wrapped and parsed again unchanged, and a size that is either the default
// or positive. Accepted states then go through the renderer's state side
// (the lock, the pending scene, the hand-over to a real engine when the size
// is modest, the audio clock), as a window's frames would drive it.
#include <cjson/cJSON.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "output_renderer_core.h"
#include "output_state.h"

namespace {

void check(bool ok) {
  if (!ok) abort();
}

// The renderer's state side with fixed clocks, one per process: later inputs
// see what earlier ones left, as a long-running window does.
OutputRendererCore& core() {
  static OutputRendererCore* c = [] {
    auto* r = new OutputRendererCore([] { return std::string("/nonexistent-media-root"); });
    static double now = 1.0;
    r->setClocks([] { return now += 0.016; }, [] { return 1.7e12; });
    return r;
  }();
  return *c;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  OutputState st;
  OutputStateKind kind = parseOutputState(text, st);
  check((kind == OutputStateKind::MediaReset) == (text == "mediaReset"));
  if (kind == OutputStateKind::State) {
    check(st.scene && cJSON_IsObject(st.scene.get()));
    JsonPtr again(cJSON_Parse(st.sceneJson.c_str()));
    check(again && cJSON_IsObject(again.get()));
    check(st.sceneW >= 0 && st.sceneH >= 0);
    // The text the engine gets is stable under another round trip.
    OutputState st2;
    check(parseOutputState("{\"scene\":" + st.sceneJson + "}", st2) == OutputStateKind::State);
    check(st2.sceneJson == st.sceneJson);
    check(st2.sceneW == st.sceneW && st2.sceneH == st.sceneH);
  }

  OutputRendererCore& c = core();
  const int64_t before = c.shared().sceneGeneration;
  auto accepted = c.setState(text);
  const OutputRendererCore::Shared after = c.shared();
  check(accepted.has_value() == (kind == OutputStateKind::State));
  check(after.sceneGeneration == before + (accepted ? 1 : 0));
  check(after.sceneW >= 1 && after.sceneH >= 1);
  if (accepted) {
    check(after.pendingScene.has_value() && *after.pendingScene == st.sceneJson);
    check(after.mode == st.mode && after.positions == st.positions);
    // A frame of a modest size hands the scene over; a huge one is left
    // pending, as a window would only meet it with memory to spare.
    if (static_cast<int64_t>(after.sceneW) * after.sceneH <= 4096 * 4096) {
      c.applyPendingScene();
      check(!c.shared().pendingScene.has_value());
      check(c.engine() == nullptr || (c.engineW() == after.sceneW && c.engineH() == after.sceneH));
      if (c.engine()) {
        OutputRendererCore::AudioStep s = c.stepAudio();
        check(s.stepMs >= 0.0 && s.stepMs <= 100.0);
      }
    }
  }
  return 0;
}
