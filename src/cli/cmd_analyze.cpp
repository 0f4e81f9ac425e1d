// kavlen analyze: writes the signal file of a media file, so that timeline
// audio tracks can drive modulations without any audio running.
//
// The first audio track is decoded to mono float at 44100 Hz and streamed to
// a private raw sample file, which the engine's file analysis then reads; the
// signal file is written under a temporary name beside its destination and
// renamed into place only when it is whole.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "audio_decode.h"
#include "commands.h"
#include "kavlen/kavlen.h"

namespace {

constexpr int kRate = 44100;
// Files at least this long (in seconds of audio) get a progress line.
constexpr double kLongFileSeconds = 60.0;

// Temporary files to remove if the process is interrupted. Written before the
// handlers can see them; read only from the handler.
char g_raw_path[4096];
char g_tmp_out_path[4096];

void remove_temporaries() {
  if (g_raw_path[0]) unlink(g_raw_path);
  if (g_tmp_out_path[0]) unlink(g_tmp_out_path);
}

extern "C" void on_interrupt(int sig) {
  remove_temporaries();  // unlink is async-signal-safe
  signal(sig, SIG_DFL);
  raise(sig);
}

// Creates an empty private file from a mkstemp pattern; false on failure.
bool make_temp(const std::string& pattern, char* out, size_t size) {
  if (pattern.size() + 1 > size) {
    errno = ENAMETOOLONG;
    return false;
  }
  memcpy(out, pattern.c_str(), pattern.size() + 1);
  int fd = mkstemp(out);
  if (fd < 0) {
    out[0] = '\0';
    return false;
  }
  close(fd);
  return true;
}

std::string dir_of(const std::string& path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

struct Progress {
  bool shown = false;
  int last_decile = -1;
};

}  // namespace

int cmd_analyze(int argc, char** argv) {
  const char* media = nullptr;
  const char* out_arg = nullptr;
  for (int i = 1; i < argc; i++) {
    if (!strcmp(argv[i], "--help") || !strcmp(argv[i], "-h")) {
      puts("usage: kavlen analyze MEDIA [-o OUT.signals]\n"
           "  Decodes the first audio track of MEDIA and writes its signal file,\n"
           "  by default MEDIA.signals beside it.");
      return 0;
    } else if (!strcmp(argv[i], "-o")) {
      if (i + 1 >= argc) return fail("analyze: -o wants a file name");
      out_arg = argv[++i];
    } else if (argv[i][0] == '-' && argv[i][1] != '\0') {
      return fail("analyze: unknown option '%s'", argv[i]);
    } else if (!media) {
      media = argv[i];
    } else {
      return fail("analyze: more than one media file given");
    }
  }
  if (!media) return fail("analyze: no media file given (kavlen analyze MEDIA [-o OUT.signals])");
  const std::string out_path = out_arg ? std::string(out_arg) : std::string(media) + ".signals";

  // The destination's directory must take a new file; find out before
  // spending the time to decode.
  if (!make_temp(out_path + ".tmp-XXXXXX", g_tmp_out_path, sizeof g_tmp_out_path))
    return fail("analyze: cannot write %s: %s", out_path.c_str(), strerror(errno));

  const char* tmpdir = getenv("TMPDIR");
  std::string raw_pattern = std::string(tmpdir && tmpdir[0] ? tmpdir : "/tmp") + "/kavlen-analyze-XXXXXX";
  if (!make_temp(raw_pattern, g_raw_path, sizeof g_raw_path)) {
    int err = errno;
    remove_temporaries();
    return fail("analyze: cannot create a temporary file in %s: %s", dir_of(raw_pattern).c_str(), strerror(err));
  }
  signal(SIGINT, on_interrupt);
  signal(SIGTERM, on_interrupt);
  auto give_up = [](int code) {
    remove_temporaries();
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    return code;
  };

  FILE* raw = fopen(g_raw_path, "wb");
  if (!raw) {
    int err = errno;
    return give_up(fail("analyze: cannot write %s: %s", g_raw_path, strerror(err)));
  }
  size_t total = 0;
  bool write_failed = false;
  Progress progress;
  std::string error;
  bool decoded = kavlen::decodeAudioMono(
      media, kRate,
      [&](const float* samples, size_t count, double done) {
        if (fwrite(samples, sizeof(float), count, raw) != count) {
          write_failed = true;
          return false;
        }
        total += count;
        // A long file shows how far decoding has come, a line per tenth.
        if (done > 0.0 && static_cast<double>(total) / kRate / done >= kLongFileSeconds) {
          int decile = static_cast<int>(done * 10.0);
          if (decile > progress.last_decile && decile < 10) {
            fprintf(stderr, "kavlen: analyze: decoding %s: %d%%\n", media, decile * 10);
            progress.last_decile = decile;
            progress.shown = true;
          }
        }
        return true;
      },
      error);
  if (fclose(raw) != 0) write_failed = true;
  if (write_failed) return give_up(fail("analyze: cannot write temporary samples to %s", g_raw_path));
  if (!decoded) {
    // The decoder's messages mostly name the file already.
    if (error.find(media) != std::string::npos) return give_up(fail("analyze: %s", error.c_str()));
    return give_up(fail("analyze: %s: %s", media, error.c_str()));
  }
  if (total == 0) return give_up(fail("analyze: %s: the audio track holds no samples", media));
  if (progress.shown) fprintf(stderr, "kavlen: analyze: decoding %s: 100%%, analysing\n", media);

  int32_t frames = kvl_signals_analyze_file(g_raw_path, kRate, g_tmp_out_path);
  unlink(g_raw_path);
  g_raw_path[0] = '\0';
  if (frames < 0) return give_up(fail("analyze: cannot write %s", out_path.c_str()));

  // Read the result back: it proves the file whole and gives the tempo.
  kvl_signals* check = kvl_signals_load(g_tmp_out_path);
  if (!check || check->frame_count != static_cast<uint32_t>(frames)) {
    kvl_signals_free(check);
    return give_up(fail("analyze: %s was not written whole", out_path.c_str()));
  }
  float tempo = check->tempo;
  kvl_signals_free(check);

  // mkstemp made the file private; a signal file is as readable as any other.
  mode_t mask = umask(0);
  umask(mask);
  chmod(g_tmp_out_path, 0666 & ~mask);
  if (rename(g_tmp_out_path, out_path.c_str()) != 0) {
    int err = errno;
    return give_up(fail("analyze: cannot write %s: %s", out_path.c_str(), strerror(err)));
  }
  g_tmp_out_path[0] = '\0';
  give_up(0);

  printf("%s: %d frames (%.3f s)", out_path.c_str(), frames, static_cast<double>(total) / kRate);
  if (tempo > 0.0f) printf(", tempo %.1f bpm\n", static_cast<double>(tempo));
  else printf(", no tempo found\n");
  return 0;
}
