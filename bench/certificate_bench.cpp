// Reading a server's leaf certificate as the TLS decoder does once per
// connection up to TLS 1.2: the whole read (names, validity,
// subjectAltName) and the name check against a server name.
#include <benchmark/benchmark.h>
#include <kest_host.h>

#include "tls/Certificate.h"

#include <fstream>
#include <iterator>
#include <vector>

namespace {

std::vector<uint8_t> Seed(const char *name) {
  std::ifstream in(std::string(KEST_BENCH_CERTIFICATES) + "/" + name, std::ios::binary);
  return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), {});
}

void BM_ReadCertificate(benchmark::State &state) {
  const std::vector<uint8_t> der = Seed("der-good");
  kest_tls::CertificateInfo cert;
  for (auto _ : state) {
    benchmark::DoNotOptimize(kest_tls::ReadCertificate(der.data(), der.size(), cert));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * der.size()));
}
BENCHMARK(BM_ReadCertificate);

void BM_NameCovered(benchmark::State &state) {
  const std::vector<uint8_t> der = Seed("der-good");
  kest_tls::CertificateInfo cert;
  if (kest_tls::ReadCertificate(der.data(), der.size(), cert) != kest_tls::CertificateStatus::kOk) {
    state.SkipWithError("seed certificate does not read");
    return;
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(kest_tls::NameCovered(cert, "api.example.com", 15));
  }
}
BENCHMARK(BM_NameCovered);

} // namespace
