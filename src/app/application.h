// The application: `kavlen serve` (and `kavlen` with no command).
//
// Start-up, in order: the main window (placed by KAVLEN_WINDOW), the output
// windows' channels, then export, vision, waveform, audio and thumbnail, and
// only then the channel host starts listening, so no client ever meets a
// half-registered host. The main loop then runs until the main window closes
// or SIGINT/SIGTERM arrives; either closes every output, answers nothing
// more, and returns 0.
//
// Without an X display the host still serves its channels, with no windows.
#pragma once

#include <string>
#include <vector>

namespace kavlen::app {

// Runs the application; `paths` are project files from the command line.
// Returns the process's exit code.
int runApplication(const std::vector<std::string>& paths);

}  // namespace kavlen::app
