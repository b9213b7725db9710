#pragma once

#include <asio/awaitable.hpp>
#include <asio/thread_pool.hpp>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iosfwd>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "client/ActionsView.hpp"
#include "client/AppsView.hpp"
#include "client/AudioDecoder.hpp"
#include "client/AudioOutput.hpp"
#include "client/ClientDevice.hpp"
#include "client/FilesView.hpp"
#include "client/HostDirectory.hpp"
#include "client/VideoDecoder.hpp"
#include "client/ViewerStatistics.hpp"
#include "kit/async/Task.hpp"
#include "kit/transport/Connection.hpp"

namespace kelvaron::client {

// A place on a display of the host, in its points.
struct DisplayPoint {
  double x = 0, y = 0;
};

struct ViewerOptions {
  std::chrono::duration<double> duration = std::chrono::seconds(10);  // how long to stay
  std::filesystem::path saveFrame;  // where the last picture goes, as PNG, when leaving
  std::string type;                 // typed on the host once the picture is there
  // Clicked once the picture is there, before typing: a point of the streamed display.
  std::optional<DisplayPoint> click;
  std::optional<AudioMode> audio;        // asked for once connected
  std::filesystem::path audioOut;        // the sound goes to this WAV file instead of the speakers
  bool clipboard = false;                // keeps this desktop's clipboard in step with the host's
  std::filesystem::path saveCursor;      // each pointer image as PNG, and a log of its states
  std::filesystem::path saveThumbnails;  // asks for the other displays' pictures, saved as JPEG
  AppsOptions apps;
  ActionsOptions actions;
  FilesOptions files;
  bool viaRelay = false;  // through the relay only, even when the host could be reached directly
};

// A session with a host that has been greeted: tells `out` what the host says and each second's
// figures, decodes the pictures, sends the feedback, types, saves the last picture, plays or
// records the sound, mirrors the clipboard, saves the cursor and thumbnails, and shows the host's
// applications and the front one's actions when asked.
class Viewer : public std::enable_shared_from_this<Viewer> {
 public:
  using Clock = std::chrono::steady_clock;

  // `since`: when the client began to connect, for the time to the first picture. Throws when
  // there is no HEVC decoder.
  Viewer(std::shared_ptr<Connection> connection, ViewerOptions options, std::ostream& out,
         Clock::time_point since);

  // What the host offers for coming back through its relay; kept by whoever connected.
  std::function<void(const msg::relayConfig&)> onRelayConfig;

  // Stays for the options' duration, or until the host ends the session. Throws FlowError when
  // the host refused the device or sent no picture, or when the picture to save is missing.
  asio::awaitable<void> run();

 private:
  asio::awaitable<void> readMessages();
  // Each transfer after the one before it has ended, or all at once when asked.
  void sendFiles(const Executor& executor);
  asio::awaitable<void> readVideo();
  asio::awaitable<void> readAudio();
  void startAudio(const msg::audioConfig& config);
  void showAudioStatus(const msg::audioStatus& status);
  void cursorState(const msg::cursorState& state);
  void cursorShape(const msg::cursorShape& shape);
  void thumbnail(const msg::thumbnail& picture);
  void streamMode(const StreamModeInfo& info);
  // One line for each change of the focused text field on the host.
  void textFocus(const msg::textFocus& focus);
  void clipboardFromHost(const std::string& text);
  asio::awaitable<void> mirrorClipboard();
  // On the clipboard thread: this desktop's clipboard text when it changed since it was last
  // read or written here.
  std::optional<std::string> localClipboardChange();
  void show(Picture picture, const VideoFrame& frame, double decodeMs);
  void clickOnce();
  void endSecond(int second);
  void leave();

  std::shared_ptr<Connection> connection_;
  const ViewerOptions options_;
  std::ostream& out_;
  const Clock::time_point since_;
  VideoDecoder decoder_;
  VideoStatistics statistics_;
  std::optional<AudioDecoder> audioDecoder_;
  std::unique_ptr<AudioOutput> audioOutput_;
  AudioStatistics audioStatistics_;
  CursorStatistics cursorStatistics_;
  std::ofstream cursorLog_;  // with --save-cursor: a line per state and per shape
  std::uint32_t thumbnails_ = 0;
  AppsView apps_;
  ActionsView actions_;
  FilesView files_;
  asio::thread_pool clipboardThread_{1};
  std::optional<std::string> lastLocalClipboard_;  // touched on the clipboard thread only
  std::optional<std::string> audioProblem_;
  std::optional<Picture> latest_;
  std::optional<std::string> refusal_;
  bool focused_ = false;  // the host streams the window asked for
  std::vector<DisplayInfo> displays_;
  std::uint32_t streamedDisplay_ = 0;
  std::uint32_t pointerSeq_ = 0;
  bool clicked_ = false;
  bool typed_ = false;
  bool ended_ = false;
};

// The "connect" command: signs in to the paired host that `host` names (its ID or name) and views
// it as `options` say. Throws FlowError when it is not paired or does not let this device in.
asio::awaitable<void> connect(ClientDevice& device, const HostDirectory& directory,
                              const std::string& host, const ViewerOptions& options,
                              std::ostream& out);

}  // namespace kelvaron::client
