// The clipboard against real X clients on one Xvfb for the suite: xclip copies and pastes, and a
// bare xcb client of the test's own takes the clipboard without ever answering, or asks for it
// and never takes what it is given.

#include "host/desktop/X11Pasteboard.hpp"

#include <gtest/gtest.h>
#include <xcb/xcb.h>

#include <fstream>
#include <functional>
#include <future>
#include <thread>

#include "host/x11/X11Connection.hpp"
#include "tests/support/AsyncTest.hpp"
#include "tests/support/ChildProcess.hpp"
#include "tests/support/TempDirectory.hpp"
#include "tests/support/VirtualDisplay.hpp"

namespace kelvaron::host {
namespace {

using namespace test;

bool eventually(const std::function<bool()>& condition, std::chrono::seconds timeout = 10s) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(10ms);
  }
  return true;
}

bool countMoves(X11Pasteboard& clipboard, std::int64_t from, std::chrono::seconds timeout = 10s) {
  return eventually([&] { return clipboard.changeCount() != from; }, timeout);
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
  if (got == expected) return testing::AssertionSuccess();
  auto describe = [](const std::optional<std::string>& text) {
    if (!text) return std::string("nothing");
    return text->size() > 200 ? std::to_string(text->size()) + " bytes" : '"' + *text + '"';
  };
  return testing::AssertionFailure()
         << "got " << describe(got) << ", expected " << describe(expected);
}

std::string largeText() {
  std::string text;
  for (int line = 0; text.size() < 5'000'000; ++line) {
    text += "line " + std::to_string(line) + " — grüße\n";
  }
  return text;
}

// A client that takes the clipboard and answers nothing, or asks for it and takes nothing.
class BareClient {
 public:
  explicit BareClient(const std::string& display) : c_(xcb_connect(display.c_str(), nullptr)) {
    const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(c_)).data;
    window_ = xcb_generate_id(c_);
    xcb_create_window(c_, 0, window_, screen->root, 0, 0, 1, 1, 0, XCB_WINDOW_CLASS_INPUT_ONLY,
                      XCB_COPY_FROM_PARENT, 0, nullptr);
    clipboard_ = atom("CLIPBOARD");
  }
  ~BareClient() { xcb_disconnect(c_); }

  void takeClipboard() {
    xcb_set_selection_owner(c_, window_, clipboard_, XCB_CURRENT_TIME);
    xcb_flush(c_);
  }
  void askFor(const std::string& target) {
    xcb_convert_selection(c_, window_, clipboard_, atom(target), atom("BARE_PROPERTY"),
                          XCB_CURRENT_TIME);
    xcb_flush(c_);
  }
  // The type of the answer to `askFor`; the answer is left where it is, so that one in pieces
  // stalls.
  std::string answerType() {
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (std::chrono::steady_clock::now() < deadline) {
      const XcbReply<xcb_generic_event_t> event(xcb_poll_for_event(c_));
      if (!event) {
        std::this_thread::sleep_for(10ms);
        continue;
      }
      if ((event->response_type & 0x7F) != XCB_SELECTION_NOTIFY) continue;
      const auto& notify = reinterpret_cast<const xcb_selection_notify_event_t&>(*event);
      if (notify.property == XCB_NONE) return "refused";
      const XcbReply<xcb_get_property_reply_t> property(xcb_get_property_reply(
          c_, xcb_get_property(c_, 0, window_, notify.property, XCB_GET_PROPERTY_TYPE_ANY, 0, 0),
          nullptr));
      if (!property) return "no property";
      const XcbReply<xcb_get_atom_name_reply_t> name(
          xcb_get_atom_name_reply(c_, xcb_get_atom_name(c_, property->type), nullptr));
      if (!name) return "no type";
      return {xcb_get_atom_name_name(name.get()),
              std::size_t(xcb_get_atom_name_name_length(name.get()))};
    }
    return "no answer";
  }
  xcb_window_t owner() {
    const XcbReply<xcb_get_selection_owner_reply_t> reply(
        xcb_get_selection_owner_reply(c_, xcb_get_selection_owner(c_, clipboard_), nullptr));
    return reply ? reply->owner : XCB_NONE;
  }

 private:
  xcb_atom_t atom(const std::string& name) {
    const XcbReply<xcb_intern_atom_reply_t> reply(xcb_intern_atom_reply(
        c_, xcb_intern_atom(c_, 0, std::uint16_t(name.size()), name.c_str()), nullptr));
    return reply ? reply->atom : XCB_NONE;
  }

  xcb_connection_t* c_;
  xcb_window_t window_ = XCB_NONE;
  xcb_atom_t clipboard_ = XCB_NONE;
};

class X11PasteboardTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { display_ = new VirtualDisplay(); }
  static void TearDownTestSuite() {
    delete display_;
    display_ = nullptr;
  }
  void SetUp() override { SKIP_WITHOUT_DISPLAY(*display_); }

  static const std::string& display() { return display_->name(); }

  // xclip offering `bytes` as `type` (answering any target with them), until it loses the
  // clipboard.
  std::unique_ptr<ChildProcess> copy(const std::string& bytes,
                                     const std::string& type = "UTF8_STRING") {
    const std::string name = "copied-" + std::to_string(++copies_);
    {
      std::ofstream file(files_ / name, std::ios::binary);
      file << bytes;
    }
    return std::make_unique<ChildProcess>(
        std::vector<std::string>{"xclip", "-quiet", "-display", display(), "-selection",
                                 "clipboard", "-t", type, "-i", (files_ / name).string()},
        files_ / (name + ".log"));
  }

  static CommandResult paste(const std::string& target = "UTF8_STRING") {
    return runCommand(
        {"xclip", "-display", display(), "-selection", "clipboard", "-t", target, "-o"});
  }

  TempDirectory files_;
  int copies_ = 0;
  static inline VirtualDisplay* display_ = nullptr;
};

