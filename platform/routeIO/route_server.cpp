#include "routeIO/route_server.h"

#include <algorithm>
#include <variant>

#include "kest/format.h"
#include "kest/properties.h"
#include "kest/trace.h"
#include "routeIO/route_protocol.h"

namespace routeIO {

namespace {

constexpr char const* kModule = "routeIO";
constexpr char const* kLevelError = "002";

// Hands one decoded command to the service with the arguments in the order
// of its callback.
struct cCallbackCall {
  IRouteServer* cb;
  kest::cChannel* client;

  routeResult operator()(cSetGatewayCmd const& c) const {
    return cb->SetGateway(c.address, c.tag, c.ifname, c.type, c.priority);
  }
  routeResult operator()(cSetRouteCmd const& c) const {
    return cb->SetRoute(client, c.network, c.netmask, c.gateway, c.source, c.ifname, c.tag,
                        c.priority);
  }
  routeResult operator()(cDelGatewayCmd const& c) const { return cb->DelGateway(c.tag); }
  routeResult operator()(cDelRouteCmd const& c) const { return cb->DelRoute(client, c.tag); }
};

// The listener's limits from the properties, each the twin of a server
// option of the companion programs; false with the first bad one named.
bool ReadLimits(kest::cServerLimits& l, std::string& error) {
  using S = cRouteServer;
  static std::pair<char const*, char const*> const kProperties[] = {
      {S::kSocketModeProperty, "--socket-mode"},     {S::kSocketGroupProperty, "--socket-group"},
      {S::kAllowUidsProperty, "--allow-uid"},        {S::kAllowGidsProperty, "--allow-gid"},
      {S::kMaxClientsProperty, "--max-connections"}, {S::kMaxPerUidProperty, "--max-per-uid"},
      {S::kSendLimitProperty, "--send-limit"},       {S::kFrameTimeoutProperty, "--frame-timeout"},
  };
  for (auto const& [key, option] : kProperties) {
    std::string const text = kest::kestProperties().GetStringForKey(key, "");
    bool ok = true, unixOnly = false;
    std::string why;
    if (text.empty()) continue;
    kest::TakeLimitOption(option, text, l, ok, unixOnly, why);
    if (!ok) {
      error = std::string("property ") + key + ": " + why;
      return false;
    }
  }
  return true;
}

}  // namespace

cRouteServer::cRouteServer(kest::cService* service, IRouteServer* callback)
    : m_callback(callback), m_server(service, this, kModule, kService) {}

cRouteServer::~cRouteServer() {
  m_deliver = false;
  if (m_retryTimer) kest::Loop().CancelTimer(m_retryTimer);
  m_server.Close();
}

bool cRouteServer::SetReady() {
  if (m_server.Listening()) return true;
  std::string const sap = kest::kestProperties().GetStringForKey(kSapProperty, kDefaultSap);
  kest::cServerLimits limits;
  std::string error;
  if (!ReadLimits(limits, error)) {
    KEST_TRACE(kModule, kLevelError, "route service not opened on %s: %s", sap.c_str(),
               error.c_str());
    m_whyNot = error;
    return false;
  }
  m_server.SetLimits(limits);
  // The server traces the listening address and its bounds, or why it cannot listen.
  if (m_server.Listen(sap, error)) {
    m_retryMs = kRetryFirstMs;
    m_whyNot.clear();
    return true;
  }
  m_whyNot = error;
  // The address may be held by a dying predecessor or a stray process: try
  // again, backing off, so the service opens once it is free.
  if (m_retryTimer == 0) {
    KEST_TRACE(kModule, kLevelError, "route service not listening; trying again in %u ms",
               m_retryMs);
    m_retryTimer = kest::Loop().AddTimer(m_retryMs, [this] {
      m_retryTimer = 0;
      SetReady();
    });
    m_retryMs = std::min(m_retryMs * 2, kRetryMaxMs);
  }
  return false;
}

void cRouteServer::OnOpen(kest::cChannel* channel) {
  if (m_deliver) m_callback->OnClientConnected(this, channel);
}

void cRouteServer::OnClose(kest::cChannel* channel) {
  if (m_deliver) m_callback->OnClientClosed(this, channel);
}

void cRouteServer::OnFrame(kest::cChannel* channel, kest::cFrame& frame) {
  if (frame.kind != kest::cFrame::kRequest) {
    Disconnect(channel, "frame of kind " + std::to_string(frame.kind) + " instead of a request");
    return;
  }
  routeCommand cmd;
  std::string error;
  if (!DecodeCommand(frame.op, frame.body, cmd, error)) {
    Disconnect(channel, error);
    return;
  }
  routeResult const result = std::visit(cCallbackCall{m_callback, channel}, cmd);
  kest::cSerializeBuffer body;
  EncodeResult(result, body);
  // A client that has gone meanwhile simply gets no answer; its close is
  // reported on its own.
  m_server.Reply(channel, frame.id, frame.op, body);
}

void cRouteServer::Disconnect(kest::cChannel* channel, std::string const& why) {
  KEST_TRACE(kModule, kLevelError, "route client %s: %s - disconnecting",
             channel->PeerText().c_str(), why.c_str());
  channel->Close("route protocol error: " + why);
}

// The library keeps no global state (sockets write with MSG_NOSIGNAL, so
// SIGPIPE needs no handling); the pair exists so a process starts and stops
// all its libraries the same way.
bool routeInit() { return true; }
void routeDeinit() {}

}  // namespace routeIO
