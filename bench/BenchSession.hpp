#pragma once

// What the benches that run a HostSession on a real X display share: the session's environment
// with the display's real parts and fakes for input and power.

#include <memory>
#include <string>

#include "host/session/HostSession.hpp"
#include "host/video/LibavEncoderFactory.hpp"
#include "host/video/RandrDisplayManager.hpp"
#include "tests/support/HostFakes.hpp"

namespace kelvaron::host {

inline HostEnvironment benchEnvironment(const Executor& executor, const std::string& display) {
  return HostEnvironment{.hostName = "bench",
                         .displays = std::make_shared<RandrDisplayManager>(executor, display),
                         .encoders = std::make_shared<LibavEncoderFactory>(),
                         .injector = std::make_shared<test::FakeInjector>(),
                         .power = std::make_shared<test::FakePower>()};
}

}  // namespace kelvaron::host
