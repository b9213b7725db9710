#pragma once

#include <filesystem>
#include <map>
#include <string>

#include "kit/wire/Bytes.hpp"

namespace kelvaron::host {

// A received file as it goes on the clipboard: its path, and for an image its bytes under the
// device's type identifier, with a PNG beside them when it is some other kind of image, so that
// programs that paste only PNG get it too.
struct PasteboardFile {
  std::filesystem::path path;
  std::map<std::string, Data> representations;
  friend bool operator==(const PasteboardFile&, const PasteboardFile&) = default;
};

// The type identifier the device gives PNG pictures, under which a converted image is added.
inline constexpr const char* kPNGTypeID = "public.png";

// Whether the device's type identifier names an image.
bool isImageType(const std::string& typeID);

// Decides the representations of the file at `path`, whose type the device named `typeID`. An
// image that cannot be read has none; one gdk-pixbuf cannot decode keeps its own bytes alone.
PasteboardFile pasteboardFile(const std::filesystem::path& path, const std::string& typeID);

}  // namespace kelvaron::host
