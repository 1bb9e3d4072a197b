// Client side of the HAL proxy: the four route operations the route manager
// needs, as synchronous requests.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "kest/service_client.h"

namespace hal {

struct cHalRequest;

// Callback target of a HAL client. The HAL client reports its connections
// by posting "HAL::ON-CONNECT" to the service, so nothing is declared here.
class IHalClient {
 protected:
  ~IHalClient() = default;
};

// The HAL's route operations in domain terms. The real client sends them to
// the HAL proxy; a redirect (tests, dry runs) sends them elsewhere.
class IHalApi {
 public:
  virtual int ConfigureIPGateway(std::string const& network, std::string const& netmask,
                                 std::string const& gateway, std::string const& source,
                                 std::string const& ifname, unsigned int const& metric,
                                 bool const& gwAvailable) = 0;
  virtual int RemoveIPGateway(std::string const& network, std::string const& netmask,
                              std::string const& gateway, bool const& gwAvailable) = 0;
  virtual int ConfigureIpDefaultGateway(std::string const& gateway, unsigned int metric) = 0;
  virtual int RemoveIPDefaultGateway(std::string const& gateway) = 0;

 protected:
  ~IHalApi() = default;
};

class cHalClient : public kest::cServiceClient, public IHalApi {
 public:
  cHalClient(kest::cService* service, IHalClient* callback, unsigned timeoutMs,
             std::string accessPoint);
  ~cHalClient() override;

  int ConfigureIPGateway(std::string const& network, std::string const& netmask,
                         std::string const& gateway, std::string const& source,
                         std::string const& ifname, unsigned int const& metric,
                         bool const& gwAvailable) override;
  int RemoveIPGateway(std::string const& network, std::string const& netmask,
                      std::string const& gateway, bool const& gwAvailable) override;
  int ConfigureIpDefaultGateway(std::string const& gateway, unsigned int metric) override;
  int RemoveIPDefaultGateway(std::string const& gateway) override;

  // For callers that ignore the answers, like the periodic refresh: between
  // BeginBatch and EndBatch the route operations do not wait for their
  // answers one by one (they return 0 once sent, or why they could not be
  // sent), which saves a round trip per request and lets the proxy hand the
  // kernel many routes at once. EndBatch waits for every answer and returns
  // how many were not 0 or never came; results, if given, receives every
  // request's result in the order asked, as the calls one by one would have
  // returned them. A redirect sees the calls as usual.
  void BeginBatch();
  unsigned EndBatch(std::vector<int>* results = nullptr);
  // A batch that is a complete statement of what the caller wants (the
  // refresh): it goes to the proxy between RefreshStart and RefreshEnd marks,
  // so the proxy can remove what it installed earlier and nobody wants any
  // more. Other batches (a pass of the service) must not be marked, or the
  // proxy would sweep everything the pass did not name. EndRefresh logs the
  // failures when their count changes.
  void BeginRefresh();
  unsigned EndRefresh();

  // Every operation goes to api instead of the HAL proxy; nullptr restores.
  void Redirect(IHalApi* api) { m_redirect = api; }

  // Tooling operations of the proxy (tests, diagnostics; never redirected).
  // The proxy's table as readable lines; the result as for the route operations.
  int ListRoutes(std::vector<std::string>& lines);
  // The next count requests of op (0 = all until cleared) answer code;
  // code 0 clears. Only the in-memory backend of the proxy supports it.
  int InjectFault(std::uint16_t op, int code, std::uint32_t count);

 protected:
  void OnConnected() override;  // posts "HAL::ON-CONNECT" to the service
  void OnPostedReply(kest::cFrame& frame) override;
  void OnPostedLost(std::size_t count) override;

 private:
  int Call(cHalRequest const& req);
  int Record(int rc);  // in a batch: rc is the result of the request just asked
  bool PostMark(std::uint16_t op);

  [[maybe_unused]] IHalClient* m_callback;  // no callbacks yet: connections arrive as messages
  IHalApi* m_redirect = nullptr;
  bool m_batching = false;
  std::vector<int> m_batchResults;       // per request of the batch, in the order asked
  std::deque<std::size_t> m_unanswered;  // indexes into m_batchResults, oldest first
  static constexpr std::size_t kNone = static_cast<std::size_t>(-1);
  std::size_t m_lostFirst = kNone;  // the request unanswered when the connection went
  bool m_marked = false;            // this batch began with a RefreshStart mark
  std::size_t m_marksDue = 0;       // marks posted and not yet answered
  unsigned m_lastRefreshFailures = 0;
};

// Nothing to set up or tear down; kept for the library's start/stop contract.
bool halInit();
void halDeinit();

}  // namespace hal
