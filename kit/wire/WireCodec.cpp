#include "kit/wire/WireCodec.hpp"

#include <array>

#include "kit/wire/WireLayouts.hpp"

namespace kelvaron {

namespace wire {

template <class... F>
struct Overloaded : F... {
  using F::operator()...;
};
template <class... F>
Overloaded(F...) -> Overloaded<F...>;

void FieldWriter::put(const PointerEvent& v) {
  w_.u8(static_cast<std::uint8_t>(v.index()));
  std::visit(Overloaded{
                 [&](const pointer::moveRelative& e) { (*this)(e.dx, e.dy); },
                 [&](const pointer::moveAbsolute& e) { (*this)(e.displayID, e.x, e.y); },
                 [&](const pointer::button& e) { (*this)(e.button, e.isDown, e.clickCount); },
                 [&](const pointer::scroll& e) { (*this)(e.dx, e.dy, e.phase); },
             },
             v);
}

void FieldReader::get(PointerEvent& v) {
  const std::uint8_t tag = r_.u8();
  switch (tag) {
    case 0: {
      pointer::moveRelative e;
      (*this)(e.dx, e.dy);
      v = e;
      return;
    }
    case 1: {
      pointer::moveAbsolute e;
      (*this)(e.displayID, e.x, e.y);
      v = e;
      return;
    }
    case 2: {
      pointer::button e;
      (*this)(e.button, e.isDown, e.clickCount);
      v = e;
      return;
    }
    case 3: {
      pointer::scroll e;
      (*this)(e.dx, e.dy, e.phase);
      v = e;
      return;
    }
    default:
      throw WireError::invalidByte("pointer kind ", tag);
  }
}

void FieldWriter::put(const StreamModeInfo& v) {
  if (const auto* focus = std::get_if<streammode::focus>(&v.mode)) {
    (*this)(std::uint8_t{1}, focus->pid, focus->windowID);
  } else {
    w_.u8(0);
  }
  (*this)(v.fitApplied, v.notice, v.surface);
  if (!v.follow) {
    w_.u8(0);
    return;
  }
  (*this)(static_cast<std::uint8_t>(v.follow->kind), v.follow->appName, v.follow->title,
          v.follow->canGoBack);
}

void FieldReader::get(StreamModeInfo& v) {
  const std::uint8_t mode = r_.u8();
  if (mode == 0) {
    v.mode = streammode::desktop{};
  } else if (mode == 1) {
    streammode::focus focus;
    (*this)(focus.pid, focus.windowID);
    v.mode = focus;
  } else {
    throw WireError::invalidByte("stream mode ", mode);
  }
  (*this)(v.fitApplied, v.notice, v.surface);
  // Older senders end the frame here.
  v.follow.reset();
  if (r_.isAtEnd()) return;
  const std::uint8_t kind = r_.u8();
  if (kind == 0) return;
  if (kind > 2) throw WireError::invalidByte("follow kind ", kind);
  FocusFollowInfo& follow = v.follow.emplace();
  follow.kind = static_cast<FocusFollowInfo::Kind>(kind);
  (*this)(follow.appName, follow.title, follow.canGoBack);
}

// A list's count claims its nodes from the budget before any of their children are written, so
// that what is written never exceeds the budget a reader allows.
void FieldWriter::putMenuList(std::span<const MenuNode> nodes, int depth, int& budget) {
  const auto count = static_cast<std::uint16_t>(
      std::min<std::size_t>({nodes.size(), static_cast<std::size_t>(std::max(budget, 0)), 65535}));
  w_.u16(count);
  budget -= count;
  for (const MenuNode& node : nodes.first(count)) {
    put(node);
    putMenuList(depth < kMenuWriteDepth ? std::span(node.children) : std::span<const MenuNode>{},
                depth + 1, budget);
  }
}

void FieldReader::getMenuList(std::vector<MenuNode>& nodes, int depth, int& budget) {
  const std::uint16_t count = r_.u16();
  if (depth > kMenuReadDepth || count > budget) {
    throw WireError::invalidValue("menu tree too large");
  }
  nodes.clear();
  for (std::uint16_t i = 0; i < count; ++i) {
    MenuNode& node = nodes.emplace_back();
    --budget;
    get(node);
    getMenuList(node.children, depth + 1, budget);
  }
}

}  // namespace wire

namespace WireCodec {

namespace {

// Writes the length prefix and type byte around what `body` writes.
template <class Body>
Data encodeFrame(std::uint8_t type, std::size_t sizeHint, Body&& body) {
  Data out;
  out.reserve(sizeHint);
  WireWriter writer(out);
  writer.u32(0);
  writer.u8(type);
  wire::FieldWriter fields(writer);
  body(fields);
  writer.patchU32(0, static_cast<std::uint32_t>(out.size() - 4));
  return out;
}

using CaseDecoder = Message (*)(FrameReader&);

template <class Case>
Message decodeCase(FrameReader& reader) {
  Case m;
  wire::FieldReader fields(reader);
  fields(m);
  return m;
}

constexpr std::array<CaseDecoder, 256> kDecoders = [] {
  std::array<CaseDecoder, 256> table{};
  [&]<std::size_t... I>(std::index_sequence<I...>) {
    ((table[std::variant_alternative_t<I, Message>::code] =
          &decodeCase<std::variant_alternative_t<I, Message>>),
     ...);
  }
  (std::make_index_sequence<std::variant_size_v<Message>>{});
  return table;
}();

void expectType(FrameReader& reader, std::uint8_t expected) {
  const std::uint8_t type = reader.u8();
  if (type != expected) throw WireError::unknownType(type);
}

}  // namespace

Data encodeMessage(const Message& message) {
  return std::visit(
      [](const auto& m) { return encodeFrame(m.code, 64, [&](wire::FieldWriter& f) { f(m); }); },
      message);
}

Data encodeVideoFrame(const VideoFrame& frame) {
  std::size_t size = 64 + frame.payload.size();
  for (const auto& set : frame.parameterSets) size += 4 + set.size();
  return encodeFrame(kVideoFrameType, size, [&](wire::FieldWriter& f) { f(frame); });
}

Data encodeAudioPacket(const AudioPacket& packet) {
  return encodeFrame(kAudioPacketType, 17 + packet.data.size(),
                     [&](wire::FieldWriter& f) { f(packet); });
}

Message decodeMessage(std::uint8_t type, FrameReader& reader) {
  const CaseDecoder decode = kDecoders[type];
  if (!decode) throw WireError::unknownType(type);
  return decode(reader);
}

Message decodeMessage(SharedBytes frame) {
  FrameReader reader(std::move(frame));
  return decodeMessage(reader.u8(), reader);
}

VideoFrame decodeVideoFrame(SharedBytes frame) {
  FrameReader reader(std::move(frame));
  expectType(reader, kVideoFrameType);
  VideoFrame v;
  wire::FieldReader fields(reader);
  fields(v);
  return v;
}

AudioPacket decodeAudioPacket(SharedBytes frame) {
  FrameReader reader(std::move(frame));
  expectType(reader, kAudioPacketType);
  AudioPacket p;
  wire::FieldReader fields(reader);
  fields(p);
  return p;
}

}  // namespace WireCodec
}  // namespace kelvaron
