#include "kit/security/Stores.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "kit/crypto/AuthCrypto.hpp"
#include "tests/support/TempDirectory.hpp"

namespace kelvaron {
namespace {

using test::TempDirectory;
using namespace std::chrono_literals;

const auto kDate = WallClock::from_time_t(1795000000);  // 2026-11-18T...

PairedDevice device(std::uint8_t n, std::string name = "iPad") {
  return {UUID{{n}}, std::move(name), P256PrivateKey::generate().publicKey(), kDate, std::nullopt};
}

std::string fileText(const std::filesystem::path& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

TEST(PairedDeviceStore, KeepsDevicesAcrossRestartsInAnOwnerOnlyFile) {
  TempDirectory dir;
  const auto file = dir / "Tovu" / "paired-devices.json";
  {
    PairedDeviceStore store(file);
    store.add(device(1, "Ann's iPad"));
    store.add(device(2));
    store.touch(UUID{{1}}, kDate + 60s);
  }
  PairedDeviceStore reloaded(file);
  ASSERT_EQ(reloaded.all().size(), 2u);
  EXPECT_EQ(reloaded.device(UUID{{1}})->name, "Ann's iPad");
  EXPECT_EQ(reloaded.device(UUID{{1}})->lastSeen, kDate + 60s);
  EXPECT_FALSE(reloaded.device(UUID{{2}})->lastSeen);
  struct stat info {};
  ASSERT_EQ(stat(file.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  ASSERT_EQ(stat(file.parent_path().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700u);  // made by the store: the owner's alone

  const std::string text = fileText(file);
  EXPECT_NE(text.find("\"deviceID\": \"01000000-0000-0000-0000-000000000000\""), std::string::npos)
      << text;
  EXPECT_NE(text.find("\"pairedAt\": \"" + iso8601(kDate) + "\""), std::string::npos) << text;
  EXPECT_EQ(text.find("lastSeen", text.find("00000002")), std::string::npos);  // absent: left out

  // A folder that was there keeps its mode; writers at the same time never write into one file.
  ::chmod(dir.path().c_str(), 0755);
  std::vector<std::thread> writers;
  std::atomic<int> failures = 0;
  for (std::uint8_t n = 0; n < 4; ++n) {
    writers.emplace_back([&, n] {
      for (int i = 0; i < 50; ++i) {
        try {
          writeFileAtomically(dir / "secret", Data(1000, n));
        } catch (const SecretStoreError&) {
          ++failures;
        }
      }
    });
  }
  for (auto& writer : writers) writer.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(fileText(dir / "secret").size(), 1000u);
  ASSERT_EQ(stat(dir.path().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0755u);
}

TEST(PairedDeviceStore, PairingAgainReplacesAndMovesTheRecord) {
  PairedDeviceStore store(std::nullopt);
  store.add(device(1));
  store.add(device(2));
  store.touch(UUID{{1}}, kDate + 5s);
  PairedDevice again = device(1, "renamed");
  store.add(again);
  const auto all = store.all();
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[1], again);  // at the end, new key, lastSeen reset
  EXPECT_TRUE(store.remove(UUID{{2}}));
  EXPECT_FALSE(store.remove(UUID{{2}}));
}

TEST(PairedDeviceStore, UnknownDevicesWriteNothing) {
  TempDirectory dir;
  const auto file = dir / "paired-devices.json";
  PairedDeviceStore store(file);
  store.touch(UUID{{7}}, kDate);
  EXPECT_FALSE(store.remove(UUID{{7}}));
  EXPECT_FALSE(std::filesystem::exists(file));
}

TEST(PairedDeviceStore, ACorruptFileCountsAsNothingAndIsKeptAside) {
  TempDirectory dir;
  const auto file = dir / "paired-devices.json";
  const std::string corrupt = R"([{"deviceID": "not a uuid", "name": "x"}])";
  std::ofstream(file) << corrupt;
  PairedDeviceStore store(file);
  EXPECT_TRUE(store.all().empty());
  store.add(device(3));
  EXPECT_EQ(PairedDeviceStore(file).all().size(), 1u);
  int asides = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
    if (entry.path().filename().string().starts_with("paired-devices.json.corrupt-")) {
      ++asides;
      EXPECT_EQ(fileText(entry.path()), corrupt);
    }
  }
  EXPECT_EQ(asides, 1);
}

TEST(PairedDeviceStore, DecodingRefusesAnythingNotWhole) {
  const std::vector<PairedDevice> devices = {device(1), device(2)};
  EXPECT_EQ(decodePairedDevices(encodePairedDevices(devices)), devices);
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
  store.save(studio);
  store.save({UUID{{2}}, "attic", Data(32, 2), kDate, std::nullopt});
  EXPECT_EQ(store.match(UUID{{1}}, "whatever"), studio);
  EXPECT_FALSE(store.match(UUID{{9}}, "studio"));  // a new identity cannot pose under a known name
  EXPECT_EQ(store.match(std::nullopt, "studio"), studio);
  store.touch(UUID{{1}}, kDate + 1s);
  EXPECT_EQ(store.host(UUID{{1}})->lastUsed, kDate + 1s);
  store.save({UUID{{1}}, "studio 2", Data(32, 3), kDate, std::nullopt});
  EXPECT_EQ(store.all().size(), 2u);
  EXPECT_EQ(store.all().back().name, "studio 2");
  store.remove(UUID{{2}});
  EXPECT_EQ(store.all().size(), 1u);
}

TEST(ClientIdentity, IsKeptAndReplacedOnlyWhenNothingWholeIsStored) {
  MemorySecretStore store;
  const auto first = ClientIdentity::loadOrCreate(store);
  const auto again = ClientIdentity::loadOrCreate(store);
  EXPECT_EQ(again.deviceID, first.deviceID);
  EXPECT_EQ(again.privateKey.publicKey(), first.privateKey.publicKey());
  EXPECT_EQ(store.read()->size(), 48u);

  Data short47 = *store.read();
  short47.pop_back();
  store.write(short47);
  EXPECT_NE(ClientIdentity::loadOrCreate(store).deviceID, first.deviceID);

  Data badScalar = *store.read();
  std::fill(badScalar.begin() + 16, badScalar.end(), 0xFF);
  store.write(badScalar);
  EXPECT_NE(ClientIdentity::loadOrCreate(store).privateKey.rawRepresentation(),
            Data(badScalar.begin() + 16, badScalar.end()));
}

}  // namespace
}  // namespace kelvaron
