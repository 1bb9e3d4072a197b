#include "hal/hal_client.h"

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
    : kest::cServiceClient(service, timeoutMs, std::move(accessPoint), kService),
      m_callback(callback) {}

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
    return Record(halerr::kProtocol);
  }
  if (m_batching) {
    std::size_t const slot = m_batchResults.size();
    m_batchResults.push_back(0);
    bool const lostBefore = m_lostFirst != kNone;
    int rc = Post(req.op, body);
    if (rc == 0) {
      m_unanswered.push_back(slot);
      return 0;
    }
    if (!lostBefore && m_lostFirst != kNone) {
      // The connection went while this request waited for room: one by one,
      // an earlier request would have met that, and this one no connection.
      if (rc == halerr::kTimeout) m_batchResults[m_lostFirst] = rc;
      rc = halerr::kNotConnected;
    }
    m_batchResults[slot] = rc;
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
int cHalClient::Record(int rc) {
  if (m_batching) m_batchResults.push_back(rc);
  return rc;
}

void cHalClient::BeginBatch() {
  m_batching = true;
  m_batchResults.clear();
  m_unanswered.clear();
  m_lostFirst = kNone;
}

unsigned cHalClient::EndBatch(std::vector<int>* results) {
  m_batching = false;
  bool const lostBefore = m_lostFirst != kNone;
  // A failure is traced there, and the requests still due are lost.
  if (Collect() == halerr::kTimeout && !lostBefore && m_lostFirst != kNone) {
    m_batchResults[m_lostFirst] = halerr::kTimeout;
  }
  unsigned failures = 0;
  for (int rc : m_batchResults) failures += rc != 0 ? 1 : 0;
  if (results != nullptr) results->swap(m_batchResults);
  // A refresh holds an answer per route: that storage goes with the batch,
  // so between refreshes the daemon holds its tables and little else.
  std::vector<int>().swap(m_batchResults);
  m_unanswered.clear();
  return failures;
}

void cHalClient::BeginRefresh() {
  BeginBatch();
  // A redirect sees only the route operations; a proxy that is not there
  // gets no mark, and the end mark then has nothing to close.
  m_marked = m_redirect == nullptr && IsConnected() && PostMark(halop::kRefreshStart);
}

unsigned cHalClient::EndRefresh() {
  if (m_marked && IsConnected()) PostMark(halop::kRefreshEnd);
  m_marked = false;
  std::vector<int> results;
  unsigned const failures = EndBatch(&results);
  // A route that keeps failing fails again every refresh: say so when the
  // count changes, not every 5 s.
  bool const changed = failures != m_lastRefreshFailures;
  m_lastRefreshFailures = failures;
  if (failures != 0 || changed) {
    KEST_TRACE(kModule, changed ? kLevelInfo : kLevelDebug, "refresh: %u of %zu requests failed",
               failures, results.size());
  }
  return failures;
}

bool cHalClient::PostMark(std::uint16_t op) {
  kest::cSerializeBuffer body;
  if (Post(op, body) != 0) return false;
  ++m_marksDue;
  return true;
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
  // The proxy answers in the order asked.
  if (m_unanswered.empty()) return;
  m_batchResults[m_unanswered.front()] = result;
  m_unanswered.pop_front();
}

void cHalClient::OnPostedLost(std::size_t) {
  m_marksDue = 0;
  // As the calls one by one would have ended: the oldest request unanswered
  // waited while the connection went, the later ones found none.
  if (m_unanswered.empty()) return;
  m_lostFirst = m_unanswered.front();
  for (std::size_t slot : m_unanswered) m_batchResults[slot] = halerr::kNotConnected;
  m_batchResults[m_lostFirst] = halerr::kConnectionLost;
  m_unanswered.clear();
}

int cHalClient::ConfigureIPGateway(std::string const& network, std::string const& netmask,
                                   std::string const& gateway, std::string const& source,
                                   std::string const& ifname, unsigned int const& metric,
                                   bool const& gwAvailable) {
  if (m_redirect != nullptr) {
    return Record(m_redirect->ConfigureIPGateway(network, netmask, gateway, source, ifname, metric,
                                                 gwAvailable));
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
    return Record(m_redirect->RemoveIPGateway(network, netmask, gateway, gwAvailable));
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
  if (m_redirect != nullptr) return Record(m_redirect->ConfigureIpDefaultGateway(gateway, metric));
  cHalRequest req;
  req.op = halop::kConfigureIpDefaultGateway;
  req.gateway = gateway;
  req.metric = metric;
  return Call(req);
}

int cHalClient::RemoveIPDefaultGateway(std::string const& gateway) {
  if (m_redirect != nullptr) return Record(m_redirect->RemoveIPDefaultGateway(gateway));
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
