// tovu-client: the reference client. Pairs with a host, connects, decodes its video, prints what
// it sees, and can type into it. Headless: for tests, benchmarks and a first look. The flows are
// the client library's; this program reads the command line and runs the one asked for.

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "apps/common/CommandLine.hpp"
#include "client/Flow.hpp"
#include "client/HostDirectory.hpp"
#include "client/Pairing.hpp"
#include "client/Viewer.hpp"

using namespace kelvaron;

namespace {

constexpr const char* kUsage = R"(Usage:
  tovu-client list [--seconds N]
      the hosts on the local network (DNS-SD), looked for during N seconds (default 3)
  tovu-client pair <link> [--address HOST:PORT] [--name NAME]
      pair with the host of a pairing link (as tovu-host --pair prints it)
  tovu-client pair --compare <host> [--address HOST:PORT] [--name NAME]
      pair by comparing the six digits shown here with those the host shows
  tovu-client connect <host> [--address HOST:PORT] [options]
      connect to a paired host (its name or ID), show statistics every second
        --seconds N        stay connected for N seconds (default 10)
        --save-frame FILE  save the last picture as PNG when leaving
        --type TEXT        type TEXT on the host once the picture is there
        --click X,Y        first click there (points of the streamed display), as a tap would
        --audio            hear the host's sound here, beside its own speakers
        --phone-only       hear it here only: the host's speakers go quiet meanwhile
        --audio-out FILE   write the sound to a WAV file instead of playing it
        --clipboard        keep this desktop's clipboard in step with the host's (needs xclip)
        --save-cursor DIR  save each pointer image as PNG, and its states in DIR/cursor.log
        --save-thumbnails DIR  ask for pictures of the host's other displays, saved as JPEG
        --apps             print the host's applications and their windows, and each change
        --installed        print the host's installed applications (ID, name, icon hash) and
                           fetch their icons
        --save-icons DIR   with --installed: save each icon as DIR/<ID>.png
        --focus WINDOW|APP stream one window (its ID, or an application's name or ID: its first
                           window on screen); --type then types into it
        --fit              with --focus: first fit the window to this screen's shape
        --send FILE        send FILE to the host meanwhile, as a transfer of its own (see
                           send); several go one after another
        --at-once          start every --send at once, as a person sharing again before the
                           first has ended: the host takes one and refuses the others
        --via-relay        through the host's relay only (otherwise the relay is tried when the
                           host cannot be reached directly and has given this device a way
                           through it)
  tovu-client apps <host> [--installed] [--save-icons DIR]
      print the host's running applications and their windows (with --installed also the
      installed ones, fetching their icons), then leave
  tovu-client launch <host> <ID> [--alone] [--on-no-window wait|new-window|cancel]
      open an installed application (its ID as "apps --installed" prints it) and print each
      step until its window is shown
        --alone            show only its window (focus mode) rather than the whole display
        --on-no-window A   when no window comes in time: wait on, ask it for a new window, or
                           cancel (default: leave it to the host and stop here)
  tovu-client quit <host> <PID>
      ask the application of a process (as "apps" prints it) to quit, as closing its windows
      would; it may first ask about unsaved work
  tovu-client actions <host>
      print the menus of the host's application in front as the device's tree of actions
      (shortcuts, disabled items, marks and separators shown), then leave
  tovu-client action <host> <TITLE>...
      carry out an item of the front application's menus, named by its titles from the menu
      bar down ("File" "New Window"), and print "Done" or why it failed
  tovu-client send <host> <FILE>... [--kind attach|paste]
      send files to the host, where they land in its inbox and on its clipboard; shows the
      progress as it goes (on a terminal a bar with the rate and time left), then "Done" or the
      host's reason (default kind: attach). Ctrl-C cancels the transfer at the host
  tovu-client hosts
      list the paired hosts

Without --address the host is found on the local network, after the address its pairing link
carries, if any.

The client's identity and paired hosts live in $XDG_DATA_HOME/tovu-client/.
)";

