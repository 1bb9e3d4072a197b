#include "routeIO/route_protocol.h"

namespace routeIO {

namespace routeop {
char const* Name(std::uint16_t op) {
  switch (op) {
    case kSetGateway:
      return "SetGateway";
    case kSetRoute:
      return "SetRoute";
    case kDelGateway:
      return "DelGateway";
    case kDelRoute:
      return "DelRoute";
    default:
      return nullptr;
  }
}
}  // namespace routeop

namespace {

bool PutString(kest::cSerializeBuffer& buf, std::string const& value) {
  return kest::s_string(value).Serialize(buf);
}

bool GetString(kest::cSerializeBuffer& buf, std::string& value) {
  kest::s_string s;
  if (!s.Deserialize(buf)) return false;
  value = s.Get();
  return true;
}

// Each command's fields in wire order, once for writing and once for reading.
bool Put(kest::cSerializeBuffer& b, cSetGatewayCmd const& c) {
  if (!c.address.Serialize(b) || !PutString(b, c.tag) || !PutString(b, c.ifname)) return false;
  b.WriteU32(c.type);
  b.WriteU32(c.priority);
  return true;
}
bool Get(kest::cSerializeBuffer& b, cSetGatewayCmd& c) {
  return c.address.Deserialize(b) && GetString(b, c.tag) && GetString(b, c.ifname) &&
         b.ReadU32(c.type) && b.ReadU32(c.priority);
}

bool Put(kest::cSerializeBuffer& b, cSetRouteCmd const& c) {
  if (!c.network.Serialize(b) || !c.netmask.Serialize(b) || !c.gateway.Serialize(b) ||
      !c.source.Serialize(b) || !PutString(b, c.ifname) || !PutString(b, c.tag))
    return false;
  b.WriteU32(c.priority);
  return true;
}
bool Get(kest::cSerializeBuffer& b, cSetRouteCmd& c) {
  return c.network.Deserialize(b) && c.netmask.Deserialize(b) && c.gateway.Deserialize(b) &&
         c.source.Deserialize(b) && GetString(b, c.ifname) && GetString(b, c.tag) &&
         b.ReadU32(c.priority);
}

bool Put(kest::cSerializeBuffer& b, cDelGatewayCmd const& c) { return PutString(b, c.tag); }
bool Get(kest::cSerializeBuffer& b, cDelGatewayCmd& c) { return GetString(b, c.tag); }
bool Put(kest::cSerializeBuffer& b, cDelRouteCmd const& c) { return PutString(b, c.tag); }
bool Get(kest::cSerializeBuffer& b, cDelRouteCmd& c) { return GetString(b, c.tag); }

// What follows a body's fields, the same for every command: kept out of
// the template so the flashed daemon has it once, not once per command.
bool CheckBody(bool read, std::uint16_t op, kest::cSerializeBuffer& body, std::string& error) {
  if (!read) {
    error = std::string("malformed ") + routeop::Name(op) + " body";
    return false;
  }
  if (!body.AtEnd()) {
    error = std::to_string(body.Remaining()) + " stray bytes after " + routeop::Name(op) + " body";
    return false;
  }
  return true;
}

template <typename T>
bool DecodeAs(std::uint16_t op, kest::cSerializeBuffer& body, routeCommand& out,
              std::string& error) {
  T cmd;
  if (!CheckBody(Get(body, cmd), op, body, error)) return false;
  out.emplace<T>(std::move(cmd));
  return true;
}

}  // namespace

std::uint16_t OpOf(routeCommand const& cmd) {
  // Variant alternatives are in op order.
  static constexpr std::uint16_t kOps[] = {routeop::kSetGateway, routeop::kSetRoute,
                                           routeop::kDelGateway, routeop::kDelRoute};
  return kOps[cmd.index()];
}

bool EncodeCommand(routeCommand const& cmd, kest::cSerializeBuffer& body) {
  kest::cSerializeBuffer tmp;
  bool ok = std::visit([&tmp](auto const& c) { return Put(tmp, c); }, cmd);
  if (!ok) return false;
  body.Write(tmp.Data(), tmp.Size());
  return true;
}

bool DecodeCommand(std::uint16_t op, kest::cSerializeBuffer& body, routeCommand& out,
                   std::string& error) {
  switch (op) {
    case routeop::kSetGateway:
      return DecodeAs<cSetGatewayCmd>(op, body, out, error);
    case routeop::kSetRoute:
      return DecodeAs<cSetRouteCmd>(op, body, out, error);
    case routeop::kDelGateway:
      return DecodeAs<cDelGatewayCmd>(op, body, out, error);
    case routeop::kDelRoute:
      return DecodeAs<cDelRouteCmd>(op, body, out, error);
    default:
      error = "unknown op " + std::to_string(op);
      return false;
  }
}

void EncodeResult(routeResult const& result, kest::cSerializeBuffer& body) {
  body.WriteU8(result.success ? 1 : 0);
  body.WriteU32(static_cast<std::uint32_t>(result.rc));
}

bool DecodeResult(kest::cSerializeBuffer& body, routeResult& out, std::string& error) {
  std::uint8_t success = 0;
  std::uint32_t rc = 0;
  if (!body.ReadU8(success) || !body.ReadU32(rc)) {
    error = "short result body";
    return false;
  }
  if (success > 1) {
    error = "result flag " + std::to_string(success) + " is neither 0 nor 1";
    return false;
  }
  if (!body.AtEnd()) {
    error = std::to_string(body.Remaining()) + " stray bytes after result body";
    return false;
  }
  out.success = success == 1;
  out.rc = static_cast<std::int32_t>(rc);
  return true;
}

}  // namespace routeIO
