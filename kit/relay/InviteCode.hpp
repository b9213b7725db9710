#pragma once

// Invites to a coordinator as people type them, and the names of relay regions.

#include <optional>
#include <string>
#include <string_view>

namespace kelvaron {

namespace InviteCode {

// 32 symbols: the digits and the letters but I, L, O and U, which read as others.
inline constexpr std::string_view alphabet = "0123456789ABCDEFGHJKMNPQRSTVWXYZ";

// Ten symbols of the alphabet "0123456789ABCDEFGHJKMNPQRSTVWXYZ", whatever the case, with hyphens
// and white space dropped and the look-alikes O, I and L read as 0, 1 and 1; nothing otherwise.
std::optional<std::string> normalize(std::string_view text);
// "ABCDE-FGHJK" for a ten-character invite; anything else as it is.
std::string display(std::string_view text);

}  // namespace InviteCode

namespace RelayRegion {

// "Singapore" for "sin" in any case; any other code as it stands.
std::string displayName(std::string_view code);

}  // namespace RelayRegion

}  // namespace kelvaron
