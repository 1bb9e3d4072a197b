#include "routectl/answer.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "kest/service_client.h"
#include "routeIO/route_errors.h"
#include "routectl/command.h"

namespace routectl {

namespace {

// Kernel failures come back as -errno; anything below this is not one.
constexpr std::int32_t kLowestErrno = -4095;

// Length of the valid UTF-8 sequence starting at s[i], or 0 when it is not one.
std::size_t Utf8Length(std::string const& s, std::size_t i) {
  unsigned char c = static_cast<unsigned char>(s[i]);
  std::size_t n;
  std::uint32_t cp;
  if (c < 0x80) return 1;
  if (c >= 0xc2 && c <= 0xdf) {
    n = 2;
    cp = c & 0x1f;
  } else if (c >= 0xe0 && c <= 0xef) {
    n = 3;
    cp = c & 0x0f;
  } else if (c >= 0xf0 && c <= 0xf4) {
    n = 4;
    cp = c & 0x07;
  } else {
    return 0;
  }
  if (i + n > s.size()) return 0;
  for (std::size_t k = 1; k < n; ++k) {
    unsigned char cc = static_cast<unsigned char>(s[i + k]);
    if ((cc & 0xc0) != 0x80) return 0;
    cp = (cp << 6) | (cc & 0x3f);
  }
  bool overlong = (n == 3 && cp < 0x800) || (n == 4 && cp < 0x10000);
  bool surrogate = cp >= 0xd800 && cp <= 0xdfff;
  if (overlong || surrogate || cp > 0x10ffff) return 0;
  return n;
}

std::string Head(unsigned line, routeIO::routeCommand const& command) {
  std::string out = "{";
  if (line != 0) out += "\"line\":" + std::to_string(line) + ",";
  out += "\"command\":" + JsonString(Verb(command));
  out += ",\"tag\":" + JsonString(TagOf(command));
  return out;
}

}  // namespace

std::string CodeText(routeIO::routeCommand const& command, std::int32_t rc) {
  if (rc == kUnknownTag && std::holds_alternative<routeIO::cDelRouteCmd>(command))
    return "unknown tag";
  if (char const* name = routeIO::routeerr::Name(rc)) return name;
  // The route manager passes its HAL client's failures on unchanged.
  if (char const* name = kest::clienterr::Name(rc)) return std::string("HAL proxy ") + name;
  if (rc < 0 && rc >= kLowestErrno) return std::strerror(-rc);
  return "";
}

std::string AnswerText(routeIO::routeCommand const& command, routeIO::routeResult const& result) {
  if (result.success && result.rc == 0) return "ok";
  std::string out = "rc=" + std::to_string(result.rc);
  std::string text = CodeText(command, result.rc);
  if (!text.empty()) out += " " + text;
  return out;
}

std::string AnswerJson(unsigned line, routeIO::routeCommand const& command,
                       routeIO::routeResult const& result) {
  bool ok = result.success && result.rc == 0;
  std::string out = Head(line, command);
  out += ",\"ok\":" + std::string(ok ? "true" : "false");
  out += ",\"rc\":" + std::to_string(result.rc);
  if (!ok) out += ",\"error\":" + JsonString(CodeText(command, result.rc));
  return out + "}";
}

std::string SyntaxErrorJson(unsigned line, std::string const& error) {
  std::string out = "{";
  if (line != 0) out += "\"line\":" + std::to_string(line) + ",";
  return out + "\"ok\":false,\"syntax_error\":" + JsonString(error) + "}";
}

std::string JsonString(std::string const& text) {
  std::string out = "\"";
  for (std::size_t i = 0; i < text.size();) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    std::size_t n = Utf8Length(text, i);
    if (n > 1) {
      out.append(text, i, n);
      i += n;
      continue;
    }
    ++i;
    switch (c) {
      case '"':
        out += "\\\"";
        continue;
      case '\\':
        out += "\\\\";
        continue;
      case '\n':
        out += "\\n";
        continue;
      case '\t':
        out += "\\t";
        continue;
      case '\r':
        out += "\\r";
        continue;
      default:
        break;
    }
    if (c < 0x20 || c == 0x7f || n == 0) {
      char buf[8];
      std::snprintf(buf, sizeof(buf), "\\u%04x", c);
      out += buf;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

std::string HalRouteJson(std::string const& line) {
  std::vector<std::string> words;
  for (std::size_t pos = 0; pos < line.size();) {
    std::size_t const end = std::min(line.find(' ', pos), line.size());
    if (end > pos) words.push_back(line.substr(pos, end - pos));
    pos = end + 1;
  }
  std::string out = "{";
  std::size_t i = 0;
  if (!words.empty() && (words[0] == "unreachable" || words[0] == "other")) {
    out += "\"type\":" + JsonString(words[0]) + ",";
    ++i;
  }
  out += "\"dst\":" + JsonString(i < words.size() ? words[i] : "");
  for (++i; i + 1 < words.size(); i += 2) {
    std::string const& v = words[i + 1];
    bool const number = words[i] == "metric" && v.size() <= 10 &&
                        v.find_first_not_of("0123456789") == std::string::npos;
    out += "," + JsonString(words[i]) + ":" + (number ? v : JsonString(v));
  }
  return out + ",\"route\":" + JsonString(line) + "}";
}

}  // namespace routectl
