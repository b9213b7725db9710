#pragma once

#include <memory>
#include <optional>
#include <string>

#include "host/app/AppModel.hpp"
#include "host/app/X11PowerManager.hpp"
#include "host/desktop/AtspiTextFocusSource.hpp"
#include "host/desktop/BusNotifier.hpp"
#include "host/desktop/DesktopEntryApps.hpp"
#include "host/desktop/DesktopMenuSource.hpp"
#include "host/desktop/FitRestoreRegistry.hpp"
#include "host/desktop/GioAppLauncher.hpp"
#include "host/desktop/X11FocusObserver.hpp"
#include "host/desktop/X11Pasteboard.hpp"
#include "host/desktop/X11WindowSystem.hpp"
#include "host/input/XTestInjector.hpp"
#include "host/video/RandrDisplayManager.hpp"

namespace kelvaron::host {

// The host on an X11 desktop: the parts of the computer made once for the process and shared by
// every session (the displays, the one pointer and keyboard, the power manager), and the
// dependencies of the application model that use them.
class HostComposition {
 public:
  struct Options {
    std::string displayName;  // empty: $DISPLAY
    std::string hostName;
    std::optional<std::uint16_t> port;
    bool advertise = true;  // DNS-SD on the local network
    // Pairing by code comparison, confirmed on the terminal; else by link only.
    bool confirmOnTerminal = false;
  };

  // Where the host's work runs: the model on the main strand; sessions, gates, connections and
  // the display list on strands of their own over `pool`; screen capture on `capture`, an
  // executor of its own, so that converting a picture never holds up input. The encoder has a
  // thread of its own.
  struct Executors {
    Executor main;
    Executor pool;
    Executor capture;
  };

  HostComposition(Executors executors, Options options);

  AppModel::Dependencies dependencies() const;
  // A session's environment, before the model adds its own parts.
  HostEnvironment environment(std::shared_ptr<EncoderFactory> encoders) const;

  // What is left of the sessions' window resizes, undone when the host quits.
  const std::shared_ptr<FitRestoreRegistry>& fitRegistry() const { return fitRegistry_; }

  // Whether the host can see the X display and drive its input (XTEST).
  static Permissions readPermissions(const std::string& displayName);
  // The host's identity, kept in its data folder, or a new one; throws when it cannot be kept.
  static SelfSignedIdentity loadIdentity();
  // The coordinator at `url` as the host reaches it, trusting the certificates in `ca` instead of
  // the system's when given. Throws CoordinatorError for a URL that is not one.
  static std::shared_ptr<CoordinatorClient> coordinatorClient(
      const std::string& url, const std::optional<std::filesystem::path>& ca,
      std::shared_ptr<const RelaySigner> signer);

 private:
  static RelayController::ServiceFactory relayServiceFactory(
      const Executor& pool, std::shared_ptr<RelaySettings> settings);
  static RelayController::Enroll coordinatorEnrollment(std::shared_ptr<RelaySettings> settings);

  const Executors executors_;
  const Options options_;
  const std::shared_ptr<RandrDisplayManager> displays_;
  const std::shared_ptr<XTestInjector> injector_;
  const std::shared_ptr<X11PowerManager> power_;
  // One for the process: what a session wrote stays on the clipboard after it.
  const std::shared_ptr<X11Pasteboard> pasteboard_;
  // The applications and windows, watched once for every session.
  const std::shared_ptr<X11WindowSystem> windows_;
  const std::shared_ptr<X11FocusObserver> focusObserver_;
  // The focused text field of the application in front, through the accessibility bus.
  const std::shared_ptr<AtspiTextFocusSource> textFocus_;
  const std::shared_ptr<FitRestoreRegistry> fitRegistry_ = std::make_shared<FitRestoreRegistry>();
  // The installed applications, scanned for every session and their icons kept.
  const std::shared_ptr<DesktopEntryApps> installedApps_;
  const std::shared_ptr<GioAppLauncher> launcher_;
  // The front application's menus, read for every session.
  const std::shared_ptr<DesktopMenuSource> menus_;
  const std::shared_ptr<BusNotifier> notifier_;
};

}  // namespace kelvaron::host
