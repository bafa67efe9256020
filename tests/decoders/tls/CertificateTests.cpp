// The certificate reader: the name rule, the time fields, the weak suites on
// the rows of certificates.txt; times against the C library's calendar over
// a sweep; and the certificates of the fuzz seeds read whole, refused at
// every shorter length, and with every byte changed read without fault.
#include "tests/decoders/DataRows.h"

#include "tls/Certificate.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <kest_host.h>
#include <string.h>
#include <time.h>

namespace {

using kest_tls::CertificateInfo;
using kest_tls::CertificateStatus;

std::vector<std::vector<std::string>> Rows(const std::string &kind) {
  return kest_test::DataRows(KEST_TEST_TLS_CERTIFICATES, kind);
}

TEST(Certificate, NameRule) {
  for (const auto &row : Rows("name")) {
    const auto *pattern = reinterpret_cast<const uint8_t *>(row[0].data());
    EXPECT_EQ(kest_tls::NameMatches(pattern, row[0].size(), row[1].data(), row[1].size()),
              row[2] == "1")
        << row[0] << " " << row[1];
  }
}

TEST(Certificate, TimeRows) {
  for (const auto &row : Rows("time")) {
    int64_t seconds = 0;
    char text[CertificateInfo::kTimeText] = {};
    const bool ok = kest_tls::ReadTime(reinterpret_cast<const uint8_t *>(row[1].data()),
                                       row[1].size(), row[0] == "G", seconds, text);
    EXPECT_EQ(ok ? std::string(text) : "-", row[2]) << row[1];
  }
}

// Every sixth hour or so from 1950 to 2120, both encodings, against timegm.
TEST(Certificate, TimesAgreeWithTheCalendar) {
  for (int64_t t = -631152000; t < 4733510400; t += 21601) {
    const time_t when = static_cast<time_t>(t);
    struct tm parts;
    ASSERT_NE(gmtime_r(&when, &parts), nullptr);
    char value[32];
    char expected[32];
    strftime(value, sizeof value, "%Y%m%d%H%M%SZ", &parts);
    strftime(expected, sizeof expected, "%Y-%m-%dT%H:%M:%SZ", &parts);
    const bool utc = parts.tm_year >= 50 && parts.tm_year < 150;
    for (const bool generalized : {true, false}) {
      if (!generalized && !utc) {
        continue;
      }
      const char *v = generalized ? value : value + 2;
      int64_t seconds = 0;
      char text[CertificateInfo::kTimeText] = {};
      ASSERT_TRUE(kest_tls::ReadTime(reinterpret_cast<const uint8_t *>(v), strlen(v), generalized,
                                     seconds, text))
          << v;
      ASSERT_EQ(seconds, t) << v;
      ASSERT_STREQ(text, expected);
    }
  }
}

TEST(Certificate, WeakSuites) {
  for (const auto &row : Rows("weak")) {
    EXPECT_EQ(kest_tls::WeakCipher(static_cast<uint16_t>(std::stoi(row[0], nullptr, 16))),
              row[1] == "1")
        << row[0];
  }
}

TEST(Certificate, SeedsWholeShortAndChanged) {
  kest_host_use_libc();
  int seen = 0;
  for (const auto &entry : std::filesystem::directory_iterator(KEST_TEST_CERTIFICATE_SEEDS)) {
    if (entry.path().filename().string().rfind("der-", 0) != 0) {
      continue;
    }
    std::ifstream in(entry.path(), std::ios::binary);
    const std::vector<uint8_t> der((std::istreambuf_iterator<char>(in)), {});
    CertificateInfo cert;
    ASSERT_EQ(kest_tls::ReadCertificate(der.data(), der.size(), cert), CertificateStatus::kOk)
        << entry.path();
    EXPECT_NE(cert.subject_length, 0u);
    EXPECT_EQ(kest_tls::SelfSigned(cert),
              entry.path().filename() == "der-self" || entry.path().filename() == "der-ca");
    for (size_t n = 0; n < der.size(); ++n) {
      // Each length copied, so that a read past it trips the sanitizers.
      std::vector<uint8_t> part(der.begin(), der.begin() + static_cast<long>(n));
      EXPECT_EQ(kest_tls::ReadCertificate(part.data(), n, cert), CertificateStatus::kMalformed)
          << entry.path() << " at " << n;
      std::vector<uint8_t> changed = der;
      changed[n] ^= 0xa5;
      kest_tls::ReadCertificate(changed.data(), changed.size(), cert);
    }
    ++seen;
  }
  EXPECT_GE(seen, 5);
}

} // namespace
