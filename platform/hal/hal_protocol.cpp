#include "hal/hal_protocol.h"

#include <cerrno>

#include "kest/frame.h"
#include "kest/types.h"

namespace hal {

namespace halop {
char const* Name(std::uint16_t op) {
  switch (op) {
    case kConfigureIPGateway:
      return "ConfigureIPGateway";
    case kRemoveIPGateway:
      return "RemoveIPGateway";
    case kConfigureIpDefaultGateway:
      return "ConfigureIpDefaultGateway";
    case kRemoveIPDefaultGateway:
      return "RemoveIPDefaultGateway";
    case kRefreshStart:
      return "RefreshStart";
    case kRefreshEnd:
      return "RefreshEnd";
    case kListRoutes:
      return "ListRoutes";
    case kInjectFault:
      return "InjectFault";
    default:
      return nullptr;
  }
}
}  // namespace halop

namespace {

// Every field is written through one of these, and every reader fails the
// whole decode at its first miss, so a reader never sees half a request.
class cWriter {
 public:
  // Room for a whole route request up front: growing byte by byte from
  // empty reallocated the buffer half a dozen times per request.
  static constexpr std::size_t kTypicalBody = 128;
  explicit cWriter(kest::cSerializeBuffer& out) : m_out(out) {
    m_tmp.Bytes().reserve(kTypicalBody);
  }
  void Str(std::string const& s) {
    if (!kest::s_string(s).Serialize(m_tmp)) m_ok = false;
  }
  void U32(std::uint32_t v) { m_tmp.WriteU32(v); }
  void U16(std::uint16_t v) { m_tmp.WriteU16(v); }
  void Bool(bool v) { m_tmp.WriteU8(v ? 1 : 0); }
  bool Commit() {
    if (m_ok) m_out.Write(m_tmp.Data(), m_tmp.Size());
    return m_ok;
  }

 private:
  kest::cSerializeBuffer& m_out;
  kest::cSerializeBuffer m_tmp;
  bool m_ok = true;
};

class cReader {
 public:
  cReader(kest::cSerializeBuffer& in, std::string& error) : m_in(in), m_error(error) {}
  void Str(char const* what, std::string& s) {
    kest::s_string v;
    if (!m_ok) return;
    if (!v.Deserialize(m_in)) return Fail(what, "missing or malformed string");
    s = v.Get();
  }
  void U32(char const* what, std::uint32_t& v) {
    if (m_ok && !m_in.ReadU32(v)) Fail(what, "missing");
  }
  void U16(char const* what, std::uint16_t& v) {
    if (m_ok && !m_in.ReadU16(v)) Fail(what, "missing");
  }
  void Bool(char const* what, bool& v) {
    std::uint8_t b = 0;
    if (!m_ok) return;
    if (!m_in.ReadU8(b)) return Fail(what, "missing");
    if (b > 1) return Fail(what, "not 0 or 1");
    v = b == 1;
  }
  bool Finish() {
    if (m_ok && !m_in.AtEnd()) {
      Fail("body", (std::to_string(m_in.Remaining()) + " bytes left over").c_str());
    }
    return m_ok;
  }

