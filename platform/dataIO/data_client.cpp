#include "dataIO/data_client.h"

#include <algorithm>

#include "dataIO/data_protocol.h"
#include "kest/format.h"
#include "kest/loop.h"
#include "kest/trace.h"

namespace dataIO {

namespace {

char const* const kModule = "dataIO";
// Dropped input is worth a look; routine progress is not.
char const* const kLevelWarn = "003";
char const* const kLevelInfo = "006";

int g_initCount = 0;

}  // namespace

bool dataInit() {
  ++g_initCount;
  return true;
}

void dataDeinit() {
  if (g_initCount > 0) --g_initCount;
}

cDataClient::cDataClient(kest::cService* service, IDataClient* callback, unsigned timeoutMs,
                         std::string accessPoint)
    : kest::cServiceClient(service, timeoutMs, std::move(accessPoint), proto::kService),
      m_callback(callback) {}

cDataClient::~cDataClient() {
  m_alive.reset();
  m_running = false;
  kest::cServiceClient::Stop();
  m_queue.clear();
  for (auto& reg : m_regs) delete reg.collection;
  m_regs.clear();
  // Destroyed from inside OnSync after deregistering the reported collection.
  if (m_deleteReported) delete m_reporting;
}

cDataClient::cRegistration* cDataClient::Find(std::string const& dir) {
  for (auto& reg : m_regs) {
    if (reg.collection->GetDir() == dir) return &reg;
  }
  return nullptr;
}

void cDataClient::Subscribe(cRegistration& reg) {
  reg.tag = m_nextTag++;
  if (m_nextTag == 0) m_nextTag = 1;  // 0 marks "no subscription"
  reg.snapshotSeen = false;
  kest::cSerializeBuffer body;
  proto::Encode(proto::cSubscribe{reg.collection->GetDir(), reg.tag}, body);
  if (!SendEvent(proto::kOpSubscribe, body)) {
    // The next connection subscribes again.
    KEST_TRACE(kModule, kLevelInfo, "subscription to %s not sent: not connected",
               reg.collection->GetDir().c_str());
  }
}

bool cDataClient::RegisterCollection(cDBCollection* collection) {
  if (m_redirect != nullptr) return m_redirect->RegisterCollection(collection);
  if (collection == nullptr) return false;
  if (Find(collection->GetDir()) != nullptr) {
    KEST_TRACE(kModule, kLevelWarn, "collection for %s refused: directory already registered",
               collection->GetDir().c_str());
    return false;
  }
  m_regs.push_back(cRegistration{});
  m_regs.back().collection = collection;
  if (IsConnected()) Subscribe(m_regs.back());
  return true;
}

bool cDataClient::DeregisterCollection(cDBCollection* collection) {
  if (m_redirect != nullptr) return m_redirect->DeregisterCollection(collection);
  if (collection == nullptr) return false;
  auto it = std::find_if(m_regs.begin(), m_regs.end(), [collection](cRegistration const& r) {
    return r.collection == collection;
  });
  if (it == m_regs.end()) return false;
  if (IsConnected()) {
    kest::cSerializeBuffer body;
    proto::Encode(proto::cUnsubscribe{collection->GetDir()}, body);
    SendEvent(proto::kOpUnsubscribe, body);
  }
  m_regs.erase(it);
  if (collection == m_reporting) {
    // The caller is inside OnSync for this very collection; ApplySync still
    // holds it and deletes it once OnSync has returned.
    m_deleteReported = true;
  } else {
    delete collection;
  }
  return true;
}

bool cDataClient::Start() {
  if (m_redirect != nullptr) return m_redirect->Start();
  m_running = true;
  return kest::cServiceClient::Start();
}

void cDataClient::Stop() {
  if (m_redirect != nullptr) {
    m_redirect->Stop();
    return;
  }
  // Nothing of the old connection is reported after an explicit stop: drop
  // what waits, refuse snapshots answering its subscriptions (tag 0 is never
  // sent), and ignore the transport's connect and disconnect notices that
  // are already on their way (they are posted before the barrier below).
  m_running = false;
  m_queue.clear();
  m_assembler.Reset();
  for (auto& reg : m_regs) {
    reg.tag = 0;
    reg.snapshotSeen = false;
  }
  kest::cServiceClient::Stop();
  ++m_staleNotices;
  std::weak_ptr<int> alive = m_alive;
  kest::Loop().Post([this, alive] {
    if (!alive.expired()) --m_staleNotices;
  });
}

void cDataClient::OnConnected() {
  if (m_staleNotices > 0 || !m_running) return;
  m_assembler.Reset();
  for (auto& reg : m_regs) Subscribe(reg);
  Queue(cPending{cPending::kConnect, {}, {}, {}});
}

void cDataClient::OnDisconnected() {
  if (m_staleNotices > 0 || !m_running) return;
  m_assembler.Reset();
  for (auto& reg : m_regs) {
    reg.tag = 0;
    reg.snapshotSeen = false;
  }
  Queue(cPending{cPending::kDisconnect, {}, {}, {}});
}

void cDataClient::OnEvent(kest::cFrame& frame) {
  std::string error;
  switch (frame.op) {
    case proto::kOpSync: {
      proto::cSync chunk;
      if (!proto::Decode(frame.body, chunk, error)) {
        KEST_TRACE(kModule, kLevelWarn, "dropped sync message from %s: %s", AccessPoint().c_str(),
                   error.c_str());
        return;
      }
      cPending pending{cPending::kSync, {}, {}, {}};
      auto const result = m_assembler.Add(std::move(chunk), pending.sync, error);
      if (!error.empty()) KEST_TRACE(kModule, kLevelWarn, "%s", error.c_str());
      if (result == proto::cSyncAssembler::kComplete) Queue(std::move(pending));
      return;
    }
    case proto::kOpDumpRequest: {
      proto::cDumpRequest msg;
      if (!proto::Decode(frame.body, msg, error)) {
        KEST_TRACE(kModule, kLevelWarn, "dropped dump request from %s: %s", AccessPoint().c_str(),
                   error.c_str());
        return;
      }
      Queue(cPending{cPending::kDump, {}, msg.dir, {}});
      return;
    }
    case proto::kOpRefused: {
      proto::cRefused msg;
      if (!proto::Decode(frame.body, msg, error)) {
        KEST_TRACE(kModule, kLevelWarn, "dropped refusal from %s: %s", AccessPoint().c_str(),
                   error.c_str());
        return;
      }
      KEST_TRACE(kModule, kLevelWarn, "data manager refused %s: %s", msg.dir.c_str(),
                 msg.reason.c_str());
      Queue(cPending{cPending::kRefused, {}, msg.dir, msg.reason});
      return;
    }
    default:
      KEST_TRACE(kModule, kLevelWarn, "dropped message with unknown op %u from %s",
                 static_cast<unsigned>(frame.op), AccessPoint().c_str());
  }
}

void cDataClient::Queue(cPending&& pending) {
  m_queue.push_back(std::move(pending));
  if (m_drainPosted) return;
  m_drainPosted = true;
  std::weak_ptr<int> alive = m_alive;
  kest::Loop().Post([this, alive] {
    if (alive.expired()) return;
    Drain();
  });
}

void cDataClient::Drain() {
  m_drainPosted = false;
  std::weak_ptr<int> alive = m_alive;
  // Callbacks may stop, restart, register, deregister or even destroy this
  // client: take one item at a time and check after every callback.
  while (!m_queue.empty()) {
    cPending pending = std::move(m_queue.front());
    m_queue.pop_front();
    switch (pending.kind) {
      case cPending::kConnect:
        if (m_callback != nullptr) m_callback->OnConnect(this);
        break;
      case cPending::kDisconnect:
        if (m_callback != nullptr) m_callback->OnDisconnect(this);
        break;
      case cPending::kSync:
        ApplySync(pending.sync);
        break;
      case cPending::kDump: {
        bool ok = true;
        if (m_callback != nullptr)
          ok = m_callback->OnDumpRequest(this, kest::s_string(pending.dir));
        if (alive.expired()) return;
        kest::cSerializeBuffer body;
        proto::Encode(proto::cDumpResult{pending.dir, ok}, body);
        SendEvent(proto::kOpDumpResult, body);
        break;
      }
      case cPending::kRefused:
        if (m_callback != nullptr)
          m_callback->OnRequestFailed(this, pending.dir + ": " + pending.reason);
        break;
    }
    if (alive.expired()) return;
  }
}

void cDataClient::ApplySync(proto::cSync& sync) {
  cRegistration* reg = Find(sync.dir);
  if (reg == nullptr) {
    KEST_TRACE(kModule, kLevelInfo, "sync of %s ignored: no collection registered",
               sync.dir.c_str());
    return;
  }
  bool const full = (sync.flags & proto::kSyncFull) != 0;
  // A snapshot answering an earlier subscription (or a stopped connection's).
  if (full && (reg->tag == 0 || sync.tag != reg->tag)) return;
  if (!full && !reg->snapshotSeen) return;  // the coming snapshot holds it
  cDBCollection* const collection = reg->collection;

  collection->BeginSync();
  std::set<std::string> listed;
  for (auto& entry : sync.entries) {
    if (entry.remove) {
      collection->RemoveItem(entry.name);
      reg->present.erase(entry.name);
      continue;
    }
    listed.insert(entry.name);
    reg->present.insert(entry.name);
    kest::cSerializeBuffer bytes(entry.bytes.data(), entry.bytes.size());
    if (!collection->ReceiveItem(entry.name, bytes)) {
      KEST_TRACE(kModule, kLevelWarn, "dropped record %s%s (%zu bytes): it does not decode",
                 sync.dir.c_str(), entry.name.c_str(), entry.bytes.size());
    }
  }
  if (full) {
    // Items we had that the snapshot no longer lists are gone from the store.
    for (auto const& name : reg->present) {
      if (listed.count(name) == 0) collection->RemoveItem(name);
    }
    reg->present = std::move(listed);
    reg->snapshotSeen = true;
  }
  collection->SetSynced(true);

  std::weak_ptr<int> alive = m_alive;
  m_reporting = collection;
  m_deleteReported = false;
  if (m_callback != nullptr) m_callback->OnSync(this, collection);
  if (alive.expired()) return;  // the client (and with it the collection) is gone
  m_reporting = nullptr;
  if (m_deleteReported) {
    m_deleteReported = false;
    delete collection;
    return;
  }
  // Only a collection still in our care takes the received values as in force.
  for (auto const& r : m_regs) {
    if (r.collection == collection) {
      collection->EndSync();
      break;
    }
  }
}

}  // namespace dataIO
