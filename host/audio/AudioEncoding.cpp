#include "host/audio/AudioEncoding.hpp"

namespace kelvaron::host {

AACELDError AACELDError::unsupportedInput(std::string_view what) {
  return {Kind::unsupportedInput, std::string(what)};
}

AACELDError AACELDError::libraryFailed(std::string_view what, std::string_view error) {
  return {Kind::libraryFailed, std::string(what) + " failed (" + std::string(error) + ")"};
}

}  // namespace kelvaron::host
