#include "kest/hello.h"

#include "kest/format.h"
#include "kest/types.h"

namespace kest {
namespace {

void PutText(cSerializeBuffer& out, std::string const& text) {
  s_string(text.size() > kMaxHelloText ? text.substr(0, kMaxHelloText) : text).Serialize(out);
}

bool TakeText(cSerializeBuffer& in, char const* what, std::string& text, std::string& error) {
  s_string v;
  if (!v.Deserialize(in)) {
    error = FormatString("%s: missing or malformed string", what);
    return false;
  }
  if (v.Get().size() > kMaxHelloText) {
    error = FormatString("%s: %zu bytes, more than %zu", what, v.Get().size(), kMaxHelloText);
    return false;
  }
  text = v.Get();
  return true;
}

bool TakeVersion(cSerializeBuffer& in, std::uint16_t& version, std::string& error) {
  if (in.ReadU16(version)) return true;
  error = "version: missing";
  return false;
}

bool AtEnd(cSerializeBuffer& in, std::string& error) {
  if (in.AtEnd()) return true;
  error = FormatString("%zu bytes after the last field", in.Remaining());
  return false;
}

cFrame Frame(std::uint8_t kind, std::uint32_t id) {
  cFrame f;
  f.kind = kind;
  f.id = id;
  f.op = kHelloOp;
  return f;
}

}  // namespace

cFrame HelloFrame(std::uint32_t id, cServiceId const& wanted) {
  cFrame f = Frame(cFrame::kRequest, id);
  PutText(f.body, wanted.name);
  f.body.WriteU16(wanted.version);
  return f;
}

cFrame AcceptFrame(std::uint32_t id, cServiceId const& self) {
  cFrame f = Frame(cFrame::kReply, id);
  PutText(f.body, self.name);
  PutText(f.body, self.title);
  f.body.WriteU16(self.version);
  return f;
}

cFrame RefusalFrame(cServiceId const& self, std::string const& reason) {
  cFrame f = Frame(cFrame::kEvent, 0);
  PutText(f.body, self.name);
  PutText(f.body, self.title);
  PutText(f.body, reason);
  return f;
}

bool DecodeHello(cSerializeBuffer& body, cHello& out, std::string& error) {
  return TakeText(body, "service", out.service, error) && TakeVersion(body, out.version, error) &&
         AtEnd(body, error);
}

bool DecodeAccept(cSerializeBuffer& body, cGreeting& out, std::string& error) {
  return TakeText(body, "service", out.service, error) &&
         TakeText(body, "title", out.title, error) && TakeVersion(body, out.version, error) &&
         AtEnd(body, error);
}

bool DecodeRefusal(cSerializeBuffer& body, cGreeting& out, std::string& error) {
  return TakeText(body, "service", out.service, error) &&
         TakeText(body, "title", out.title, error) && TakeText(body, "reason", out.reason, error) &&
         AtEnd(body, error);
}

std::string JudgeHello(cFrame& first, cServiceId const& self) {
  if (first.kind != cFrame::kRequest || first.op != kHelloOp) {
    return FormatString("the first frame (kind %u, op %u) is not a hello", first.kind, first.op);
  }
  cHello hello;
  std::string error;
  if (!DecodeHello(first.body, hello, error)) return "malformed hello: " + error;
  if (hello.service != self.name) {
    return FormatString("this is %s, not %s", self.name, hello.service.c_str());
  }
  if (hello.version != self.version) {
    return FormatString("protocol version %u is not supported (only %u)", hello.version,
                        self.version);
  }
  return std::string();
}

eGreeting JudgeGreeting(cFrame& answer, std::uint32_t helloId, cServiceId const& wanted,
                        std::string const& accessPoint, std::string& why) {
  cGreeting g;
  std::string error;
  char const* ap = accessPoint.c_str();
  if (answer.op == kHelloOp && answer.kind == cFrame::kEvent) {
    if (!DecodeRefusal(answer.body, g, error)) {
      why =
          FormatString("%s closed the connection with a malformed refusal: %s", ap, error.c_str());
      return eGreeting::kBad;
    }
    why = g.service != wanted.name
              ? FormatString("%s is %s, not %s", ap, g.title.c_str(), wanted.title)
              : FormatString("%s refused the connection: %s", ap, g.reason.c_str());
    return eGreeting::kRefused;
  }
  if (answer.op != kHelloOp || answer.kind != cFrame::kReply || answer.id != helloId) {
    why = FormatString("%s answered the hello with a frame of kind %u, op %u: is it %s?", ap,
                       answer.kind, answer.op, wanted.title);
    return eGreeting::kBad;
  }
  if (!DecodeAccept(answer.body, g, error)) {
    why = FormatString("%s answered the hello with a malformed reply: %s", ap, error.c_str());
    return eGreeting::kBad;
  }
  if (g.service != wanted.name) {
    why = FormatString("%s is %s, not %s", ap, g.title.c_str(), wanted.title);
    return eGreeting::kRefused;
  }
  return eGreeting::kAccepted;
}

}  // namespace kest
