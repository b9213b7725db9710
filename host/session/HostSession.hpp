#pragma once

#include <asio/awaitable.hpp>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/audio/AudioPipeline.hpp"
#include "host/desktop/FocusFollowing.hpp"
#include "host/files/FileReceiver.hpp"
#include "host/session/CursorShapeRegistry.hpp"
#include "host/session/HostEnvironment.hpp"
#include "host/session/SessionStatus.hpp"
#include "host/video/BitrateController.hpp"
#include "host/video/VideoPipeline.hpp"
#include "host/video/VideoSink.hpp"
#include "kit/async/Task.hpp"
#include "kit/crypto/AuthCrypto.hpp"
#include "kit/log/Logger.hpp"
#include "kit/security/AuthGate.hpp"
#include "kit/transport/AsyncQueue.hpp"
#include "kit/transport/Connection.hpp"

namespace kelvaron::host {

// The state the client is told about in `hostStatus`.
struct HostStatusValue {
  HostState state = HostState::ok;
  std::optional<std::string> detail;
  friend bool operator==(const HostStatusValue&, const HostStatusValue&) = default;
};

// Lives for exactly one accepted connection: runs the gate, negotiates the stream, dispatches every
// later message, reports to the application and the client, and undoes everything when the
// connection's messages end. A serial-executor object: all its state is touched on its own strand,
// and every public operation moves there by itself.
class HostSession : public std::enable_shared_from_this<HostSession> {
 public:
  using StatusCallback = std::function<void(const SessionStatus&)>;

  // Does no work and sends nothing. Without a gate (the debug loopback path), `fixedClientKey`
  // stands in for the authenticated key.
  static std::shared_ptr<HostSession> make(const Executor& executor,
                                           std::shared_ptr<Connection> connection,
                                           HostEnvironment env, std::shared_ptr<AuthGate> gate,
                                           std::optional<Data> fixedClientKey,
                                           StatusCallback onStatus);

  const Executor& executor() const { return strand_; }

  // Returns when the session is over. Called once.
  asio::awaitable<void> run();
  // Ends this session because another device took over.
  asio::awaitable<void> replaced(std::string byDeviceName);
  // Ends this session without a word to the client: the same device connected again.
  void closeConnection();

  void setNote(std::optional<std::string> text);
  void setLifecycleState(HostState state, std::optional<std::string> detail);
  void setKeepAwake(bool keepAwake);
  // What the client is given to come back through the relay changed: it is given it again.
  void relayConfigChanged();
  // Sleep, display sleep and the lock hold capture; the hold keeps what the client was seeing.
  asio::awaitable<void> suspendCapture(std::string reason);
  asio::awaitable<void> resumeCapture(bool restart);

 private:
  HostSession(const Executor& executor, std::shared_ptr<Connection> connection, HostEnvironment env,
              std::shared_ptr<AuthGate> gate, std::optional<Data> fixedClientKey,
              StatusCallback onStatus);

  asio::awaitable<void> runOnStrand();
  asio::awaitable<void> handle(const Message& message);
  asio::awaitable<void> dispatch(const Message& message);
  asio::awaitable<void> handleHello(const msg::hello& hello);
  asio::awaitable<void> rejectHello(const std::string& reason);
  asio::awaitable<void> replacedOnStrand(std::string byDeviceName);
  void sendRelayConfig();
  HostStatusValue currentHostStatus() const;
  void publishHostStatus(bool force);
  void applyNote(std::optional<std::string> text);
  void updateKeepAwakeAssertion();
  void startBackgroundTasks();
  // A background loop: `round` every `interval`, counted from the end of the last one, for as long
  // as the session lives and the task is not cancelled.
  static asio::awaitable<void> periodic(std::weak_ptr<HostSession> weak, Sleeper sleep,
                                        std::chrono::duration<double> interval,
                                        asio::awaitable<void> (HostSession::*round)());
  asio::awaitable<void> statisticsRound();
  asio::awaitable<void> teardown();

