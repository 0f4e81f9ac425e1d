// kavlen thumbnail: a small upright JPEG of a video, a tenth of the way in.
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>

#include "commands.h"
#include "thumbnail.h"

namespace {

const char kUsage[] =
    "usage: kavlen thumbnail MEDIA [--width N] -o OUT.jpg\n"
    "  writes the frame a tenth into the video, upright, as a JPEG (quality 0.8)\n"
    "  --width N   side of the square the picture is fitted in (default 320;\n"
    "              smaller videos keep their size; 0 keeps every video's size)\n";

bool parse_width(const char* text, int64_t& out) {
  const char* end = text + strlen(text);
  auto [ptr, ec] = std::from_chars(text, end, out);
  return ec == std::errc() && ptr == end && ptr != text && out >= 0 && out <= 16384;
}

}  // namespace

int cmd_thumbnail(int argc, char** argv) {
  std::string media, out_path;
  int64_t width = static_cast<int64_t>(kavlen::thumbnail::kDefaultWidth);
  for (int i = 1; i < argc; i++) {
    std::string a = argv[i];
    bool has_value = i + 1 < argc;
    if (a == "--help" || a == "-h") {
      fputs(kUsage, stdout);
      return 0;
    } else if (a == "--width" && has_value) {
      if (!parse_width(argv[++i], width))
        return fail("thumbnail: --width wants a whole number from 0 to 16384, got '%s'", argv[i]);
    } else if ((a == "-o" || a == "--out") && has_value) {
      out_path = argv[++i];
    } else if (int rc = media_argument("thumbnail", a, media)) {
      return rc;
    }
  }
  if (media.empty()) return fail("thumbnail: no media file given");
  if (out_path.empty()) return fail("thumbnail: no output file given (-o OUT.jpg)");
  if (int rc = media_file_ok("thumbnail", media)) return rc;

  auto picture = kavlen::thumbnail::thumbnail(media, static_cast<double>(width));
  if (!picture)
    return fail("thumbnail: no picture could be taken from %s (not a video, or no frame near a tenth of it)",
                media.c_str());

  std::string part = out_path + ".part";
  FILE* f = std::fopen(part.c_str(), "wb");
  if (!f) return fail("thumbnail: cannot write %s: %s", out_path.c_str(), std::strerror(errno));
  bool ok = std::fwrite(picture->jpeg.data(), 1, picture->jpeg.size(), f) == picture->jpeg.size();
  ok = std::fclose(f) == 0 && ok;
  if (!ok || std::rename(part.c_str(), out_path.c_str()) != 0) {
    std::string why = std::strerror(errno);
    std::remove(part.c_str());
    return fail("thumbnail: cannot write %s: %s", out_path.c_str(), why.c_str());
  }
  fprintf(stderr, "kavlen: wrote %s (%dx%d)\n", out_path.c_str(), picture->width, picture->height);
  return 0;
}
