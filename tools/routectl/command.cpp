#include "routectl/command.h"

#include <arpa/inet.h>

#include <limits>
#include <type_traits>

#include "kest/types.h"

namespace routectl {

namespace {

using Words = std::vector<std::string_view>;

bool IsBlank(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
}

// A word as it appears in an error message: bounded and printable, since
// batch input may hold anything.
std::string Quote(std::string_view word) {
  constexpr std::size_t kShown = 40;
  std::string out = "'";
  for (std::size_t i = 0; i < word.size() && i < kShown; ++i) {
    unsigned char c = static_cast<unsigned char>(word[i]);
    out += (c >= 0x20 && c < 0x7f) ? static_cast<char>(c) : '?';
  }
  if (word.size() > kShown) out += "...";
  return out + "'";
}

cParsed Error(std::string text) {
  cParsed p;
  p.kind = cParsed::kError;
  p.error = std::move(text);
  return p;
}

cParsed Command(routeIO::routeCommand cmd) {
  cParsed p;
  p.kind = cParsed::kCommand;
  p.command = std::move(cmd);
  return p;
}

bool ParseU32(std::string_view text, std::uint32_t& out) {
  if (text.empty() || text.size() > 10) return false;
  std::uint64_t v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + static_cast<std::uint64_t>(c - '0');
  }
  if (v > std::numeric_limits<std::uint32_t>::max()) return false;
  out = static_cast<std::uint32_t>(v);
  return true;
}

bool CheckTag(std::string_view tag, std::string& error) {
  if (tag.size() > kest::s_string::kMaxLength) {
    error = "tag longer than " + std::to_string(kest::s_string::kMaxLength) + " bytes";
    return false;
  }
  return true;
}

// The optional "NAME VALUE" pairs after a command's fixed words. Each name
// may appear once; the value is taken as is and checked by the caller.
struct cOptionWords {
  std::string_view dev, type, metric, src, via;
  bool hasDev = false, hasType = false, hasMetric = false, hasSrc = false, hasVia = false;
};

bool TakeOptions(Words const& words, std::size_t from, std::vector<std::string_view> const& allowed,
                 cOptionWords& out, std::string& error) {
  for (std::size_t i = from; i < words.size(); i += 2) {
    std::string_view name = words[i];
    bool known = false;
    for (auto a : allowed) known = known || a == name;
    if (!known) {
      std::string list;
      for (auto a : allowed) list += (list.empty() ? "" : ", ") + std::string(a);
      error = "unexpected word " + Quote(name) + " (expected one of: " + list + ")";
      return false;
    }
    if (i + 1 >= words.size()) {
      error = "'" + std::string(name) + "' needs a value";
      return false;
    }
    std::string_view value = words[i + 1];
    struct {
      std::string_view key;
      std::string_view* slot;
      bool* seen;
    } const slots[] = {{"dev", &out.dev, &out.hasDev},
                       {"type", &out.type, &out.hasType},
                       {"metric", &out.metric, &out.hasMetric},
                       {"src", &out.src, &out.hasSrc},
                       {"via", &out.via, &out.hasVia}};
    for (auto const& s : slots) {
      if (s.key != name) continue;
      if (*s.seen) {
        error = "'" + std::string(name) + "' given twice";
        return false;
      }
      *s.seen = true;
      *s.slot = value;
    }
  }
  return true;
}

bool TakeDev(cOptionWords const& o, std::string& ifname, std::string& error) {
  if (!o.hasDev) return true;
  if (o.dev.size() > kMaxIfName) {
    error = "interface name " + Quote(o.dev) + " longer than " + std::to_string(kMaxIfName) +
            " characters";
    return false;
  }
  ifname = std::string(o.dev);
  return true;
}

bool TakeMetric(cOptionWords const& o, std::uint32_t& metric, std::string& error) {
  if (o.hasMetric && !ParseU32(o.metric, metric)) {
    error = "bad metric " + Quote(o.metric) + " (a number 0..4294967295)";
    return false;
  }
  return true;
}

bool TakeAddress(std::string_view what, std::string_view text, kest::s_socket_addr& out,
                 std::string& error) {
  std::uint32_t ip = 0;
  if (!ParseIPv4(text, ip)) {
    error = "bad " + std::string(what) + " address " + Quote(text) + " (a.b.c.d)";
    return false;
  }
  out = kest::s_socket_addr(ip, 0);
  return true;
}

cParsed ParseGateway(Words const& w) {
  std::string error;
  if (w.size() < 2) return Error("'gateway' needs 'set' or 'del'");
  if (w[1] == "del" || w[1] == "delete") {
    if (w.size() < 3) return Error("usage: gateway del TAG");
    if (w.size() > 3) return Error("unexpected word " + Quote(w[3]) + " after the tag");
    if (!CheckTag(w[2], error)) return Error(error);
    return Command(routeIO::cDelGatewayCmd{std::string(w[2])});
  }
  if (w[1] != "set" && w[1] != "add")
    return Error("unknown gateway command " + Quote(w[1]) + " (set or del)");
  if (w.size() < 4) return Error("usage: gateway set TAG ADDR [dev IF] [type T] [metric N]");
  routeIO::cSetGatewayCmd cmd;
  cmd.tag = std::string(w[2]);
  cmd.type = kTypeNormal;
  cOptionWords o;
  if (!CheckTag(w[2], error) || !TakeAddress("gateway", w[3], cmd.address, error) ||
      !TakeOptions(w, 4, {"dev", "type", "metric"}, o, error) || !TakeDev(o, cmd.ifname, error) ||
      !TakeMetric(o, cmd.priority, error))
    return Error(error);
  if (o.hasType) {
    if (o.type == "default") {
      cmd.type = kTypeDefault;
    } else if (o.type == "normal") {
      cmd.type = kTypeNormal;
    } else if (!ParseU32(o.type, cmd.type)) {
      return Error("bad type " + Quote(o.type) + " (default, normal or a number)");
    }
  }
  return Command(cmd);
}

cParsed ParseRoute(Words const& w) {
  std::string error;
  if (w.size() < 2) return Error("'route' needs 'set' or 'del'");
  if (w[1] == "del" || w[1] == "delete") {
    if (w.size() < 3) return Error("usage: route del TAG");
    if (w.size() > 3) return Error("unexpected word " + Quote(w[3]) + " after the tag");
    if (!CheckTag(w[2], error)) return Error(error);
    return Command(routeIO::cDelRouteCmd{std::string(w[2])});
  }
  if (w[1] != "set" && w[1] != "add")
    return Error("unknown route command " + Quote(w[1]) + " (set or del)");
  if (w.size() < 4)
    return Error("usage: route set TAG PREFIX via GW [dev IF] [src ADDR] [metric N]");
  routeIO::cSetRouteCmd cmd;
  cmd.tag = std::string(w[2]);
  std::uint32_t network = 0, netmask = 0;
  if (!CheckTag(w[2], error) || !ParsePrefix(w[3], network, netmask, error)) return Error(error);
  cmd.network = kest::s_socket_addr(network, 0);
  cmd.netmask = kest::s_socket_addr(netmask, 0);
  cOptionWords o;
  if (!TakeOptions(w, 4, {"via", "dev", "src", "metric"}, o, error)) return Error(error);
  if (!o.hasVia) return Error("'via GW' is missing");
  if (!TakeAddress("gateway", o.via, cmd.gateway, error) ||
      (o.hasSrc && !TakeAddress("source", o.src, cmd.source, error)) ||
      !TakeDev(o, cmd.ifname, error) || !TakeMetric(o, cmd.priority, error))
    return Error(error);
  return Command(cmd);
}

}  // namespace

