// The clipboard against real X clients on one Xvfb: xclip copies and pastes; a bare xcb client
// takes the clipboard and never answers, or asks for it and never takes what it is given.

#include "host/desktop/X11Pasteboard.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <xcb/xcb.h>

#include <fstream>
#include <functional>
#include <future>
#include <thread>
#include <tuple>

#include "host/x11/X11Connection.hpp"
#include "tests/support/AsyncTest.hpp"
#include "tests/support/ChildProcess.hpp"
#include "tests/support/TempDirectory.hpp"
#include "tests/support/VirtualDisplay.hpp"

namespace kelvaron::host {
namespace {

using namespace test;

bool eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + 30s;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(10ms);
  }
  return true;
}

bool countMoves(X11Pasteboard& clipboard, std::int64_t from) {
  return eventually([&] { return clipboard.changeCount() != from; });
}

// Each from an io_context of its own, which is gone when it returns, as a session that ended.
std::optional<std::string> read(X11Pasteboard& clipboard) {
  std::optional<std::string> text;
  runAsync([&](asio::io_context&) -> asio::awaitable<void> { text = co_await clipboard.string(); },
           5s);
  return text;
}

void write(X11Pasteboard& clipboard, const std::string& text) {
  runAsync([&](asio::io_context&) -> asio::awaitable<void> {
    auto writing = clipboard.writeString(text);
    co_await std::move(writing);
  });
}

// Sizes rather than megabytes of text when they differ.
testing::AssertionResult same(const std::optional<std::string>& got,
                              const std::optional<std::string>& expected) {
  const auto shown = [](const std::optional<std::string>& text) {
    if (!text) return std::string("nothing");
    return text->size() > 200 ? std::to_string(text->size()) + " bytes" : '"' + *text + '"';
  };
  if (got == expected) return testing::AssertionSuccess();
  return testing::AssertionFailure() << "got " << shown(got) << ", expected " << shown(expected);
}

std::string largeText() {
  std::string text;
  for (int line = 0; text.size() < 5'000'000; ++line)
    text += "line " + std::to_string(line) + " — grüße\n";
  return text;
}

class BareClient {
 public:
  explicit BareClient(const std::string& display) : c_(xcb_connect(display.c_str(), nullptr)) {
    xcb_create_window(c_, 0, window_, xcb_setup_roots_iterator(xcb_get_setup(c_)).data->root, 0, 0,
                      1, 1, 0, XCB_WINDOW_CLASS_INPUT_ONLY, XCB_COPY_FROM_PARENT, 0, nullptr);
  }
  ~BareClient() { xcb_disconnect(c_); }

  void takeClipboard() {
    xcb_set_selection_owner(c_, window_, atom("CLIPBOARD"), XCB_CURRENT_TIME);
    xcb_flush(c_);
  }
  // The type of the answer for `target`, none without one. The answer stays where it is, so that
  // one in pieces stalls.
  xcb_atom_t answerType(const std::string& target) {
    xcb_convert_selection(c_, window_, atom("CLIPBOARD"), atom(target), atom("BARE_PROPERTY"),
                          XCB_CURRENT_TIME);
    xcb_flush(c_);
    XcbReply<xcb_generic_event_t> event;
    const auto notified = [&] {
      event.reset(xcb_poll_for_event(c_));
      return event && (event->response_type & 0x7F) == XCB_SELECTION_NOTIFY;
    };
    if (!eventually(notified)) return XCB_NONE;
    // A refusal names no property, so the server answers with none.
    const auto property = reinterpret_cast<const xcb_selection_notify_event_t&>(*event).property;
    const XcbReply<xcb_get_property_reply_t> reply(xcb_get_property_reply(
        c_, xcb_get_property(c_, 0, window_, property, XCB_GET_PROPERTY_TYPE_ANY, 0, 0), nullptr));
    return reply ? reply->type : XCB_NONE;
  }
  xcb_atom_t atom(const std::string& name) {
    const XcbReply<xcb_intern_atom_reply_t> reply(xcb_intern_atom_reply(
        c_, xcb_intern_atom(c_, 0, std::uint16_t(name.size()), name.c_str()), nullptr));
    return reply ? reply->atom : XCB_NONE;
  }

