#include "host/app/HostComposition.hpp"

#include <unistd.h>
#include <xcb/xcb.h>
#include <xcb/xtest.h>

#include "host/app/TerminalPairingConfirmer.hpp"
#include "host/audio/PulseAudioCapture.hpp"
#include "host/desktop/X11FocusObserver.hpp"
#include "host/desktop/X11WindowThumbnails.hpp"
#include "host/files/HostInbox.hpp"
#include "host/video/LibavEncoderFactory.hpp"
#include "host/video/X11CaptureSource.hpp"
#include "host/video/X11Thumbnails.hpp"
#include "host/video/XFixesCursorSource.hpp"
#include "kit/crypto/SecretStore.hpp"
#include "kit/transport/QUICHostListener.hpp"

namespace kelvaron::host {

HostComposition::HostComposition(Executors executors, Options options)
    : executors_(std::move(executors)),
      options_(std::move(options)),
      displays_(std::make_shared<RandrDisplayManager>(executors_.pool, options_.displayName)),
      injector_(std::make_shared<XTestInjector>(options_.displayName)),
      power_(std::make_shared<X11PowerManager>(options_.displayName)),
      pasteboard_(std::make_shared<X11Pasteboard>(options_.displayName)),
      windows_(std::make_shared<X11WindowSystem>(executors_.pool, options_.displayName)),
      focusObserver_(std::make_shared<X11FocusObserver>(*windows_)),
      textFocus_(
          std::make_shared<AtspiTextFocusSource>(executors_.pool, windows_, options_.displayName)),
      installedApps_(std::make_shared<DesktopEntryApps>(executors_.pool)),
      launcher_(std::make_shared<GioAppLauncher>(executors_.pool, installedApps_, windows_,
                                                 options_.displayName)),
      menus_(std::make_shared<DesktopMenuSource>(executors_.pool, windows_, options_.displayName)),
      notifier_(std::make_shared<BusNotifier>(executors_.pool)) {
  // A host that died in the phone-only mode left the user's sound on its private output.
  PulseAudioCapture().restoreLeftovers();
  // Files from the device stay a day, for the person to paste or move; older ones go.
  HostInbox(HostInbox::defaultRoot())
      .prune(std::filesystem::file_time_type::clock::now(), {}, std::chrono::hours(24));
}

Permissions HostComposition::readPermissions(const std::string& displayName) {
  xcb_connection_t* c = xcb_connect(displayName.empty() ? nullptr : displayName.c_str(), nullptr);
  Permissions permissions;
  if (!xcb_connection_has_error(c)) {
    permissions.screenRecording = true;
    const auto* xtest = xcb_get_extension_data(c, &xcb_test_id);
    permissions.accessibility = xtest && xtest->present;
  }
  xcb_disconnect(c);
  return permissions;
}

HostEnvironment HostComposition::environment(std::shared_ptr<EncoderFactory> encoders) const {
  HostEnvironment env;
  env.hostName = options_.hostName;
  env.displays = displays_;
  env.makeCapture = [executor = executors_.capture, name = options_.displayName] {
    return X11CaptureSource::make(executor, name);
  };
  env.encoders = std::move(encoders);
  env.injector = injector_;
  env.keyLayout = [injector = injector_](char32_t c) { return injector->layoutStroke(c); };
  env.power = power_;
  env.pasteboard = pasteboard_;
  env.cursorSource = std::make_shared<XFixesCursorSource>(executors_.pool, options_.displayName);
  env.thumbnails = std::make_shared<X11Thumbnails>(executors_.pool, options_.displayName);
  env.apps = windows_;
  env.windowControl = windows_;
  env.windowTracker = windows_;
  env.focusObserver = focusObserver_;
  env.textFocus = textFocus_;
  env.windowThumbnails =
      std::make_shared<X11WindowThumbnails>(executors_.pool, options_.displayName);
  env.fitRegistry = fitRegistry_;
  env.installedApps = installedApps_;
  env.launcher = launcher_;
  env.menus = menus_;
  env.notifications = notifier_;
  env.ownPID = ::getpid();
  env.makeAudioCapture = [] { return std::make_shared<PulseAudioCapture>(); };
  env.background = executors_.pool;
  env.screenRecordingGranted = [name = options_.displayName] {
    return readPermissions(name).screenRecording;
  };
  return env;
}

SelfSignedIdentity HostComposition::loadIdentity() {
  return SelfSignedIdentity::loadOrCreate(
      IdentityStores::files(userDataDirectory("tovu-host"), "io.dovka.tovu.host.identity"),
      "Tovu Host");
}

std::shared_ptr<CoordinatorClient> HostComposition::coordinatorClient(
    const std::string& url, const std::optional<std::filesystem::path>& ca,
    std::shared_ptr<const RelaySigner> signer) {
  CurlHttpSession::Options http;
  http.extraCA = ca;
  return std::make_shared<CoordinatorClient>(url, std::move(signer),
                                             std::make_shared<CurlHttpSession>(http));
}

RelayController::ServiceFactory HostComposition::relayServiceFactory(
    const Executor& pool, std::shared_ptr<RelaySettings> settings) {
  return [pool, settings](const std::string& url, std::shared_ptr<const RelaySigner> signer,
                          std::optional<std::uint16_t> port, std::vector<Data> denied) {
    const auto coordinator = coordinatorClient(url, settings->coordinatorCA(), signer);
    auto service = RelayHostService::make(pool, coordinator, signer, std::move(denied), {});
    service->setListenerPort(port);
    return service;
  };
}

RelayController::Enroll HostComposition::coordinatorEnrollment(
    std::shared_ptr<RelaySettings> settings) {
  return [settings](std::string url, std::string invite,
                    std::shared_ptr<const RelaySigner> signer) -> asio::awaitable<std::string> {
    const auto client = coordinatorClient(url, settings->coordinatorCA(), std::move(signer));
    auto enrolling = client->enroll(invite);  // named: GCC 12
    std::string label = co_await std::move(enrolling);
    co_return label;
  };
}

AppModel::Dependencies HostComposition::dependencies() const {
  AppModel::Dependencies deps;
  deps.listenerFactory = [pool = executors_.pool, name = options_.hostName,
                          advertise = options_.advertise](const HostSecurity& security,
                                                          std::optional<std::uint16_t> port) {
    QUICHostListener::Options listenerOptions;
    listenerOptions.hostName = name;
    listenerOptions.hostID = security.service->hostID();
    listenerOptions.port = port.value_or(0);
    listenerOptions.advertise = advertise;
    auto listener = QUICHostListener::make(pool, *security.identity, listenerOptions);
    // Said once the listener knows whether avahi-daemon answers: a claim, not a wish.
    if (listener->advertising()) {
      Logger("io.dovka.tovu.host", "transport")
          .info("creating QUIC listener, advertising as %s", name.c_str());
    }
    return ListenerStart{listener, [listener] { return listener->waitUntilReady(); },
                         listener->discoveryProblem()};
  };
  deps.loadSecurity = [main = executors_.main, confirm = options_.confirmOnTerminal](
                          const UUID& hostID, const std::string& hostName) {
    auto identity = std::make_shared<SelfSignedIdentity>(loadIdentity());
    auto store = std::make_shared<PairedDeviceStore>(PairedDeviceStore::defaultLocation());
    // Without a person to confirm codes, pairing is by link only.
    std::shared_ptr<PairingConfirming> confirmer;
    if (confirm) confirmer = std::make_shared<TerminalPairingConfirmer>(main);
    auto service =
        std::make_shared<HostPairingService>(hostID, hostName, identity->fingerprint(), store,
                                             std::move(confirmer), [] { return WallClock::now(); });
    return HostSecurity{identity, service};
  };
  deps.probeEncoders = [] { return std::make_shared<LibavEncoderFactory>(); };
  deps.environment = [this](std::shared_ptr<EncoderFactory> encoders) {
    return environment(std::move(encoders));
  };
  deps.readPermissions = [name = options_.displayName] { return readPermissions(name); };
  deps.power = power_;
  deps.settings = std::make_shared<Settings>(Settings::defaultLocation());
  const auto relaySettings = std::make_shared<RelaySettings>(deps.settings);
  deps.relayProvisioner = std::make_shared<RelayProvisioner>(
      relaySettings, [] { return std::chrono::system_clock::now(); });
  deps.relay = RelayController::make(executors_.main, relaySettings, deps.relayProvisioner,
                                     relayServiceFactory(executors_.pool, relaySettings),
                                     coordinatorEnrollment(relaySettings));
  deps.hostName = options_.hostName;
  deps.port = options_.port;
  deps.sessionExecutor = executors_.pool;
  return deps;
}

}  // namespace kelvaron::host
