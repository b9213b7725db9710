// Every message against its byte layout, written out by hand, in both directions; then the decoder
// on a stream, and the primitives beneath.

#include <gtest/gtest.h>

#include <bit>
#include <limits>
#include <set>

#include "kit/wire/FileTransfer.hpp"
#include "kit/wire/FrameReader.hpp"
#include "kit/wire/WireCodec.hpp"
#include "kit/wire/WireDecoder.hpp"
#include "kit/wire/WireWriter.hpp"

namespace kelvaron {
namespace {

// Each helper writes one primitive the way the protocol lays it out, independently of the codec.
Data u8(std::uint8_t v) { return {v}; }
Data u16(std::uint16_t v) { return {std::uint8_t(v >> 8), std::uint8_t(v)}; }
Data u32(std::uint32_t v) { return concat({u16(std::uint16_t(v >> 16)), u16(std::uint16_t(v))}); }
Data u64(std::uint64_t v) { return concat({u32(std::uint32_t(v >> 32)), u32(std::uint32_t(v))}); }
Data f32(float v) { return u32(std::bit_cast<std::uint32_t>(v)); }
Data str(std::string_view s) {
  return concat({u16(std::uint16_t(s.size())), Data(s.begin(), s.end())});
}
Data data(std::initializer_list<std::uint8_t> bytes) {
  return concat({u32(std::uint32_t(bytes.size())), Data(bytes)});
}
Data repeated(const Data& part, int times) {
  Data out;
  for (int i = 0; i < times; ++i) out.insert(out.end(), part.begin(), part.end());
  return out;
}

// A whole frame: length prefix, type byte, then the parts.
Data frame(std::uint8_t type, std::initializer_list<std::span<const std::uint8_t>> parts) {
  const Data body = concat(parts);
  return concat({u32(std::uint32_t(body.size() + 1)), u8(type), body});
}

WireDecoder decoderOf(const Data& bytes) {
  WireDecoder decoder;
  decoder.append(bytes);
  return decoder;
}

Message decodeOne(const Data& bytes) { return decoderOf(bytes).nextMessage().value(); }

template <class M>
M roundTrip(const M& message) {
  return std::get<M>(decodeOne(WireCodec::encodeMessage(message)));
}

// The error that the next read of `decoder` raises; fails the test if it raises none.
WireError decodeError(WireDecoder& decoder) {
  try {
    decoder.nextMessage();
  } catch (const WireError& e) {
    return e;
  }
  throw std::runtime_error("read without error");
}

WireError decodeError(WireDecoder&& decoder) { return decodeError(decoder); }
WireError decodeError(const Data& bytes) { return decodeError(decoderOf(bytes)); }

const UUID kID{{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}};
const Data kIDBytes(kID.bytes.begin(), kID.bytes.end());
const NormalizedRect kRect{0.25f, 0.5f, 0.75f, 1.0f};
const Data kRectBytes = concat({f32(0.25f), f32(0.5f), f32(0.75f), f32(1.0f)});

std::vector<std::pair<Message, Data>> layouts() {
  const ClientCapabilities ipad{
      {CodecProfile::hevcMain10, CodecProfile::hevcMain}, 2732, 2048, 2.0f, "i", true};
  const AppInfo terminal{-5, "t", "T", {1}, true, {{8, "~", {1, 2, 3, 4}, 7, true, false}}};
  const MenuNode save{"S", "s", 4, false, MenuMark::check, true, {}};
  return {
      {msg::authChallenge{{1, 2}}, frame(17, {data({1, 2})})},
      {msg::authResponse{kID, {3}, {4, 5}}, frame(18, {kIDBytes, data({3}), data({4, 5})})},
      {msg::authResult{AuthResult::denied}, frame(19, {u8(2)})},
      {msg::pairRequest{PairMethod::compare, "i", {9}}, frame(20, {u8(1), str("i"), data({9})})},
      {msg::pairNonce{{7}}, frame(21, {data({7})})},
      {msg::pairReveal{{8}}, frame(22, {data({8})})},
      {msg::pairResult{PairResult::expiredToken}, frame(23, {u8(4)})},
      {msg::hello{16, kID, "Ann’s iPad", ipad},
       frame(1, {u16(16), kIDBytes, str("Ann’s iPad"), u8(2), u8(1), u8(0), u32(2732), u32(2048),
                 f32(2.0f), str("i"), u8(1)})},
      {msg::helloAck{16, kID, "studio", CodecProfile::hevcMain444},
       frame(2, {u16(16), kIDBytes, str("studio"), u8(2)})},
      {msg::helloReject{"version 15"}, frame(3, {str("version 15")})},
      {msg::displayList{{{7, "D", true, 2560, 1440, {-10.5f, 0, 1280, 720}}}},
       frame(4, {u16(1), u32(7), str("D"), u8(1), u32(2560), u32(1440), f32(-10.5f), f32(0),
                 f32(1280), f32(720)})},
      {msg::selectDisplay{0x01020304}, frame(5, {u32(0x01020304)})},
      {msg::viewport{{3, kRect, 1920, 1080}}, frame(6, {u32(3), kRectBytes, u32(1920), u32(1080)})},
      {msg::setThumbnails{true}, frame(7, {u8(1)})},
      {msg::thumbnail{5, {0xff, 0xd8}}, frame(8, {u32(5), data({0xff, 0xd8})})},
      {msg::feedback{{60, 2, 4.5f, true}}, frame(9, {u32(60), u32(2), f32(4.5f), u8(1)})},
      {msg::clipboardText{"copied"}, frame(10, {str("copied")})},
      {msg::key{{{0x04}, true, {0x09}}}, frame(11, {u16(4), u8(1), u8(9)})},
      {msg::pointer{9, pointer::moveRelative{1, -2}}, frame(12, {u32(9), u8(0), f32(1), f32(-2)})},
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
      {msg::hostStatus{HostState::locked, "locked"}, frame(24, {u8(3), u8(1), str("locked")})},
      {msg::hostStatus{HostState::ok, std::nullopt}, frame(24, {u8(0), u8(0)})},
      {msg::sessionReplaced{"Bob’s iPhone"}, frame(62, {str("Bob’s iPhone")})},
      {msg::appList{{terminal}},
       frame(25, {u16(1), u32(std::uint32_t(-5)), str("t"), str("T"), data({1}), u8(1), u16(1),
                  u32(8), str("~"), f32(1), f32(2), f32(3), f32(4), u32(7), u8(1), u8(0)})},
      {msg::setAppListUpdates{true}, frame(26, {u8(1)})},
      {msg::activateApp{12, 99u, true}, frame(27, {u32(12), u8(1), u32(99), u8(1)})},
      {msg::activateApp{12, std::nullopt, false}, frame(27, {u32(12), u8(0), u8(0)})},
      {msg::focus{12, 99, true, false}, frame(28, {u32(12), u32(99), u8(1), u8(0)})},
      {msg::unfocus{}, frame(29, {})},
      {msg::windowThumbnails{true, {1, 2}}, frame(30, {u8(1), u16(2), u32(1), u32(2)})},
      {msg::windowThumbnail{4, {1}}, frame(31, {u32(4), data({1})})},
      {msg::streamMode{{streammode::focus{7, 8}, true, "f", kRect,
                        FocusFollowInfo{FocusFollowInfo::Kind::popup, "F", "O", true}}},
       frame(32, {u8(1), u32(7), u32(8), u8(1), u8(1), str("f"), kRectBytes, u8(2), str("F"),
                  str("O"), u8(1)})},
      {msg::streamMode{{streammode::desktop{}, false, std::nullopt, kRect, std::nullopt}},
       frame(32, {u8(0), u8(0), u8(0), kRectBytes, u8(0)})},
      {msg::cursorShape{3, {9}, 1, 2, 32}, frame(33, {u32(3), data({9}), f32(1), f32(2), f32(32)})},
      {msg::requestCursorShape{3}, frame(34, {u32(3)})},
      {msg::setVideoEnabled{false}, frame(35, {u8(0)})},
      {msg::text{"héllo"}, frame(37, {str("héllo")})},
      {msg::setAudio{AudioMode::both}, frame(38, {u8(2)})},
      {msg::audioConfig{48000, 2, AudioCodec::aacELD, {0xf8, 0xe8}},
       frame(39, {u32(48000), u8(2), u8(0), data({0xf8, 0xe8})})},
      {msg::audioStatus{AudioStatus::failed, "x"}, frame(40, {u8(3), u8(1), str("x")})},
      {msg::relayConfig{{{"r", 443}}, {5}}, frame(41, {u8(1), str("r"), u16(443), data({5})})},
      {msg::focusBack{}, frame(42, {})},
      {msg::requestInstalledApps{}, frame(43, {})},
      {msg::installedApps{{{"f.desktop", "F", 0xAABBCCDD00112233}}},
       frame(44, {u16(1), str("f.desktop"), str("F"), u64(0xAABBCCDD00112233)})},
      {msg::requestAppIcons{{"a", "b"}}, frame(45, {u8(2), str("a"), str("b")})},
      {msg::appIcon{"a", {1}}, frame(46, {str("a"), data({1})})},
      {msg::launchApp{"a", true}, frame(47, {str("a"), u8(1)})},
      {msg::launchStatus{{"a", LaunchState::noWindow, 1500, "x"}},
       frame(48, {str("a"), u8(4), u32(1500), str("x")})},
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
      {msg::appActions{"g", "t", 4, {{"F", "", 0, true, MenuMark::none, false, {save}}}},
       frame(58, {str("g"), str("t"), u32(4), u16(1), str("F"), str(""), u8(0), u8(1), u8(0), u8(0),
                  u16(1), str("S"), str("s"), u8(4), u8(0), u8(1), u8(1), u16(0)})},
      {msg::performAction{4, {"F", "S"}}, frame(59, {u32(4), u8(2), str("F"), str("S")})},
      {msg::actionResult{true, "done"}, frame(60, {u8(1), str("done")})},
      {msg::textFocus{true, "g", TextFocusKind::terminal, true},
       frame(61, {u8(1), str("g"), u8(6), u8(1)})},
  };
}

// Every case of `Message` is in the table, each checked in both directions. Nothing but the
// authentication messages (17...23) passes before the peer is authenticated.
TEST(WireCodec, EveryMessageHasItsLayout) {
  std::set<std::uint8_t> covered;
  for (const auto& [message, bytes] : layouts()) {
    SCOPED_TRACE("type " + std::to_string(bytes[4]));
    EXPECT_EQ(WireCodec::encodeMessage(message), bytes);
    EXPECT_EQ(decodeOne(bytes), message);
    EXPECT_EQ(isAuthentication(message), bytes[4] >= 17 && bytes[4] <= 23);
    covered.insert(bytes[4]);
  }
  EXPECT_EQ(covered.size(), 61u);
  // Input and file data travel apart from control, so that neither waits behind the other.
  EXPECT_EQ(channel(msg::pointer{}), Channel::input);
  EXPECT_EQ(channel(msg::fileChunk{}), Channel::transfer);
  EXPECT_EQ(channel(msg::fileOffer{}), Channel::control);
}

TEST(WireCodec, MediaFramesHaveTheirLayouts) {
  VideoFrame video{7, 0x0102030405060708, 99, true, CodecProfile::hevcMain10, 1920, 1080, kRect};
  video.parameterSets = {Data{0x40, 0x01}, Data{0x42}};
  video.payload = Data{0, 0, 0, 1, 0x26};
  const Data videoBytes =
      frame(128, {u32(7), u64(0x0102030405060708), u64(99), u8(1), u8(1), u32(1920), u32(1080),
                  kRectBytes, u8(2), data({0x40, 0x01}), data({0x42}), data({0, 0, 0, 1, 0x26})});
  EXPECT_EQ(WireCodec::encodeVideoFrame(video), videoBytes);
  EXPECT_EQ(WireCodec::decodeVideoFrame(Data(videoBytes.begin() + 4, videoBytes.end())), video);

  const AudioPacket audio{123456, Data{1, 2, 3}};
  const Data audioBytes = frame(129, {u64(123456), data({1, 2, 3})});
  EXPECT_EQ(WireCodec::encodeAudioPacket(audio), audioBytes);
  EXPECT_EQ(WireCodec::decodeAudioPacket(Data(audioBytes.begin() + 4, audioBytes.end())), audio);
}

// Unknown bytes of a lenient enumeration read as none; a short frame is truncated; bytes after the
// last field are ignored (a newer peer's), and a stream mode without its follow part has none.
TEST(WireCodec, LenientReadsAndFrameLengths) {
  EXPECT_EQ(decodeOne(frame(61, {u8(1), str("x"), u8(9), u8(0)})),
            Message(msg::textFocus{true, "x", TextFocusKind::none, false}));

  EXPECT_EQ(decodeError(frame(4, {u16(2)})).kind(), WireError::Kind::truncated);
  EXPECT_EQ(decodeOne(frame(13, {u64(5), u32(0xdeadbeef)})), Message(msg::ping{5}));
  EXPECT_EQ(
      decodeOne(frame(32, {u8(1), u32(7), u32(8), u8(1), u8(0), kRectBytes})),
      Message(msg::streamMode{{streammode::focus{7, 8}, true, std::nullopt, kRect, std::nullopt}}));
}

// Writers cap what they write without failing; readers take more, so that an older peer's
// smaller cap never refuses a newer peer's message.
TEST(WireCodec, WritersCapArraysSilentlyAndReadersAsymmetrically) {
  const std::vector<std::string> icons(30, "a");
  EXPECT_EQ(roundTrip(msg::requestAppIcons{icons}).bundleIDs.size(), 24u);

  EXPECT_EQ(roundTrip(msg::recentApps{std::vector<std::int32_t>(100, 1)}).pids.size(), 64u);
  const auto manyPids =
      std::get<msg::recentApps>(decodeOne(frame(51, {u16(100), repeated(u32(1), 100)})));
  EXPECT_EQ(manyPids.pids.size(), 100u);

  EXPECT_EQ(roundTrip(msg::performAction{1, {"a", "b", "c", "d", "e", "f", "g"}}).path,
            (std::vector<std::string>{"a", "b", "c", "d", "e"}));
  const auto sixDeep =
      std::get<msg::performAction>(decodeOne(frame(59, {u32(1), u8(6), repeated(str("x"), 6)})));
  EXPECT_EQ(sixDeep.path.size(), 6u);

  const std::vector<RelayEndpoint> relays(300, {"r", 1});
  EXPECT_EQ(roundTrip(msg::relayConfig{relays, {}}).relays.size(), 255u);
  const std::vector<std::uint32_t> windows(70000, 1);
  EXPECT_EQ(roundTrip(msg::windowThumbnails{true, windows}).windowIDs.size(), 65535u);
}

TEST(WireCodec, MenuTreeIsCutToFourLevelsAndTheNodeBudget) {
  MenuNode sixLevels{.title = "6"};
  for (int level = 5; level > 0; --level) sixLevels = MenuNode{.children = {sixLevels}};
  const auto deep = roundTrip(msg::appActions{"b", "n", 1, {sixLevels}}).menu;
  EXPECT_TRUE(deep.at(0).children.at(0).children.at(0).children.at(0).children.empty());
  const std::vector<MenuNode> flat(3001, MenuNode{.title = "x"});
  EXPECT_EQ(roundTrip(msg::appActions{"b", "n", 1, flat}).menu.size(), 3000u);

  // Children claim what their parents' siblings left: the written tree stays within the budget.
  const MenuNode parent{.title = "p",
                        .children = std::vector<MenuNode>(60, MenuNode{.title = "c"})};
  const auto bushy = roundTrip(msg::appActions{"b", "n", 1, std::vector<MenuNode>(60, parent)});
  std::size_t nodes = bushy.menu.size();
  for (const MenuNode& each : bushy.menu) nodes += each.children.size();
  EXPECT_EQ(nodes, 3000u);
  EXPECT_EQ(bushy.menu.size(), 60u);

  const Data leaf = concat({str("x"), str(""), u8(0), u8(1), u8(0), u8(0), u16(0)});
  const WireError tooLarge = WireError::invalidValue("menu tree too large");
  EXPECT_EQ(decodeError(frame(58, {str(""), str(""), u32(1), u16(3001), repeated(leaf, 3001)})),
            tooLarge);
  // A list of 2 whose first node claims 2999 children overruns the budget at the second node.
  EXPECT_EQ(decodeError(frame(58, {str(""), str(""), u32(1), u16(2), str("p"), str(""), u8(0),
                                   u8(1), u8(0), u8(0), u16(2999), repeated(leaf, 2999), leaf})),
            tooLarge);
}

TEST(WireDecoder, AStreamFedOneByteAtATimeYieldsEveryFrameAsItsLastByteArrives) {
  const std::vector<Message> messages = {msg::hello{16, {}, "phone", {}}, msg::unfocus{},
                                         msg::clipboardText{"é"}, msg::ping{7}};
  Data stream;
  for (const Message& each : messages) stream = concat({stream, WireCodec::encodeMessage(each)});
  WireDecoder decoder;
  std::vector<Message> decoded;
  for (std::size_t i = 0; i < stream.size(); ++i) {
    decoder.append(std::span(stream).subspan(i, 1));
    if (auto next = decoder.nextMessage()) decoded.push_back(std::move(*next));
  }
  EXPECT_EQ(decoded, messages);
  EXPECT_EQ(decoder.bufferedBytes(), 0u);
}

// A frame that fails to decode costs only itself: the stream goes on with the next one. Each
// enumeration fails with its label.
TEST(WireDecoder, ABadFrameCostsOnlyItself) {
  const auto invalid = &WireError::invalidValue;
  std::vector<std::pair<Data, WireError>> bad = {
      {u32(0), WireError::truncated()},
      {frame(1, {u16(16), kIDBytes, str(""), u8(1), u8(4)}), invalid("profile 4")},
      {frame(19, {u8(3)}), invalid("auth result 3")},
      {frame(20, {u8(2), str(""), data({})}), invalid("pair method 2")},
      {frame(23, {u8(6)}), invalid("pair result 6")},
      {frame(32, {u8(2)}), invalid("stream mode 2")},
      {frame(32, {u8(0), u8(0), u8(0), kRectBytes, u8(3)}), invalid("follow kind 3")},
      {frame(45, {u8(25)}), invalid("icon request 25")},
      {frame(48, {str("a"), u8(0), u32(0), str("")}), invalid("launch state 0")},
      {frame(12, {u32(1), u8(4)}), invalid("pointer kind 4")},
      {frame(12, {u32(1), u8(2), u8(3), u8(1), u8(1)}), invalid("button 3")},
      {frame(12, {u32(1), u8(3), f32(0), f32(0), u8(5)}), invalid("scroll phase 5")},
      {frame(24, {u8(0), u8(2)}), invalid("bool 2")},
      {frame(10, {u16(2), u8(0xc3), u8(0x28)}), invalid("invalid UTF-8")},
  };
  for (const std::uint8_t type : std::vector<std::uint8_t>{0, 36, 63, 127, 128, 129, 255})
    bad.emplace_back(frame(type, {u32(1)}), WireError::unknownType(type));
  for (const auto& [bytes, expected] : bad) {
    WireDecoder decoder = decoderOf(concat({bytes, frame(13, {u64(5)})}));
    const WireError e = decodeError(decoder);
    EXPECT_EQ(e, expected) << e.what();
    EXPECT_FALSE(decoder.poisoned());
    EXPECT_EQ(decoder.nextMessage(), Message(msg::ping{5}));
  }
  EXPECT_THROW(decoderOf(frame(129, {u64(1), data({})})).nextVideoFrame(), WireError);
  EXPECT_THROW(decoderOf(frame(13, {u64(1)})).nextAudioPacket(), WireError);
}

TEST(WireDecoder, AFrameOfTheLimitDecodesAndOneByteMorePoisonsForGood) {
  VideoFrame big;  // the header of a video frame without parameter sets takes 52 bytes
  big.payload = Data(kMaxFrameLength - 52, 0xAB);
  const Data bytes = WireCodec::encodeVideoFrame(big);
  ASSERT_EQ(bytes.size(), 4u + kMaxFrameLength);
  WireDecoder decoder = decoderOf(bytes);
  ASSERT_TRUE(decoder.nextVideoFrame());

  decoder.append(u32(kMaxFrameLength + 1));
  EXPECT_STREQ(decodeError(decoder).what(), "frameTooLarge(67108865)");
  decoder.append(frame(13, {u64(1)}));  // the stream can no longer be followed
  EXPECT_EQ(decodeError(decoder), WireError::frameTooLarge(0x4000001));
  EXPECT_EQ(decoder.poisoned(), WireError::frameTooLarge(0x4000001));
  EXPECT_THROW(decoder.decodeFrame(), WireError);
  EXPECT_EQ(decoder.bufferedBytes(), 0u);  // what follows is not kept

  WireDecoder strict = decoderOf(frame(13, {u64(1)}));  // an untrusted peer's limit is lower
  strict.setMaxFrameLength(4096);
  EXPECT_EQ(strict.nextMessage(), Message(msg::ping{1}));
  strict.append(u32(4097));
  EXPECT_THROW(strict.nextMessage(), WireError);
}

// A stream that never runs empty moves to the front of its buffer once the consumed bytes pass both
// 64 KiB and half the buffer: not after every frame (quadratic), and not never (unbounded).
TEST(WireDecoder, ConsumedBytesAreCompactedOnlyPastTheThreshold) {
  const Data small = frame(13, {u64(1)});  // 13 bytes: 8,000 and a partial one make 104,005
  WireDecoder decoder = decoderOf(concat({repeated(small, 8000), std::span(small).first(5)}));
  std::size_t compactions = 0;
  for (int i = 0; i < 8000; ++i) {
    const std::size_t consumed = decoder.offset() + small.size();
    ASSERT_TRUE(decoder.nextMessage());
    if (decoder.offset() == consumed) continue;
    ++compactions;
    EXPECT_GT(consumed, 65536u);
    EXPECT_GT(consumed, (decoder.bufferedBytes() + consumed) / 2);
  }
  EXPECT_EQ(compactions, 1u);
  decoder.append(std::span(small).subspan(5));  // the partial frame was moved whole
  EXPECT_TRUE(decoder.nextMessage());
  EXPECT_EQ(decoder.bufferedBytes(), 0u);
}

TEST(WireDecoder, AHeldFrameSurvivesLaterReads) {
  const Data first = frame(128, {u32(1), u64(1), u64(1), u8(1), u8(0), u32(2), u32(2), kRectBytes,
                                 u8(0), data({1, 2, 3})});
  WireDecoder decoder = decoderOf(first);
  decoder.append(std::span(first).first(6));  // the next frame has begun
  const auto held = decoder.nextVideoFrame();
  ASSERT_TRUE(held);
  decoder.append(std::span(first).subspan(6));
  decoder.append(Data(100000, 0));  // grows and moves the receive buffer
  EXPECT_EQ(held->payload, SharedBytes(Data{1, 2, 3}));
  EXPECT_TRUE(decoder.nextVideoFrame());
}

std::string throughTheWire(const std::string& text) {
  Data out;
  WireWriter(out).string(text);
  return FrameReader(SharedBytes(out)).string();
}

TEST(WireWriter, StringsAreCutOnACharacterBoundaryAndWrittenAsValidUTF8) {
  EXPECT_EQ(throughTheWire(std::string(70000, 'x')), std::string(65535, 'x'));
  std::string emoji;
  for (int i = 0; i < 20000; ++i) emoji += "🎉";     // four bytes each
  EXPECT_EQ(throughTheWire(emoji).size(), 65532u);  // read back: still valid UTF-8

  // Each ill-formed part becomes one U+FFFD: a stray continuation, a cut character, an overlong
  // form, a surrogate; what is well-formed around them stays.
  EXPECT_EQ(throughTheWire("a\x80z"), "a\uFFFDz");
  EXPECT_EQ(throughTheWire("a\xE6\x97"), "a\uFFFD");
  EXPECT_EQ(throughTheWire("\xC0\xAFx"), "\uFFFD\uFFFDx");
  EXPECT_EQ(throughTheWire("\xED\xA0\x80"), "\uFFFD\uFFFD\uFFFD");
  EXPECT_EQ(throughTheWire("日\xFF本"), "日\uFFFD本");
}

TEST(FrameReader, ReadsFailPastTheEndWithoutAllocatingAndStringsMustBeStrictUTF8) {
  // A count of 4 GiB behind one byte fails before anything is allocated.
  EXPECT_THROW(FrameReader(SharedBytes(Data{0xff, 0xff, 0xff, 0xff, 1})).data(), WireError);
  FrameReader three{SharedBytes(Data{1, 2, 3})};
  EXPECT_THROW(three.u32(), WireError);
  EXPECT_EQ(three.take(3).size(), 3u);
  EXPECT_TRUE(three.isAtEnd());

  EXPECT_TRUE(isValidUTF8(Data{0xf4, 0x8f, 0xbf, 0xbf}));  // U+10FFFF
  // Overlong twice, a surrogate, above U+10FFFF, cut short, a lone continuation, never a byte.
  for (std::string_view bad : {"\xc0\xaf", "\xe0\x80\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80",
                               "\xe2\x80", "\x80", "\xff"}) {
    EXPECT_FALSE(isValidUTF8(Data(bad.begin(), bad.end()))) << int(std::uint8_t(bad[0]));
  }
}

TEST(FileTransfer, SizesReadLikeAPersonWouldWriteThemAndOffersAreCheckedBeforeTheyAreSent) {
  EXPECT_EQ(sizeText(2048), "2 KB");
  EXPECT_EQ(sizeText(1572864), "1.5 MB");
  EXPECT_EQ(sizeText(10433332), "10 MB");  // 9.95 MiB rounds to one decimal as 10.0
  EXPECT_EQ(sizeText(15990000), "15 MB");  // 15.25 MiB: whole megabytes from ten on

  using Sizes = std::vector<std::uint64_t>;
  EXPECT_EQ(fileOfferProblem({}), "Nothing to send");
  EXPECT_EQ(fileOfferProblem(Sizes(11, 1)), "Too many files: 11 (limit 10)");
  EXPECT_EQ(fileOfferProblem(Sizes(10, 1)), std::nullopt);
  EXPECT_EQ(fileOfferProblem(Sizes{104857600}), std::nullopt);
  EXPECT_EQ(fileOfferProblem(Sizes{104857600, 1}), "Too large to send: 100 MB (limit 100 MB)");
  const auto max = std::numeric_limits<std::uint64_t>::max();  // the sum must not wrap
  EXPECT_EQ(fileOfferProblem(Sizes{max, max}),
            "Too large to send: 17592186044416 MB (limit 100 MB)");
}

}  // namespace
}  // namespace kelvaron