// Each copy moves the count; the text comes as well-formed UTF-8 whatever the owner's encoding,
// large text in pieces; what is not text gives nothing. Taking the clipboard back ends xclip,
// which owns nothing by then, so only the next copy moves the count.
TEST_F(X11PasteboardTest, ReadsWhatAnotherProgramCopied) {
  X11Pasteboard clipboard(display());
  const std::string large = largeText();
  struct Case {
    const char* what;
    std::string bytes;
    std::string type;
    std::optional<std::string> expected;
  };
  const Case cases[] = {
      {"ASCII", "hello, clipboard", "UTF8_STRING", "hello, clipboard"},
      {"non-ASCII", "Grüße ✓ 日本語 🙂", "UTF8_STRING", "Grüße ✓ 日本語 🙂"},
      {"5 MB, in pieces", large, "UTF8_STRING", large},
      {"ill-formed UTF-8",
       "a\xff"
       "b\xc3",
       "UTF8_STRING", "a\uFFFDb\uFFFD"},
      {"the MIME type", "ü", "text/plain;charset=utf-8", "ü"},
      {"Latin-1", "caf\xe9", "STRING", "café"},
      {"not text", "\x89PNG\r\n", "image/png", std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const auto before = clipboard.changeCount();
    const auto copier = copy(c.bytes, c.type);
    ASSERT_TRUE(countMoves(clipboard, before)) << "xclip did not take the clipboard";
    EXPECT_TRUE(same(read(clipboard), c.expected));
    write(clipboard, "");
  }
}

// Pasted by other programs after the writer is gone, two at once while a third stalls midway
// (large text goes in pieces);
// read back from our own data; other targets as the conventions go. Our own take-over moves the
// count once: another program's copy after it is exactly one change more. Taking the clipboard
// back ends xclip quietly, as it owns nothing by then.
TEST_F(X11PasteboardTest, WritesWhatAnotherProgramPastes) {
  X11Pasteboard clipboard(display());
  struct Case {
    std::string text;
    std::string answeredAs;
    std::optional<std::string> latin1;
  };
  const Case cases[] = {
      {"plain text", "UTF8_STRING", "plain text"},
      {"Grüße ✓ Ω", "UTF8_STRING",
       "Gr\xfc\xdf"
       "e ? ?"},
      {largeText(), "INCR", std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 20));
    std::int64_t before = 0, written = 0;
    std::optional<std::string> own;
    runAsync([&](asio::io_context&) -> asio::awaitable<void> {
      before = clipboard.changeCount();
      auto writing = clipboard.writeString(c.text);
      co_await std::move(writing);
      written = clipboard.changeCount();
      own = co_await clipboard.string();
    });
    EXPECT_EQ(written, before + 1);
    EXPECT_TRUE(same(own, c.text));

    BareClient stalled(display());
    stalled.askFor("UTF8_STRING");
    EXPECT_EQ(stalled.answerType(), c.answeredAs);
    auto second = std::async(std::launch::async, [] { return paste(); });
    const CommandResult first = paste();
    const CommandResult other = second.get();
    EXPECT_TRUE(first.succeeded() && other.succeeded()) << first.output << other.output;
    EXPECT_TRUE(same(first.output, c.text));
    EXPECT_TRUE(same(other.output, c.text));
    if (c.latin1) {
      EXPECT_TRUE(same(paste("STRING").output, c.latin1));
      const std::string targets = paste("TARGETS").output;
      for (const char* target : {"TARGETS", "TIMESTAMP", "MULTIPLE", "UTF8_STRING",
                                 "text/plain;charset=utf-8", "STRING"}) {
        EXPECT_NE(targets.find(std::string(target) + "\n"), std::string::npos) << target;
      }
    }

    const auto copier = copy("next");
    ASSERT_TRUE(countMoves(clipboard, written)) << "xclip did not take the clipboard";
    EXPECT_TRUE(same(read(clipboard), "next"));
    EXPECT_EQ(clipboard.changeCount(), before + 2);
    write(clipboard, "");
  }
}

// An owner that never answers, and one that offers 100 MB, give nothing within a read's bounds
// (each read's deadline is 5 s here); the next read works.
TEST_F(X11PasteboardTest, AReadIsBoundedInTimeAndSize) {
  X11Pasteboard clipboard(display());
  BareClient silent(display());
  auto before = clipboard.changeCount();
  silent.takeClipboard();
  ASSERT_TRUE(countMoves(clipboard, before));
  EXPECT_TRUE(same(read(clipboard), std::nullopt));

  before = clipboard.changeCount();
  auto huge = copy(std::string(100'000'000, 'x'));
  ASSERT_TRUE(countMoves(clipboard, before, 30s)) << "xclip did not take the clipboard";
  EXPECT_TRUE(same(read(clipboard), std::nullopt));
  // Once xclip is gone, a write of ours has seen the news of it.
  huge.reset();
  ASSERT_TRUE(eventually([&] { return silent.owner() == XCB_NONE; }));
  write(clipboard, "");

  before = clipboard.changeCount();
  const auto copier = copy("after");
  ASSERT_TRUE(countMoves(clipboard, before));
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