 private:
  xcb_connection_t* c_;
  xcb_window_t window_ = xcb_generate_id(c_);
};

class X11PasteboardTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { display_ = std::make_unique<VirtualDisplay>(); }
  static void TearDownTestSuite() { display_.reset(); }
  void SetUp() override { SKIP_WITHOUT_DISPLAY(*display_); }
  static const std::string& display() { return display_->name(); }

  // Starts xclip offering `bytes` as `type` (answering any target with them) until it loses the
  // clipboard; true once `clipboard` has seen it take it.
  testing::AssertionResult copied(X11Pasteboard& clipboard, const std::string& bytes,
                                  const std::string& type = "UTF8_STRING") {
    const auto before = clipboard.changeCount();
    // xclip has read the file before it takes the clipboard: one file does for all copies.
    std::ofstream(files_ / "copied", std::ios::binary) << bytes;
    copier_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{"xclip", "-quiet", "-d", display(), "-sel", "clip", "-t", type,
                                 "-i", (files_ / "copied").string()},
        files_ / "xclip.log");
    if (countMoves(clipboard, before)) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "xclip did not take the clipboard";
  }

  static std::string paste(const std::string& target = "UTF8_STRING") {
    return runCommand({"xclip", "-d", display(), "-sel", "clip", "-t", target, "-o"}).output;
  }

  static inline std::unique_ptr<VirtualDisplay> display_;
  TempDirectory files_;
  std::unique_ptr<ChildProcess> copier_;
};

// The text comes as well-formed UTF-8 whatever the owner's encoding, large text in pieces; what
// is not text gives nothing. Taking the clipboard back ends xclip quietly: it owns nothing then.
TEST_F(X11PasteboardTest, ReadsWhatAnotherProgramCopied) {
  X11Pasteboard clipboard(display());
  const std::string large = largeText();
  const std::tuple<std::string, std::string, std::optional<std::string>> cases[] = {
      {"hello, clipboard", "UTF8_STRING", "hello, clipboard"},
      {"Grüße ✓ 日本語 🙂", "UTF8_STRING", "Grüße ✓ 日本語 🙂"},
      {large, "UTF8_STRING", large},
      {"a\377b\303", "UTF8_STRING", "a\uFFFDb\uFFFD"},
      {"ü", "text/plain;charset=utf-8", "ü"},
      {"caf\351", "STRING", "café"},
      {"\x89PNG\r\n", "image/png", std::nullopt},
  };
  for (const auto& [bytes, type, expected] : cases) {
    SCOPED_TRACE(type + ": " + bytes.substr(0, 20));
    ASSERT_TRUE(copied(clipboard, bytes, type));
    EXPECT_TRUE(same(read(clipboard), expected));
    write(clipboard, "");
  }
}

// Pasted by other programs, two at once while a third stalls midway (large text goes in
// pieces); read back from our own data; other targets as the conventions go. Our own take-over
// moves the count once: another program's copy after it is exactly one change more.
TEST_F(X11PasteboardTest, WritesWhatAnotherProgramPastes) {
  X11Pasteboard clipboard(display());
  const std::tuple<std::string, std::string, std::optional<std::string>> cases[] = {
      {"plain text", "UTF8_STRING", "plain text"},
      {"Grüße ✓ Ω", "UTF8_STRING", "Gr\374\337e ? ?"},
      {largeText(), "INCR", std::nullopt},
  };
  for (const auto& [text, answeredAs, latin1] : cases) {
    SCOPED_TRACE(text.substr(0, 20));
    const auto before = clipboard.changeCount();
    write(clipboard, text);
    EXPECT_EQ(clipboard.changeCount(), before + 1);
    EXPECT_TRUE(same(read(clipboard), text));

    BareClient stalled(display());
    EXPECT_EQ(stalled.answerType("UTF8_STRING"), stalled.atom(answeredAs));
    auto second = std::async(std::launch::async, [] { return paste(); });
    EXPECT_TRUE(same(paste(), text));
    EXPECT_TRUE(same(second.get(), text));
    if (latin1) {
      EXPECT_TRUE(same(paste("STRING"), latin1));
      const std::string targets = "\n" + paste("TARGETS");
      for (const std::string target : {"TARGETS", "TIMESTAMP", "MULTIPLE", "UTF8_STRING",
                                       "text/plain;charset=utf-8", "STRING"}) {
        EXPECT_THAT(targets, testing::HasSubstr("\n" + target + "\n"));
      }
    }

    ASSERT_TRUE(copied(clipboard, "next"));
    EXPECT_TRUE(same(read(clipboard), "next"));
    EXPECT_EQ(clipboard.changeCount(), before + 2);
    write(clipboard, "");
  }
}

