// Starts a muted capture and waits to be killed, as a host that crashes in the phone-only mode.
// Arguments: the server's address and the routing file. Says "ready" once the capture runs.

#include <unistd.h>

#include <cstdio>

#include "host/audio/PulseAudioCapture.hpp"

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  try {
    kelvaron::host::PulseAudioCapture capture({argv[1], argv[2]});
    capture.start(
        true, [](auto, auto) {}, [](const auto&) {});
    std::puts("ready");
    std::fflush(stdout);
    while (true) ::pause();
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return 1;
  }
}
