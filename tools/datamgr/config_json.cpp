#include "config_json.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <nlohmann/json.hpp>
#include <set>

#include "datastore/records/db_wan_routing_collection.h"
#include "kest/format.h"

namespace datamgr {

namespace {

using json = nlohmann::json;

// The DOM builder of nlohmann-json with its parse error taken over: the
// position is kept instead of thrown.
class cDomBuilder : public nlohmann::detail::json_sax_dom_parser<json> {
 public:
  explicit cDomBuilder(json& root) : json_sax_dom_parser(root, false) {}
  template <class Exception>
  bool parse_error(std::size_t position, std::string const& /*token*/, Exception const& ex) {
    failed = true;
    errorPosition = position;
    errorText = ex.what();
    return false;
  }
  bool failed = false;
  std::size_t errorPosition = 0;
  std::string errorText;
};

// nlohmann's text is "[json.exception...] parse error at line L, column C: why".
std::string SyntaxReason(std::string const& what) {
  std::size_t const at = what.find("parse error");
  std::size_t const colon = what.find(": ", at == std::string::npos ? 0 : at);
  return colon == std::string::npos ? what : what.substr(colon + 2);
}

void LineAndColumn(std::string const& text, std::size_t position, std::size_t& line,
                   std::size_t& column) {
  // The position counts the characters read, the offending one included.
  std::size_t const end = std::min(position == 0 ? 0 : position - 1, text.size());
  line = 1;
  column = 1;
  for (std::size_t i = 0; i < end; ++i) {
    if (text[i] == '\n') {
      ++line;
      column = 1;
    } else {
      ++column;
    }
  }
}

// Reads the members of one JSON object into record fields, remembering the
// first problem and refusing keys nobody asked for (a typo must not pass
// silently).
class cObjectReader {
 public:
  cObjectReader(json const& value, std::string path, std::string& error)
      : m_value(value), m_path(std::move(path)), m_error(error) {
    if (!value.is_object()) Fail(m_path, "must be an object");
  }

  bool Ok() const { return m_error.empty(); }

  json const* Take(char const* key) {
    if (!Ok()) return nullptr;
    m_known.insert(key);
    auto const it = m_value.find(key);
    return it == m_value.end() ? nullptr : &*it;
  }

  std::string PathOf(std::string const& key) const {
    return m_path.empty() ? key : m_path + "/" + key;
  }

  void Fail(std::string const& path, std::string const& reason) {
    if (m_error.empty()) m_error = (path.empty() ? std::string("top level") : path) + ": " + reason;
  }

  template <typename T>
  bool Unsigned(char const* key, T& out) {
    json const* v = Take(key);
    if (v == nullptr) return false;
    if (!v->is_number_unsigned() || v->get<std::uint64_t>() > std::numeric_limits<T>::max()) {
      Fail(PathOf(key),
           kest::FormatString("must be a whole number from 0 to %llu",
                              static_cast<unsigned long long>(std::numeric_limits<T>::max())));
      return false;
    }
    out = static_cast<T>(v->get<std::uint64_t>());
    return true;
  }

  void Field(char const* key, kest::s_uint8& f) { Int(key, f); }
  void Field(char const* key, kest::s_uint16& f) { Int(key, f); }
  void Field(char const* key, kest::s_uint32& f) { Int(key, f); }
  void Field(char const* key, kest::s_uint64& f) { Int(key, f); }

  void Field(char const* key, kest::s_int8& f) {
    json const* v = Take(key);
    if (v == nullptr) return;
    if (!v->is_number_integer() || v->get<std::int64_t>() < -128 || v->get<std::int64_t>() > 127) {
      Fail(PathOf(key), "must be a whole number from -128 to 127");
      return;
    }
    f.Set(static_cast<std::int8_t>(v->get<std::int64_t>()));
  }

  void Field(char const* key, kest::s_bool& f) {
    json const* v = Take(key);
    if (v == nullptr) return;
    if (!v->is_boolean()) {
      Fail(PathOf(key), "must be true or false");
      return;
    }
    f.Set(v->get<bool>());
  }

