// Routes in the kernel's main table through rtnetlink (libmnl). Every
// exchange is one request (or one chunk of route requests) and its answers on
// a blocking socket: the kernel answers at once, so the loop never waits long.
#pragma once

#include <cstdint>
#include <functional>
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

  cResult Install(cRoute const& route, eInstall how) override;
  void InstallMany(std::vector<cRoute> const& routes, eInstall how,
                   std::vector<cResult>& results) override;
  cResult Remove(cRoute const& route) override;
  void RemoveMany(std::vector<cRoute> const& routes, std::vector<cResult>& results) override;
  cResult List(std::vector<cTableRoute>& routes) override;
  // Listens to the kernel's link, address and route notifications on a
  // socket of their own, watched by the process's loop.
  bool Watch(std::function<void()> changed) override;

 private:
  // Sends msg and reads its answer. dump collects the route messages of a dump.
  cResult Transact(std::vector<std::uint8_t> const& msg, std::vector<nl::cNlRoute>* dump);
  cResult InterfaceIndex(std::string const& name, std::uint32_t& index);
  std::string InterfaceName(std::uint32_t index);
  // Route messages go in chunks (m_batch): ChunkMessage numbers the message
  // of the request at index i about to be appended; EndChunkMessage sends
  // the chunk once it is full, or when it is the last; SendChunk sends it
  // and stores the answers of its messages in results.
  std::uint32_t ChunkMessage(std::size_t i);
  void EndChunkMessage(std::vector<cResult>& results, bool last);
  void SendChunk(std::vector<cResult>& results);
  void OpenEvents();
  void ReadNotifications();
  std::uint32_t NextSeq() { return ++m_seq; }

  mnl_socket* m_nl = nullptr;
  // Kept open for interface lookups: if_nametoindex would open and close a
  // socket for every request.
  int m_ifFd = -1;
  std::uint32_t m_seq = 0;
  mnl_socket* m_events = nullptr;  // notifications, once Watch was called
  bool m_watching = false;
  std::function<void()> m_changed;
  std::vector<std::uint8_t> m_recvBuf;  // reused by every exchange
  std::vector<std::uint8_t> m_batch;    // the chunk being built, reused
  std::vector<std::size_t> m_chunk;     // the requests whose messages are in m_batch
  std::uint32_t m_chunkFirstSeq = 0;    // the number of m_batch's first message
  std::size_t m_chunkLastAt = 0;        // where m_batch's last message starts
  std::vector<nl::cNlAck> m_acks;       // answers of one datagram, reused
  std::size_t m_chunkMessages = 1;      // as many as the receive buffer has answers for
};

}  // namespace halproxy
