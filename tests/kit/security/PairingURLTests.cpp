#include "kit/security/PairingURL.hpp"

#include <gtest/gtest.h>

#include "kit/crypto/AuthCrypto.hpp"

namespace kelvaron {
namespace {

PairingURL sample(std::string name = "studio") {
  return {*UUID::parse("E621E1F8-C36C-495A-93FC-0C247A3E6E5F"), std::move(name), Data(32, 0xfb),
          Data(16, 0xff)};
}

std::string query(std::string_view fp, std::string_view token, std::string_view v = "1") {
  return "h=E621E1F8-C36C-495A-93FC-0C247A3E6E5F&n=studio&v=" + std::string(v) +
         "&fp=" + std::string(fp) + "&t=" + std::string(token);
}

TEST(PairingURL, RoundTripsWhateverTheName) {
  for (const char* name : {"studio", "Ann's Mac & \"more\" = 100%", "Café – 東京", "a+b c", ""}) {
    const PairingURL url = sample(name);
    const std::string text = url.url();
    EXPECT_TRUE(text.starts_with("tovu://pair?v=1&h=E621E1F8-C36C-495A-93FC-0C247A3E6E5F&n="));
    EXPECT_EQ(PairingURL::parse(text), url) << text;
    EXPECT_EQ(text.find("&a="), std::string::npos);
  }
  // Where the host can be dialled goes last, where a reader that does not know it skips it.
  PairingURL addressed = sample();
  addressed.address = "[fd77::1]:4433";
  const std::string text = addressed.url();
  EXPECT_TRUE(text.ends_with("&a=%5Bfd77%3A%3A1%5D%3A4433")) << text;
  EXPECT_EQ(PairingURL::parse(text), addressed);
}

TEST(PairingURL, ParsingAcceptsOnlyWholeURLs) {
  const std::string fp = AuthCrypto::base64URLEncode(Data(32, 0xfb));
  const std::string token = AuthCrypto::base64URLEncode(Data(16, 0xff));
  const std::string good = query(fp, token);
  EXPECT_TRUE(PairingURL::parse("tovu://pair?" + good));
  EXPECT_TRUE(PairingURL::parse("TOVU://pair?" + good));
  EXPECT_TRUE(PairingURL::parse("kelvaron://pair?" + good));
  EXPECT_FALSE(PairingURL::parse("tovu://PAIR?" + good));
  EXPECT_FALSE(PairingURL::parse("http://pair?" + good));
  EXPECT_FALSE(PairingURL::parse("tovu://pair?" + query(fp, token, "2")));
  EXPECT_FALSE(
      PairingURL::parse("tovu://pair?" + query(AuthCrypto::base64URLEncode(Data(31, 1)), token)));
  EXPECT_FALSE(
      PairingURL::parse("tovu://pair?" + query(AuthCrypto::base64URLEncode(Data(33, 1)), token)));
  EXPECT_FALSE(
      PairingURL::parse("tovu://pair?" + query(fp, AuthCrypto::base64URLEncode(Data(15, 1)))));
  EXPECT_FALSE(
      PairingURL::parse("tovu://pair?v=1&h=E621E1F8-C36C-495A-93FC-0C247A3E6E5F&n=x&fp=" + fp));
  EXPECT_FALSE(PairingURL::parse("tovu://pair?" + query(fp, token) + "%"));
  EXPECT_TRUE(PairingURL::parse("tovu://pair?" + good + "&v=2&t=x"));  // the first item counts
  EXPECT_FALSE(PairingURL::parse("tovu://pair?v=1&h=E621E1F8-C36C-495A-93FC-0C247A3E6E5F&n&fp=" +
                                 fp + "&t=" + token));  // a name without a value is absent
  EXPECT_FALSE(PairingURL::parse("not a url"));
  EXPECT_FALSE(PairingURL::parse("tovu://p%61ir?" + good));  // the host stays as typed
  const std::string named = "tovu://pair?v=1&h=E621E1F8-C36C-495A-93FC-0C247A3E6E5F&fp=" + fp +
                            "&t=" + token + "&n=";
  EXPECT_FALSE(PairingURL::parse(named + "%FF%FE"));  // a name that is no UTF-8 is absent
  EXPECT_EQ(PairingURL::parse(named + "%C3%A9")->hostName, "é");

  // Padding and the standard alphabet decode too.
  const std::string padded = AuthCrypto::base64Encode(Data(32, 0xfb));  // "+/" and "="
  EXPECT_EQ(padded.back(), '=');
  const auto parsed = PairingURL::parse("tovu://pair?" + query(padded, token));
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->fingerprint, Data(32, 0xfb));
}

}  // namespace
}  // namespace kelvaron