  // Streaming control (HostSessionStreaming.cpp): what the client sees, and whether capture runs.
  static const DisplayInfo& mainOrFirst(const std::vector<DisplayInfo>& displays);
  void makeVideoStack(CodecProfile profile);
  void handleEncoderEvent(const EncoderOutput& event);
  void requestKeyframe();
  asio::awaitable<void> selectDisplay(std::uint32_t displayID, std::optional<Viewport> viewport);
  asio::awaitable<void> applySource(DisplayInfo display, Viewport viewport);
  asio::awaitable<bool> startCapture(DisplayInfo display, Viewport viewport);
  void captureFailed(const std::string& text);
  void captureEnded(const std::shared_ptr<CaptureSource>& source, const std::string& reason);
  asio::awaitable<void> stopCapture();
  void sendStreamInfo();
  asio::awaitable<void> handleViewport(const Viewport& viewport);
  asio::awaitable<void> setVideoEnabledFlag(bool value);
  asio::awaitable<void> suspendCaptureOnStrand(std::string reason);
  asio::awaitable<void> resumeCaptureOnStrand(bool restart);
  asio::awaitable<void> refreshDisplays();
  void handleFeedback(const Feedback& feedback);
  void statsTick();

  // Audio (HostSessionAudio.cpp): one pipeline per run, the newest session's claim on the tap wins.
  void setAudio(AudioMode mode);
  asio::awaitable<void> startAudio(AudioMode mode, std::int64_t generation);
  std::shared_ptr<AudioPipeline> makeAudioPipeline(AudioMode mode, std::int64_t generation);
  void audioFailed(const AudioCaptureError& failure);
  void audioTakenOver();
  void stopAudioPipeline();

  // Input (HostSessionInput.cpp).
  asio::awaitable<void> handlePointer(const PointerEvent& event, std::uint32_t seq);

  // The cursor (HostSessionCursor.cpp).
  // What identifies a published state is the whole state.
  using CursorKey = msg::cursorState;
  asio::awaitable<void> cursorPositionRound();
  asio::awaitable<void> cursorShapeRound();
  void publishCursor(std::chrono::duration<double> minInterval);
  void sendCursorShape(std::uint32_t id, bool force);

  // The clipboard and thumbnails (HostSessionClipboard.cpp).
  asio::awaitable<void> clipboardRound();
  asio::awaitable<void> writeClipboard(std::string text);
  static asio::awaitable<void> writeOwnClipboard(std::weak_ptr<HostSession> weak,
                                                 std::shared_ptr<PasteboardProviding> pasteboard,
                                                 asio::awaitable<void> write);
  void setThumbnails(bool enabled);
  std::vector<std::uint32_t> thumbnailDisplayIDs() const;
  static asio::awaitable<void> thumbnailLoop(std::weak_ptr<HostSession> weak,
                                             std::shared_ptr<ThumbnailProviding> provider,
                                             Sleeper sleep, std::chrono::duration<double> interval);
  void report() const;

  // Files from the device (HostSessionFiles.cpp): received into the inbox by a receiver made at
  // the first need, and put on the clipboard once complete.
  FileReceiver& fileReceiver();
  asio::awaitable<void> withFileReceiver(std::function<void(FileReceiver&)> work);
  bool putFilesOnClipboard(std::vector<PasteboardFile> files);
  void notifyArrival(const std::vector<PasteboardFile>& files);
  static asio::awaitable<void> writeClipboardFiles(std::weak_ptr<HostSession> weak,
                                                   std::shared_ptr<PasteboardProviding> pasteboard,
                                                   ClipboardFiles files);

