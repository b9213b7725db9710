#pragma once

#include <cstdint>
#include <map>

#include "host/video/CursorSource.hpp"

namespace kelvaron::host {

// The pointer images a session has seen, by an ID that depends on the image alone, so that the
// same cursor has the same ID in every session. Never pruned during a session.
class CursorShapeRegistry {
 public:
  // 32-bit FNV-1a over the PNG and the bit patterns of the hot spot and size; never 0, which
  // means no shape.
  static std::uint32_t shapeID(const CursorShapeData& shape);

  // The shape's ID; stored if new.
  std::uint32_t registerShape(const CursorShapeData& shape);
  const CursorShapeData* find(std::uint32_t id) const;

 private:
  std::map<std::uint32_t, CursorShapeData> shapes_;
};

}  // namespace kelvaron::host
