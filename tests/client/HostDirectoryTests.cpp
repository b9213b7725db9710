#include "client/HostDirectory.hpp"

#include <gtest/gtest.h>

namespace kelvaron::client {
namespace {

TEST(HostDirectory, ParsesAnIPAddressAndAPortAndNothingElse) {
  struct Case {
    const char* text;
    const char* address;  // nullptr: refused
    std::uint16_t port;
  };
  const Case cases[] = {
      {"127.0.0.1:4433", "127.0.0.1", 4433},
      {"[::1]:65535", "::1", 65535},
      {"[fe80::1]:1", "fe80::1", 1},
      {"127.0.0.1", nullptr, 0},
      {"127.0.0.1:", nullptr, 0},
      {"127.0.0.1:0", nullptr, 0},
      {"127.0.0.1:65536", nullptr, 0},
      {"127.0.0.1:44x", nullptr, 0},
      {"127.0.0.1:+44", nullptr, 0},
      {"127.0.0.1:-1", nullptr, 0},
      {"[::1]", nullptr, 0},
      {"localhost:4433", nullptr, 0},
      {":4433", nullptr, 0},
  };
  for (const Case& c : cases) {
    const auto endpoint = parseEndpoint(c.text);
    if (!c.address) {
      EXPECT_FALSE(endpoint) << c.text;
      continue;
    }
    ASSERT_TRUE(endpoint) << c.text;
    EXPECT_EQ(endpoint->address().to_string(), c.address) << c.text;
    EXPECT_EQ(endpoint->port(), c.port) << c.text;
  }
}

}  // namespace
}  // namespace kelvaron::client
