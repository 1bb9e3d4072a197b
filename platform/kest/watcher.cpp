#include <algorithm>

#include "kest/message.h"
#include "kest/service_client.h"

namespace kest {

cServiceClientWatcher::cServiceClientWatcher(cMessageSink* sink, std::string message)
    : m_sink(sink), m_message(std::move(message)) {}

cServiceClientWatcher::~cServiceClientWatcher() {
  for (Watched& w : m_clients) w.client->RemoveWatcher(this);
}

bool cServiceClientWatcher::Add(cServiceClient* client) {
  if (!client) return false;
  auto it = std::find_if(m_clients.begin(), m_clients.end(),
                         [client](Watched const& w) { return w.client == client; });
  if (it != m_clients.end()) return true;
  m_clients.push_back({client, false});
  client->AddWatcher(this);
  return true;
}

bool cServiceClientWatcher::OnConnect(cServiceClient* client) {
  auto allUp = [this] {
    return !m_clients.empty() &&
           std::all_of(m_clients.begin(), m_clients.end(), [](Watched const& w) { return w.up; });
  };
  auto it = std::find_if(m_clients.begin(), m_clients.end(),
                         [client](Watched const& w) { return w.client == client; });
  if (it == m_clients.end()) return false;
  bool before = allUp();
  it->up = true;
  if (!before && allUp()) cMessageSink::PostTo(m_sink, cMsg(m_message));
  return true;
}

void cServiceClientWatcher::OnDisconnect(cServiceClient* client) {
  for (Watched& w : m_clients) {
    if (w.client == client) w.up = false;
  }
}

void cServiceClientWatcher::Remove(cServiceClient* client) {
  m_clients.erase(std::remove_if(m_clients.begin(), m_clients.end(),
                                 [client](Watched const& w) { return w.client == client; }),
                  m_clients.end());
}

}  // namespace kest
