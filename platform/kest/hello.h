// The greeting every connection opens with. A client's first frame names the
// service it wants and the protocol version it speaks; the server answers
// with its own name, or refuses and closes. Without it the route service and
// the HAL proxy (same framing, same operation numbers) would execute each
// other's requests when a client is pointed at the wrong access point.
// A pure codec; the transport (server.cpp, service_client.cpp, call_once.cpp)
// drives it.
#pragma once

#include <cstdint>
#include <string>

#include "kest/frame.h"

namespace kest {

// Operation 0 of every service is the greeting: no service uses it for
// anything else.
constexpr std::uint16_t kHelloOp = 0;
// Names, titles and reasons are short; anything longer is malformed.
constexpr std::size_t kMaxHelloText = 256;

// Who a server is, or whom a client wants.
struct cServiceId {
  char const* name;       // on the wire: "routeMgr", "halProx", "dataMgr"
  char const* title;      // for people: "the route manager"
  std::uint16_t version;  // the one protocol version it speaks
};

// Client to server: request, op 0.
struct cHello {
  std::string service;
  std::uint16_t version = 0;
};
// Server to client: the reply to the hello (accepted), or an event with op 0
// just before the server closes the connection (refused or closed), the
// reason saying why.
struct cGreeting {
  std::string service;
  std::string title;
  std::uint16_t version = 0;  // replies only
  std::string reason;         // refusals only
};

cFrame HelloFrame(std::uint32_t id, cServiceId const& wanted);
cFrame AcceptFrame(std::uint32_t id, cServiceId const& self);
cFrame RefusalFrame(cServiceId const& self, std::string const& reason);

// False with a reason for a body that does not hold exactly the fields.
bool DecodeHello(cSerializeBuffer& body, cHello& out, std::string& error);
bool DecodeAccept(cSerializeBuffer& body, cGreeting& out, std::string& error);
bool DecodeRefusal(cSerializeBuffer& body, cGreeting& out, std::string& error);

// What a server says of a first frame: empty when it is a hello for self,
// else the reason to refuse it.
std::string JudgeHello(cFrame& first, cServiceId const& self);

// How a client reads the server's answer to its hello (the first frame that
// comes back). kAccepted: go on. Otherwise why says it for people, e.g.
// "127.0.0.1:3710 is the HAL proxy, not the route manager" or
// "unix:/run/routemgr/route.sock refused the connection: uid 65534 gid 65534 not allowed".
enum class eGreeting { kAccepted, kRefused, kBad };
eGreeting JudgeGreeting(cFrame& answer, std::uint32_t helloId, cServiceId const& wanted,
                        std::string const& accessPoint, std::string& why);

}  // namespace kest
