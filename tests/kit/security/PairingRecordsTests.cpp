// What pairing starts from and leaves behind: the pairing link, the stores of paired devices and
// hosts, and the client's identity.

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "kit/crypto/AuthCrypto.hpp"
#include "kit/security/PairingURL.hpp"
#include "kit/security/Stores.hpp"
#include "tests/support/TempDirectory.hpp"

namespace kelvaron {
namespace {

using test::TempDirectory;
using namespace std::chrono_literals;

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

const auto kDate = WallClock::from_time_t(1795000000);  // 2026-11-18T...

PairedDevice device(std::uint8_t n, std::string name = "iPad") {
  return {UUID{{n}}, std::move(name), P256PrivateKey::generate().publicKey(), kDate, std::nullopt};
}

std::string fileText(const std::filesystem::path& path) {
  std::ifstream in(path);
  return {std::istreambuf_iterator<char>(in), {}};
}

unsigned permissions(const std::filesystem::path& path) {
  return static_cast<unsigned>(std::filesystem::status(path).permissions());
}

TEST(PairedDeviceStore, KeepsDevicesAcrossRestartsInAnOwnerOnlyFile) {
  TempDirectory dir;
  const auto file = dir / "Tovu" / "paired-devices.json";
  auto ann = device(1, "Ann's iPad");
  const auto bob = device(2);
  PairedDeviceStore store(file);
  store.add(ann);
  store.add(bob);
  store.touch(ann.deviceID, kDate + 60s);
  ann.lastSeen = kDate + 60s;
  PairedDeviceStore reloaded(file);
  EXPECT_EQ(reloaded.all(), (std::vector{ann, bob}));
  EXPECT_EQ(permissions(file), 0600u);
  EXPECT_EQ(permissions(file.parent_path()), 0700u);  // made by the store: the owner's alone

  // Pairing again replaces the record, with its new key and no lastSeen, at the end.
  const PairedDevice again = device(1, "renamed");
  reloaded.add(again);
  EXPECT_EQ(reloaded.all(), (std::vector{bob, again}));
  reloaded.remove(bob.deviceID);
  EXPECT_EQ(PairedDeviceStore(file).all(), std::vector{again});

  // A folder that was there keeps its mode; writers at the same time never write into one file.
  std::filesystem::permissions(dir.path(), std::filesystem::perms(0755));
  std::atomic<int> failures = 0;
  const auto write = [&](std::uint8_t n) {
    for (int i = 0; i < 50; ++i) {
      try {
        writeFileAtomically(dir / "secret", Data(1000, n));
      } catch (const SecretStoreError&) {
        ++failures;
      }
    }
  };
  { std::jthread a(write, 1), b(write, 2), c(write, 3), d(write, 4); }
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(fileText(dir / "secret").size(), 1000u);
  EXPECT_EQ(permissions(dir.path()), 0755u);
}

TEST(PairedDeviceStore, ACorruptFileCountsAsNothingAndIsKeptAsideBeforeAWrite) {
  TempDirectory dir;
  const auto file = dir / "paired-devices.json";
  const std::string corrupt = R"([{"deviceID": "not a uuid", "name": "x"}])";
  std::ofstream(file) << corrupt;
  PairedDeviceStore store(file);
  EXPECT_TRUE(store.all().empty());
  store.touch(UUID{{7}}, kDate);  // unknown devices change nothing, so nothing is written
  EXPECT_FALSE(store.remove(UUID{{7}}));
  EXPECT_EQ(fileText(file), corrupt);

  store.add(device(3));
  EXPECT_EQ(PairedDeviceStore(file).all().size(), 1u);
  const std::vector<std::filesystem::path> entries(std::filesystem::directory_iterator(dir.path()),
                                                   {});
  ASSERT_EQ(entries.size(), 2u);
  const auto aside = entries[0] == file ? entries[1] : entries[0];
  EXPECT_TRUE(aside.filename().string().starts_with("paired-devices.json.corrupt-")) << aside;
  EXPECT_EQ(fileText(aside), corrupt);
}

TEST(PairedDeviceStore, DecodingRefusesAnythingNotWhole) {
  for (const char* bad : {"", "{}", "[1]", "[{}]", "null",
                          R"([{"deviceID":"01000000-0000-0000-0000-000000000000","name":"a",)"
                          R"("publicKey":"!!","pairedAt":"2026-11-18T10:00:00Z"}])",
                          R"([{"deviceID":"01000000-0000-0000-0000-000000000000","name":"a",)"
                          R"("publicKey":"AA==","pairedAt":"yesterday"}])"}) {
    EXPECT_FALSE(decodePairedDevices(bad)) << bad;
  }
  EXPECT_EQ(parseISO8601("2026-11-18T12:00:00+02:00"), parseISO8601("2026-11-18T10:00:00Z"));
  EXPECT_EQ(parseISO8601("2026-11-18T10:00:00.123Z"), parseISO8601("2026-11-18T10:00:00Z"));
  EXPECT_EQ(iso8601(*parseISO8601("2051-01-01T00:00:00Z")), "2051-01-01T00:00:00Z");
  EXPECT_FALSE(parseISO8601("1013-11-18T10:00:00Z"));  // beyond what the clock holds
  EXPECT_FALSE(parseISO8601("2026-13-18T10:00:00Z"));
}

TEST(PairedHostStore, MatchesByIDAndByNameOnlyWithoutOne) {
  PairedHostStore store(std::make_shared<MemorySecretStore>());
  const PairedHost studio{UUID{{1}}, "studio", Data(32, 1), kDate, std::nullopt};
  const PairedHost attic{UUID{{2}}, "attic", Data(32, 2), kDate, std::nullopt};
  store.save(studio);
  store.save(attic);
  EXPECT_EQ(store.match(UUID{{1}}, "whatever"), studio);
  EXPECT_FALSE(store.match(UUID{{9}}, "studio"));  // a new identity cannot pose under a known name
  EXPECT_EQ(store.match(std::nullopt, "studio"), studio);
  store.touch(UUID{{1}}, kDate + 1s);
  EXPECT_EQ(store.host(UUID{{1}})->lastUsed, kDate + 1s);
  const PairedHost renewed{UUID{{1}}, "studio 2", Data(32, 3), kDate, std::nullopt};
  store.save(renewed);
  EXPECT_EQ(store.all(), (std::vector{attic, renewed}));
  store.remove(attic.hostID);
  EXPECT_EQ(store.all(), std::vector{renewed});
}

TEST(ClientIdentity, IsKeptAndReplacedOnlyWhenNothingWholeIsStored) {
  MemorySecretStore store;
  const auto first = ClientIdentity::loadOrCreate(store);
  EXPECT_EQ(store.read()->size(), 48u);
  EXPECT_EQ(ClientIdentity::loadOrCreate(store).storedForm(), first.storedForm());

  Data shortByOne = first.storedForm(), badScalar = first.storedForm();
  shortByOne.pop_back();
  std::fill(badScalar.begin() + 16, badScalar.end(), 0xFF);
  for (const Data& broken : {shortByOne, badScalar}) {
    store.write(broken);
    const auto replaced = ClientIdentity::loadOrCreate(store);
    EXPECT_NE(replaced.deviceID, first.deviceID);
    EXPECT_EQ(store.read(), replaced.storedForm());  // written in its place
  }
}

}  // namespace
}  // namespace kelvaron
