// Property: every message, filled with generated values inside the protocol's domain, survives
// encode → decode unchanged, also when the stream arrives in arbitrary pieces.

#include <gtest/gtest.h>

#include <random>

#include "kit/wire/WireCodec.hpp"
#include "kit/wire/WireDecoder.hpp"
#include "kit/wire/WireLayouts.hpp"

namespace kelvaron {
namespace {

// Fills any wire value with random content through the same field descriptions the codec uses,
// so that every field of every message is exercised; the hand-made layouts elsewhere check that
// the descriptions themselves are right.
class RandomFill {
 public:
  explicit RandomFill(std::uint64_t seed) : rng_(seed) {}

  template <class... T>
  void operator()(T&&... fields) {
    (fill(std::forward<T>(fields)), ...);
  }

  std::size_t below(std::size_t n) { return n == 0 ? 0 : rng_() % n; }

 private:
  template <class Int>
  requires std::is_integral_v<Int>
  void fill(Int& v) { v = static_cast<Int>(rng_()); }
  void fill(bool& v) { v = rng_() & 1; }
  void fill(float& v) {
    do v = std::bit_cast<float>(static_cast<std::uint32_t>(rng_()));
    while (std::isnan(v));  // NaN is carried bit for bit but never compares equal
  }
  void fill(std::string& v) {
    static const char* const pieces[] = {"a", "Z", " ", "é", "’", "中", "🎉", "\n", "\x7f"};
    v.clear();
    for (std::size_t n = below(12); n > 0; --n) v += pieces[below(std::size(pieces))];
  }
  void fill(Data& v) {
    v.resize(below(40));
    for (auto& b : v) b = static_cast<std::uint8_t>(rng_());
  }
  void fill(SharedBytes& v) {
    Data d;
    fill(d);
    v = SharedBytes(std::move(d));
  }
  void fill(UUID& v) {
    for (auto& b : v.bytes) b = static_cast<std::uint8_t>(rng_());
  }
  void fill(HIDUsage& v) { fill(v.rawValue); }
  void fill(ModifierFlags& v) { fill(v.rawValue); }
  void fill(PointerEvent& v) {
    switch (below(4)) {
      case 0:
        v = pointer::moveRelative{};
        break;
      case 1:
        v = pointer::moveAbsolute{};
        break;
      case 2:
        v = pointer::button{};
        break;
      default:
        v = pointer::scroll{};
        break;
    }
    std::visit([&](auto& e) { fillPointer(e); }, v);
  }
  void fillPointer(pointer::moveRelative& e) { (*this)(e.dx, e.dy); }
  void fillPointer(pointer::moveAbsolute& e) { (*this)(e.displayID, e.x, e.y); }
  void fillPointer(pointer::button& e) { (*this)(e.button, e.isDown, e.clickCount); }
  void fillPointer(pointer::scroll& e) { (*this)(e.dx, e.dy, e.phase); }
  void fill(StreamModeInfo& v) {
    if (below(2)) {
      streammode::focus f;
      (*this)(f.pid, f.windowID);
      v.mode = f;
    } else {
      v.mode = streammode::desktop{};
    }
    (*this)(v.fitApplied, v.notice, v.surface);
    v.follow.reset();
    if (below(2)) {
      auto& follow = v.follow.emplace();
      follow.kind = below(2) ? FocusFollowInfo::Kind::window : FocusFollowInfo::Kind::popup;
      (*this)(follow.appName, follow.title, follow.canGoBack);
    }
  }
  template <class T>
  void fill(std::optional<T>& v) {
    v.reset();
    if (below(2)) fill(v.emplace());
  }
  template <class Count, class Vec>
  void fill(wire::Counted<Count, Vec> array) {
    array.items.resize(below(std::min<std::size_t>(array.cap, 4) + 1));
    for (auto& item : array.items) fill(item);
  }
  template <class Vec>
  void fill(wire::MenuTree<Vec> tree) {
    fillMenu(tree.nodes, 1);
  }
  void fillMenu(std::vector<MenuNode>& nodes, int depth) {
    nodes.resize(below(4));
    for (auto& node : nodes) {
      fill(node);
      if (depth < wire::kMenuWriteDepth) fillMenu(node.children, depth + 1);
    }
  }
  template <class T>
  void fill(T& v) {
    if constexpr (wire::WireEnum<T>) {
      constexpr wire::EnumRule rule = *wire::enumRule<T>;
      v = static_cast<T>(rule.first + below(rule.last - rule.first + 1u));
    } else {
      wire::describe(*this, v);
    }
  }

  std::mt19937_64 rng_;
};

template <class Case>
Case randomCase(RandomFill& random) {
  Case value;
  random(value);
  return value;
}

// Every case of `Message`, `rounds` times over, in the order of the variant.
std::vector<Message> randomMessages(std::uint64_t seed, int rounds) {
  RandomFill random(seed);
  std::vector<Message> out;
  for (int round = 0; round < rounds; ++round) {
    [&]<std::size_t... I>(std::index_sequence<I...>) {
      (out.push_back(randomCase<std::variant_alternative_t<I, Message>>(random)), ...);
    }
    (std::make_index_sequence<std::variant_size_v<Message>>{});
  }
  return out;
}

TEST(WireCodec, EveryMessageRoundTrips) {
  for (const Message& message : randomMessages(1, 200)) {
    const Data bytes = WireCodec::encodeMessage(message);
    WireDecoder decoder;
    decoder.append(bytes);
    auto decoded = decoder.nextMessage();
    ASSERT_TRUE(decoded) << "type " << int(typeCode(message));
    EXPECT_EQ(*decoded, message) << "type " << int(typeCode(message));
    EXPECT_EQ(decoder.bufferedBytes(), 0u);
  }
}

TEST(WireCodec, MediaFramesRoundTrip) {
  RandomFill random(2);
  for (int i = 0; i < 200; ++i) {
    const auto video = randomCase<VideoFrame>(random);
    const auto audio = randomCase<AudioPacket>(random);
    WireDecoder videoStream, audioStream;
    videoStream.append(WireCodec::encodeVideoFrame(video));
    audioStream.append(WireCodec::encodeAudioPacket(audio));
    EXPECT_EQ(videoStream.nextVideoFrame(), video);
    EXPECT_EQ(audioStream.nextAudioPacket(), audio);
  }
}

TEST(WireDecoder, AStreamCutAnywhereYieldsEveryMessageInOrder) {
  const auto messages = randomMessages(3, 20);
  Data stream;
  for (const auto& m : messages) {
    const Data bytes = WireCodec::encodeMessage(m);
    stream.insert(stream.end(), bytes.begin(), bytes.end());
  }
  RandomFill random(4);
  WireDecoder decoder;
  std::vector<Message> decoded;
  for (std::size_t at = 0; at < stream.size();) {
    const std::size_t piece = std::min(stream.size() - at, 1 + random.below(300));
    decoder.append(std::span(stream).subspan(at, piece));
    at += piece;
    while (auto m = decoder.nextMessage()) decoded.push_back(std::move(*m));
  }
  EXPECT_EQ(decoded, messages);
  EXPECT_EQ(decoder.bufferedBytes(), 0u);
}

}  // namespace
}  // namespace kelvaron
