#include "kest/message.h"

#include <map>
#include <memory>

#include "kest/loop.h"
#include "kest/trace.h"

namespace kest {
namespace {

// Live sinks with a serial number each, so a message queued for a sink that
// died (and whose address was reused by a new one) is dropped, not misdelivered.
std::map<cMessageSink const*, std::uint64_t>& LiveSinks() {
  static std::map<cMessageSink const*, std::uint64_t> sinks;
  return sinks;
}
std::uint64_t g_nextSinkSerial = 1;

}  // namespace

void cMessageMap::AddEntry(std::string const& name, MsgHandler handler, cChannel* channel) {
  m_entries.push_back(Entry{name, handler, channel});
}

cMessageMap::Entry const* cMessageMap::Find(cMsg const& msg) const {
  for (auto const& e : m_entries) {
    if (e.name == msg.Name() && (e.channel == nullptr || e.channel == msg.Channel())) return &e;
  }
  return nullptr;
}

cMessageSink::cMessageSink() { LiveSinks()[this] = g_nextSinkSerial++; }

cMessageSink::~cMessageSink() { LiveSinks().erase(this); }

std::string cMessageSink::ToString() const {
  return "cMessageSink " + (m_name.empty() ? std::string("(unnamed)") : m_name);
}

void cMessageSink::OnMsgIgnore(cMsg& msg) {
  KEST_TRACE("kest", "004", "%s: ignored message %s", m_name.c_str(), msg.Name().c_str());
}

bool cMessageSink::Init(std::string const& name) {
  m_name = name;
  return true;
}

bool cMessageSink::ProcessMessageHandlers(cMsg& msg) {
  cMessageMap::Entry const* e = m_map.Find(msg);
  if (e == nullptr || e->handler == nullptr) return false;
  (this->*(e->handler))(msg);
  return true;
}

void cMessageSink::ProcessMsg(cMsg& msg) {
  EnsureMessageMap();
  if (!ProcessMessageHandlers(msg)) OnMsgIgnore(msg);
}

bool cMessageSink::AuthorizedChannel(cMsg&, std::string const&) { return true; }

void cMessageSink::EnsureMessageMap() {
  if (m_mapReady) return;
  m_mapReady = true;
  InitMessageMap();
}

void cMessageSink::Post(cMsg msg) { PostTo(this, std::move(msg)); }

void cMessageSink::PostTo(cMessageSink* sink, cMsg msg) {
  if (sink == nullptr) return;
  auto it = LiveSinks().find(sink);
  if (it == LiveSinks().end()) return;
  std::uint64_t serial = it->second;
  auto held = std::make_shared<cMsg>(std::move(msg));
  Loop().Post([sink, serial, held] {
    auto live = LiveSinks().find(sink);
    if (live == LiveSinks().end() || live->second != serial) return;
    sink->ProcessMsg(*held);
  });
}

bool cMessageSink::Alive(cMessageSink const* sink) { return LiveSinks().count(sink) != 0; }

}  // namespace kest