 private:
  void Fail(char const* what, char const* why) {
    m_ok = false;
    m_error = std::string(what) + ": " + why;
  }
  kest::cSerializeBuffer& m_in;
  std::string& m_error;
  bool m_ok = true;
};

}  // namespace

bool EncodeRequest(cHalRequest const& req, kest::cSerializeBuffer& body) {
  cWriter w(body);
  switch (req.op) {
    case halop::kConfigureIPGateway:
      w.Str(req.network);
      w.Str(req.netmask);
      w.Str(req.gateway);
      w.Str(req.source);
      w.Str(req.ifname);
      w.U32(req.metric);
      w.Bool(req.gwAvailable);
      break;
    case halop::kRemoveIPGateway:
      w.Str(req.network);
      w.Str(req.netmask);
      w.Str(req.gateway);
      w.Bool(req.gwAvailable);
      break;
    case halop::kConfigureIpDefaultGateway:
      w.Str(req.gateway);
      w.U32(req.metric);
      break;
    case halop::kRemoveIPDefaultGateway:
      w.Str(req.gateway);
      break;
    case halop::kRefreshStart:
    case halop::kRefreshEnd:
      break;
    case halop::kListRoutes:
      w.U32(req.first);
      break;
    case halop::kInjectFault:
      w.U16(req.faultOp);
      w.U32(static_cast<std::uint32_t>(req.faultCode));
      w.U32(req.faultCount);
      break;
    default:
      return false;
  }
  return w.Commit();
}

bool DecodeRequest(std::uint16_t op, kest::cSerializeBuffer& body, cHalRequest& out,
                   std::string& error) {
  cHalRequest req;
  req.op = op;
  cReader r(body, error);
  switch (op) {
    case halop::kConfigureIPGateway:
      r.Str("network", req.network);
      r.Str("netmask", req.netmask);
      r.Str("gateway", req.gateway);
      r.Str("source", req.source);
      r.Str("ifname", req.ifname);
      r.U32("metric", req.metric);
      r.Bool("gwAvailable", req.gwAvailable);
      break;
    case halop::kRemoveIPGateway:
      r.Str("network", req.network);
      r.Str("netmask", req.netmask);
      r.Str("gateway", req.gateway);
      r.Bool("gwAvailable", req.gwAvailable);
      break;
    case halop::kConfigureIpDefaultGateway:
      r.Str("gateway", req.gateway);
      r.U32("metric", req.metric);
      break;
    case halop::kRemoveIPDefaultGateway:
      r.Str("gateway", req.gateway);
      break;
    case halop::kRefreshStart:
    case halop::kRefreshEnd:
      break;
    case halop::kListRoutes:
      r.U32("first", req.first);
      break;
    case halop::kInjectFault: {
      std::uint32_t code = 0;
      r.U16("faultOp", req.faultOp);
      r.U32("faultCode", code);
      r.U32("faultCount", req.faultCount);
      req.faultCode = static_cast<std::int32_t>(code);
      break;
    }
    default:
      error = "unknown operation " + std::to_string(op);
      return false;
  }
  if (!r.Finish()) return false;
  out = std::move(req);
  return true;
}

void EncodeResult(int result, kest::cSerializeBuffer& body) {
  body.WriteU32(static_cast<std::uint32_t>(static_cast<std::int32_t>(result)));
}

bool DecodeResult(kest::cSerializeBuffer& body, int& out, std::string& error) {
  std::uint32_t v = 0;
  cReader r(body, error);
  r.U32("result", v);
  if (!r.Finish()) return false;
  out = static_cast<std::int32_t>(v);
  return true;
}

bool EncodeRouteList(cRouteList const& list, kest::cSerializeBuffer& body) {
  cWriter w(body);
  w.U32(static_cast<std::uint32_t>(list.result));
  w.U32(static_cast<std::uint32_t>(list.lines.size()));
  for (auto const& line : list.lines) w.Str(line);
  w.Bool(list.more);
  return w.Commit();
}

void EncodeRoutePiece(std::vector<std::string> const& lines, kest::cSerializeBuffer& body) {
  // result, count and the flag around the lines; each line its string header.
  constexpr std::size_t kFixed = 4 + 4 + 1, kPerLine = 5;
  std::size_t room = kest::kMaxFrame - kest::kFrameHeader - kFixed;
  cRouteList piece;
  std::size_t i = 0;
  for (; i < lines.size() && kPerLine + lines[i].size() <= room; ++i) {
    room -= kPerLine + lines[i].size();
    piece.lines.push_back(lines[i]);
  }
  piece.more = i < lines.size();
  if (!EncodeRouteList(piece, body) || (piece.more && piece.lines.empty())) {
    // A line that cannot travel at all (never one a proxy writes).
    body.Clear();
    piece = cRouteList{};
    piece.result = -EMSGSIZE;
    EncodeRouteList(piece, body);
  }
}

bool CollectRoutePiece(cRouteList const& piece, std::vector<std::string>& lines,
                       std::string& error) {
  if (piece.more && piece.lines.empty()) {
    error = "more routes announced and none sent";
    return false;
  }
  if (lines.size() + piece.lines.size() > kMaxListedRoutes) {
    error = "more than " + std::to_string(kMaxListedRoutes) + " routes";
    return false;
  }
  lines.insert(lines.end(), piece.lines.begin(), piece.lines.end());
  return true;
}

bool DecodeRouteList(kest::cSerializeBuffer& body, cRouteList& list, std::string& error) {
  std::uint32_t rc = 0, count = 0;
  cReader r(body, error);
  r.U32("result", rc);
  r.U32("count", count);
  cRouteList out;
  // Each string takes at least 5 bytes (version and length), so a count
  // beyond that is a lie and must not make us reserve memory for it.
  if (count > body.Remaining() / 5) {
    error = "count: " + std::to_string(count) + " lines cannot fit in " +
            std::to_string(body.Remaining()) + " bytes";
    return false;
  }
  for (std::uint32_t i = 0; i < count; ++i) {
    std::string line;
    r.Str("line", line);
    out.lines.push_back(std::move(line));
  }
  r.Bool("more", out.more);
  if (!r.Finish()) return false;
  out.result = static_cast<std::int32_t>(rc);
  list = std::move(out);
  return true;
}

namespace {
// Request strings come from a peer: keep a log line one line and short.
std::string Printable(std::string const& s) {
  constexpr std::size_t kMaxShown = 64;
  std::string out;
  for (char c : s.substr(0, kMaxShown)) {
    out += (c >= 0x20 && c < 0x7f) ? c : '?';
  }
  if (s.size() > kMaxShown) out += "...";
  return out;
}
}  // namespace

std::string Describe(cHalRequest const& req) {
  char const* name = halop::Name(req.op);
  std::string s = name ? name : "op" + std::to_string(req.op);
  std::string const avail = req.gwAvailable ? " avail=1" : " avail=0";
  switch (req.op) {
    case halop::kConfigureIPGateway:
      return s + " " + Printable(req.network) + "/" + Printable(req.netmask) + " via " +
             Printable(req.gateway) + " dev " + (req.ifname.empty() ? "-" : Printable(req.ifname)) +
             " src " + Printable(req.source) + " metric " + std::to_string(req.metric) + avail;
    case halop::kRemoveIPGateway:
      return s + " " + Printable(req.network) + "/" + Printable(req.netmask) + " via " +
             Printable(req.gateway) + avail;
    case halop::kConfigureIpDefaultGateway:
      return s + " " + Printable(req.gateway) + " metric " + std::to_string(req.metric);
    case halop::kRemoveIPDefaultGateway:
      return s + " " + Printable(req.gateway);
    case halop::kListRoutes:
      return s + " from " + std::to_string(req.first);
    case halop::kInjectFault: {
      char const* target = halop::Name(req.faultOp);
      return s + " " + (target ? target : "op" + std::to_string(req.faultOp)) + " code " +
             std::to_string(req.faultCode) + " count " + std::to_string(req.faultCount);
    }
    default:
      return s;
  }
}

}  // namespace hal