struct Arguments {
  std::string command;
  std::string subject;               // the link, or the host
  std::vector<std::string> objects;  // what the apps and action commands act on
  std::optional<QUICConnection::Endpoint> address;
  std::optional<std::string> name;
  std::optional<double> seconds;
  std::string saveFrame;
  std::string type;
  std::optional<client::DisplayPoint> click;
  std::optional<AudioMode> audio;
  std::string audioOut;
  bool clipboard = false;
  std::string saveCursor;
  std::string saveThumbnails;
  bool listApps = false;
  bool listInstalled = false;
  std::string saveIcons;
  std::string focus;
  bool fit = false;
  bool compare = false;
  bool alone = false;
  std::optional<LaunchAction> onNoWindow;
  FileTransferKind kind = FileTransferKind::attach;
  std::vector<std::filesystem::path> sends;
  bool atOnce = false;
  bool viaRelay = false;
};

std::optional<LaunchAction> launchActionNamed(const std::string& name) {
  if (name == "wait") return LaunchAction::keepWaiting;
  if (name == "new-window") return LaunchAction::newWindow;
  if (name == "cancel") return LaunchAction::cancel;
  return std::nullopt;
}

// The arguments, each written where the command line says.
apps::CommandLine commandLine(Arguments& arguments) {
  apps::CommandLine line("tovu-client", kUsage);
  line.option("--address",
              [&](const std::string& text) {
                arguments.address = client::parseEndpoint(text);
                if (!arguments.address) {
                  throw apps::UsageError("--address wants an IP address and a port");
                }
              })
      .option("--name", [&](const std::string& name) { arguments.name = name; })
      .option("--seconds",
              [&](const std::string& text) {
                arguments.seconds = apps::parseNumber(text, 0.0, 1e6);
                if (!arguments.seconds) throw apps::UsageError("--seconds wants a number");
              })
      .option("--save-frame", [&](const std::string& file) { arguments.saveFrame = file; })
      .option("--type", [&](const std::string& text) { arguments.type = text; })
      .option("--click",
              [&](const std::string& text) {
                const auto comma = text.find(',');
                const auto x = apps::parseNumber(text.substr(0, comma), 0.0, 1e5);
                const auto y = comma == std::string::npos
                                   ? std::nullopt
                                   : apps::parseNumber(text.substr(comma + 1), 0.0, 1e5);
                if (!x || !y) throw apps::UsageError("--click wants X,Y in points");
                arguments.click = client::DisplayPoint{*x, *y};
              })
      .flag("--compare", [&] { arguments.compare = true; })
      .flag("--audio", [&] { arguments.audio = arguments.audio.value_or(AudioMode::both); })
      .flag("--phone-only", [&] { arguments.audio = AudioMode::phoneOnly; })
      .option("--audio-out",
              [&](const std::string& file) {
                arguments.audioOut = file;
                arguments.audio = arguments.audio.value_or(AudioMode::both);
              })
      .flag("--clipboard", [&] { arguments.clipboard = true; })
      .option("--save-cursor", [&](const std::string& dir) { arguments.saveCursor = dir; })
      .option("--save-thumbnails", [&](const std::string& dir) { arguments.saveThumbnails = dir; })
      .flag("--apps", [&] { arguments.listApps = true; })
      .flag("--installed", [&] { arguments.listInstalled = true; })
      .option("--save-icons",
              [&](const std::string& dir) {
                arguments.saveIcons = dir;
                arguments.listInstalled = true;
              })
      .option("--focus", [&](const std::string& target) { arguments.focus = target; })
      .flag("--fit", [&] { arguments.fit = true; })
      .flag("--alone", [&] { arguments.alone = true; })
      .option("--on-no-window",
              [&](const std::string& name) {
                arguments.onNoWindow = launchActionNamed(name);
                if (!arguments.onNoWindow) {
                  throw apps::UsageError("--on-no-window wants wait, new-window or cancel");
                }
              })
      .option("--kind",
              [&](const std::string& name) {
                if (name == "attach") {
                  arguments.kind = FileTransferKind::attach;
                } else if (name == "paste") {
                  arguments.kind = FileTransferKind::paste;
                } else {
                  throw apps::UsageError("--kind wants attach or paste");
                }
              })
      .option("--send", [&](const std::string& file) { arguments.sends.push_back(file); })
      .flag("--at-once", [&] { arguments.atOnce = true; })
      .flag("--via-relay", [&] { arguments.viaRelay = true; })
      .operands([&](const std::string& word) {
        if (arguments.command.empty()) {
          arguments.command = word;
        } else if (arguments.subject.empty()) {
          arguments.subject = word;
        } else {
          arguments.objects.push_back(word);
        }
      });
  return line;
}

