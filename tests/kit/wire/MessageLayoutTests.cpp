// Every message against its byte layout, written out by hand, in both directions.

#include <gtest/gtest.h>

#include <set>

#include "kit/wire/WireCodec.hpp"
#include "tests/kit/wire/WireTestSupport.hpp"

namespace kelvaron {
namespace {

using namespace test;

struct Layout {
  Message message;
  Data bytes;
};

const UUID kID{{0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19, 0x1a, 0x1b, 0x1c, 0x1d,
                0x1e, 0x1f}};
const Data kIDBytes(kID.bytes.begin(), kID.bytes.end());
const NormalizedRect kRect{0.25f, 0.5f, 0.75f, 1.0f};
const Data kRectBytes = concat({f32(0.25f), f32(0.5f), f32(0.75f), f32(1.0f)});

std::vector<Layout> sessionLayouts() {
  return {
      {msg::authChallenge{{1, 2}}, frame(17, {data({1, 2})})},
      {msg::authResponse{kID, {3}, {4, 5}}, frame(18, {kIDBytes, data({3}), data({4, 5})})},
      {msg::authResult{AuthResult::denied}, frame(19, {u8(2)})},
      {msg::pairRequest{PairMethod::compare, "iPad", {9}},
       frame(20, {u8(1), str("iPad"), data({9})})},
      {msg::pairNonce{{7}}, frame(21, {data({7})})},
      {msg::pairReveal{{8}}, frame(22, {data({8})})},
      {msg::pairResult{PairResult::expiredToken}, frame(23, {u8(4)})},
      {msg::hello{16,
                  kID,
                  "Ann’s iPad",
                  {{CodecProfile::hevcMain10, CodecProfile::hevcMain},
                   2732,
                   2048,
                   2.0f,
                   "iPad13,8",
                   true}},
       frame(1, {u16(16), kIDBytes, str("Ann’s iPad"), u8(2), u8(1), u8(0), u32(2732), u32(2048),
                 f32(2.0f), str("iPad13,8"), u8(1)})},
      {msg::helloAck{16, kID, "studio", CodecProfile::hevcMain444},
       frame(2, {u16(16), kIDBytes, str("studio"), u8(2)})},
      {msg::helloReject{"Unsupported protocol version 15"},
       frame(3, {str("Unsupported protocol version 15")})},
      {msg::displayList{{{7, "DP-1", true, 2560, 1440, {-10.5f, 0, 1280, 720}}}},
       frame(4, {u16(1), u32(7), str("DP-1"), u8(1), u32(2560), u32(1440), f32(-10.5f), f32(0),
                 f32(1280), f32(720)})},
      {msg::selectDisplay{0x01020304}, frame(5, {u32(0x01020304)})},
      {msg::viewport{{3, kRect, 1920, 1080}}, frame(6, {u32(3), kRectBytes, u32(1920), u32(1080)})},
      {msg::setThumbnails{true}, frame(7, {u8(1)})},
      {msg::thumbnail{5, {0xff, 0xd8}}, frame(8, {u32(5), data({0xff, 0xd8})})},
      {msg::feedback{{60, 2, 4.5f, true}}, frame(9, {u32(60), u32(2), f32(4.5f), u8(1)})},
      {msg::clipboardText{"copied"}, frame(10, {str("copied")})},
      {msg::key{{{0x04}, true, {0x09}}}, frame(11, {u16(4), u8(1), u8(9)})},
      {msg::pointer{9, pointer::moveRelative{1.5f, -2}},
       frame(12, {u32(9), u8(0), f32(1.5f), f32(-2)})},
      {msg::pointer{10, pointer::moveAbsolute{2, 10, 20}},
       frame(12, {u32(10), u8(1), u32(2), f32(10), f32(20)})},
      {msg::pointer{11, pointer::button{PointerButton::right, true, 2}},
       frame(12, {u32(11), u8(2), u8(1), u8(1), u8(2)})},
      {msg::pointer{12, pointer::scroll{0, -3, ScrollPhase::momentum}},
       frame(12, {u32(12), u8(3), f32(0), f32(-3), u8(3)})},
      {msg::ping{0x0102030405060708}, frame(13, {u64(0x0102030405060708)})},
      {msg::pong{42}, frame(14, {u64(42)})},
      {msg::streamInfo{3, kRect, 1280, 720, CodecProfile::hevcMain44410},
       frame(15, {u32(3), kRectBytes, u32(1280), u32(720), u8(3)})},
      {msg::cursorState{1, 2, 3.5f, 4.5f, true, 77},
       frame(16, {u32(1), u32(2), f32(3.5f), f32(4.5f), u8(1), u32(77)})},
      {msg::hostStatus{HostState::locked, "Screen locked"},
       frame(24, {u8(3), u8(1), str("Screen locked")})},
      {msg::hostStatus{HostState::ok, std::nullopt}, frame(24, {u8(0), u8(0)})},
      {msg::sessionReplaced{"Bob’s iPhone"}, frame(62, {str("Bob’s iPhone")})},
  };
}

std::vector<Layout> featureLayouts() {
  return {
      {msg::appList{{{-5,
                      "org.gnome.Terminal",
                      "Terminal",
                      {1},
                      true,
                      {{8, "~", {1, 2, 3, 4}, 7, true, false}}}}},
       frame(25, {u16(1), u32(std::uint32_t(-5)), str("org.gnome.Terminal"), str("Terminal"),
                  data({1}), u8(1), u16(1), u32(8), str("~"), f32(1), f32(2), f32(3), f32(4),
                  u32(7), u8(1), u8(0)})},
      {msg::setAppListUpdates{true}, frame(26, {u8(1)})},
      {msg::activateApp{12, 99u, true}, frame(27, {u32(12), u8(1), u32(99), u8(1)})},
      {msg::activateApp{12, std::nullopt, false}, frame(27, {u32(12), u8(0), u8(0)})},
      {msg::focus{12, 99, true, false}, frame(28, {u32(12), u32(99), u8(1), u8(0)})},
      {msg::unfocus{}, frame(29, {})},
      {msg::windowThumbnails{true, {1, 2}}, frame(30, {u8(1), u16(2), u32(1), u32(2)})},
      {msg::windowThumbnail{4, {1}}, frame(31, {u32(4), data({1})})},
      {msg::streamMode{{streammode::focus{7, 8}, true, "Fitted", kRect,
                        FocusFollowInfo{FocusFollowInfo::Kind::popup, "Files", "Open", true}}},
       frame(32, {u8(1), u32(7), u32(8), u8(1), u8(1), str("Fitted"), kRectBytes, u8(2),
                  str("Files"), str("Open"), u8(1)})},
      {msg::streamMode{{streammode::desktop{}, false, std::nullopt, kRect, std::nullopt}},
       frame(32, {u8(0), u8(0), u8(0), kRectBytes, u8(0)})},
      {msg::cursorShape{3, {0x89}, 1, 2, 32},
       frame(33, {u32(3), data({0x89}), f32(1), f32(2), f32(32)})},
      {msg::requestCursorShape{3}, frame(34, {u32(3)})},
      {msg::setVideoEnabled{false}, frame(35, {u8(0)})},
      {msg::text{"héllo"}, frame(37, {str("héllo")})},
      {msg::setAudio{AudioMode::both}, frame(38, {u8(2)})},
      {msg::audioConfig{48000, 2, AudioCodec::aacELD, {0xf8, 0xe8}},
       frame(39, {u32(48000), u8(2), u8(0), data({0xf8, 0xe8})})},
      {msg::audioStatus{AudioStatus::failed, "no device"},
       frame(40, {u8(3), u8(1), str("no device")})},
      {msg::relayConfig{{{"relay.example", 4433}}, {5, 6}},
       frame(41, {u8(1), str("relay.example"), u16(4433), data({5, 6})})},
      {msg::focusBack{}, frame(42, {})},
      {msg::requestInstalledApps{}, frame(43, {})},
      {msg::installedApps{{{"firefox-esr.desktop", "Firefox", 0xAABBCCDD00112233}}},
       frame(44, {u16(1), str("firefox-esr.desktop"), str("Firefox"), u64(0xAABBCCDD00112233)})},
      {msg::requestAppIcons{{"a", "b"}}, frame(45, {u8(2), str("a"), str("b")})},
      {msg::appIcon{"a", {1}}, frame(46, {str("a"), data({1})})},
      {msg::launchApp{"a", true}, frame(47, {str("a"), u8(1)})},
      {msg::launchStatus{{"a", LaunchState::noWindow, 1500, "no window"}},
       frame(48, {str("a"), u8(4), u32(1500), str("no window")})},
      {msg::launchControl{"a", LaunchAction::keepWaiting}, frame(49, {str("a"), u8(3)})},
      {msg::quitApp{-1}, frame(50, {u32(0xffffffff)})},
      {msg::recentApps{{3, -4}}, frame(51, {u16(2), u32(3), u32(std::uint32_t(-4))})},
      {msg::fileOffer{6, {{"a.txt", "public.plain-text", 12}}, FileTransferKind::paste},
       frame(52, {u32(6), u16(1), str("a.txt"), str("public.plain-text"), u64(12), u8(2)})},
      {msg::fileChunk{6, 1, 4096, {1, 2}}, frame(53, {u32(6), u16(1), u64(4096), data({1, 2})})},
      {msg::fileEnd{6}, frame(54, {u32(6)})},
      {msg::fileCancel{6}, frame(55, {u32(6)})},
      {msg::fileStatus{6, FileTransferState::progress, 100, ""},
       frame(56, {u32(6), u8(2), u64(100), str("")})},
      {msg::watchActions{true}, frame(57, {u8(1)})},
      {msg::appActions{"gedit",
                       "Text Editor",
                       4,
                       {{"File",
                         "",
                         0,
                         true,
                         MenuMark::none,
                         false,
                         {{"Save", "s", 4, false, MenuMark::check, true, {}}}}}},
       frame(58,
             {str("gedit"), str("Text Editor"), u32(4), u16(1), str("File"), str(""), u8(0), u8(1),
              u8(0), u8(0), u16(1), str("Save"), str("s"), u8(4), u8(0), u8(1), u8(1), u16(0)})},
      {msg::performAction{4, {"File", "Save"}},
       frame(59, {u32(4), u8(2), str("File"), str("Save")})},
      {msg::actionResult{true, "done"}, frame(60, {u8(1), str("done")})},
      {msg::textFocus{true, "gedit", TextFocusKind::terminal, true},
       frame(61, {u8(1), str("gedit"), u8(6), u8(1)})},
  };
}

// Every case of `Message` is in one of the tables, each checked in both directions.
TEST(WireCodec, EveryMessageHasItsLayout) {
  std::set<std::uint8_t> covered;
  for (const auto& table : {sessionLayouts(), featureLayouts()}) {
    for (const Layout& layout : table) {
      SCOPED_TRACE("type " + std::to_string(typeCode(layout.message)));
      EXPECT_EQ(WireCodec::encodeMessage(layout.message), layout.bytes);
      EXPECT_EQ(decodeOne(layout.bytes), layout.message);
      covered.insert(typeCode(layout.message));
    }
  }
  EXPECT_EQ(covered.size(), 61u);
}

TEST(WireCodec, MediaFramesHaveTheirLayouts) {
  VideoFrame video{7,
                   0x0102030405060708,
                   99,
                   true,
                   CodecProfile::hevcMain10,
                   1920,
                   1080,
                   kRect,
                   {Data{0x40, 0x01}, Data{0x42}},
                   Data{0, 0, 0, 1, 0x26}};
  const Data videoBytes =
      frame(128, {u32(7), u64(0x0102030405060708), u64(99), u8(1), u8(1), u32(1920), u32(1080),
                  kRectBytes, u8(2), data({0x40, 0x01}), data({0x42}), data({0, 0, 0, 1, 0x26})});
  EXPECT_EQ(WireCodec::encodeVideoFrame(video), videoBytes);
  EXPECT_EQ(WireCodec::decodeVideoFrame(Data(videoBytes.begin() + 4, videoBytes.end())), video);

  AudioPacket audio{123456, Data{1, 2, 3}};
  const Data audioBytes = frame(129, {u64(123456), data({1, 2, 3})});
  EXPECT_EQ(WireCodec::encodeAudioPacket(audio), audioBytes);
  EXPECT_EQ(WireCodec::decodeAudioPacket(Data(audioBytes.begin() + 4, audioBytes.end())), audio);
}

TEST(WireCodec, ChannelsFollowTheMessageKind) {
  EXPECT_EQ(channel(msg::key{}), Channel::input);
  EXPECT_EQ(channel(msg::pointer{}), Channel::input);
  EXPECT_EQ(channel(msg::text{}), Channel::input);
  EXPECT_EQ(channel(msg::fileChunk{}), Channel::transfer);
  EXPECT_EQ(channel(msg::fileEnd{}), Channel::transfer);
  EXPECT_EQ(channel(msg::fileOffer{}), Channel::control);
  EXPECT_EQ(channel(msg::fileCancel{}), Channel::control);
  EXPECT_EQ(channel(msg::fileStatus{}), Channel::control);
  EXPECT_EQ(channel(msg::hello{}), Channel::control);
  EXPECT_TRUE(isAuthentication(msg::pairResult{}));
  EXPECT_FALSE(isAuthentication(msg::hello{}));
}

// ---- Failures ----

void expectInvalid(const Data& bytes, const std::string& label) {
  const WireError e = decodeError(bytes);
  EXPECT_EQ(e.kind(), WireError::Kind::invalidValue) << e.what();
  EXPECT_EQ(e.label(), label);
}

TEST(WireCodec, EachEnumerationFailsWithItsLabel) {
  expectInvalid(frame(1, {u16(16), kIDBytes, str(""), u8(1), u8(4)}), "profile 4");
  expectInvalid(frame(2, {u16(16), kIDBytes, str("h"), u8(9)}), "profile 9");
  expectInvalid(frame(19, {u8(3)}), "auth result 3");
  expectInvalid(frame(20, {u8(2), str(""), data({})}), "pair method 2");
  expectInvalid(frame(23, {u8(6)}), "pair result 6");
  expectInvalid(frame(24, {u8(7), u8(0)}), "host state 7");
  expectInvalid(frame(38, {u8(3)}), "audio mode 3");
  expectInvalid(frame(39, {u32(48000), u8(2), u8(1), data({})}), "audio codec 1");
  expectInvalid(frame(40, {u8(4), u8(0)}), "audio status 4");
  expectInvalid(frame(32, {u8(2)}), "stream mode 2");
  expectInvalid(frame(32, {u8(0), u8(0), u8(0), kRectBytes, u8(3)}), "follow kind 3");
  expectInvalid(frame(45, {u8(25)}), "icon request 25");
  expectInvalid(frame(48, {str("a"), u8(0), u32(0), str("")}), "launch state 0");
  expectInvalid(frame(48, {str("a"), u8(7), u32(0), str("")}), "launch state 7");
  expectInvalid(frame(49, {str("a"), u8(0)}), "launch action 0");
  expectInvalid(frame(52, {u32(1), u16(0), u8(3)}), "transfer kind 3");
  expectInvalid(frame(56, {u32(1), u8(0), u64(0), str("")}), "transfer state 0");
  expectInvalid(frame(12, {u32(1), u8(4)}), "pointer kind 4");
  expectInvalid(frame(12, {u32(1), u8(2), u8(3), u8(1), u8(1)}), "button 3");
  expectInvalid(frame(12, {u32(1), u8(3), f32(0), f32(0), u8(5)}), "scroll phase 5");
  expectInvalid(frame(24, {u8(0), u8(2)}), "bool 2");
  expectInvalid(frame(7, {u8(255)}), "bool 255");
  expectInvalid(frame(10, {u16(2), u8(0xc3), u8(0x28)}), "invalid UTF-8");
}

TEST(WireCodec, LenientEnumerationsReadUnknownBytesAsNone) {
  EXPECT_EQ(decodeOne(frame(61, {u8(1), str("x"), u8(9), u8(0)})),
            Message(msg::textFocus{true, "x", TextFocusKind::none, false}));
  const auto actions = std::get<msg::appActions>(
      decodeOne(frame(58, {str(""), str(""), u32(1), u16(1), str("t"), str(""), u8(0), u8(1),
                           u8(200), u8(0), u16(0)})));
  EXPECT_EQ(actions.menu.at(0).mark, MenuMark::none);
}

TEST(WireCodec, UnknownTypesFailAndTheNextFrameStillDecodes) {
  for (std::uint8_t type : std::vector<std::uint8_t>{0, 36, 63, 127, 128, 129, 255}) {
    WireDecoder decoder;
    decoder.append(frame(type, {u32(1)}));
    decoder.append(frame(13, {u64(5)}));
    const WireError e = decodeError(decoder);
    EXPECT_EQ(e.kind(), WireError::Kind::unknownType);
    EXPECT_EQ(e.type(), type);
    EXPECT_EQ(e.what(), "unknownType(" + std::to_string(type) + ")");
    EXPECT_EQ(decoder.nextMessage(), Message(msg::ping{5}));
  }
}

TEST(WireCodec, MediaReadersRefuseOtherTypes) {
  WireDecoder video, audio;
  video.append(frame(129, {u64(1), data({})}));
  audio.append(frame(13, {u64(1)}));
  EXPECT_EQ(decodeError(video, &WireDecoder::nextVideoFrame).type(), 129);
  EXPECT_EQ(decodeError(audio, &WireDecoder::nextAudioPacket).type(), 13);
}

TEST(WireCodec, ShortFramesAreTruncatedAndTrailingBytesAreIgnored) {
  EXPECT_EQ(decodeError(frame(13, {u32(1)})).kind(), WireError::Kind::truncated);
  EXPECT_EQ(decodeError(frame(17, {u32(10), u8(1)})).kind(), WireError::Kind::truncated);
  EXPECT_EQ(decodeError(frame(4, {u16(2)})).kind(), WireError::Kind::truncated);
  EXPECT_EQ(decodeOne(frame(13, {u64(5), u32(0xdeadbeef)})), Message(msg::ping{5}));
  EXPECT_EQ(decodeOne(frame(29, {u8(1), u8(2)})), Message(msg::unfocus{}));
  EXPECT_EQ(decodeOne(frame(61, {u8(0), str(""), u8(1), u8(0), u8(7)})),
            Message(msg::textFocus{false, "", TextFocusKind::field, false}));
}

TEST(WireCodec, StreamModeWithoutFollowTailReadsAsNoFollow) {
  const auto m = std::get<msg::streamMode>(
      decodeOne(frame(32, {u8(1), u32(7), u32(8), u8(1), u8(0), kRectBytes})));
  EXPECT_EQ(m.info.mode, StreamMode(streammode::focus{7, 8}));
  EXPECT_TRUE(m.info.fitApplied);
  EXPECT_EQ(m.info.surface, kRect);
  EXPECT_FALSE(m.info.follow.has_value());
}

TEST(WireCodec, WritersCapArraysSilentlyAndReadersAsymmetrically) {
  msg::requestAppIcons icons;
  for (int i = 0; i < 30; ++i) icons.bundleIDs.push_back("app" + std::to_string(i));
  auto decodedIcons = std::get<msg::requestAppIcons>(decodeOne(WireCodec::encodeMessage(icons)));
  EXPECT_EQ(decodedIcons.bundleIDs.size(), 24u);
  EXPECT_EQ(decodedIcons.bundleIDs.back(), "app23");

  msg::recentApps recent;
  for (int i = 0; i < 100; ++i) recent.pids.push_back(i);
  EXPECT_EQ(std::get<msg::recentApps>(decodeOne(WireCodec::encodeMessage(recent))).pids.size(),
            64u);
  Data manyPids = concat({u16(100)});
  for (int i = 0; i < 100; ++i) manyPids = concat({manyPids, u32(i)});
  EXPECT_EQ(std::get<msg::recentApps>(decodeOne(frame(51, {manyPids}))).pids.size(), 100u);

  msg::performAction action{1, {"a", "b", "c", "d", "e", "f", "g"}};
  EXPECT_EQ(std::get<msg::performAction>(decodeOne(WireCodec::encodeMessage(action))).path,
            (std::vector<std::string>{"a", "b", "c", "d", "e"}));
  EXPECT_EQ(
      std::get<msg::performAction>(decodeOne(frame(59, {u32(1), u8(6), str("1"), str("2"), str("3"),
                                                        str("4"), str("5"), str("6")})))
          .path.size(),
      6u);

  msg::relayConfig relays;
  relays.relays.resize(300, RelayEndpoint{"r", 1});
  EXPECT_EQ(std::get<msg::relayConfig>(decodeOne(WireCodec::encodeMessage(relays))).relays.size(),
            255u);

  msg::windowThumbnails thumbs{true, std::vector<std::uint32_t>(70000, 1)};
  EXPECT_EQ(
      std::get<msg::windowThumbnails>(decodeOne(WireCodec::encodeMessage(thumbs))).windowIDs.size(),
      65535u);
}

MenuNode chain(int levels) {
  MenuNode node{"level" + std::to_string(levels), "", 0, true, MenuMark::none, false, {}};
  if (levels > 1) node.children.push_back(chain(levels - 1));
  return node;
}

int depthOf(const std::vector<MenuNode>& nodes) {
  int deepest = 0;
  for (const auto& n : nodes) deepest = std::max(deepest, 1 + depthOf(n.children));
  return deepest;
}

std::size_t countOf(const std::vector<MenuNode>& nodes) {
  std::size_t total = nodes.size();
  for (const auto& n : nodes) total += countOf(n.children);
  return total;
}

TEST(WireCodec, MenuTreeIsCutToFourLevelsAndTheNodeBudget) {
  msg::appActions deep{"b", "n", 1, {chain(6)}};
  auto decoded = std::get<msg::appActions>(decodeOne(WireCodec::encodeMessage(deep)));
  EXPECT_EQ(depthOf(decoded.menu), 4);

  msg::appActions flat{"b", "n", 1, std::vector<MenuNode>(3001, MenuNode{.title = "x"})};
  EXPECT_EQ(std::get<msg::appActions>(decodeOne(WireCodec::encodeMessage(flat))).menu.size(),
            3000u);

  // Children claim what their parents' siblings left: the written tree stays within the budget.
  msg::appActions bushy{"b", "n", 1, {}};
  for (int i = 0; i < 60; ++i) {
    MenuNode parent{.title = "p"};
    parent.children.assign(60, MenuNode{.title = "c"});
    bushy.menu.push_back(parent);
  }
  auto decodedBushy = std::get<msg::appActions>(decodeOne(WireCodec::encodeMessage(bushy)));
  EXPECT_EQ(countOf(decodedBushy.menu), 3000u);
  EXPECT_EQ(decodedBushy.menu.size(), 60u);
}

TEST(WireCodec, MenuTreeReaderRefusesTooManyNodes) {
  Data nodes = u16(3001);
  for (int i = 0; i < 3001; ++i) {
    nodes = concat({nodes, str("x"), str(""), u8(0), u8(1), u8(0), u8(0), u16(0)});
  }
  expectInvalid(frame(58, {str(""), str(""), u32(1), nodes}), "menu tree too large");

  // A list of 2 whose first node claims 2999 children overruns the budget at the second node.
  Data child = concat({str("c"), str(""), u8(0), u8(1), u8(0), u8(0), u16(0)});
  Data children = u16(2999);
  for (int i = 0; i < 2999; ++i) children = concat({children, child});
  expectInvalid(frame(58, {str(""), str(""), u32(1), u16(2), str("p"), str(""), u8(0), u8(1), u8(0),
                           u8(0), children, child}),
                "menu tree too large");
}

}  // namespace
}  // namespace kelvaron
