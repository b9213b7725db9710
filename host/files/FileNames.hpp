#pragma once

#include <cstddef>
#include <set>
#include <string>
#include <string_view>

namespace kelvaron::host {

// The longest name, in bytes of UTF-8, a received file is given.
inline constexpr std::size_t kMaxFileNameBytes = 200;

// A name the device gave a file as one safe in a folder of ours: no path separators, control
// characters, surrounding white space or leading dots, never empty, at most kMaxFileNameBytes.
std::string sanitizedFileName(std::string_view name);

// `name` (already sanitised) made different, regardless of case, from every name in `taken`,
// which holds them case-folded: "a.txt" becomes "a 2.txt", then "a 3.txt"; the result's folded
// form is added to `taken`.
std::string uniqueFileName(const std::string& name, std::set<std::string>& taken);

}  // namespace kelvaron::host