  bool String(char const* key, std::string& out, std::size_t maxLength) {
    json const* v = Take(key);
    if (v == nullptr) return false;
    if (!v->is_string()) {
      Fail(PathOf(key), "must be a string");
      return false;
    }
    if (v->get_ref<std::string const&>().size() > maxLength) {
      Fail(PathOf(key), kest::FormatString("longer than %zu characters", maxLength));
      return false;
    }
    out = v->get<std::string>();
    return true;
  }

  void Field(char const* key, kest::s_string& f) {
    std::string text;
    if (String(key, text, kMaxDescription)) f.Set(text);
  }

  bool Address(char const* key, std::uint32_t& ip) {
    std::string text;
    if (!String(key, text, 15)) return false;
    if (!ParseIPv4(text, ip)) {
      Fail(PathOf(key), "\"" + text + "\" is not a dotted IPv4 address");
      return false;
    }
    return true;
  }

  void Field(char const* key, kest::s_socket_addr& f) {
    std::uint32_t ip = 0;
    if (Address(key, ip)) f = kest::s_socket_addr(ip, 0);
  }

  void Field(char const* key, dataIO::StringSet& f) {
    json const* v = Take(key);
    if (v == nullptr) return;
    if (!v->is_array()) {
      Fail(PathOf(key), "must be a list of strings");
      return;
    }
    dataIO::StringSet set;
    for (auto const& e : *v) {
      if (!e.is_string()) {
        Fail(PathOf(key), "must be a list of strings");
        return;
      }
      set.insert(kest::s_string(e.get<std::string>()));
    }
    f = set;
  }

  // Members of the object that no Field/Take asked for.
  bool Finish() {
    if (!Ok()) return false;
    for (auto const& item : m_value.items()) {
      if (m_known.count(item.key()) == 0) {
        Fail(PathOf(item.key()), "unknown key");
        return false;
      }
    }
    return true;
  }

 private:
  template <typename S>
  void Int(char const* key, S& f) {
    decltype(f.Get()) v{};
    if (Unsigned(key, v)) f.Set(v);
  }