  // Focus mode (HostSessionFocus.cpp): one application's window instead of a whole display, and
  // following the computer's focus meanwhile.
  enum class SwitchOrigin : std::uint8_t { request, follow, back, fallback };
  struct FocusRequest {
    std::int32_t pid = 0;
    std::uint32_t windowID = 0;
    bool wantsFit = false;
    bool moveCursor = false;
    SwitchOrigin origin = SwitchOrigin::request;
    std::optional<std::string> appName;
  };
  struct FocusSession {
    std::int32_t pid = 0;
    std::uint32_t windowID = 0;
    std::string title;
    bool wantsFit = false;
    DisplayInfo display;
    Rect windowFrame;                               // global points
    Rect base;                                      // display-local points: the surface streamed
    std::optional<std::uint32_t> desktopDisplayID;  // what to return to
    bool fitApplied = false;
    std::string appName;
    std::optional<ObservedWindow> popup;
    friend bool operator==(const FocusSession&, const FocusSession&) = default;
  };
  struct FittedWindow {
    std::int32_t pid = 0;
    AppWindowRef original;  // before the first fit
    UUID registryID;
  };
  struct Fit {
    bool applied = false;
    Rect frame;
    std::optional<std::string> notice;
  };
  asio::awaitable<void> handleFocus(const msg::focus& request);
  asio::awaitable<void> performFocus(FocusRequest request);
  // The reason it failed, for the log; nothing when it did what it could.
  asio::awaitable<std::optional<std::string>> switchFocus(const FocusRequest& request);
  asio::awaitable<std::optional<WindowRecord>> windowOnScreen(std::uint32_t windowID);
  asio::awaitable<Fit> applyFit(const WindowRecord& window, PixelSize output);
  asio::awaitable<void> restoreFit(std::uint32_t windowID);
  void forgetFit(std::uint32_t windowID);
  asio::awaitable<void> restoreAllFits();
  asio::awaitable<void> unfocus(std::optional<std::string> notice);
  asio::awaitable<void> applyFocusCapture(const DisplayInfo& display, bool resetSource);
  PixelSize focusOutputSize() const;
  void sendStreamMode(std::optional<std::string> notice, std::optional<FocusFollowInfo> follow);
  void restartFocusLoop();
  static asio::awaitable<void> focusLoop(std::weak_ptr<HostSession> weak, Sleeper sleep,
                                         std::chrono::duration<double> interval);
  asio::awaitable<void> followFocus();
  asio::awaitable<void> refreshFocus(bool forced, bool popupChanged);
  asio::awaitable<void> focusWindowClosed();
  asio::awaitable<void> changePopup(std::optional<ObservedWindow> popup);
  asio::awaitable<void> focusBack();
  void moveCursorInto(const Rect& frame);
  std::optional<DisplayInfo> focusedPointerDisplay() const;

  // The application list (HostSessionApps.cpp).
  asio::awaitable<void> setAppListUpdates(bool enabled);
  asio::awaitable<void> publishApps();
  asio::awaitable<void> publishRecents();
  static asio::awaitable<void> appChangeLoop(std::weak_ptr<HostSession> weak, ChangeStream changes,
                                             asio::awaitable<void> (HostSession::*publish)());
  asio::awaitable<void> activateApp(const msg::activateApp& request);
  void setWindowThumbnails(const msg::windowThumbnails& request);
  static asio::awaitable<void> windowThumbnailLoop(std::weak_ptr<HostSession> weak,
                                                   std::vector<std::uint32_t> ids);
  void stopAppWork();

  // The installed applications and their icons (HostSessionInstalled.cpp), each answered from a
  // task of its own that holds the session weakly.
  void sendInstalledApps();
  void sendAppIcons(std::vector<std::string> bundleIDs);
  static asio::awaitable<void> installedAppsAnswer(
      std::weak_ptr<HostSession> weak, std::shared_ptr<InstalledAppsProviding> provider);
  static asio::awaitable<void> appIconsAnswer(std::weak_ptr<HostSession> weak,
                                              std::shared_ptr<InstalledAppsProviding> provider,
                                              std::vector<std::string> bundleIDs);

  // Launching and quitting applications (HostSessionLaunch.cpp). The coordinator is made at the
  // first need; none without a launcher and a window system.
  LaunchCoordinator* launchCoordinator();
  void launchApp(const msg::launchApp& request);
  asio::awaitable<void> launchControl(const msg::launchControl& request);
  static asio::awaitable<LaunchState> revealLaunched(std::weak_ptr<HostSession> weak,
                                                     std::int32_t pid, std::uint32_t windowID,
                                                     bool focus);
  static asio::awaitable<void> askForNewWindow(std::weak_ptr<HostSession> weak, std::int32_t pid);
  asio::awaitable<void> quitApp(std::int32_t pid);

  // The focused text field (HostSessionTextFocus.cpp): each change the source reports, told in
  // order from a task that holds the session weakly.
  void startTextFocus();
  void stopTextFocus();
  static asio::awaitable<void> textFocusLoop(std::weak_ptr<HostSession> weak,
                                             std::shared_ptr<AsyncQueue<TextFocus>> results);
  void handleTextFocus(const TextFocus& focus);

  // The front application's menus as the device's actions (HostSessionActions.cpp): watched
  // while the device asks, each new state of the tree numbered by a generation.
  struct SentActions {
    std::int32_t pid = 0;
    std::string bundleID;
    std::uint32_t generation = 0;
    std::vector<MenuNode> menus;
  };
  void watchActions(bool enabled);
  asio::awaitable<void> wantActions();
  asio::awaitable<void> refreshActions();
  asio::awaitable<void> performAction(const msg::performAction& request);
  bool sendShortcut(const std::string& key, std::uint8_t modifiers, const std::string& label);
  void stopActions();

