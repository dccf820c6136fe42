#include "support/Certificates.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "support/ChildProcess.h"

namespace {

using RetraTest::ChildProcess;

std::string openssl(std::vector<std::string> args) {
  args.insert(args.begin(), "/usr/bin/openssl");
  return ChildProcess::run(args);
}

TEST(CertificatesTest, ServerCertificatesChainToTheCaAndPinsTellKeysApart) {
  RetraTest::Certificates pki;
  EXPECT_NO_THROW((void)openssl({"verify", "-CAfile", pki.caCert(), pki.serverCert()}));
  EXPECT_NO_THROW((void)openssl({"verify", "-CAfile", pki.caCert(), pki.wrongNameCert()}));
  EXPECT_THROW((void)openssl({"verify", "-CAfile", pki.caCert(), pki.selfSignedCert()}),
               std::runtime_error);

  std::string names =
      openssl({"x509", "-in", pki.serverCert(), "-noout", "-ext", "subjectAltName"});
  EXPECT_NE(names.find("DNS:localhost"), std::string::npos) << names;
  EXPECT_NE(names.find("IP Address:127.0.0.1"), std::string::npos) << names;
  EXPECT_NE(names.find("IP Address:0:0:0:0:0:0:0:1"), std::string::npos) << names;
  std::string wrong =
      openssl({"x509", "-in", pki.wrongNameCert(), "-noout", "-ext", "subjectAltName"});
  EXPECT_NE(wrong.find("DNS:wrong.example"), std::string::npos) << wrong;
  EXPECT_EQ(wrong.find("localhost"), std::string::npos) << wrong;

  // The key and the certificate belong together.
  EXPECT_EQ(openssl({"pkey", "-in", pki.serverKey(), "-pubout"}),
            openssl({"x509", "-in", pki.serverCert(), "-noout", "-pubkey"}));

  EXPECT_EQ(pki.serverPin().rfind("sha256//", 0), 0u);
  EXPECT_EQ(pki.serverPin().size(), 8u + 44u);  // base64 of 32 bytes
  EXPECT_EQ(pki.otherPin().size(), pki.serverPin().size());
  EXPECT_NE(pki.serverPin(), pki.otherPin());

  RetraTest::Certificates another;
  EXPECT_NE(another.serverPin(), pki.serverPin());
}

}  // namespace
