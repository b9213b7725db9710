#include "client/FilesView.hpp"

#include <gtest/gtest.h>

namespace kelvaron::client {
namespace {

TEST(FilesView, TheProgressLineShowsTheShareTheRateAndTheTimeLeft) {
  struct Case {
    std::uint64_t sent, total;
    double seconds;
    const char* line;
  };
  constexpr std::uint64_t MB = 1048576;
  const Case cases[] = {
      {0, 100 * MB, 0, "[--------------------]   0 %  0 KB of 100 MB"},
      {50 * MB, 100 * MB, 2, "[##########----------]  50 %  50 MB of 100 MB  25 MB/s  2 s left"},
      {10 * MB, 1000 * MB, 1,
       "[--------------------]   1 %  10 MB of 1000 MB  10 MB/s  1 min 39 s left"},
      {100 * MB, 100 * MB, 4, "[####################] 100 %  100 MB of 100 MB  25 MB/s"},
      {0, 0, 0, "[####################] 100 %  0 KB of 0 KB"},
  };
  for (const Case& c : cases) EXPECT_EQ(progressLine(c.sent, c.total, c.seconds), c.line);
}

}  // namespace
}  // namespace kelvaron::client
