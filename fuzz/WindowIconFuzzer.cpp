// Another program's _NET_WM_ICON: any words either give nothing or a PNG of the square asked for.

#include <png.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "host/desktop/WindowIcon.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::vector<std::uint32_t> words(size / 4);
  if (!words.empty()) std::memcpy(words.data(), data, words.size() * 4);
  const auto png = kelvaron::host::windowIconPng(words, 32);
  if (!png) return 0;
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_memory(&image, png->data(), png->size())) __builtin_trap();
  if (image.width != 32 || image.height != 32) __builtin_trap();
  png_image_free(&image);
  return 0;
}
