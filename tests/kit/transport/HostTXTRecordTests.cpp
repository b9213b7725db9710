#include "kit/transport/HostTXTRecord.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kelvaron {
namespace {

const UUID kHostID = *UUID::parse("E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
const UUID kOtherID = *UUID::parse("0A1B2C3D-4E5F-6071-8293-A4B5C6D7E8F9");

// A record in DNS form from its strings.
Data record(const std::vector<std::string>& strings) {
  Data bytes;
  for (const auto& text : strings) {
    bytes.push_back(static_cast<std::uint8_t>(text.size()));
    bytes.insert(bytes.end(), text.begin(), text.end());
  }
  return bytes;
}

TEST(HostTXTRecord, CarriesTheHostIDAndReadsTheFirstIDInEitherCase) {
  EXPECT_EQ(HostTXTRecord::encode(kHostID), record({"id=E621E1F8-C36C-495A-93FC-0C247A3E6E5F"}));
  EXPECT_TRUE(HostTXTRecord::encode(std::nullopt).empty());
  Data cut = record({"id=" + kHostID.string()});
  cut.pop_back();
  const std::pair<Data, std::optional<UUID>> cases[] = {
      {HostTXTRecord::encode(kHostID), kHostID},
      {{}, std::nullopt},
      {record({""}), std::nullopt},  // the empty record's one string
      {record({"", "v=2", "ID=e621e1f8-c36c-495a-93fc-0c247a3e6e5f"}), kHostID},
      {record({"idx=" + kOtherID.string(), "id=" + kHostID.string()}), kHostID},
      {record({"id=" + kOtherID.string(), "id=" + kHostID.string()}), kOtherID},
      {record({"id=not-a-uuid", "id=" + kHostID.string()}), std::nullopt},
      {record({"id", "id=" + kHostID.string()}), std::nullopt},
      {cut, std::nullopt},
      {record({"id=" + kHostID.string() + " "}), std::nullopt},
  };
  for (const auto& [bytes, id] : cases) {
    EXPECT_EQ(HostTXTRecord::hostID(bytes), id) << std::string(bytes.begin(), bytes.end());
  }
}

}  // namespace
}  // namespace kelvaron