  json const& m_value;
  std::string m_path;
  std::string& m_error;
  std::set<std::string> m_known;
};

void ReadConnection(json const& v, std::string const& path, dataIO::cDBStatusConnection& r,
                    std::string& error) {
  cObjectReader o(v, path, error);
  o.Field("online", r.m_online);
  o.Field("activeWan", r.m_activeWan);
  o.Field("onlineSeconds", r.m_onlineSeconds);
  o.Finish();
}

void ReadWiredWan(json const& v, std::string const& path, dataIO::cDBStatusWiredWan& r,
                  std::string& error) {
  cObjectReader o(v, path, error);
  o.Field("linkState", r.m_linkState);
  o.Field("cablePlugged", r.m_cablePlugged);
  o.Field("dhcpEnabled", r.m_dhcpEnabled);
  o.Field("interface", r.m_interfaceName);
  o.Field("ipAddress", r.m_ipAddress);
  o.Field("netmask", r.m_netmask);
  o.Field("gateway", r.m_gateway);
  o.Field("dns1", r.m_dns1);
  o.Field("dns2", r.m_dns2);
  o.Field("dhcpServer", r.m_dhcpServer);
  o.Field("mtu", r.m_mtu);
  o.Field("linkSpeed", r.m_linkSpeed);
  o.Field("searchDomains", r.m_searchDomains);
  o.Field("duplex", r.m_duplex);
  o.Field("addressSource", r.m_addressSource);
  o.Finish();
}

void ReadWirelessWan(json const& v, std::string const& path, dataIO::cDBStatusWirelessWan& r,
                     std::string& error) {
  cObjectReader o(v, path, error);
  o.Field("linkState", r.m_linkState);
  o.Field("simPresent", r.m_simPresent);
  o.Field("roaming", r.m_roaming);
  o.Field("signalStrength", r.m_signalStrength);
  o.Field("signalQuality", r.m_signalQuality);
  o.Field("signalToNoise", r.m_signalToNoise);
  o.Field("operator", r.m_operatorName);
  o.Field("technology", r.m_technology);
  o.Field("ipAddress", r.m_ipAddress);
  o.Field("netmask", r.m_netmask);
  o.Field("gateway", r.m_gateway);
  o.Field("dns", r.m_dns);
  o.Field("apn", r.m_apn);
  o.Field("interface", r.m_interfaceName);
  o.Field("modemModel", r.m_modemModel);
  o.Field("registrationState", r.m_registrationState);
  o.Finish();
}

void ReadLan(json const& v, std::string const& path, dataIO::cDBStatusLan& r, std::string& error) {
  cObjectReader o(v, path, error);
  o.Field("linkUp", r.m_linkUp);
  o.Field("portMask", r.m_portMask);
  o.Field("interfaces", r.m_interfaces);
  o.Field("ipAddress", r.m_ipAddress);
  o.Field("netmask", r.m_netmask);
  o.Field("hostName", r.m_hostName);
  o.Field("dhcpMode", r.m_dhcpMode);
  o.Finish();
}

void ReadStatus(json const& v, cDeviceConfig& cfg, std::string& error) {
  cObjectReader o(v, "status", error);
  std::string setup;
  if (o.String("wanSetup", setup, kMaxDescription)) cfg.wan.m_wanSetupName.Set(setup);
  o.Field("wanState", cfg.wan.m_wanState);
  if (json const* c = o.Take("connection"))
    ReadConnection(*c, "status/connection", cfg.connection, error);
  if (json const* w = o.Take("wiredWan")) ReadWiredWan(*w, "status/wiredWan", cfg.wiredWan, error);
  if (json const* w = o.Take("wirelessWan"))
    ReadWirelessWan(*w, "status/wirelessWan", cfg.wirelessWan, error);
  if (json const* l = o.Take("lan")) ReadLan(*l, "status/lan", cfg.lan, error);
  o.Finish();
}

bool ValidName(std::string const& name) {
  return !name.empty() && name.find('/') == std::string::npos;
}

void ReadRoute(json const& v, std::string const& path, std::string const& setup,
               std::string const& key, RouteTable& table, std::string& error) {
  cObjectReader o(v, path, error);
  std::uint32_t network = 0, netmask = 0, gateway = 0;
  std::string via, description;
  std::uint8_t selector = 0;
  bool const haveNetwork = o.Address("network", network);
  bool const haveNetmask = o.Address("netmask", netmask);
  bool const haveVia = o.String("via", via, 16);
  bool const haveGateway = o.Address("gateway", gateway);
  o.String("description", description, kMaxDescription);
  if (!o.Finish()) return;
  if (!haveNetwork || !haveNetmask || !haveVia) {
    o.Fail(path, "needs \"network\", \"netmask\" and \"via\"");
  } else if (!IsContiguousMask(netmask)) {
    o.Fail(o.PathOf("netmask"), "is not a contiguous netmask");
  } else if (!SelectorFromText(via, selector)) {
    o.Fail(o.PathOf("via"), "\"" + via + "\" is none of wired, wireless, vpn, own");
  } else if (selector == dataIO::kGwSelectorOwn && !haveGateway) {
    o.Fail(path, "via \"own\" needs a \"gateway\"");
  } else if (selector != dataIO::kGwSelectorOwn && haveGateway) {
    o.Fail(o.PathOf("gateway"), "is only used with via \"own\"");
  } else {
    table.insert_or_assign(key,
                           MakeRoute(setup, key, network, netmask, selector, gateway, description));
  }
}

void ReadWanSetups(json const& v, cDeviceConfig& cfg, std::string& error) {
  cObjectReader setups(v, "wanSetups", error);
  if (!setups.Ok()) return;
  for (auto const& s : v.items()) {
    std::string const setupPath = setups.PathOf(s.key());
    if (!ValidName(s.key())) {
      setups.Fail(setupPath, "a WAN setup name must be non-empty and without '/'");
      return;
    }
    cObjectReader setup(s.value(), setupPath, error);
    RouteTable& table = cfg.wanSetups[s.key()];
    std::string ignored;
    setup.String("description", ignored, kMaxDescription);
    if (json const* routing = setup.Take("routing")) {
      cObjectReader routes(*routing, setupPath + "/routing", error);
      if (!routes.Ok()) return;
      for (auto const& r : routing->items()) {
        if (!ValidName(r.key())) {
          routes.Fail(routes.PathOf(r.key()), "a route key must be non-empty and without '/'");
          return;
        }
        ReadRoute(r.value(), routes.PathOf(r.key()), s.key(), r.key(), table, error);
        if (!error.empty()) return;
      }
    }
    if (!setup.Finish()) return;
  }
}

}  // namespace

bool IsContiguousMask(std::uint32_t mask) {
  std::uint32_t const inverted = ~mask;
  return (inverted & (inverted + 1)) == 0;
}

bool ParseIPv4(std::string const& text, std::uint32_t& ip) {
  in_addr addr{};
  if (inet_pton(AF_INET, text.c_str(), &addr) != 1) return false;
  ip = ntohl(addr.s_addr);
  return true;
}

bool ParsePrefix(std::string const& text, std::uint32_t& network, std::uint32_t& netmask,
                 std::string& error) {
  std::size_t const slash = text.find('/');
  if (slash == std::string::npos) {
    error = "\"" + text + "\" is no prefix (a.b.c.d/len or a.b.c.d/m.m.m.m)";
    return false;
  }
  if (!ParseIPv4(text.substr(0, slash), network)) {
    error = "\"" + text.substr(0, slash) + "\" is not a dotted IPv4 address";
    return false;
  }
  std::string const mask = text.substr(slash + 1);
  if (mask.find('.') != std::string::npos) {
    if (!ParseIPv4(mask, netmask) || !IsContiguousMask(netmask)) {
      error = "\"" + mask + "\" is not a contiguous netmask";
      return false;
    }
    return true;
  }
  if (mask.empty() || mask.size() > 2 ||
      mask.find_first_not_of("0123456789") != std::string::npos || std::stoi(mask) > 32) {
    error = "\"" + mask + "\" is no prefix length (0 to 32)";
    return false;
  }
  int const len = std::stoi(mask);
  netmask = len == 0 ? 0 : ~std::uint32_t{0} << (32 - len);
  return true;
}

bool ParseDeviceConfig(std::string const& text, cDeviceConfig& out, std::string& error) {
  json root;
  cDomBuilder builder(root);
  json::sax_parse(text, &builder);
  if (builder.failed) {
    std::size_t line = 0, column = 0;
    LineAndColumn(text, builder.errorPosition, line, column);
    error = kest::FormatString("line %zu, column %zu: %s", line, column,
                               SyntaxReason(builder.errorText).c_str());
    return false;
  }
  cDeviceConfig cfg;
  std::string problem;
  cObjectReader top(root, "", problem);
  if (json const* status = top.Take("status")) ReadStatus(*status, cfg, problem);
  if (json const* setups = top.Take("wanSetups")) ReadWanSetups(*setups, cfg, problem);
  top.Finish();
  if (!problem.empty()) {
    error = problem;
    return false;
  }
  out = std::move(cfg);
  return true;
}

bool LoadDeviceConfig(std::string const& path, cDeviceConfig& out, std::string& error) {
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) {
    error = path + ": cannot open: " + std::strerror(errno);
    return false;
  }
  std::string text;
  char buf[4096];
  std::size_t n = 0;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0 && text.size() <= kMaxConfigBytes)
    text.append(buf, n);
  bool const readError = std::ferror(f) != 0;
  std::fclose(f);
  if (readError) {
    error = path + ": read error";
    return false;
  }
  if (text.size() > kMaxConfigBytes) {
    error = kest::FormatString("%s: larger than %zu bytes", path.c_str(), kMaxConfigBytes);
    return false;
  }
  std::string why;
  if (ParseDeviceConfig(text, out, why)) return true;
  // "line L, column C: ..." becomes "PATH:L:C: ..." as compilers write it.
  unsigned long line = 0, column = 0;
  int consumed = 0;
  if (std::sscanf(why.c_str(), "line %lu, column %lu: %n", &line, &column, &consumed) == 2 &&
      consumed > 0) {
    error =
        kest::FormatString("%s:%lu:%lu: %s", path.c_str(), line, column, why.c_str() + consumed);
  } else {
    error = path + ": " + why;
  }
  return false;
}

}  // namespace datamgr
