#include "host/files/PasteboardFile.hpp"

#include <gdk-pixbuf/gdk-pixbuf.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string_view>

namespace kelvaron::host {

namespace {

constexpr std::array<std::string_view, 8> kImageTypes = {
    "public.png",         "public.jpeg",  "public.heic",       "public.tiff",
    "com.compuserve.gif", "public.image", "com.microsoft.bmp", "org.webmproject.webp",
};

// Larger pictures are not decoded: their pixels alone would take a gigabyte.
constexpr long long kMaxPixels = 16384LL * 16384;

std::optional<Data> readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  Data bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) return std::nullopt;
  return bytes;
}

struct GObjectRelease {
  void operator()(void* object) const { g_object_unref(object); }
};

// The picture at `path` as PNG, when gdk-pixbuf has a loader for it. Its size is read from the
// header first, so that a small file claiming a huge picture is not decoded.
std::optional<Data> pngOf(const std::filesystem::path& path) {
  int width = 0, height = 0;
  if (!gdk_pixbuf_get_file_info(path.c_str(), &width, &height)) return std::nullopt;
  if (width <= 0 || height <= 0 || static_cast<long long>(width) * height > kMaxPixels) {
    return std::nullopt;
  }
  GError* error = nullptr;
  std::unique_ptr<GdkPixbuf, GObjectRelease> picture(
      gdk_pixbuf_new_from_file(path.c_str(), &error));
  if (!picture) {
    g_clear_error(&error);
    return std::nullopt;
  }
  gchar* buffer = nullptr;
  gsize size = 0;
  if (!gdk_pixbuf_save_to_buffer(picture.get(), &buffer, &size, "png", &error, nullptr)) {
    g_clear_error(&error);
    return std::nullopt;
  }
  Data png(reinterpret_cast<const std::uint8_t*>(buffer),
           reinterpret_cast<const std::uint8_t*>(buffer) + size);
  g_free(buffer);
  return png;
}

}  // namespace

bool isImageType(const std::string& typeID) {
  return std::find(kImageTypes.begin(), kImageTypes.end(), typeID) != kImageTypes.end();
}

PasteboardFile pasteboardFile(const std::filesystem::path& path, const std::string& typeID) {
  PasteboardFile file{path, {}};
  if (!isImageType(typeID)) return file;
  std::optional<Data> bytes = readFile(path);
  if (!bytes) return file;
  const bool asIs = typeID == "public.png" || typeID == "public.jpeg";
  std::optional<Data> png = asIs ? std::nullopt : pngOf(path);
  file.representations[typeID] = std::move(*bytes);
  if (png) file.representations[kPNGTypeID] = std::move(*png);
  return file;
}

}  // namespace kelvaron::host
