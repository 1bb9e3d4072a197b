#include "core/route_mgr_service.h"

#include <cstdio>

#include "core/rm_trace.h"
#include "dataIO/data_client.h"
#include "diag/dump_signal.h"
#include "routeIO/route_server.h"

namespace {
// Both clients wait this long for an answer of their peer.
constexpr unsigned kClientTimeoutMs = 10000;
constexpr unsigned long kRefreshPeriodSec = 5;
constexpr char const* kMsgAllUp = "WATCHER::ALL-UP";
constexpr char const* kMsgHalConnect = "HAL::ON-CONNECT";
constexpr char const* kMsgRefresh = "TIMER::ON-REFRESH";
}  // namespace

cRouteMgrService::cRouteMgrService(std::string dataMgrSap, std::string halProxSap)
    : kest::cScmService(),
      m_Gateways(),
      m_Routes(),
      m_RoutesByClient(),
      m_watcher(this, kMsgAllUp),
      m_dataClient(this, this, kClientTimeoutMs, dataMgrSap),
      m_halClient(this, this, kClientTimeoutMs, halProxSap),
      m_routeServer(this, this),
      m_networkStatus(nullptr),
      m_RoutingCollection(nullptr),
      m_refreshing(false),
      m_StatusReceived(false),
      m_ConfigReceived(false),
      m_dataMgrSap(dataMgrSap),
      m_halProxSap(halProxSap),
      m_refreshTimer(this, true, nullptr) {}

void cRouteMgrService::InitMessageMap() {
  MessageMap().AddEntry(kMsgAllUp, static_cast<kest::MsgHandler>(&cRouteMgrService::OnAllUp),
                        nullptr);
  MessageMap().AddEntry(kMsgHalConnect,
                        static_cast<kest::MsgHandler>(&cRouteMgrService::OnHalConnect), nullptr);
  MessageMap().AddEntry(kMsgRefresh, static_cast<kest::MsgHandler>(&cRouteMgrService::OnRefresh),
                        nullptr);
}

void cRouteMgrService::Run() {
  InstallDumpSignal(this);
  hal::halInit();
  dataIO::dataInit();
  routeIO::routeInit();
  ProcessMessages();
  routeIO::routeDeinit();
  dataIO::dataDeinit();
  hal::halDeinit();
}

bool cRouteMgrService::OnScmConnected() {
  puts("cRouteMgrService::connected to scm");
  fflush(stdout);
  m_watcher.Add(&m_halClient);
  m_watcher.Add(&m_dataClient);
  m_halClient.Start();
  m_dataClient.Start();
  return SetServiceStatusRunning();
}

bool cRouteMgrService::OnAliveCheck() { return SetServiceAlive(); }

void cRouteMgrService::OnSystemStatus(std::string const& status) {
  RM_TRACE("system status=" + status);
}

void cRouteMgrService::OnScmNotification() {}

void cRouteMgrService::OnHalConnect(kest::cMsg&) {
  RM_TRACE("Hal Connected");
  m_watcher.OnConnect(&m_halClient);
}

void cRouteMgrService::OnAllUp(kest::cMsg&) {
  RM_TRACE("All Connections UP");
  m_routeServer.SetReady();
  m_refreshTimer.StartSec(kRefreshPeriodSec, kMsgRefresh);
}
