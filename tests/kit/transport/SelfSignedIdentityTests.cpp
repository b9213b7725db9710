#include "kit/transport/SelfSignedIdentity.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "kit/crypto/AuthCrypto.hpp"
#include "kit/crypto/DER.hpp"
#include "tests/support/ChildProcess.hpp"
#include "tests/support/TempDirectory.hpp"

namespace kelvaron {
namespace {

using test::runCommand;
using test::TempDirectory;

TEST(SelfSignedIdentity, TheCertificateParsesAndVerifiesInCerttool) {
  TempDirectory dir;
  const std::string longName(200, 'n');  // DER lengths in their long forms too
  const Data der = SelfSignedIdentity::temporary(longName).certificateDER();
  std::ofstream(dir / "host.der", std::ios::binary)
      .write(reinterpret_cast<const char*>(der.data()), static_cast<std::streamsize>(der.size()));
  const auto info = runCommand({"certtool", "-i", "--inder", "--infile", dir / "host.der"});
  if (info.status == 127) GTEST_SKIP() << "certtool (gnutls-bin) is not installed";
  ASSERT_TRUE(info.succeeded()) << info.output;
  for (const std::string& part :
       std::vector<std::string>{"Version: 3", "CN=" + longName, "ECDSA-SHA256", "SECP256R1"}) {
    EXPECT_NE(info.output.find(part), std::string::npos) << part << " in\n" << info.output;
  }
  std::ofstream(dir / "host.pem") << info.output;  // which ends in the certificate as PEM
  const auto chain = runCommand({"certtool", "--verify", "--load-ca-certificate", dir / "host.pem",
                                 "--infile", dir / "host.pem"});
  EXPECT_TRUE(chain.succeeded()) << chain.output;
  EXPECT_NE(chain.output.find("Verified"), std::string::npos) << chain.output;
}

TEST(SelfSignedIdentity, TheDERFollowsItsRules) {
  EXPECT_EQ(der::integer(Data{0x00, 0x00, 0x01}), (Data{0x02, 0x01, 0x01}));
  EXPECT_EQ(der::integer(Data{0x80}), (Data{0x02, 0x02, 0x00, 0x80}));
  EXPECT_EQ(der::integer(Data{0x00}), (Data{0x02, 0x01, 0x00}));
  const auto time = std::chrono::system_clock::from_time_t(2556144000);  // 2051-01-01
  const Data text = der::generalizedTime(time);
  EXPECT_EQ(std::string(text.begin() + 2, text.end()), "20510101000000Z");

  // The serial is positive: the INTEGER's first content byte never has its top bit set.
  for (int i = 0; i < 20; ++i) {
    const Data cert = SelfSignedIdentity::temporary("h").certificateDER();
    // Certificate SEQUENCE, TBSCertificate SEQUENCE, the version [0] (5 bytes), then the serial.
    auto header = [&](std::size_t at) -> std::size_t {
      return cert[at + 1] < 0x80 ? 2 : 2 + (cert[at + 1] & 0x7F);
    };
    const std::size_t tbs = header(0);
    const std::size_t serialTag = tbs + header(tbs) + 5;
    ASSERT_EQ(cert[serialTag], 0x02);
    EXPECT_EQ(cert[serialTag + 2] & 0x80, 0);
  }
}

TEST(SelfSignedIdentity, APersistentIdentitySurvivesAndHalfOfOneIsReplaced) {
  TempDirectory dir;
  const auto stores = IdentityStores::files(dir.path(), kHostIdentityTag);
  const auto first = SelfSignedIdentity::loadOrCreate(stores, "studio");
  const auto again = SelfSignedIdentity::loadOrCreate(stores, "studio");
  EXPECT_EQ(first.fingerprint(), again.fingerprint());
  EXPECT_EQ(first.fingerprint().size(), 32u);
  struct stat info {};
  ASSERT_EQ(stat((dir / (std::string(kHostIdentityTag) + ".key")).c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);

  stores.certificate->remove();  // the key stays: it is purged and a new identity made
  const auto afterLostCertificate = SelfSignedIdentity::loadOrCreate(stores, "studio");
  EXPECT_NE(afterLostCertificate.fingerprint(), first.fingerprint());

  stores.key->remove();
  const auto afterLostKey = SelfSignedIdentity::loadOrCreate(stores, "studio");
  EXPECT_NE(afterLostKey.fingerprint(), afterLostCertificate.fingerprint());

  // A key that does not belong to the certificate, or a key that does not parse.
  stores.key->write(P256PrivateKey::generate().rawRepresentation());
  const auto afterForeignKey = SelfSignedIdentity::loadOrCreate(stores, "studio");
  EXPECT_NE(afterForeignKey.fingerprint(), afterLostKey.fingerprint());
  stores.key->write(Data{1, 2, 3});
  const auto afterGarbage = SelfSignedIdentity::loadOrCreate(stores, "studio");
  EXPECT_NE(afterGarbage.fingerprint(), afterForeignKey.fingerprint());
  EXPECT_EQ(SelfSignedIdentity::loadOrCreate(stores, "studio").fingerprint(),
            afterGarbage.fingerprint());

  // A store that cannot be written is a keychain failure with the system's error number.
  std::ofstream(dir / "file") << "not a folder";
  try {
    SelfSignedIdentity::loadOrCreate(IdentityStores::files(dir / "file", "tag"), "studio");
    ADD_FAILURE() << "an identity was kept where nothing can be written";
  } catch (const IdentityError& e) {
    EXPECT_EQ(e.kind(), IdentityError::Kind::keychain);
    EXPECT_EQ(e.status(), ENOTDIR);
  }
}

}  // namespace
}  // namespace kelvaron
