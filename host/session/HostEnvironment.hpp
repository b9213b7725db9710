#pragma once

#include <asio/awaitable.hpp>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "host/audio/AudioCapturing.hpp"
#include "host/audio/AudioEncoding.hpp"
#include "host/audio/AudioTapArbiter.hpp"
#include "host/desktop/FitRestoreRegistry.hpp"
#include "host/desktop/FocusFollowing.hpp"
#include "host/desktop/InstalledApps.hpp"
#include "host/desktop/LaunchCoordinator.hpp"
#include "host/desktop/MenuSource.hpp"
#include "host/desktop/Notifying.hpp"
#include "host/desktop/PasteboardProviding.hpp"
#include "host/desktop/TextFocus.hpp"
#include "host/desktop/WindowSystem.hpp"
#include "host/input/ClickRecord.hpp"
#include "host/input/InputInjector.hpp"
#include "host/input/LayoutStroke.hpp"
#include "host/session/PowerManaging.hpp"
#include "host/video/CaptureSource.hpp"
#include "host/video/CursorSource.hpp"
#include "host/video/DisplayProviding.hpp"
#include "host/video/EncoderFactory.hpp"
#include "host/video/ThumbnailProviding.hpp"
#include "kit/async/Task.hpp"
#include "kit/relay/RelayProvision.hpp"
#include "kit/wire/Bytes.hpp"

namespace kelvaron::host {

// Every dependency of a session and its interval settings, as a plain value copied into each
// session so that any entry can be replaced. The application's composition fills it; the defaults
// here are those that need nothing of the computer.
struct HostEnvironment {
  UUID hostID;
  std::string hostName;
  std::shared_ptr<DisplayProviding> displays;
  CaptureFactory makeCapture;
  std::shared_ptr<EncoderFactory> encoders;
  // One for the process: every session moves the same pointer.
  std::shared_ptr<InputInjector> injector;
  std::shared_ptr<ClickRecord> clicks = std::make_shared<ClickRecord>();
  // How long the picture must stand still before it is sent once more at high quality.
  std::chrono::duration<double> idleRefreshDelay{0.15};
  std::chrono::duration<double> statsInterval{1.0};
  // Every wait of the session's own (its loops, the farewell before a close): the monotonic
  // clock, or a clock that a test moves.
  Sleeper sleep = sleepFor;
  std::shared_ptr<PowerManaging> power;
  // A capture of the computer's sound for each audio run, the encoders, and the one tap that all
  // sessions share.
  std::function<std::shared_ptr<AudioCapturing>()> makeAudioCapture = [] {
    return std::make_shared<UnavailableAudioCapture>();
  };
  std::shared_ptr<const AudioEncoderFactory> audioEncoders =
      std::make_shared<AACELDEncoderFactory>();
  std::shared_ptr<AudioTapArbiter> audioArbiter = std::make_shared<AudioTapArbiter>();
  // The pointer's image, looked at for its shape; more often the session looks where the pointer
  // is, and after each of the client's pointer events, at most this often. Without a source the
  // session publishes no cursor.
  std::shared_ptr<CursorSource> cursorSource;
  std::chrono::duration<double> cursorShapePollInterval{1.0 / 30};
  std::chrono::duration<double> cursorPollInterval{1.0 / 60};
  std::chrono::duration<double> cursorInputInterval{1.0 / 120};
  // The clipboard, one for the process; without it the session keeps no clipboard in step.
  std::shared_ptr<PasteboardProviding> pasteboard;
  std::chrono::duration<double> clipboardPollInterval{0.5};
  // Where files from the device land, a folder per transfer; the user's inbox when empty.
  std::filesystem::path inboxRoot;
  // Tells the person at the computer what arrived; without it nobody is told.
  std::shared_ptr<Notifying> notifications;
  // Pictures of the displays not streamed, for the device's picker; none without a provider.
  std::shared_ptr<ThumbnailProviding> thumbnails;
  std::chrono::duration<double> thumbnailInterval{1.0};
  // Applications and windows; without them the session offers no app list and no focus mode.
  std::shared_ptr<AppProviding> apps;
  std::shared_ptr<WindowControlling> windowControl;
  std::shared_ptr<WindowTracking> windowTracker;
  std::shared_ptr<WindowThumbnailProviding> windowThumbnails;
  std::chrono::duration<double> appPollInterval{1.0};
  // Every installed application, for the device's launcher; none offered without it.
  std::shared_ptr<InstalledAppsProviding> installedApps;
  // Opening them; without it the device's launches go unanswered. How long a launch waits for a
  // window before the device is asked what to do.
  std::shared_ptr<AppLaunching> launcher;
  std::chrono::duration<double> launchTimeout{15};
  std::chrono::duration<double> windowThumbnailInterval{1.0};
  // The menus of the application in front, for the device's actions: none offered without them;
  // read again at least this often while the device watches. The keyboard layout in force types
  // an item's shortcut where the item cannot be pressed; without it only keys that type no
  // character can be.
  std::shared_ptr<MenuSource> menus;
  std::chrono::duration<double> actionsRefreshInterval{2.0};
  KeyLayoutLookup keyLayout;
  // Following the computer's focus in focus mode: without an observer the stream stays on the
  // chosen window. Another window must stay in front for `focusDebounce` to be followed, and for
  // `followGrace` after a switch nothing is followed while the computer's focus settles.
  std::shared_ptr<FocusObserving> focusObserver;
  std::chrono::duration<double> focusPollInterval{0.25};
  std::chrono::duration<double> focusDebounce{0.3};
  std::chrono::duration<double> followGrace{0.8};
  // The keyboard focus in text fields, for the device's keyboard; none told without it.
  std::shared_ptr<TextFocusSource> textFocus;
  // The undoing of window resizes, one for the process.
  std::shared_ptr<FitRestoreRegistry> fitRegistry = std::make_shared<FitRestoreRegistry>();
  // This process, whose own windows are never followed.
  std::int32_t ownPID = 0;
  // Where a session's blocking work runs (connecting to the sound server); its own strand when
  // empty.
  Executor background;

  // Asked once after `hello`: whether to keep the display awake while connected.
  std::function<bool()> keepDisplayAwake = [] { return true; };
  // Asked after `hello` and on pointer movement.
  std::function<bool()> isDisplayAsleep = [] { return false; };
  // Asked after `hello` and on capture failure.
  std::function<bool()> screenRecordingGranted = [] { return true; };
  // Awaited after `hello` with whether the display was asleep; the application's wake request.
  std::function<asio::awaitable<void>(bool displayAsleep)> onWakeRequested =
      [](bool) -> asio::awaitable<void> { co_return; };
  // The relays to offer a client with this public key, if any.
  std::function<std::optional<RelayProvision>(const std::optional<Data>& clientKey)> relayConfig =
      [](const std::optional<Data>&) { return std::optional<RelayProvision>(); };
};

}  // namespace kelvaron::host
