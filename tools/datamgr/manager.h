// The data manager's service: serves subscriptions to directories of the
// store, pushes every change to the subscribers of the directory it touches,
// and carries out datactl's control requests.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>

#include "control_protocol.h"
#include "device_config.h"
#include "kest/server.h"
#include "store.h"

namespace datamgr {

class cDataManager : private kest::IServerHandler {
 public:
  cDataManager(kest::cService* service, cDeviceConfig config, std::string configPath);
  ~cDataManager();

  // Before Listen.
  void SetLimits(kest::cServerLimits const& limits) { m_server.SetLimits(limits); }
  // On a Unix socket, changes to the store and dump requests are served to
  // root and to these groups only; subscribing and listing to anyone admitted.
  void SetAdminGids(std::set<unsigned> gids) { m_adminGids = std::move(gids); }
  bool Listen(std::string const& accessPoint, std::string& error);
  void Close() { m_server.Close(); }
  std::uint16_t BoundPort() const { return m_server.BoundPort(); }

  // Makes next the configuration in force and pushes the records that
  // changed. Returns how many records changed (added, altered, removed).
  std::size_t Apply(cDeviceConfig next);
  // Reads the configuration file again; a file that does not load leaves
  // everything as it was and says why in error.
  bool Reload(std::string& error);

  // A control request; from is the requesting connection (not sent a dump
  // request of its own), null when called directly.
  ctl::cReply Control(ctl::cRequest const& req, kest::cChannel* from);

  cDeviceConfig const& Config() const { return m_config; }
  Store const& CurrentStore() const { return m_store; }
  std::size_t Subscribers(std::string const& dir) const;

 private:
  void OnOpen(kest::cChannel* channel) override;
  void OnFrame(kest::cChannel* channel, kest::cFrame& frame) override;
  void OnClose(kest::cChannel* channel) override;

  void OnEvent(kest::cChannel* channel, kest::cFrame& frame);
  void OnRequest(kest::cChannel* channel, kest::cFrame& frame);
  // Sends a sync in as many frames as it needs; false if the channel went away.
  bool SendSync(kest::cChannel* channel, dataIO::proto::cSync const& sync);
  void Push(dataIO::proto::cSync const& change);
  std::string List(std::string const& dir) const;

  kest::cServer m_server;
  std::set<unsigned> m_adminGids;
  cDeviceConfig m_config;
  std::string m_configPath;
  Store m_store;
  // Every open connection with the directories it subscribed to.
  std::map<kest::cChannel*, std::set<std::string>> m_channels;
};

}  // namespace datamgr