bool isCommand(const std::string& word) {
  return word == "list" || word == "pair" || word == "connect" || word == "hosts" ||
         word == "apps" || word == "launch" || word == "quit" || word == "actions" ||
         word == "action" || word == "send";
}

// What the apps, launch, quit, actions, action and send commands ask of the viewer; a usage error
// as text.
std::optional<std::string> addErrand(const Arguments& arguments, client::AppsOptions& apps,
                                     client::ActionsOptions& actions, client::FilesOptions& files) {
  const std::string& command = arguments.command;
  const std::vector<std::string>& objects = arguments.objects;
  files.kind = arguments.kind;
  files.atOnce = arguments.atOnce;
  for (const auto& file : arguments.sends) files.transfers.push_back({file});
  if (command == "send") {
    if (objects.empty()) return "send wants the files to send";
    files.transfers.emplace_back(objects.begin(), objects.end());
    files.leaveWhenDone = true;
    files.progressBar = isatty(STDOUT_FILENO) != 0;
    return std::nullopt;
  }
  if (command == "action") {
    if (objects.empty()) return "action wants the titles of a menu item";
    actions.path = objects;
    return std::nullopt;
  }
  const std::size_t allowed = command == "launch" || command == "quit" ? 1 : 0;
  if (objects.size() > allowed) return "unexpected " + objects[allowed] + " (see --help)";
  if (command == "actions") {
    actions.list = true;
    return std::nullopt;
  }
  if (command != "apps" && command != "launch" && command != "quit") return std::nullopt;
  const std::string object = objects.empty() ? "" : objects[0];
  apps.errand = true;
  if (command == "apps") {
    apps.listApps = true;
  } else if (object.empty()) {
    return command == "launch" ? "launch wants an application's ID" : "quit wants a process ID";
  } else if (command == "launch") {
    apps.launch = object;
    apps.launchAlone = arguments.alone;
    apps.onNoWindow = arguments.onNoWindow;
  } else {
    apps.quit = apps::parseNumber<std::int32_t>(object, 1, INT32_MAX);
    if (!apps.quit) return "quit wants a process ID";
  }
  return std::nullopt;
}

}  // namespace

int main(int argc, char** argv) {
  Arguments arguments;
  const apps::CommandLine line = commandLine(arguments);
  if (const auto status = line.parse(argc, argv)) return *status;
  const std::string& command = arguments.command;
  if (command.empty()) return line.fail("no command (see --help)");
  if (!isCommand(command)) return line.fail("unknown command " + command + " (see --help)");
  const auto link = PairingURL::parse(arguments.subject);
  if (command == "pair" && !arguments.compare && !link) {
    return line.fail("that is no pairing link");
  }

  client::AppsOptions apps{.listApps = arguments.listApps,
                           .listInstalled = arguments.listInstalled,
                           .saveIcons = arguments.saveIcons,
                           .focus = arguments.focus,
                           .fit = arguments.fit};
  client::ActionsOptions actions;
  client::FilesOptions files;
  if (const auto problem = addErrand(arguments, apps, actions, files)) return line.fail(*problem);
  // Files take as long as they take; other errands end by themselves well within the default.
  const double defaultSeconds = files.leaveWhenDone ? 3600 : 10;

  const client::HostDirectory directory(arguments.address);
  const client::ViewerOptions viewing{
      std::chrono::duration<double>(arguments.seconds.value_or(defaultSeconds)),
      arguments.saveFrame,
      arguments.type,
      arguments.click,
      arguments.audio,
      arguments.audioOut,
      arguments.clipboard,
      arguments.saveCursor,
      arguments.saveThumbnails,
      apps,
      actions,
      files,
      arguments.viaRelay};
  const std::chrono::duration<double> looking(arguments.seconds.value_or(3));
  const auto flow = [&]() -> asio::awaitable<void> {
    client::ClientDevice device;
    if (arguments.name) device.name = *arguments.name;
    if (command == "hosts") {
      client::listPairedHosts(device, std::cout);
    } else if (command == "list") {
      co_await client::listNearbyHosts(device, looking, std::cout);
    } else if (command == "pair" && arguments.compare) {
      co_await client::pairByComparison(device, directory, arguments.subject, std::cout);
    } else if (command == "pair") {
      co_await client::pairByLink(device, directory, *link, std::cout);
    } else {
      co_await client::connect(device, directory, arguments.subject, viewing, std::cout);
    }
  };
  return client::runFlow(flow, std::cerr);
}
