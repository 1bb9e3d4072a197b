#include "manager.h"

#include <vector>

#include "config_json.h"
#include "dataIO/data_protocol.h"
#include "kest/format.h"
#include "kest/trace.h"

namespace datamgr {

namespace {

namespace proto = dataIO::proto;

char const* const kModule = "datamgr";
char const* const kLevelError = "002";   // bad input from a peer or a file; we go on
char const* const kLevelInfo = "004";    // changes of the store, reloads
char const* const kLevelDetail = "005";  // subscriptions, dump results

// A sync body may use a whole frame but its header.
constexpr std::size_t kMaxSyncBody = kest::kMaxFrame - kest::kFrameHeader;

bool ValidName(std::string const& name) {
  return !name.empty() && name.find('/') == std::string::npos;
}

ctl::cReply Refuse(std::string text) { return ctl::cReply{ctl::kRefused, std::move(text)}; }

}  // namespace

cDataManager::cDataManager(kest::cService* service, cDeviceConfig config, std::string configPath)
    : m_server(service, this, kModule, dataIO::proto::kService),
      m_config(std::move(config)),
      m_configPath(std::move(configPath)),
      m_store(BuildStore(m_config)) {}

cDataManager::~cDataManager() { m_server.Close(); }

bool cDataManager::Listen(std::string const& accessPoint, std::string& error) {
  return m_server.Listen(accessPoint, error);
}

std::size_t cDataManager::Subscribers(std::string const& dir) const {
  std::size_t n = 0;
  for (auto const& c : m_channels) n += c.second.count(dir);
  return n;
}

std::size_t cDataManager::Apply(cDeviceConfig next) {
  Store store = BuildStore(next);
  std::vector<proto::cSync> changes = DiffStores(m_store, store);
  m_config = std::move(next);
  m_store = std::move(store);
  std::size_t records = 0;
  for (auto const& change : changes) {
    records += change.entries.size();
    Push(change);
  }
  return records;
}

bool cDataManager::Reload(std::string& error) {
  if (m_configPath.empty()) {
    error = "no configuration file to reload (started without --config)";
    KEST_TRACE(kModule, kLevelError, "reload ignored: %s", error.c_str());
    return false;
  }
  cDeviceConfig next;
  if (!LoadDeviceConfig(m_configPath, next, error)) {
    KEST_TRACE(kModule, kLevelError, "reload refused, the previous configuration stays: %s",
               error.c_str());
    return false;
  }
  std::size_t const changed = Apply(std::move(next));
  KEST_TRACE(kModule, kLevelInfo, "reloaded %s: %zu record(s) changed", m_configPath.c_str(),
             changed);
  return true;
}

void cDataManager::Push(proto::cSync const& change) {
  // Sending can close a channel (send limit), which removes it from
  // m_channels: decide the receivers first, check each again before sending.
  std::vector<kest::cChannel*> receivers;
  for (auto const& c : m_channels) {
    if (c.second.count(change.dir) != 0) receivers.push_back(c.first);
  }
  for (kest::cChannel* channel : receivers) {
    if (m_channels.count(channel) != 0) SendSync(channel, change);
  }
  KEST_TRACE(kModule, kLevelInfo, "%s: %zu record(s) changed, pushed to %zu subscriber(s)",
             change.dir.c_str(), change.entries.size(), receivers.size());
}

bool cDataManager::SendSync(kest::cChannel* channel, proto::cSync const& sync) {
  for (auto& body : proto::EncodeSyncChunks(sync, kMaxSyncBody)) {
    kest::cFrame frame;
    frame.kind = kest::cFrame::kEvent;
    frame.op = proto::kOpSync;
    frame.body = std::move(body);
    if (m_channels.count(channel) == 0 || !channel->Send(frame)) return false;
  }
  return true;
}

void cDataManager::OnOpen(kest::cChannel* channel) { m_channels[channel]; }

void cDataManager::OnClose(kest::cChannel* channel) { m_channels.erase(channel); }

void cDataManager::OnFrame(kest::cChannel* channel, kest::cFrame& frame) {
  switch (frame.kind) {
    case kest::cFrame::kEvent:
      OnEvent(channel, frame);
      break;
    case kest::cFrame::kRequest:
      OnRequest(channel, frame);
      break;
    default:
      KEST_TRACE(kModule, kLevelError, "%s: unexpected reply frame (op %u) ignored",
                 channel->PeerText().c_str(), static_cast<unsigned>(frame.op));
  }
}

void cDataManager::OnEvent(kest::cChannel* channel, kest::cFrame& frame) {
  std::string error;
  switch (frame.op) {
    case proto::kOpSubscribe: {
      proto::cSubscribe msg;
      if (!proto::Decode(frame.body, msg, error)) break;
      if (msg.dir.size() < 2 || msg.dir.front() != '/' || msg.dir.back() != '/') {
        KEST_TRACE(kModule, kLevelError, "%s: subscription to \"%s\" refused",
                   channel->PeerText().c_str(), msg.dir.c_str());
        kest::cFrame refusal;
        refusal.kind = kest::cFrame::kEvent;
        refusal.op = proto::kOpRefused;
        proto::Encode(proto::cRefused{msg.dir, "a directory begins and ends with '/'"},
                      refusal.body);
        channel->Send(refusal);
        return;
      }
      m_channels[channel].insert(msg.dir);
      KEST_TRACE(kModule, kLevelDetail, "%s subscribed to %s", channel->PeerText().c_str(),
                 msg.dir.c_str());
      SendSync(channel, Snapshot(m_store, msg.dir, msg.tag));
      return;
    }
    case proto::kOpUnsubscribe: {
      proto::cUnsubscribe msg;
      if (!proto::Decode(frame.body, msg, error)) break;
      m_channels[channel].erase(msg.dir);
      KEST_TRACE(kModule, kLevelDetail, "%s unsubscribed from %s", channel->PeerText().c_str(),
                 msg.dir.c_str());
      return;
    }
    case proto::kOpDumpResult: {
      proto::cDumpResult msg;
      if (!proto::Decode(frame.body, msg, error)) break;
      KEST_TRACE(kModule, kLevelDetail, "%s: dump to %s %s", channel->PeerText().c_str(),
                 msg.dir.c_str(), msg.ok ? "written" : "failed");
      return;
    }
    default:
      error = kest::FormatString("unknown event op %u", static_cast<unsigned>(frame.op));
  }
  KEST_TRACE(kModule, kLevelError, "%s: message dropped: %s", channel->PeerText().c_str(),
             error.c_str());
}

void cDataManager::OnRequest(kest::cChannel* channel, kest::cFrame& frame) {
  ctl::cRequest req;
  ctl::cReply reply;
  std::string error;
  unsigned uid = 0, gid = 0;
  if (!ctl::Decode(frame.op, frame.body, req, error)) {
    reply = ctl::cReply{ctl::kBadRequest, error};
  } else if (req.op != ctl::kOpList && channel->PeerCred(uid, gid) && uid != 0 &&
             !channel->PeerInGroups(gid, m_adminGids)) {
    // TCP peers have no credentials: on the loopback default anyone local may
    // change the store, which is why packaged setups listen on a Unix socket.
    reply = ctl::cReply{ctl::kNotPermitted,
                        kest::FormatString("not permitted: uid %u gid %u is neither root nor in "
                                           "an admin group",
                                           uid, gid)};
  } else {
    reply = Control(req, channel);
  }
  if (reply.rc == ctl::kBadRequest || reply.rc == ctl::kNotPermitted) {
    KEST_TRACE(kModule, kLevelError, "%s: control request op %u refused: %s",
               channel->PeerText().c_str(), static_cast<unsigned>(frame.op), reply.text.c_str());
  }
  kest::cSerializeBuffer body;
  ctl::Encode(reply, body);
  m_server.Reply(channel, frame.id, frame.op, body);
}

ctl::cReply cDataManager::Control(ctl::cRequest const& req, kest::cChannel* from) {
  cDeviceConfig next = m_config;
  switch (req.op) {
    case ctl::kOpSetWanSetup: {
      if (!req.setup.empty() && !ValidName(req.setup)) return Refuse("a WAN setup name has no '/'");
      next.wan.m_wanSetupName.Set(req.setup);
      std::size_t const changed = Apply(std::move(next));
      std::string text = "WAN setup in force: \"" + req.setup + "\"";
      if (changed == 0) text += " (unchanged)";
      if (!req.setup.empty() && m_config.wanSetups.count(req.setup) == 0)
        text += "\nwarning: no WAN setup of that name is configured; it has no routes";
      return ctl::cReply{ctl::kOk, text + "\n"};
    }
    case ctl::kOpRouteSet: {
      if (!ValidName(req.setup) || !ValidName(req.key))
        return Refuse("setup name and route key must be non-empty and without '/'");
      if (!IsContiguousMask(req.netmask)) return Refuse("the netmask is not contiguous");
      if (SelectorToText(req.selector).empty())
        return Refuse(kest::FormatString("unknown gateway selector %u", req.selector));
      if (req.description.size() > kMaxDescription)
        return Refuse(
            kest::FormatString("description longer than %zu characters", kMaxDescription));
      bool const own = req.selector == dataIO::kGwSelectorOwn;
      auto route = MakeRoute(req.setup, req.key, req.network, req.netmask, req.selector,
                             own ? req.gateway : 0, req.description);
      std::string const text = route.ToString("");
      next.wanSetups[req.setup].insert_or_assign(req.key, std::move(route));
      std::size_t const changed = Apply(std::move(next));
      return ctl::cReply{ctl::kOk,
                         kest::FormatString("%s/%s: %s%s\n", req.setup.c_str(), req.key.c_str(),
                                            text.c_str(), changed == 0 ? " (unchanged)" : "")};
    }
    case ctl::kOpRouteDel: {
      auto setup = next.wanSetups.find(req.setup);
      if (setup == next.wanSetups.end() || setup->second.erase(req.key) == 0)
        return Refuse("no route \"" + req.key + "\" in WAN setup \"" + req.setup + "\"");
      Apply(std::move(next));
      return ctl::cReply{ctl::kOk, req.setup + "/" + req.key + ": deleted\n"};
    }
    case ctl::kOpDump: {
      kest::cFrame frame;
      frame.kind = kest::cFrame::kEvent;
      frame.op = proto::kOpDumpRequest;
      proto::Encode(proto::cDumpRequest{req.dir}, frame.body);
      std::vector<kest::cChannel*> receivers;
      for (auto const& c : m_channels) {
        if (c.first != from) receivers.push_back(c.first);
      }
      std::size_t sent = 0;
      for (kest::cChannel* channel : receivers) {
        if (m_channels.count(channel) != 0 && channel->Send(frame)) ++sent;
      }
      KEST_TRACE(kModule, kLevelInfo, "dump request for %s sent to %zu client(s)", req.dir.c_str(),
                 sent);
      return ctl::cReply{ctl::kOk, kest::FormatString("dump request for %s sent to %zu client(s)\n",
                                                      req.dir.c_str(), sent)};
    }
    case ctl::kOpList:
      return ctl::cReply{ctl::kOk, List(req.dir)};
  }
  return ctl::cReply{ctl::kBadRequest, "unknown control operation"};
}

std::string cDataManager::List(std::string const& dir) const {
  std::string out;
  if (dir.empty()) {
    for (auto const& d : m_store) {
      out += kest::FormatString("%s (%zu record(s), %zu subscriber(s))\n", d.first.c_str(),
                                d.second.size(), Subscribers(d.first));
    }
    return out;
  }
  auto const d = m_store.find(dir);
  if (d == m_store.end()) return dir + ": no records\n";
  for (auto const& item : d->second)
    out += item.first + ": " + DescribeRecord(dir, item.first, item.second) + "\n";
  return out;
}

}  // namespace datamgr
