// Routes in the kernel's main table through rtnetlink (libmnl). Every
// exchange is one request (or one chunk of route requests) and its answers on
// a blocking socket: the kernel answers at once, so the loop never waits long.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "backend.h"
#include "netlink_codec.h"

struct mnl_socket;

namespace halproxy {

class cNetlinkBackend : public IRouteBackend {
 public:
  cNetlinkBackend() = default;
  ~cNetlinkBackend() override;
  cNetlinkBackend(const cNetlinkBackend&) = delete;
  cNetlinkBackend& operator=(const cNetlinkBackend&) = delete;

  bool Open(std::string& error);

  int ConfigureRoute(cRoute const& route) override;
  void ConfigureRoutes(std::vector<cRoute> const& routes, std::vector<int>& results,
                       std::vector<std::string>& details) override;
  int RemoveRoute(cRoute const& route) override;
  int ConfigureDefault(std::uint32_t gateway, std::uint32_t metric) override;
  int RemoveDefault(std::uint32_t gateway) override;
  int ListRoutes(std::vector<std::string>& lines) override;
  std::string LastDetail() const override { return m_detail; }

 private:
  // Sends msg and reads its answer; 0 or a negative errno. dump collects the
  // route messages of a dump.
  int Transact(std::vector<std::uint8_t> const& msg, std::vector<nl::cNlRoute>* dump);
  int DumpOurs(std::vector<nl::cNlRoute>& routes);  // our IPv4 routes of the main table
  int Delete(nl::cNlRoute const& route);            // absent counts as removed
  int InterfaceIndex(std::string const& name, std::uint32_t& index);
  // Sends m_batch, the messages numbered firstSeq... of the routes at
  // indexes (the last one starting at lastAt), and stores their answers in
  // results and details.
  void SendChunk(std::uint32_t firstSeq, std::size_t lastAt, std::vector<std::size_t> const& indexes,
                 std::vector<int>& results, std::vector<std::string>& details);
  std::uint32_t NextSeq() { return ++m_seq; }

  mnl_socket* m_nl = nullptr;
  // Kept open for interface lookups: if_nametoindex would open and close a
  // socket for every request.
  int m_ifFd = -1;
  std::uint32_t m_seq = 0;
  std::string m_detail;
  std::vector<std::uint8_t> m_recvBuf;  // reused by every exchange
  std::vector<std::uint8_t> m_batch;    // the chunk being built, reused
  std::vector<nl::cNlAck> m_acks;       // answers of one datagram, reused
  std::size_t m_chunkMessages = 1;      // as many as the receive buffer has answers for
};

}  // namespace halproxy
