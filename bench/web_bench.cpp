// The message inspector on the TCP decoder's road: a stream of requests with
// ten header lines each, one packet per request or cut into 1,460-byte
// packets, with attributes off and on. Reports bytes per second and
// allocations per packet.
#include <benchmark/benchmark.h>
#include <kest.h>
#include <kest/InterfaceBroker.h>
#include <kest/IpPortRuleStore.h>
#include <kest/ProtocolRegistry.h>
#include <kest/Runtime.h>
#include <kest/WebDpi.h>
#include <kest/WebDpiLauncher.h>
#include <kest/fdt/ObjectPrefix.h>
#include <kest_host.h>

#include "BenchInstance.h"

#include <arpa/inet.h>
#include <string>
#include <vector>

namespace {

class BenchWeb final : public oru::WebDpi {
public:
  BenchWeb(const oru::WebMethodTable *methods, oru::WebAttributes *attributes, uint32_t proto)
      : WebDpi(methods, nullptr, attributes), m_proto(proto) {}
  const char *GetProtocolWord() override { return "HTTP"; }
  uint32_t GetProtocol() override { return m_proto; }
  bool HasMessageBody(oru::WebHeader &header) override {
    return header.m_type == oru::WebLine::LINE_RESPONSE;
  }

private:
  uint32_t m_proto;
};

class BenchLauncher final : public oru::WebDpiLauncher {
public:
  BenchLauncher(const oru::WebMethodTable *methods, oru::WebAttributes *attributes, uint32_t proto)
      : m_methods(methods), m_attributes(attributes), m_proto(proto) {}
  oru::WebDpi *MakeInspector(oru::fdt::intrusive_ptr<oru::Conn> &) override {
    return oru::fdt::CreateObject<BenchWeb>(oru::fdt::OBJECT_LOCAL, m_methods, m_attributes,
                                            m_proto);
  }

private:
  const oru::WebMethodTable *m_methods;
  oru::WebAttributes *m_attributes;
  uint32_t m_proto;
};

int Ignore(kest_handle_t, kest_conn_id_t, int, int, const void *, int, void *) {
  return 0;
}
int NoResult(kest_handle_t, kest_result_t *, int, kest_conn_id_t, void *, int) {
  return 0;
}

std::string Request(int i) {
  std::string r = "GET /index/" + std::to_string(i) + ".html HTTP/1.1\r\nHost: www.example.com\r\n";
  const char *names[] = {"User-Agent",      "Accept",        "Accept-Language",
                         "Accept-Encoding", "Connection",    "Cookie",
                         "Referer",         "Cache-Control", "Upgrade-Insecure-Requests"};
  for (const char *name : names) {
    r += std::string(name) + ": value-of-" + name + "-for-this-request\r\n";
  }
  return r + "\r\n";
}

// Argument 0: one packet per request; 1: 1,460-byte packets. Argument 1:
// attributes off (0) or on (1).
void BM_WebDpiRequests(benchmark::State &state) {
  const kest_handle_t h = kest_bench::Start(state);
  if (h < 0) {
    return;
  }
  const bool segments = state.range(0) == 1;
  const bool attributes_on = state.range(1) == 1;
  oru::Runtime::l_instance_id = h;
  oru::WebMethodTable methods;
  methods.push_back(oru::WebMethod{"GET", 3});
  methods.push_back(oru::WebMethod{"POST", 4});
  const bool named = oru::WebAttributes::InitInstance("bench");
  kest_idle(h);
  oru::Runtime::l_instance_id = h;
  oru::WebAttributes attributes;
  attributes.Initialize("bench");
  if (attributes_on) {
    for (const char *name :
         {"bench.request.uri", "bench.request.header.Host", "bench.request.header"}) {
      kest_attr_callback_set(h, name, Ignore);
    }
    kest_idle(h);
    oru::Runtime::l_instance_id = h;
  }
  const uint32_t proto = static_cast<uint32_t>(oru::GetProtocolId("TCP"));
  oru::fdt::intrusive_ptr<BenchLauncher> launcher(
      oru::fdt::CreateObject<BenchLauncher>(oru::fdt::OBJECT_LOCAL, &methods, &attributes, proto));
  auto *rules = static_cast<oru::IpPortRuleStore *>(oru::InterfaceBroker::Instance()->GetInterface(
      oru::MODULE_TCP, oru::INTERFACE_IPPORT_RULE_STORE));
  const bool added = named && rules != nullptr &&
                     rules->AddRule(6, oru::InspectorCallback(launcher.get()), 80, {}, {}, 0,
                                    oru::IpPortRuleStore::EXPIRY_LOCAL, false);
  oru::Runtime::l_instance_id = 0;

  std::string stream;
  std::vector<std::string> packets;
  for (int i = 0; i < 64; ++i) {
    const std::string r = Request(i);
    stream += r;
    if (!segments) {
      packets.push_back(r);
    }
  }
  if (segments) {
    for (size_t at = 0; at < stream.size(); at += 1460) {
      packets.push_back(stream.substr(at, 1460));
    }
    // Whole requests again at the end, so the stream repeats cleanly.
    const size_t tail = stream.size() % 1460;
    if (tail != 0) {
      packets.pop_back();
      packets.push_back(stream.substr(stream.size() - tail));
    }
  }
  kest_endpoint_t src{KEST_FAMILY_IPV4, htons(40000), {10, 0, 0, 1}};
  kest_endpoint_t dst{KEST_FAMILY_IPV4, htons(80), {10, 0, 0, 2}};
  kest_conn_t conn = nullptr;
  if (!added || kest_conn_create(h, &src, &dst, 6, &conn) != 0) {
    state.SkipWithError("connection not made");
    kest_bench::CloseInstance(h);
    return;
  }
  for (const std::string &p : packets) {
    kest_classify(h, KEST_SELECTOR_CONN, p.data(), static_cast<uint16_t>(p.size()), conn, 0,
                  NoResult, nullptr);
  }
  uint64_t bytes = 0, count = 0, allocations;
  {
    kest_bench::LocalAllocations counter;
    for (auto _ : state) {
      for (const std::string &p : packets) {
        kest_classify(h, KEST_SELECTOR_CONN, p.data(), static_cast<uint16_t>(p.size()), conn, 0,
                      NoResult, nullptr);
        bytes += p.size();
        ++count;
      }
    }
    allocations = counter.Count();
  }
  state.SetBytesProcessed(static_cast<int64_t>(bytes));
  state.counters["allocs_per_packet"] =
      static_cast<double>(allocations) / static_cast<double>(count ? count : 1);
  kest_conn_destroy(h, conn);
  oru::Runtime::l_instance_id = h;
  rules->RemoveRuleFast(6, oru::InspectorCallback(launcher.get()), 80, {}, {});
  launcher.reset();
  attributes.ExitThread("bench");
  oru::Runtime::l_instance_id = 0;
  kest_bench::CloseInstance(h);
}
BENCHMARK(BM_WebDpiRequests)->Args({0, 0})->Args({1, 0})->Args({0, 1})->Args({1, 1});

} // namespace
