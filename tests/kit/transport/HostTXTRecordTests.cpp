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

TEST(HostTXTRecord, CarriesTheHostIDAsAnUpperCaseUUIDUnderID) {
  EXPECT_EQ(HostTXTRecord::encode(kHostID), record({"id=E621E1F8-C36C-495A-93FC-0C247A3E6E5F"}));
  EXPECT_EQ(HostTXTRecord::hostID(HostTXTRecord::encode(kHostID)), kHostID);
}

TEST(HostTXTRecord, WithoutAHostIDSaysNothing) {
  EXPECT_TRUE(HostTXTRecord::encode(std::nullopt).empty());
  EXPECT_EQ(HostTXTRecord::hostID({}), std::nullopt);
  EXPECT_EQ(HostTXTRecord::hostID(record({""})), std::nullopt);  // the empty record's one string
}

TEST(HostTXTRecord, FindsTheKeyAmongOthersInEitherCase) {
  EXPECT_EQ(HostTXTRecord::hostID(record({"", "v=2", "ID=e621e1f8-c36c-495a-93fc-0c247a3e6e5f"})),
            kHostID);
  EXPECT_EQ(HostTXTRecord::hostID(record({"idx=" + kOtherID.string(), "id=" + kHostID.string()})),
            kHostID);
}

TEST(HostTXTRecord, OnlyTheFirstIDCounts) {
  EXPECT_EQ(HostTXTRecord::hostID(record({"id=" + kOtherID.string(), "id=" + kHostID.string()})),
            kOtherID);
  EXPECT_EQ(HostTXTRecord::hostID(record({"id=not-a-uuid", "id=" + kHostID.string()})),
            std::nullopt);
  EXPECT_EQ(HostTXTRecord::hostID(record({"id", "id=" + kHostID.string()})), std::nullopt);
}

TEST(HostTXTRecord, ARecordThatBreaksOffGivesNothing) {
  Data cut = record({"id=" + kHostID.string()});
  cut.pop_back();
  EXPECT_EQ(HostTXTRecord::hostID(cut), std::nullopt);
  EXPECT_EQ(HostTXTRecord::hostID(record({"id=" + kHostID.string() + " "})), std::nullopt);
}

}  // namespace
}  // namespace kelvaron
