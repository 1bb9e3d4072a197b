// Server side of the route service: route clients connect, announce
// gateways and set custom routes; each command reaches the service as one
// callback in its loop.
#pragma once

#include <cstdint>
#include <string>

#include "kest/server.h"
#include "kest/types.h"

namespace routeIO {

class cRouteServer;

struct routeResult {
  bool success;
  std::int32_t rc;
};

// No virtual destructor: the service implementing it is never deleted through it.
class IRouteServer {
 public:
  virtual void OnClientConnected(cRouteServer* server, kest::cChannel* client) = 0;
  virtual void OnClientClosed(cRouteServer* server, kest::cChannel* client) = 0;
  virtual routeResult SetGateway(kest::s_socket_addr const& address, std::string const& tag,
                                 std::string const& ifname, std::uint32_t type,
                                 std::uint32_t priority) = 0;
  virtual routeResult SetRoute(kest::cChannel* client, kest::s_socket_addr const& network,
                               kest::s_socket_addr const& netmask,
                               kest::s_socket_addr const& gateway,
                               kest::s_socket_addr const& source, std::string const& ifname,
                               std::string const& tag, std::uint32_t priority) = 0;
  virtual routeResult DelGateway(std::string const& tag) = 0;
  virtual routeResult DelRoute(kest::cChannel* client, std::string const& tag) = 0;

 protected:
  ~IRouteServer() = default;
};

class cRouteServer : private kest::IServerHandler {
 public:
  // The route library's own setting: where route clients find the service.
  static constexpr char const* kSapProperty = "system.routeMgrSap";
  static constexpr char const* kDefaultSap = "127.0.0.1:3712";

  // Access control and bounds of the listener (see kest::cServerLimits);
  // unset or empty means the default. The first four matter for a Unix
  // socket only; an allow-list on a TCP access point keeps it closed.
  static constexpr char const* kSocketModeProperty = "system.routeMgrSocketMode";    // octal
  static constexpr char const* kSocketGroupProperty = "system.routeMgrSocketGroup";  // name or gid
  static constexpr char const* kAllowUidsProperty = "system.routeMgrAllowUids";      // "0,daemon"
  static constexpr char const* kAllowGidsProperty = "system.routeMgrAllowGids";      // "netdev,7"
  static constexpr char const* kMaxClientsProperty = "system.routeMgrMaxClients";
  static constexpr char const* kMaxPerUidProperty = "system.routeMgrMaxPerUid";
  static constexpr char const* kFrameTimeoutProperty = "system.routeMgrFrameTimeout";  // ms
  static constexpr char const* kSendLimitProperty = "system.routeMgrSendLimit";        // bytes

  // Listens on the property "system.routeMgrSap" (default "127.0.0.1:3712")
  // once ready; clients are accepted only after SetReady().
  cRouteServer(kest::cService* service, IRouteServer* callback);
  ~cRouteServer();
  // Reads the properties above when it starts listening. A malformed one
  // keeps the service closed (traced with the property's name): falling
  // back to a default could open it wider than configured.
  // When the access point cannot be taken (in use), it is tried again with
  // backoff until it can.
  bool SetReady();  // again: harmless
  bool IsReady() const { return m_server.Listening(); }
  // Why the last SetReady left the service closed; empty when it listens.
  std::string const& WhyNotListening() const { return m_whyNot; }
  std::size_t Clients() const { return m_server.Connections(); }
  std::uint16_t BoundPort() const { return m_server.BoundPort(); }

 private:
  void OnOpen(kest::cChannel* channel) override;
  void OnFrame(kest::cChannel* channel, kest::cFrame& frame) override;
  void OnClose(kest::cChannel* channel) override;
  void Disconnect(kest::cChannel* channel, std::string const& why);

  IRouteServer* m_callback;
  // Cleared while the server is torn down: the service that owns it is half
  // destroyed by then and must hear nothing more.
  bool m_deliver = true;
  static constexpr unsigned kRetryFirstMs = 100;
  static constexpr unsigned kRetryMaxMs = 5000;
  unsigned m_retryMs = kRetryFirstMs;
  kest::cEventLoop::TimerId m_retryTimer = 0;
  std::string m_whyNot;
  kest::cServer m_server;
};

bool routeInit();
void routeDeinit();

}  // namespace routeIO
