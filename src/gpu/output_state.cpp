// Parsing of output state messages. See output_state.h.
#include "output_state.h"

#include <cjson/cJSON.h>

#include <cmath>

void CjsonDeleter::operator()(cJSON* json) const { cJSON_Delete(json); }

namespace {

// JSON text must be UTF-8; a message with broken sequences is refused whole
// rather than handed half-decoded to the engine.
bool validUtf8(std::string_view s) {
  size_t i = 0, n = s.size();
  while (i < n) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    if (c < 0x80) {
      i++;
      continue;
    }
    int len = 0;
    uint32_t cp = 0;
    if ((c & 0xE0) == 0xC0) {
      len = 2;
      cp = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      len = 3;
      cp = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      len = 4;
      cp = c & 0x07;
    } else {
      return false;
    }
    if (i + len > n) return false;
    for (int k = 1; k < len; k++) {
      unsigned char d = static_cast<unsigned char>(s[i + k]);
      if ((d & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (d & 0x3F);
    }
    // Overlong forms, surrogates and values past U+10FFFF.
    if ((len == 2 && cp < 0x80) || (len == 3 && cp < 0x800) || (len == 4 && cp < 0x10000)) return false;
    if ((cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF) return false;
    i += len;
  }
  return true;
}

// Truncation toward zero of a positive double into int32; false past the range.
bool truncInt32(double v, int32_t& out) {
  double t = std::trunc(v);
  if (!(t >= 0.0) || t > 2147483647.0) return false;
  out = static_cast<int32_t>(t);
  return true;
}

}  // namespace

bool sceneSizeOf(const cJSON* scene, int32_t& width, int32_t& height) {
  width = 1920;
  height = 1080;
  const cJSON* outputs = cJSON_GetObjectItemCaseSensitive(scene, "outputs");
  if (!cJSON_IsArray(outputs)) return true;
  const cJSON* first = cJSON_GetArrayItem(outputs, 0);
  if (!cJSON_IsObject(first)) return true;
  const cJSON* res = cJSON_GetObjectItemCaseSensitive(first, "resolution");
  if (!cJSON_IsArray(res) || cJSON_GetArraySize(res) != 2) return true;
  const cJSON* w = cJSON_GetArrayItem(res, 0);
  const cJSON* h = cJSON_GetArrayItem(res, 1);
  if (!cJSON_IsNumber(w) || !cJSON_IsNumber(h)) return true;
  if (!(w->valuedouble > 0.0) || !(h->valuedouble > 0.0)) return true;
  int32_t tw = 0, th = 0;
  // A size past the 32-bit range has no meaning for the engine: the state
  // is refused like any other bad text.
  if (!truncInt32(w->valuedouble, tw) || !truncInt32(h->valuedouble, th)) return false;
  width = tw;
  height = th;
  return true;
}

OutputStateKind parseOutputState(std::string_view text, OutputState& out) {
  if (text == "mediaReset") return OutputStateKind::MediaReset;
  // cJSON reads up to a NUL; an embedded one would hide the rest of the text.
  if (text.find('\0') != std::string_view::npos || !validUtf8(text)) return OutputStateKind::Rejected;

  const char* end = nullptr;
  JsonPtr root(cJSON_ParseWithLengthOpts(text.data(), text.size(), &end, 0));
  if (!root || !cJSON_IsObject(root.get())) return OutputStateKind::Rejected;
  // Only whitespace may follow the object.
  for (const char* p = end; p && p < text.data() + text.size(); p++)
    if (*p != ' ' && *p != '\t' && *p != '\n' && *p != '\r') return OutputStateKind::Rejected;

  cJSON* scene = cJSON_GetObjectItemCaseSensitive(root.get(), "scene");
  if (!cJSON_IsObject(scene)) return OutputStateKind::Rejected;
  char* printed = cJSON_PrintUnformatted(scene);
  if (!printed) return OutputStateKind::Rejected;
  out.sceneJson = printed;
  cJSON_free(printed);

  if (!sceneSizeOf(scene, out.sceneW, out.sceneH)) return OutputStateKind::Rejected;

  out.positions.clear();
  out.speeds.clear();
  const cJSON* item = nullptr;
  const cJSON* vp = cJSON_GetObjectItemCaseSensitive(root.get(), "videoPositions");
  if (cJSON_IsObject(vp)) {
    cJSON_ArrayForEach(item, vp) {
      if (!cJSON_IsNumber(item) || !item->string) continue;
      double us = std::trunc(item->valuedouble * 1000.0);
      // Beyond the int64 range a position means nothing: refuse the state.
      if (!(us >= -9223372036854775808.0 && us < 9223372036854775808.0)) return OutputStateKind::Rejected;
      out.positions.emplace(item->string, static_cast<int64_t>(us));
    }
  }
  const cJSON* vs = cJSON_GetObjectItemCaseSensitive(root.get(), "videoSpeeds");
  if (cJSON_IsObject(vs)) {
    cJSON_ArrayForEach(item, vs) {
      if (cJSON_IsNumber(item) && item->string) out.speeds.emplace(item->string, item->valuedouble);
    }
  }

  const cJSON* mode = cJSON_GetObjectItemCaseSensitive(root.get(), "mode");
  out.mode = cJSON_IsString(mode) && mode->valuestring ? mode->valuestring : "normal";
  const cJSON* playing = cJSON_GetObjectItemCaseSensitive(root.get(), "playing");
  out.playing = cJSON_IsBool(playing) && cJSON_IsTrue(playing);

  const cJSON* at = cJSON_GetObjectItemCaseSensitive(root.get(), "audioTimeMs");
  out.audioTimeMs = cJSON_IsNumber(at) ? std::optional<double>(at->valuedouble) : std::nullopt;
  const cJSON* ao = cJSON_GetObjectItemCaseSensitive(root.get(), "audioClockOriginMs");
  out.audioClockOriginMs = cJSON_IsNumber(ao) ? std::optional<double>(ao->valuedouble) : std::nullopt;

  // Keep the scene object for the caller (the text rasterizer reads it) and
  // drop the rest of the message.
  out.scene.reset(cJSON_DetachItemViaPointer(root.get(), scene));
  return OutputStateKind::State;
}