bool ParseIPv4(std::string_view text, std::uint32_t& ip) {
  in_addr addr{};
  if (inet_pton(AF_INET, std::string(text).c_str(), &addr) != 1) return false;
  ip = ntohl(addr.s_addr);
  return true;
}

bool ParsePrefix(std::string_view text, std::uint32_t& network, std::uint32_t& netmask,
                 std::string& error) {
  if (text == "default") {
    network = 0;
    netmask = 0;
    return true;
  }
  std::size_t slash = text.find('/');
  std::string_view addr = text.substr(0, slash);
  if (!ParseIPv4(addr, network)) {
    error = "bad prefix " + Quote(text) + " (a.b.c.d/len or a.b.c.d/netmask)";
    return false;
  }
  if (slash == std::string_view::npos) {
    netmask = 0xffffffffu;
    return true;
  }
  std::string_view rest = text.substr(slash + 1);
  std::uint32_t len = 0;
  if (rest.find('.') == std::string_view::npos) {
    if (!ParseU32(rest, len) || len > 32) {
      error = "bad prefix length in " + Quote(text) + " (0..32)";
      return false;
    }
    netmask = len == 0 ? 0 : 0xffffffffu << (32 - len);
    return true;
  }
  if (!ParseIPv4(rest, netmask)) {
    error = "bad netmask in " + Quote(text);
    return false;
  }
  // Contiguous: the inverted mask plus one is a power of two (or zero).
  std::uint32_t inverted = ~netmask;
  if ((inverted & (inverted + 1)) != 0) {
    error = "netmask in " + Quote(text) + " is not contiguous";
    return false;
  }
  return true;
}

cParsed ParseWords(Words const& words) {
  if (words.empty()) return cParsed{};
  std::string_view object = words[0];
  if (object == "gateway" || object == "gw") return ParseGateway(words);
  if (object == "route") return ParseRoute(words);
  return Error("unknown command " + Quote(object) + " (gateway or route)");
}

cParsed ParseLine(std::string_view line) {
  Words words;
  std::size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && IsBlank(line[i])) ++i;
    if (i >= line.size() || line[i] == '#') break;
    std::size_t start = i;
    while (i < line.size() && !IsBlank(line[i])) ++i;
    words.push_back(line.substr(start, i - start));
  }
  return ParseWords(words);
}

std::string Verb(routeIO::routeCommand const& command) {
  return std::visit(
      [](auto const& c) -> std::string {
        using T = std::decay_t<decltype(c)>;
        if constexpr (std::is_same_v<T, routeIO::cSetGatewayCmd>) return "gateway set";
        if constexpr (std::is_same_v<T, routeIO::cDelGatewayCmd>) return "gateway del";
        if constexpr (std::is_same_v<T, routeIO::cSetRouteCmd>) return "route set";
        return "route del";
      },
      command);
}

std::string const& TagOf(routeIO::routeCommand const& command) {
  return std::visit([](auto const& c) -> std::string const& { return c.tag; }, command);
}

}  // namespace routectl
