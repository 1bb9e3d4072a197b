#include "control_protocol.h"

#include "kest/format.h"
#include "kest/types.h"

namespace datamgr {
namespace ctl {

namespace {

void PutString(kest::cSerializeBuffer& out, std::string const& text) {
  kest::s_string(text).Serialize(out);
}

bool GetString(kest::cSerializeBuffer& in, std::string& text) {
  kest::s_string value;
  if (!value.Deserialize(in)) return false;
  text = value.Get();
  return true;
}

}  // namespace

void Encode(cRequest const& req, kest::cSerializeBuffer& out) {
  switch (req.op) {
    case kOpSetWanSetup:
      PutString(out, req.setup);
      break;
    case kOpRouteSet:
      PutString(out, req.setup);
      PutString(out, req.key);
      out.WriteU32(req.network);
      out.WriteU32(req.netmask);
      out.WriteU8(req.selector);
      out.WriteU32(req.gateway);
      PutString(out, req.description);
      break;
    case kOpRouteDel:
      PutString(out, req.setup);
      PutString(out, req.key);
      break;
    case kOpDump:
    case kOpList:
      PutString(out, req.dir);
      break;
  }
}

bool Decode(std::uint16_t op, kest::cSerializeBuffer& in, cRequest& req, std::string& error) {
  req = cRequest{};
  bool ok = false;
  switch (op) {
    case kOpSetWanSetup:
      ok = GetString(in, req.setup);
      break;
    case kOpRouteSet:
      ok = GetString(in, req.setup) && GetString(in, req.key) && in.ReadU32(req.network) &&
           in.ReadU32(req.netmask) && in.ReadU8(req.selector) && in.ReadU32(req.gateway) &&
           GetString(in, req.description);
      break;
    case kOpRouteDel:
      ok = GetString(in, req.setup) && GetString(in, req.key);
      break;
    case kOpDump:
    case kOpList:
      ok = GetString(in, req.dir);
      break;
    default:
      error = kest::FormatString("unknown control operation %u", static_cast<unsigned>(op));
      return false;
  }
  req.op = static_cast<Op>(op);
  if (!ok) {
    error = kest::FormatString("malformed body of control operation %u", static_cast<unsigned>(op));
    return false;
  }
  if (!in.AtEnd()) {
    error = kest::FormatString("%zu trailing bytes after control operation %u", in.Remaining(),
                               static_cast<unsigned>(op));
    return false;
  }
  return true;
}

void Encode(cReply const& reply, kest::cSerializeBuffer& out) {
  out.WriteU32(static_cast<std::uint32_t>(reply.rc));
  std::string const text = reply.text.size() > kMaxReplyText
                               ? reply.text.substr(0, kMaxReplyText) + "\n... (cut)\n"
                               : reply.text;
  out.WriteU32(static_cast<std::uint32_t>(text.size()));
  out.Write(text.data(), text.size());
}

bool Decode(kest::cSerializeBuffer& in, cReply& reply, std::string& error) {
  std::uint32_t rc = 0, len = 0;
  if (!in.ReadU32(rc) || !in.ReadU32(len) || len != in.Remaining()) {
    error = "malformed control reply";
    return false;
  }
  reply.rc = static_cast<std::int32_t>(rc);
  reply.text.assign(reinterpret_cast<char const*>(in.Data() + in.Cursor()), len);
  return true;
}

}  // namespace ctl
}  // namespace datamgr
