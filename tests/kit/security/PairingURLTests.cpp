#include "kit/security/PairingURL.hpp"

#include <gtest/gtest.h>

#include "kit/crypto/AuthCrypto.hpp"

namespace kelvaron {
namespace {

const std::string kHostID = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";

TEST(PairingURL, RoundTripsWhateverTheName) {
  for (const char* name : {"studio", "Ann's Mac & \"more\" = 100%", "Café – 東京", "a+b c", ""}) {
    const PairingURL url{*UUID::parse(kHostID), name, Data(32, 0xfb), Data(16, 0xff)};
    const std::string text = url.url();
    EXPECT_TRUE(text.starts_with("tovu://pair?v=1&h=" + kHostID + "&n=")) << text;
    EXPECT_EQ(PairingURL::parse(text), url) << text;
  }
  // Where the host can be dialled goes last, where a reader that does not know it skips it.
  const PairingURL addressed{*UUID::parse(kHostID), "studio", Data(32, 0xfb), Data(16, 0xff),
                             "[fd77::1]:4433"};
  const std::string text = addressed.url();
  EXPECT_TRUE(text.ends_with("&a=%5Bfd77%3A%3A1%5D%3A4433")) << text;
  EXPECT_EQ(PairingURL::parse(text), addressed);
}

TEST(PairingURL, ParsingAcceptsOnlyWholeURLs) {
  const auto base64 = [](std::size_t size) { return AuthCrypto::base64URLEncode(Data(size, 7)); };
  const std::string id = "h=" + kHostID, fp = "&fp=" + base64(32), token = "&t=" + base64(16);
  const std::string good = "?v=1&" + id + "&n=studio" + fp + token;
  const std::pair<std::string, bool> cases[] = {
      {"tovu://pair" + good, true},
      {"TOVU://pair" + good, true},  // the scheme in any case
      {"kelvaron://pair" + good, true},
      {"tovu://pair" + good + "&v=2&t=x", true},  // the first of a repeated item counts
      {"tovu://p%61ir" + good, false},            // the host stays as typed
      {"http://pair" + good, false},
      {"not a url", false},
      {"tovu://pair" + good + "%", false},
      {"tovu://pair?v=2&" + id + "&n=studio" + fp + token, false},
      {"tovu://pair?v=1&" + id + "&n=studio&fp=" + base64(31) + token, false},
      {"tovu://pair?v=1&" + id + "&n=studio&fp=" + base64(33) + token, false},
      {"tovu://pair?v=1&" + id + "&n=studio" + fp + "&t=" + base64(15), false},
      {"tovu://pair?v=1&" + id + "&n=studio" + fp, false},
      {"tovu://pair?v=1&" + id + "&n" + fp + token, false},  // a name without a value is absent
      {"tovu://pair?v=1&" + id + fp + token + "&n=%FF%FE", false},  // so is one not UTF-8
  };
  for (const auto& [url, accepted] : cases)
    EXPECT_EQ(PairingURL::parse(url).has_value(), accepted) << url;
}

}  // namespace
}  // namespace kelvaron
