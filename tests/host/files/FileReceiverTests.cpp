#include <gdk-pixbuf/gdk-pixbuf.h>
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "host/files/FileReceiver.hpp"
#include "host/files/HostInbox.hpp"
#include "host/files/PasteboardFile.hpp"
#include "kit/wire/FileTransfer.hpp"
#include "tests/support/TempDirectory.hpp"

namespace kelvaron::host {
namespace {

namespace fs = std::filesystem;
using State = FileTransferState;

Data bytesOf(std::size_t count, std::uint8_t seed) {
  Data bytes(count);
  for (std::size_t i = 0; i < count; ++i) bytes[i] = std::uint8_t(seed + i * 7);
  return bytes;
}

Data readAll(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return Data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void writeAll(const fs::path& path, const Data& bytes) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
}

FileMeta meta(std::string name, std::uint64_t size, std::string typeID = "public.data") {
  return FileMeta{std::move(name), std::move(typeID), size};
}

// A receiver on an inbox in a temporary folder, its replies and finished transfers collected, its
// clock moved by hand.
struct Receiving {
  test::TempDirectory dir;
  fs::path root = dir / "Inbox";
  double clock = 100;
  bool finishResult = true;
  std::vector<msg::fileStatus> replies;
  std::vector<std::vector<PasteboardFile>> finished;
  FileReceiver receiver{HostInbox(root), [this] { return clock; },
                        [this](Message m) { replies.push_back(std::get<msg::fileStatus>(m)); },
                        [this](std::vector<PasteboardFile> files) {
                          finished.push_back(std::move(files));
                          return finishResult;
                        }};