  // Runs `body` on this session's strand, keeping the session alive meanwhile.
  void onStrand(std::function<void(HostSession&)> body);

  Executor strand_;
  std::shared_ptr<Connection> connection_;
  HostEnvironment env_;
  StatusCallback onStatus_;
  std::shared_ptr<AuthGate> authGate_;
  std::optional<Data> fixedClientKey_;
  SessionStatus status_;
  std::optional<ClientCapabilities> client_;
  std::vector<DisplayInfo> displays_;
  std::optional<DisplayInfo> current_;
  std::optional<Viewport> viewport_;
  std::shared_ptr<CaptureSource> capture_;
  bool captureStarted_ = false;
  std::shared_ptr<VideoPipeline> pipeline_;
  std::shared_ptr<VideoSink> sink_;
  BitrateController bitrate_;
  std::vector<Task> tasks_;
  struct StatsMark {
    double time = 0;  // uptime in seconds
    std::int64_t frames = 0;
    std::int64_t bytes = 0;
  };
  std::optional<StatsMark> lastStats_;
  std::uint32_t lastAppliedSeq_ = 0;
  const InputOwner inputOwner_ = newInputOwner();
  double lastLoggedFeedback_ = 0;
  std::optional<std::uint32_t> assertionID_;
  bool keepAwake_ = true;
  bool helloAcked_ = false;
  bool captureHeld_ = false;
  bool videoEnabled_ = true;
  HostStatusValue lifecycleState_;
  std::optional<HostStatusValue> captureProblem_;
  std::optional<HostStatusValue> lastSentStatus_;
  CaptureScope scope_ = scope::display{};
  AudioMode audioMode_ = AudioMode::off;
  std::shared_ptr<AudioPipeline> audioPipeline_;
  std::int64_t audioGeneration_ = 0;  // moved at every change: late completions see it
  const UUID audioOwnerID_ = AuthCrypto::randomUUID();
  std::optional<CursorKey> cursorSent_;
  double lastCursorSendAt_ = 0;  // uptime in seconds
  CursorShapeRegistry cursorShapes_;
  std::set<std::uint32_t> sentShapeIDs_;
  std::uint32_t currentShapeID_ = 0;  // none yet
  bool cursorVisible_ = true;
  std::optional<std::uint64_t> shapeToken_;
  ChangeCountBox clipboardMark_;
  int clipboardWrites_ = 0;  // ours under way: their mark is not set yet
  std::optional<Task> thumbnailTask_;
  std::unique_ptr<FileReceiver> fileReceiver_;
  std::optional<FocusSession> focus_;
  std::optional<Task> focusTask_;
  std::map<std::uint32_t, FittedWindow> fitted_;
  bool moveCursorOnSwitch_ = false;
  bool fitOnSwitch_ = false;
  FocusBackStack backStack_;
  FocusDebouncer debouncer_;
  double followIgnoreUntil_ = 0;  // uptime in seconds
  // Moved by every switch of focus, unfocus and the end: a switch that waited sees it moved.
  std::uint64_t focusEpoch_ = 0;
  // Said in hostStatus while focus mode shows other applications' windows too.
  std::optional<HostStatusValue> focusNotice_;
  std::vector<Task> appTasks_;
  std::optional<std::vector<AppInfo>> lastAppList_;
  std::optional<std::vector<std::int32_t>> lastRecentPIDs_;
  std::optional<Task> windowThumbTask_;
  std::vector<std::uint32_t> thumbWindowIDs_;
  std::map<std::uint32_t, Data> windowThumbCache_;
  std::shared_ptr<LaunchCoordinator> launchCoordinator_;
  TextFocusSource::Stop stopTextFocus_;
  std::optional<Task> textFocusTask_;
  std::optional<TextFocus> textFocusSent_;
  std::vector<Task> actionsTasks_;
  ChangeStream actionsWanted_;           // while watching
  std::uint32_t actionsGeneration_ = 0;  // never reset: an old performAction matches no later tree
  std::optional<SentActions> lastActions_;
  Logger log_{"io.dovka.tovu.host", "session"};
};

}  // namespace kelvaron::host
