// The HTTP/1.x decoder: HTTP (and WebSocket after an upgrade) on TCP, any
// port (HTTP's usual ones tried first), its messages' parts under "http",
// and the hosts' key/value rules of its module (HttpRules.h).
#include "http/HttpInspector.h"
#include <kest/kit/Risks.h>

namespace {

struct Http {
  static constexpr oru::kit::Spec kSpec{
      .plugin = "http",
      .module = oru::kit::MODULE_HTTP,
      .protocols = {"HTTP", "WebSocket"},
      .borrowed = {oru::kit::kRiskAttribute},
      .tcp = true,
      .tcp_ports = {80, 8080, 8000, 8008, 8888, 3128},
  };
  static constexpr kest_message::MessageOptions kMessage{
      .dialect = &kest_message::kHttp,
      .prefix = "http",
  };
  using Launcher = kest_http::HttpLauncher;
};

static_assert(kest_message::SameName(Http::kSpec.protocols[kest_http::kHttpProto], "HTTP") &&
              kest_message::SameName(Http::kSpec.protocols[kest_http::kWebSocketProto],
                                     "WebSocket"));

} // namespace

KEST_MESSAGE_DECODER(Http)
