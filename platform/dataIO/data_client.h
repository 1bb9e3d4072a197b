// Client of the data manager: mirrors registered collections of records and
// reports connection, synchronisation and dump requests.
#pragma once

#include <string>
#include <vector>

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
  // now on) and subscribes to its directory. False: refused, still the caller's.
  bool RegisterCollection(cDBCollection* collection) override;
  // Ends the subscription and deletes the collection; null is accepted. Safe
  // from inside OnSync for the collection being reported.
  bool DeregisterCollection(cDBCollection* collection) override;
  bool Start() override;
  void Stop() override;

  void Redirect(IDataApi* api) { m_redirect = api; }

 protected:
  void OnConnected() override;
  void OnDisconnected() override;
  void OnEvent(kest::cFrame& frame) override;

 private:
  IDataClient* m_callback;
  IDataApi* m_redirect = nullptr;
  std::vector<cDBCollection*> m_collections;
};

bool dataInit();
void dataDeinit();

}  // namespace dataIO
