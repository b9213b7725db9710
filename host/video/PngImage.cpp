#include "host/video/PngImage.hpp"

#include <png.h>

#include <cstddef>
#include <new>

namespace kelvaron::host {

namespace {

void appendPngBytes(png_structp png, png_bytep bytes, png_size_t length) {
  bool outOfMemory = false;
  try {
    auto& out = *static_cast<Data*>(png_get_io_ptr(png));
    out.insert(out.end(), bytes, bytes + length);
  } catch (const std::bad_alloc&) {
    outOfMemory = true;
  }
  if (outOfMemory) png_error(png, "out of memory");  // leaves by longjmp, so not inside the catch
}

void flushNothing(png_structp) {}

// libpng reports failure by longjmp: nothing with a destructor lives in this frame, and `out` is
// the caller's.
bool writePng(const std::uint8_t* rgba, int width, int height, Data* out) {
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  if (!png) return false;
  png_infop info = png_create_info_struct(png);
  if (!info || setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, &info);
    return false;
  }
  png_set_write_fn(png, out, appendPngBytes, flushNothing);
  png_set_IHDR(png, info, png_uint_32(width), png_uint_32(height), 8, PNG_COLOR_TYPE_RGB_ALPHA,
               PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  for (int y = 0; y < height; ++y) {
    png_write_row(png, rgba + std::size_t(y) * std::size_t(width) * 4);
  }
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  return true;
}

}  // namespace

std::optional<Data> encodePng(const std::uint8_t* rgba, int width, int height) {
  if (width < 1 || height < 1) return std::nullopt;
  Data out;
  if (!writePng(rgba, width, height, &out)) return std::nullopt;
  return out;
}

}  // namespace kelvaron::host
