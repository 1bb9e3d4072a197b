// The network status records of the data store, each held twice: the copy in
// force (as before the synchronisation being reported) and the received copy
// (as that synchronisation delivered it).
#pragma once

#include <string>

#include "datastore/records/db_status_connection.h"
#include "datastore/records/db_status_lan.h"
#include "datastore/records/db_status_wan.h"
#include "datastore/records/db_status_wired_wan.h"
#include "datastore/records/db_status_wireless_wan.h"
#include "values/db_collection.h"

namespace dataIO {

class cDBNetworkStatusCollection : public cDBCollection {
 public:
  cDBNetworkStatusCollection();

  void BeginSync() override;
  bool ReceiveItem(std::string const& name, kest::cSerializeBuffer& bytes) override;
  // A record gone from the store falls back to its defaults.
  void RemoveItem(std::string const& name) override;
  void EndSync() override;
  bool HasChanged() override;

  // The WAN setup in force, by name (copies: the records change under sync).
  std::string ReceivedWanSetupName() const { return m_wanStatusReceived.WanSetupName(); }
  std::string InForceWanSetupName() const { return m_wanStatus.WanSetupName(); }

  cDBStatusWirelessWan const& InForceWirelessWanStatus() const { return m_wirelessWan; }
  cDBStatusWirelessWan const& ReceivedWirelessWanStatus() const { return m_wirelessWanReceived; }
  cDBStatusWiredWan const& InForceWiredWanStatus() const { return m_wiredWan; }
  cDBStatusWiredWan const& ReceivedWiredWanStatus() const { return m_wiredWanReceived; }
  cDBStatusWan const& InForceWanStatus() const { return m_wanStatus; }
  cDBStatusWan const& ReceivedWanStatus() const { return m_wanStatusReceived; }
  cDBStatusConnection const& InForceConnectionStatus() const { return m_connectionStatus; }
  cDBStatusConnection const& ReceivedConnectionStatus() const { return m_connectionStatusReceived; }
  cDBStatusLan const& InForceLanStatus() const { return m_lanStatus; }
  cDBStatusLan const& ReceivedLanStatus() const { return m_lanStatusReceived; }

 private:
  // Calls f(inForce, received) for each record kind.
  template <typename F>
  void ForEachPair(F&& f) {
    f(m_wirelessWan, m_wirelessWanReceived);
    f(m_wiredWan, m_wiredWanReceived);
    f(m_wanStatus, m_wanStatusReceived);
    f(m_connectionStatus, m_connectionStatusReceived);
    f(m_lanStatus, m_lanStatusReceived);
  }

  cDBStatusWirelessWan m_wirelessWan;
  cDBStatusWirelessWan m_wirelessWanReceived;
  cDBStatusWiredWan m_wiredWan;
  cDBStatusWiredWan m_wiredWanReceived;
  cDBStatusWan m_wanStatus;
  cDBStatusWan m_wanStatusReceived;
  cDBStatusConnection m_connectionStatus;
  cDBStatusConnection m_connectionStatusReceived;
  cDBStatusLan m_lanStatus;
  cDBStatusLan m_lanStatusReceived;
};

}  // namespace dataIO