  void offer(std::uint32_t id, std::vector<FileMeta> files) {
    receiver.offer(id, files, FileTransferKind::attach);
  }
  void chunk(std::uint32_t id, std::uint16_t index, std::uint64_t offset, const Data& data) {
    receiver.chunk(id, index, offset, data);
  }
  msg::fileStatus status(std::uint32_t id, State state, std::uint64_t bytes,
                         std::string detail = "") {
    return msg::fileStatus{id, state, bytes, std::move(detail)};
  }
};

TEST(FileReceiver, NamesAreMadeSafeAndDistinctRegardlessOfCase) {
  std::string e300 = "a";
  for (int i = 0; i < 150; ++i) e300 += "é";
  const std::string e199 = e300.substr(0, 199);  // "a" and 99 "é": the next one would pass 200
  const std::string long200 = std::string(196, 'x') + ".txt";
  struct Case {
    std::vector<std::string> offered;
    std::vector<std::string> saved;
  };
  const std::vector<Case> cases = {
      {{"a/b\\c.txt"}, {"a_b_c.txt"}},
      {{"../../x"}, {"_.._x"}},
      {{"...", "", " \t\n "}, {"file", "file 2", "file 3"}},
      {{".hidden", "..two"}, {"hidden", "two"}},
      {{"a\x01"
        "b\x7f"
        "c\u0085d\u009f.txt"},
       {"abcd.txt"}},
      {{"  \u3000name.txt\u00a0 "}, {"name.txt"}},
      {{"bad\xff.txt"}, {"bad\ufffd.txt"}},
      {{e300}, {e199}},
      {{"A.txt", "a.TXT"}, {"A.txt", "a 2.TXT"}},
      {{"x", "x", "X"}, {"x", "x 2", "X 3"}},
      {{long200, long200}, {long200, std::string(194, 'x') + " 2.txt"}},
      {{"report.tar.gz", "Report.tar.gz"}, {"report.tar.gz", "Report.tar 2.gz"}},
  };
  Receiving r;
  std::uint32_t id = 0;
  for (const Case& c : cases) {
    ++id;
    std::vector<FileMeta> files;
    for (const std::string& name : c.offered) files.push_back(meta(name, 0));
    r.offer(id, files);
    r.receiver.end(id);  // empty files need no chunk
    // The inbox the first offer made is its owner's alone.
    ASSERT_EQ(fs::status(r.root).permissions() & fs::perms::all, fs::perms::owner_all);
    ASSERT_EQ(r.finished.size(), id) << c.offered[0];
    std::vector<std::string> saved;
    for (const PasteboardFile& file : r.finished.back()) {
      EXPECT_EQ(file.path.parent_path(), r.root / std::to_string(id));
      EXPECT_TRUE(fs::is_regular_file(file.path)) << file.path;
      EXPECT_LE(file.path.filename().string().size(), kMaxFileNameBytes);
      saved.push_back(file.path.filename().string());
    }
    EXPECT_EQ(saved, c.saved) << c.offered[0];
  }
}

TEST(FileReceiver, WritesChunksInOrderAndKeepsTheFolder) {
  Receiving r;
  // A folder old enough to be pruned when a transfer is done, and one this transfer replaces.
  fs::create_directories(r.root / "7");
  fs::last_write_time(r.root / "7", fs::file_time_type::clock::now() - std::chrono::hours(25));
  fs::create_directories(r.root / "5");
  writeAll(r.root / "5" / "stale", bytesOf(3, 1));

  const Data first = bytesOf(65536 + 3, 1), third = bytesOf(5, 2);
  r.offer(5, {meta("one.bin", first.size()), meta("empty", 0), meta("three", third.size())});
  EXPECT_FALSE(fs::exists(r.root / "5" / "stale"));
  r.chunk(9, 0, 0, bytesOf(3, 0));  // another transfer's chunk is nobody's
  r.chunk(5, 0, 0, Data(first.begin(), first.begin() + 65536));
  r.chunk(5, 0, 65536, Data(first.begin() + 65536, first.end()));
  r.chunk(5, 2, 0, third);
  r.receiver.end(9);
  ASSERT_EQ(r.receiver.activeID(), 5u);
  r.receiver.end(5);
  r.receiver.end(5);  // a second end finds nothing to finish

  EXPECT_EQ(r.replies, (std::vector{r.status(5, State::accepted, 0),
                                    r.status(5, State::done, first.size() + third.size())}));
  EXPECT_EQ(r.receiver.activeID(), std::nullopt);
  EXPECT_EQ(r.receiver.lastCompletedID(), 5u);
  ASSERT_EQ(r.finished.size(), 1u);
  ASSERT_EQ(r.finished[0].size(), 3u);
  EXPECT_EQ(readAll(r.finished[0][0].path), first);
  EXPECT_EQ(fs::file_size(r.finished[0][1].path), 0u);
  EXPECT_EQ(readAll(r.finished[0][2].path), third);
  EXPECT_TRUE(r.finished[0][0].representations.empty());
  EXPECT_FALSE(fs::exists(r.root / "7"));
}

TEST(FileReceiver, EachFailureReportsItsReasonAndRemovesTheFolder) {
  struct Case {
    const char* name;
    std::function<void(Receiving&)> act;
    std::uint64_t bytes;
    const char* detail;
  };
  // Two files of 70000 and 4 bytes; each case acts after the offer.
  const Data whole = bytesOf(70000, 3);
  const std::vector<Case> cases = {
      {"wrong offset", [](Receiving& r) { r.chunk(1, 0, 1, bytesOf(4, 0)); }, 0,
       "Chunk out of order"},
      {"second file first", [](Receiving& r) { r.chunk(1, 1, 0, bytesOf(4, 0)); }, 0,
       "Chunk out of order"},
      {"a file past the last",
       [&](Receiving& r) {
         r.chunk(1, 0, 0, Data(whole.begin(), whole.begin() + 65536));
         r.chunk(1, 0, 65536, Data(whole.begin() + 65536, whole.end()));
         r.chunk(1, 1, 0, bytesOf(4, 0));
         r.chunk(1, 2, 0, bytesOf(1, 0));
       },
       70004, "Chunk out of order"},
      {"empty chunk", [](Receiving& r) { r.chunk(1, 0, 0, {}); }, 0, "Bad chunk size"},
      {"65537 bytes", [](Receiving& r) { r.chunk(1, 0, 0, bytesOf(65537, 0)); }, 0,
       "Bad chunk size"},
      {"past the size",
       [](Receiving& r) {
         r.chunk(1, 0, 0, bytesOf(65536, 0));
         r.chunk(1, 0, 65536, bytesOf(70000 - 65536 + 1, 0));
       },
       65536, "Chunk past the declared size"},
      {"the file turned into a folder",
       [](Receiving& r) {
         fs::remove(r.root / "1" / "big");
         fs::create_directory(r.root / "1" / "big");
         r.chunk(1, 0, 0, bytesOf(4, 0));
       },
       0, "Couldn’t write the file on this computer"},
      {"short at the end",
       [](Receiving& r) {
         r.chunk(1, 0, 0, bytesOf(65536, 0));
         r.receiver.end(1);
       },
       65536, "Size mismatch"},
      {"the clipboard refuses",
       [&](Receiving& r) {
         r.finishResult = false;
         r.chunk(1, 0, 0, Data(whole.begin(), whole.begin() + 65536));
         r.chunk(1, 0, 65536, Data(whole.begin() + 65536, whole.end()));
         r.chunk(1, 1, 0, bytesOf(4, 0));
         r.receiver.end(1);
       },
       70004, "Couldn’t set the clipboard"},
  };
  for (const Case& c : cases) {
    Receiving r;
    r.offer(1, {meta("big", 70000), meta("small", 4)});
    ASSERT_TRUE(fs::is_directory(r.root / "1")) << c.name;
    c.act(r);
    EXPECT_EQ(r.replies.back(), r.status(1, State::failed, c.bytes, c.detail)) << c.name;
    EXPECT_EQ(r.replies.size(), 2u) << c.name;
    EXPECT_FALSE(fs::exists(r.root / "1")) << c.name;
    EXPECT_EQ(r.receiver.activeID(), std::nullopt) << c.name;
    EXPECT_EQ(r.receiver.lastCompletedID(), std::nullopt) << c.name;
    r.chunk(1, 0, 0, bytesOf(1, 0));  // what comes after a failure is ignored
    r.receiver.end(1);
    EXPECT_EQ(r.replies.size(), 2u) << c.name;
  }
}

TEST(FileReceiver, RefusedOffersAndAbortsLeaveNothingBehind) {
  std::vector<FileMeta> eleven(11, meta("f", 1));
  const std::uint64_t sizes[] = {104857600, 1};
  struct Case {
    const char* name;
    std::vector<FileMeta> files;
    std::string detail;
  };
  const std::vector<Case> cases = {
      {"nothing", {}, "Nothing to send"},
      {"too many", eleven, *fileOfferProblem(std::vector<std::uint64_t>(11, 1))},
      {"too large", {meta("a", sizes[0]), meta("b", sizes[1])}, *fileOfferProblem(sizes)},
  };
  Receiving r;
  for (const Case& c : cases) {
    r.offer(3, c.files);
    EXPECT_EQ(r.replies.back(), r.status(3, State::rejected, 0, c.detail)) << c.name;
    EXPECT_FALSE(fs::exists(r.root / "3")) << c.name;
  }
  EXPECT_EQ(r.receiver.activeID(), std::nullopt);

  // While one runs, another is refused and the first goes on.
  r.replies.clear();
  r.offer(1, {meta("a", 2)});
  r.offer(2, {meta("b", 2)});
  r.chunk(1, 0, 0, bytesOf(2, 0));
  r.receiver.end(1);
  EXPECT_EQ(r.replies,
            (std::vector{r.status(1, State::accepted, 0),
                         r.status(2, State::rejected, 0, "Another transfer is in progress"),
                         r.status(1, State::done, 2)}));
  EXPECT_FALSE(fs::exists(r.root / "2"));

  // An abort (the device's cancel) removes the folder without a word; chunks after it are
  // ignored, and a new transfer may start at once.
  r.replies.clear();
  r.offer(8, {meta("a", 10)});
  r.chunk(8, 0, 0, bytesOf(4, 0));
  ASSERT_TRUE(fs::is_regular_file(r.root / "8" / "a"));
  r.receiver.abort();
  r.chunk(8, 0, 4, bytesOf(1, 0));
  EXPECT_FALSE(fs::exists(r.root / "8"));
  EXPECT_EQ(r.replies, std::vector{r.status(8, State::accepted, 0)});
  r.offer(9, {meta("a", 1)});
  EXPECT_EQ(r.receiver.activeID(), 9u);

  // A file where the inbox should be.
  Receiving blocked;
  writeAll(blocked.root, bytesOf(1, 0));
  blocked.offer(4, {meta("a", 1)});
  EXPECT_EQ(blocked.replies, std::vector{blocked.status(4, State::rejected, 0,
                                                        "Couldn’t save files on this computer")});
  EXPECT_EQ(blocked.receiver.activeID(), std::nullopt);
}

TEST(FileReceiver, ProgressIsReportedAtMostFourTimesASecond) {
  Receiving r;
  r.offer(2, {meta("a", 10)});
  // Each chunk's clock, and whether a report follows it.
  const std::vector<std::pair<double, bool>> steps = {
      {100.1, false}, {100.2499, false}, {100.25, true}, {100.4, false},
      {100.5, true},  {100.5, false},    {101.0, true}};
  std::vector<msg::fileStatus> expected{r.status(2, State::accepted, 0)};
  for (std::size_t i = 0; i < steps.size(); ++i) {
    r.clock = steps[i].first;
    r.chunk(2, 0, i, bytesOf(1, 0));
    if (steps[i].second) expected.push_back(r.status(2, State::progress, i + 1));
    EXPECT_EQ(r.replies, expected) << "at " << steps[i].first;
  }
}

TEST(HostInbox, PruneRemovesOnlyOldFoldersOfItsOwn) {
  test::TempDirectory dir;
  const fs::path root = dir / "Inbox";
  HostInbox inbox(root);
  const auto now = fs::file_time_type::clock::now();
  EXPECT_TRUE(inbox.prune(now, {}, std::chrono::seconds(10)).empty());  // no root yet

  inbox.makeRoot();
  const auto old = now - std::chrono::seconds(11);
  for (const char* name : {"1", "2", "3"}) fs::create_directories(root / name);
  writeAll(root / "1" / "inside", bytesOf(2, 0));
  writeAll(root / "file", bytesOf(2, 0));
  fs::create_directories(dir / "elsewhere");
  fs::create_directory_symlink(dir / "elsewhere", root / "link");
  for (const char* name : {"1", "2", "file", "../elsewhere"}) fs::last_write_time(root / name, old);
  fs::last_write_time(root / "3", now - std::chrono::seconds(9));

  EXPECT_EQ(inbox.prune(now, {"2"}, std::chrono::seconds(10)), std::vector{root / "1"});
  EXPECT_FALSE(fs::exists(root / "1"));
  for (const char* name : {"2", "3", "file", "link"}) {
    EXPECT_TRUE(fs::exists(fs::symlink_status(root / name))) << name;
  }
  EXPECT_TRUE(fs::is_directory(dir / "elsewhere"));
}

// A small picture saved by gdk-pixbuf in `format`.
std::optional<Data> picture(const char* format) {
  GdkPixbuf* pixels = gdk_pixbuf_new(GDK_COLORSPACE_RGB, FALSE, 8, 3, 2);
  gdk_pixbuf_fill(pixels, 0x3366ccff);
  gchar* buffer = nullptr;
  gsize size = 0;
  const bool saved = gdk_pixbuf_save_to_buffer(pixels, &buffer, &size, format, nullptr, nullptr);
  g_object_unref(pixels);
  if (!saved) return std::nullopt;
  Data bytes(reinterpret_cast<std::uint8_t*>(buffer),
             reinterpret_cast<std::uint8_t*>(buffer) + size);
  g_free(buffer);
  return bytes;
}

// The size of the picture in `bytes`, and the colour of its first pixel, as gdk-pixbuf reads them.
std::optional<std::tuple<int, int, std::uint32_t>> decoded(const Data& bytes) {
  GdkPixbufLoader* loader = gdk_pixbuf_loader_new();
  const bool written = gdk_pixbuf_loader_write(loader, bytes.data(), bytes.size(), nullptr);
  const bool ok = gdk_pixbuf_loader_close(loader, nullptr) && written;
  std::optional<std::tuple<int, int, std::uint32_t>> result;
  if (GdkPixbuf* p = gdk_pixbuf_loader_get_pixbuf(loader); ok && p) {
    const guchar* px = gdk_pixbuf_get_pixels(p);
    result = {gdk_pixbuf_get_width(p), gdk_pixbuf_get_height(p),
              std::uint32_t(px[0]) << 16 | std::uint32_t(px[1]) << 8 | px[2]};
  }
  g_object_unref(loader);
  return result;
}

TEST(PasteboardFile, ImagesCarryTheirBytesAndOthersAPngBeside) {
  const std::optional<Data> png = picture("png"), bmp = picture("bmp"), tiff = picture("tiff");
  if (!png || !bmp || !tiff) GTEST_SKIP() << "gdk-pixbuf cannot save PNG, BMP and TIFF here";
  test::TempDirectory dir;
  const Data garbage = bytesOf(40, 9), text = {'h', 'i'};
  struct Case {
    const char* file;
    const Data* bytes;  // null: no such file
    const char* typeID;
    std::vector<std::string> keys;
  };
  const std::vector<Case> cases = {
      {"a.png", &*png, "public.png", {"public.png"}},
      {"b.bmp", &*bmp, "com.microsoft.bmp", {"com.microsoft.bmp", "public.png"}},
      {"c.tiff", &*tiff, "public.image", {"public.image", "public.png"}},
      {"d.heic", &garbage, "public.heic", {"public.heic"}},
      {"e.txt", &text, "public.plain-text", {}},
      {"gone.png", nullptr, "public.png", {}},
  };
  for (const Case& c : cases) {
    if (c.bytes) writeAll(dir / c.file, *c.bytes);
    const PasteboardFile file = pasteboardFile(dir / c.file, c.typeID);
    EXPECT_EQ(file.path, dir / c.file);
    std::vector<std::string> keys;
    for (const auto& [key, bytes] : file.representations) keys.push_back(key);
    EXPECT_EQ(keys, c.keys) << c.file;
    if (c.keys.empty()) continue;
    EXPECT_EQ(file.representations.at(c.typeID), *c.bytes) << c.file;
    if (c.keys.size() == 2) {
      const Data& converted = file.representations.at("public.png");
      EXPECT_EQ(std::vector(converted.begin(), converted.begin() + 4),
                (std::vector<std::uint8_t>{0x89, 'P', 'N', 'G'}));
      EXPECT_EQ(decoded(converted), std::make_tuple(3, 2, std::uint32_t(0x3366cc))) << c.file;
    }
  }
}

}  // namespace
}  // namespace kelvaron::host