// Files as file managers, text fields and picture editors paste them; a name outside the URI's
// unreserved bytes is percent-encoded, byte by byte of its UTF-8.
TEST_F(X11PasteboardTest, WritesFilesThatOtherProgramsPaste) {
  X11Pasteboard clipboard(display());
  const std::string png("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16);
  ClipboardFiles files{{"/inbox/7/a b#ü.txt", "/inbox/7/photo.png"}, {{"image/png", png}}};
  const auto before = clipboard.changeCount();
  runAsync([&](asio::io_context&) -> asio::awaitable<void> {
    auto writing = clipboard.writeFiles(files);
    co_await std::move(writing);
  });
  EXPECT_EQ(clipboard.changeCount(), before + 1);
  const std::pair<std::string, std::string> cases[] = {
      {"text/uri-list", "file:///inbox/7/a%20b%23%C3%BC.txt\r\nfile:///inbox/7/photo.png\r\n"},
      {"x-special/gnome-copied-files",
       "copy\nfile:///inbox/7/a%20b%23%C3%BC.txt\nfile:///inbox/7/photo.png"},
      {"UTF8_STRING", "/inbox/7/a b#ü.txt\n/inbox/7/photo.png"},
      {"text/plain;charset=utf-8", "/inbox/7/a b#ü.txt\n/inbox/7/photo.png"},
      {"image/png", png},
  };
  for (const auto& [target, expected] : cases) {
    EXPECT_TRUE(same(paste(target), expected)) << target;
  }
  EXPECT_TRUE(same(read(clipboard), "/inbox/7/a b#ü.txt\n/inbox/7/photo.png"));
}

// An owner that never answers, and one that offers 100 MB, give nothing within a read's bounds
// (each read's deadline is 5 s here); the next read works.
TEST_F(X11PasteboardTest, AReadIsBoundedInTimeAndSize) {
  X11Pasteboard clipboard(display());
  BareClient silent(display());
  const auto before = clipboard.changeCount();
  silent.takeClipboard();
  ASSERT_TRUE(countMoves(clipboard, before));
  EXPECT_TRUE(same(read(clipboard), std::nullopt));

  ASSERT_TRUE(copied(clipboard, std::string(100'000'000, 'x')));
  const auto whileHuge = clipboard.changeCount();
  EXPECT_TRUE(same(read(clipboard), std::nullopt));
  // The end of xclip moves the count too: it must have come before the next copy is awaited.
  copier_.reset();
  ASSERT_TRUE(countMoves(clipboard, whileHuge));
  ASSERT_TRUE(copied(clipboard, "after"));
  EXPECT_TRUE(same(read(clipboard), "after"));
}

// The X server going away: reads soon give nothing, writes do nothing, the count stays.
TEST(X11PasteboardServer, GoesQuietWhenTheServerGoes) {
  VirtualDisplay display;
  SKIP_WITHOUT_DISPLAY(display);
  X11Pasteboard clipboard(display.name());
  write(clipboard, "kept");
  const auto count = clipboard.changeCount();
  EXPECT_TRUE(same(read(clipboard), "kept"));
  display.stopServer();
  EXPECT_TRUE(eventually([&] { return !read(clipboard); }));
  write(clipboard, "lost");
  EXPECT_TRUE(same(read(clipboard), std::nullopt));
  EXPECT_EQ(clipboard.changeCount(), count);
}

}  // namespace
}  // namespace kelvaron::host
