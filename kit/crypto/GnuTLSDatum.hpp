#pragma once

#include <gnutls/gnutls.h>

#include <cstdint>
#include <span>

namespace kelvaron {

// Bytes as GnuTLS takes them as input: a view, never written through.
inline gnutls_datum_t datum(std::span<const std::uint8_t> bytes) {
  return {const_cast<unsigned char*>(bytes.data()), static_cast<unsigned>(bytes.size())};
}

}  // namespace kelvaron
