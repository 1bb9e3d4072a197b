// Client of the data manager: mirrors registered collections of records and
// reports connection, synchronisation and dump requests.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "dataIO/data_protocol.h"
#include "kest/service_client.h"
#include "kest/types.h"
#include "values/db_collection.h"

namespace dataIO {

class cDataClient;

class IDataClient {
 public:
  virtual void OnConnect(kest::cServiceClient* client) = 0;
  virtual void OnDisconnect(kest::cServiceClient* client) = 0;
  virtual void OnSync(cDataClient* client, cDBCollection* collection) = 0;
  // The data manager refused a request of this client (e.g. a subscription).
  virtual void OnRequestFailed(cDataClient* client, std::string const& reason) {
    (void)client;
    (void)reason;
  }
  virtual bool OnDumpRequest(cDataClient* client, kest::s_string const& directory) {
    (void)client;
    (void)directory;
    return true;
  }

 protected:
  ~IDataClient() = default;
};

// The client operations the route manager calls, so tests can stand in.
class IDataApi {
 public:
  virtual bool RegisterCollection(cDBCollection* collection) = 0;
  virtual bool DeregisterCollection(cDBCollection* collection) = 0;
  virtual bool Start() = 0;
  virtual void Stop() = 0;

 protected:
  ~IDataApi() = default;
};

class cDataClient : public kest::cServiceClient, public IDataApi {
 public:
  cDataClient(kest::cService* service, IDataClient* callback, unsigned timeoutMs,
              std::string accessPoint);
  ~cDataClient() override;

  // Takes the collection into the client's care (it owns and deletes it from
  // now on) and subscribes to its directory, now if connected, else at the
  // next connection. False (null, or its directory is already registered):
  // refused, still the caller's. OnSync is never called from in here: every
  // callback of this client runs later, from the loop.
  bool RegisterCollection(cDBCollection* collection) override;
  // Ends the subscription and deletes the collection; null is accepted. Safe
  // from inside OnSync for the collection being reported (deleted once OnSync
  // has returned) and while stopped. False: null or not registered here.
  bool DeregisterCollection(cDBCollection* collection) override;
  bool Start() override;
  void Stop() override;

  void Redirect(IDataApi* api) { m_redirect = api; }
  std::size_t Registered() const { return m_regs.size(); }

 protected:
  void OnConnected() override;
  void OnDisconnected() override;
  void OnEvent(kest::cFrame& frame) override;

 private:
  struct cRegistration {
    cDBCollection* collection = nullptr;
    std::uint32_t tag = 0;          // of the latest subscription sent
    bool snapshotSeen = false;      // changes only count after the snapshot
    std::set<std::string> present;  // item names the manager last listed
  };
  // Callbacks wait here and run from the loop, in arrival order.
  struct cPending {
    enum Kind { kConnect, kDisconnect, kSync, kDump, kRefused } kind = kConnect;
    proto::cSync sync;
    std::string dir;
    std::string reason;
  };

  cRegistration* Find(std::string const& dir);
  void Subscribe(cRegistration& reg);
  void Queue(cPending&& pending);
  void Drain();
  void ApplySync(proto::cSync& sync);

  IDataClient* m_callback;
  IDataApi* m_redirect = nullptr;
  std::vector<cRegistration> m_regs;
  std::deque<cPending> m_queue;
  proto::cSyncAssembler m_assembler;
  bool m_running = false;
  int m_staleNotices = 0;  // Stop() barriers not yet passed by the loop
  bool m_drainPosted = false;
  std::uint32_t m_nextTag = 1;
  cDBCollection* m_reporting = nullptr;                     // the collection inside OnSync
  bool m_deleteReported = false;                            // deregistered from inside its OnSync
  std::shared_ptr<int> m_alive = std::make_shared<int>(0);  // posted work checks it
};

bool dataInit();
void dataDeinit();

}  // namespace dataIO
