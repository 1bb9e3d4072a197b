#include "hal/hal_client.h"

#include <algorithm>

#include "hal/hal_errors.h"
#include "hal/hal_protocol.h"
#include "kest/message.h"
#include "kest/service.h"
#include "kest/trace.h"

namespace hal {

namespace {

char const* const kModule = "HAL";
char const* const kLevelError = "002";
char const* const kLevelInfo = "005";
char const* const kLevelDebug = "007";

}  // namespace

cHalClient::cHalClient(kest::cService* service, IHalClient* callback, unsigned timeoutMs,
                       std::string accessPoint)
    : kest::cServiceClient(service, timeoutMs, std::move(accessPoint), kService), m_callback(callback) {}

cHalClient::~cHalClient() = default;

void cHalClient::OnConnected() {
  // The service learns of every (re)connection, so it can count the HAL as up
  // again after the proxy restarted.
  if (Service() != nullptr) kest::cMessageSink::PostTo(Service(), kest::cMsg("HAL::ON-CONNECT"));
}

int cHalClient::Call(cHalRequest const& req) {
  kest::cSerializeBuffer body, reply;
  if (!EncodeRequest(req, body)) {
    KEST_TRACE(kModule, kLevelError, "%s: request too large to send", halop::Name(req.op));
    return halerr::kProtocol;
  }
  if (m_batching) {
    ++m_batchRequests;
    int rc = Post(req.op, body);
    if (rc != 0) ++m_batchFailures;
    return rc;
  }
  int rc = Request(req.op, body, reply);
  if (rc != 0) return rc;
  int result = 0;
  std::string error;
  if (!DecodeResult(reply, result, error)) {
    KEST_TRACE(kModule, kLevelError, "%s: malformed answer from %s: %s", halop::Name(req.op),
               AccessPoint().c_str(), error.c_str());
    return halerr::kProtocol;
  }
  return result;
}

void cHalClient::BeginBatch() {
  m_batching = true;
  m_batchFailures = 0;
  m_batchRequests = 0;
  // A redirect sees only the route operations; a proxy that is not there
  // gets no mark, and the end mark then has nothing to close.
  m_marked = m_redirect == nullptr && IsConnected() && PostMark(halop::kRefreshStart);
}

unsigned cHalClient::EndBatch() {
  if (m_marked && IsConnected()) PostMark(halop::kRefreshEnd);
  m_marked = false;
  m_batching = false;
  Collect();  // a failure is traced there and its requests counted as lost
  unsigned failures = m_batchFailures;
  m_batchFailures = 0;
  LogBatch(failures);
  return failures;
}

bool cHalClient::PostMark(std::uint16_t op) {
  kest::cSerializeBuffer body;
  if (Post(op, body) != 0) return false;
  ++m_marksDue;
  return true;
}

void cHalClient::LogBatch(unsigned failures) {
  // A route that keeps failing fails again every refresh: say so when the
  // count changes, not every 5 s.
  bool const changed = failures != m_lastBatchFailures;
  m_lastBatchFailures = failures;
  if (failures == 0 && !changed) return;
  KEST_TRACE(kModule, changed ? kLevelInfo : kLevelDebug, "refresh: %u of %u requests failed",
             failures, m_batchRequests);
}

void cHalClient::OnPostedReply(kest::cFrame& frame) {
  if (frame.op == halop::kRefreshStart || frame.op == halop::kRefreshEnd) {
    // Marks are the proxy's business: a proxy without them answers
    // EOPNOTSUPP, which costs nothing.
    if (m_marksDue > 0) --m_marksDue;
    return;
  }
  int result = 0;
  std::string error;
  if (!DecodeResult(frame.body, result, error)) {
    KEST_TRACE(kModule, kLevelError, "%s: malformed answer from %s: %s",
               halop::Name(frame.op) ? halop::Name(frame.op) : "request", AccessPoint().c_str(),
               error.c_str());
    result = halerr::kProtocol;
  }
  if (result != 0) ++m_batchFailures;
}

void cHalClient::OnPostedLost(std::size_t count) {
  std::size_t const marks = std::min<std::size_t>(count, m_marksDue);
  m_marksDue -= marks;
  m_batchFailures += static_cast<unsigned>(count - marks);
}

int cHalClient::ConfigureIPGateway(std::string const& network, std::string const& netmask,
                                   std::string const& gateway, std::string const& source,
                                   std::string const& ifname, unsigned int const& metric,
                                   bool const& gwAvailable) {
  if (m_redirect != nullptr) {
    return m_redirect->ConfigureIPGateway(network, netmask, gateway, source, ifname, metric,
                                          gwAvailable);
  }
  cHalRequest req;
  req.op = halop::kConfigureIPGateway;
  req.network = network;
  req.netmask = netmask;
  req.gateway = gateway;
  req.source = source;
  req.ifname = ifname;
  req.metric = metric;
  req.gwAvailable = gwAvailable;
  return Call(req);
}

int cHalClient::RemoveIPGateway(std::string const& network, std::string const& netmask,
                                std::string const& gateway, bool const& gwAvailable) {
  if (m_redirect != nullptr) {
    return m_redirect->RemoveIPGateway(network, netmask, gateway, gwAvailable);
  }
  cHalRequest req;
  req.op = halop::kRemoveIPGateway;
  req.network = network;
  req.netmask = netmask;
  req.gateway = gateway;
  req.gwAvailable = gwAvailable;
  return Call(req);
}

int cHalClient::ConfigureIpDefaultGateway(std::string const& gateway, unsigned int metric) {
  if (m_redirect != nullptr) return m_redirect->ConfigureIpDefaultGateway(gateway, metric);
  cHalRequest req;
  req.op = halop::kConfigureIpDefaultGateway;
  req.gateway = gateway;
  req.metric = metric;
  return Call(req);
}

int cHalClient::RemoveIPDefaultGateway(std::string const& gateway) {
  if (m_redirect != nullptr) return m_redirect->RemoveIPDefaultGateway(gateway);
  cHalRequest req;
  req.op = halop::kRemoveIPDefaultGateway;
  req.gateway = gateway;
  return Call(req);
}

int cHalClient::ListRoutes(std::vector<std::string>& lines) {
  lines.clear();
  cHalRequest req;
  req.op = halop::kListRoutes;
  for (;;) {
    kest::cSerializeBuffer body, reply;
    EncodeRequest(req, body);
    int rc = Request(req.op, body, reply);
    if (rc != 0) return rc;
    cRouteList piece;
    std::string error;
    if (!DecodeRouteList(reply, piece, error) ||
        (piece.result == 0 && !CollectRoutePiece(piece, lines, error))) {
      KEST_TRACE(kModule, kLevelError, "ListRoutes: malformed answer from %s: %s",
                 AccessPoint().c_str(), error.c_str());
      return halerr::kProtocol;
    }
    if (piece.result != 0) return piece.result;
    if (!piece.more) return 0;
    req.first = static_cast<std::uint32_t>(lines.size());
  }
}

int cHalClient::InjectFault(std::uint16_t op, int code, std::uint32_t count) {
  cHalRequest req;
  req.op = halop::kInjectFault;
  req.faultOp = op;
  req.faultCode = code;
  req.faultCount = count;
  return Call(req);
}

bool halInit() { return true; }

void halDeinit() {}

}  // namespace hal
