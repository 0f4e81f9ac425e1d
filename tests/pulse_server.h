// A private PulseAudio daemon for the capture tests and benchmarks: its own
// socket in a temporary folder, anonymous access, only the modules asked for,
// and clocked signals (null sinks, sine sources, files played into a sink).
// Stopped by its process id when the object goes.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace pulsetest {

class PulseServer {
 public:
  // `modules`: lines of the start-up script after the protocol module,
  // e.g. "load-module module-null-sink sink_name=a".
  explicit PulseServer(const std::vector<std::string>& modules) {
    char tmpl[] = "/tmp/kavlen-pulse-XXXXXX";
    if (!mkdtemp(tmpl)) {
      error_ = "mkdtemp failed";
      return;
    }
    dir_ = tmpl;
    std::ofstream script(dir_ + "/test.pa");
    script << "load-module module-native-protocol-unix socket=" << dir_ << "/native auth-anonymous=1\n";
    for (const std::string& m : modules) script << m << "\n";
    script.close();
    const std::string script_path = dir_ + "/test.pa";
    pid_ = spawn({"pulseaudio", "-n", "-F", script_path, "--exit-idle-time=-1", "--daemonize=no", "--use-pid-file=no",
                  "--realtime=no", "--high-priority=no", "--log-target=stderr"},
                 {"HOME=" + dir_, "XDG_RUNTIME_DIR=" + dir_, "PULSE_RUNTIME_PATH=" + dir_, "PULSE_STATE_PATH=" + dir_,
                  "PULSE_SERVER="},
                 dir_ + "/daemon.log");
    if (pid_ < 0) {
      error_ = "could not start pulseaudio";
      return;
    }
    // Ready once a client gets an answer.
    for (int i = 0; i < 100; i++) {
      if (run("pactl info >/dev/null 2>&1") == 0) return;
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    error_ = "pulseaudio did not start (see " + dir_ + "/daemon.log)";
  }

  ~PulseServer() {
    for (pid_t p : children_) stopChild(p);
    if (pid_ > 0) stopChild(pid_);
    std::error_code ec;
    if (!dir_.empty() && error_.empty()) std::filesystem::remove_all(dir_, ec);
  }

  PulseServer(const PulseServer&) = delete;
  PulseServer& operator=(const PulseServer&) = delete;

  bool ok() const { return error_.empty(); }
  const std::string& error() const { return error_; }
  const std::string& dir() const { return dir_; }
  std::string address() const { return "unix:" + dir_ + "/native"; }
  std::string env() const { return "PULSE_SERVER='" + address() + "' "; }

  // Points this process's clients at the daemon.
  void use() const { setenv("PULSE_SERVER", address().c_str(), 1); }

  // Runs a shell command with PULSE_SERVER set; its exit status.
  int run(const std::string& command) const {
    const int status = system((env() + command).c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  // `pactl load-module ...`: the module's index, -1 on failure.
  int load(const std::string& module) const {
    FILE* p = popen((env() + "pactl load-module " + module + " 2>/dev/null").c_str(), "r");
    if (!p) return -1;
    int index = -1;
    if (fscanf(p, "%d", &index) != 1) index = -1;
    pclose(p);
    return index;
  }
  bool unload(int module) const { return run("pactl unload-module " + std::to_string(module)) == 0; }

  // Plays a sound file into a sink with a short latency, in the background;
  // stopped with the daemon. `options` go before the file (e.g. "--raw").
  pid_t play(const std::string& file, const std::string& sink, const std::vector<std::string>& options = {}) {
    std::vector<std::string> argv = {"paplay", "--latency-msec=10", "--device", sink};
    argv.insert(argv.end(), options.begin(), options.end());
    argv.push_back(file);
    const pid_t pid = spawn(argv, {"PULSE_SERVER=" + address()}, "/dev/null");
    if (pid > 0) children_.push_back(pid);
    return pid;
  }

  // Starts `argv` with `env` ("KEY=value") over this process's environment,
  // standard output and error going to `log`; the process id, or -1.
  static pid_t spawn(const std::vector<std::string>& argv, const std::vector<std::string>& env, const std::string& log) {
    std::vector<std::string> envs;
    for (char** e = environ; *e; e++) {
      const std::string entry = *e;
      bool replaced = false;
      for (const std::string& x : env) replaced = replaced || entry.compare(0, x.find('=') + 1, x, 0, x.find('=') + 1) == 0;
      if (!replaced) envs.push_back(entry);
    }
    envs.insert(envs.end(), env.begin(), env.end());
    std::vector<char*> args, envp;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    for (const std::string& e : envs) envp.push_back(const_cast<char*>(e.c_str()));
    args.push_back(nullptr);
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    pid_t pid = -1;
    if (posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), envp.data()) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
  }

  static void stopChild(pid_t pid) {
    if (pid <= 0) return;
    kill(pid, SIGTERM);
    for (int i = 0; i < 40; i++) {
      if (waitpid(pid, nullptr, WNOHANG) != 0) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(25));
    }
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }

 private:
  std::string dir_;
  std::string error_;
  pid_t pid_ = -1;
  std::vector<pid_t> children_;
};

// Writes interleaved float samples as a WAV file (IEEE float).
inline bool writeWav(const std::string& path, const std::vector<float>& interleaved, int channels, int rate) {
  std::ofstream out(path, std::ios::binary);
  auto u32 = [&](uint32_t v) { out.write(reinterpret_cast<const char*>(&v), 4); };
  auto u16 = [&](uint16_t v) { out.write(reinterpret_cast<const char*>(&v), 2); };
  const uint32_t bytes = static_cast<uint32_t>(interleaved.size() * sizeof(float));
  out.write("RIFF", 4);
  u32(36 + bytes);
  out.write("WAVEfmt ", 8);
  u32(16);
  u16(3);  // IEEE float
  u16(static_cast<uint16_t>(channels));
  u32(static_cast<uint32_t>(rate));
  u32(static_cast<uint32_t>(rate * channels * 4));
  u16(static_cast<uint16_t>(channels * 4));
  u16(32);
  out.write("data", 4);
  u32(bytes);
  out.write(reinterpret_cast<const char*>(interleaved.data()), bytes);
  return static_cast<bool>(out);
}

// Mono drum loop: a swept kick on every beat, a noise hi-hat on the off-beats,
// a quiet chord under it.
inline std::vector<float> drumLoop(double bpm, int rate, double seconds) {
  constexpr double kPi = 3.14159265358979323846;
  std::vector<float> s(static_cast<size_t>(seconds * rate));
  const double beat = 60.0 / bpm, kickLen = std::min(0.3, 0.9 * beat);
  for (size_t i = 0; i < s.size(); i++)
    for (double f : {220.0, 277.18, 329.63}) s[i] += static_cast<float>(0.03 * std::sin(2 * kPi * f * i / rate));
  uint32_t noise = 7;
  for (double t0 = 0.037; t0 + beat < seconds; t0 += beat) {
    const size_t k0 = static_cast<size_t>(t0 * rate), h0 = static_cast<size_t>((t0 + beat / 2) * rate);
    double phase = 0;
    for (size_t i = 0; i < static_cast<size_t>(kickLen * rate); i++) {
      const double t = static_cast<double>(i) / rate;
      phase += 2 * kPi * (50.0 + 90.0 * std::exp(-t / 0.03)) / rate;
      s[k0 + i] += static_cast<float>(0.8 * std::exp(-t / 0.12) * std::min(1.0, t / 0.002) * std::sin(phase));
    }
    for (size_t i = 0; i < static_cast<size_t>(0.08 * rate); i++) {
      noise = noise * 1664525u + 1013904223u;
      const double w = static_cast<double>(noise >> 8) / (1 << 24) * 2 - 1;
      s[h0 + i] += static_cast<float>(0.25 * std::exp(-static_cast<double>(i) / rate / 0.02) * w);
    }
  }
  return s;
}

}  // namespace pulsetest
