#include "host/session/CursorShapeRegistry.hpp"

#include <bit>

namespace kelvaron::host {

std::uint32_t CursorShapeRegistry::shapeID(const CursorShapeData& shape) {
  std::uint32_t hash = 0x811c9dc5;
  const auto mix = [&hash](std::uint8_t byte) {
    hash ^= byte;
    hash *= 16777619u;
  };
  for (const std::uint8_t byte : shape.png) mix(byte);
  for (const float value : {shape.hotspotX, shape.hotspotY, shape.pointSize}) {
    const auto bits = std::bit_cast<std::uint32_t>(value);
    for (int shift = 0; shift < 32; shift += 8) mix(std::uint8_t(bits >> shift));
  }
  return hash == 0 ? 1 : hash;
}

std::uint32_t CursorShapeRegistry::registerShape(const CursorShapeData& shape) {
  const std::uint32_t id = shapeID(shape);
  shapes_.try_emplace(id, shape);
  return id;
}

const CursorShapeData* CursorShapeRegistry::find(std::uint32_t id) const {
  const auto found = shapes_.find(id);
  return found == shapes_.end() ? nullptr : &found->second;
}

}  // namespace kelvaron::host
