// kavlen waveform: the peaks of a media file's audio as JSON, optionally the
// track as a raw sample file and the waveform as a picture.
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "commands.h"
#include "image_file.h"
#include "waveform.h"

namespace {

const char kUsage[] =
    "usage: kavlen waveform MEDIA [--count N] [--pcm OUT.f32] [--png OUT.png]\n"
    "  prints {\"duration\": seconds, \"peaks\": [...]} for the first audio track\n"
    "  --count N       number of peaks, 16 to 4000 (default 1000; others are clamped)\n"
    "  --pcm OUT.f32   also write the track as raw mono 32-bit float at 44100 Hz\n"
    "  --png OUT.png   also draw the peaks as a picture, one column per peak\n";

constexpr int kPictureHeight = 200;

bool parse_integer(const char* text, int64_t& out) {
  const char* end = text + strlen(text);
  auto [ptr, ec] = std::from_chars(text, end, out);
  return ec == std::errc() && ptr == end && ptr != text;
}

// Shortest text that reads back as the same value.
template <typename T>
std::string json_number(T v) {
  if (!std::isfinite(v)) return "0";
  char buf[64];
  auto [ptr, ec] = std::to_chars(buf, buf + sizeof buf, v);
  return ec == std::errc() ? std::string(buf, ptr) : "0";
}

std::string json_string(const std::string& s) {
  std::string out = "\"";
  for (unsigned char c : s) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      char esc[8];
      snprintf(esc, sizeof esc, "\\u%04x", c);
      out += esc;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

// Bars mirrored around the middle line, light on dark.
bool draw_picture(const std::vector<double>& peaks, const std::string& path, std::string& error) {
  const int w = static_cast<int>(peaks.size()), h = kPictureHeight;
  std::vector<uint8_t> rgba(static_cast<size_t>(w) * h * 4);
  const double mid = (h - 1) / 2.0;
  for (int x = 0; x < w; x++) {
    double reach = std::max(peaks[x] * mid, 0.5);  // silence still shows the middle line
    for (int y = 0; y < h; y++) {
      uint8_t* p = &rgba[(static_cast<size_t>(y) * w + x) * 4];
      bool bar = std::fabs(y - mid) <= reach;
      p[0] = bar ? 0x4f : 0x14;
      p[1] = bar ? 0xc3 : 0x14;
      p[2] = bar ? 0xf7 : 0x18;
      p[3] = 0xff;
    }
  }
  return ImageFile::write_png(path, rgba.data(), w, h, w * 4, error);
}

}  // namespace

int cmd_waveform(int argc, char** argv) {
  std::string media, pcm_out, png_out;
  int64_t count = kavlen::waveform::kDefaultPeakCount;
  for (int i = 1; i < argc; i++) {
    std::string a = argv[i];
    bool has_value = i + 1 < argc;
    if (a == "--help" || a == "-h") {
      fputs(kUsage, stdout);
      return 0;
    } else if (a == "--count" && has_value) {
      if (!parse_integer(argv[++i], count)) return fail("waveform: --count wants a whole number, got '%s'", argv[i]);
    } else if (a == "--pcm" && has_value) {
      pcm_out = argv[++i];
    } else if (a == "--png" && has_value) {
      png_out = argv[++i];
    } else if (int rc = media_argument("waveform", a, media)) {
      return rc;
    }
  }
  if (int rc = media_file_ok("waveform", media)) return rc;

  auto peaks = kavlen::waveform::peaks(media, count);
  if (!peaks) return fail("waveform: no audio could be decoded from %s (not a media file, or no audio track)", media.c_str());

  if (!pcm_out.empty()) {
    // Written beside the target and renamed once whole, so a failed run
    // never leaves a file that looks complete.
    std::string part = pcm_out + ".part";
    bool ok = kavlen::waveform::pcm(media, part).has_value();
    if (!ok || std::rename(part.c_str(), pcm_out.c_str()) != 0) {
      std::string why = ok ? std::strerror(errno) : "the track could not be decoded to its end";
      std::remove(part.c_str());
      return fail("waveform: cannot write %s: %s", pcm_out.c_str(), why.c_str());
    }
  }
  if (!png_out.empty()) {
    std::string error;
    if (!draw_picture(peaks->peaks, png_out, error)) return fail("waveform: %s", error.c_str());
  }

  std::string out = "{\"duration\": " + json_number(peaks->duration) + ", \"peaks\": [";
  for (size_t i = 0; i < peaks->peaks.size(); i++) {
    if (i) out += ", ";
    out += json_number(static_cast<float>(peaks->peaks[i]));  // float precision is all they carry
  }
  out += "]";
  if (!pcm_out.empty())
    out += ", \"pcm\": " + json_string(pcm_out) + ", \"sampleRate\": " + std::to_string(kavlen::waveform::kPcmRate);
  out += "}\n";
  fputs(out.c_str(), stdout);
  return 0;
}
