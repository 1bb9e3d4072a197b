#include "dataIO/data_client.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <tuple>
#include <utility>

#include "datastore/records/db_network_status_collection.h"
#include "datastore/records/db_wan_routing_collection.h"
#include "kest/loop.h"
#include "kest/server.h"
#include "kest/service.h"
#include "kest/trace.h"
#include "support/poll.h"

namespace dataIO {
namespace {

using Lines = std::vector<std::string>;
using testsupport::PumpUntil;
using testsupport::Settle;  // lets whatever is in flight arrive (nothing is expected to)
std::string const kDsl = "/Config/Network/WanSetups/dsl/Routing/";
std::string const kLte = "/Config/Network/WanSetups/lte/Routing/";
std::string const kStatus = "/Status/Network/";

// "mgmt:2 office:3": each route's key and gateway selector.
std::string Routes(cDBWanRoutingCollection::RouteMap const& routes) {
  std::string text;
  for (auto const& [key, r] : routes)
    text += (text.empty() ? "" : " ") + key + ":" + std::to_string(r.m_gatewaySelector.Get());
  return text;
}

proto::cSyncEntry Route(std::string const& key, std::uint8_t via) {
  kest::cSerializeBuffer b;
  cDBConfigWanRoute(key, kDsl, kest::s_socket_addr("10.10.0.0", 0),
                    kest::s_socket_addr("255.255.0.0", 0), kest::s_socket_addr(), via, "")
      .Serialize(b);
  return {false, key, b.Bytes()};
}

// The test plays the data manager (what reaches it in `manager`) and the
// client's user (its callbacks in `seen`).
class DataClientTest : public ::testing::Test, public kest::IServerHandler, public IDataClient {
 protected:
  void OnOpen(kest::cChannel* ch) override { channel = ch; }
  void OnClose(kest::cChannel* ch) override { channel = channel == ch ? nullptr : channel; }
  void OnFrame(kest::cChannel*, kest::cFrame& frame) override {
    std::string error;
    proto::cSubscribe sub;
    proto::cUnsubscribe unsub;
    proto::cDumpResult dump;
    if (frame.op == proto::kOpSubscribe && proto::Decode(frame.body, sub, error)) {
      tags[sub.dir] = sub.tag;
      manager.push_back("subscribe " + sub.dir);
    } else if (frame.op == proto::kOpUnsubscribe && proto::Decode(frame.body, unsub, error)) {
      manager.push_back("unsubscribe " + unsub.dir);
    } else if (frame.op == proto::kOpDumpResult && proto::Decode(frame.body, dump, error)) {
      manager.push_back("dump-result " + dump.dir + (dump.ok ? " ok" : " failed"));
    }
  }
  template <typename M>
  void Send(std::uint16_t op, M const& message) {
    kest::cFrame frame;
    frame.op = op;
    proto::Encode(message, frame.body);
    channel->Send(frame);
  }
  void Sync(std::string const& dir, std::uint8_t flags, std::vector<proto::cSyncEntry> e) {
    Send(proto::kOpSync, proto::cSync{dir, flags & proto::kSyncFull ? tags[dir] : 0, flags, e});
  }

  void OnConnect(kest::cServiceClient*) override { seen.push_back("OnConnect"); }
  void OnDisconnect(kest::cServiceClient*) override { seen.push_back("OnDisconnect"); }
  void OnSync(cDataClient* c, cDBCollection* collection) override {
    EXPECT_TRUE(collection->IsSynced());
    std::string line = collection->GetDir();
    if (auto* r = dynamic_cast<cDBWanRoutingCollection*>(collection))
      line += " received [" + Routes(r->RoutesReceived()) + "] in force [" +
              Routes(r->RoutesInForce()) + "]" + (r->HasChanged() ? " changed" : " unchanged");
    if (collection == status) line += " setup " + status->ReceivedWanSetupName();
    seen.push_back(line);
    if (onSync) std::exchange(onSync, nullptr)(c, collection);  // once only
  }
  bool OnDumpRequest(cDataClient*, kest::s_string const& dir) override {
    seen.push_back("OnDumpRequest " + dir.Get());
    return false;
  }

  bool Logged(Lines const& log, std::string const& line) {
    return PumpUntil([&] { return std::find(log.begin(), log.end(), line) != log.end(); });
  }

  kest::cService service;
  kest::cServer server{&service, this, "fake", proto::kService};
  kest::cChannel* channel = nullptr;
  std::map<std::string, std::uint32_t> tags;
  std::unique_ptr<cDataClient> client;
  cDBNetworkStatusCollection* status = nullptr;
  Lines manager, seen;
  std::function<void(cDataClient*, cDBCollection*)> onSync;
};

// A client's life: syncs, deregistration inside OnSync, garbage, a dump request, a stop.
TEST_F(DataClientTest, SyncsGarbageDumpRequestsAndDeregistrationAnywhere) {
  kest::cTraceCapture traces;
  kest::ResetLoop();
  std::string error;
  ASSERT_TRUE(server.Listen("127.0.0.1:0", error)) << error;
  client = std::make_unique<cDataClient>(&service, this, 1000,
                                         "127.0.0.1:" + std::to_string(server.BoundPort()));
  // Registered before the connection: subscribed once it is up.
  ASSERT_TRUE(client->RegisterCollection(new cDBWanRoutingCollection("dsl")));
  ASSERT_TRUE(client->Start());
  ASSERT_TRUE(Logged(seen, "OnConnect") && Logged(manager, "subscribe " + kDsl));
  ASSERT_TRUE(client->RegisterCollection(status = new cDBNetworkStatusCollection()));
  std::tuple<std::uint8_t, std::vector<proto::cSyncEntry>, char const*> const steps[] = {
      {proto::kSyncFull, {Route("office", 3)}, "[office:3] in force [] changed"},
      {0, {Route("office", 1), Route("mgmt", 2)}, "[mgmt:2 office:1] in force [office:3] changed"},
      {0, {{true, "office", {}}}, "[mgmt:2] in force [mgmt:2 office:1] changed"},
      {proto::kSyncFull, {}, "[] in force [mgmt:2] changed"},  // mgmt not listed: gone
  };
  for (auto const& [flags, entries, expected] : steps) {
    seen.clear();
    Sync(kDsl, flags, entries);
    EXPECT_TRUE(Logged(seen, kDsl + " received " + expected)) << testing::PrintToString(seen);
  }

  // As the route manager does on a WAN setup change: drop the reported
  // collection and register its successor, all inside OnSync.
  cDBCollection* lte = nullptr;
  onSync = [&](cDataClient* c, cDBCollection* reported) {
    EXPECT_TRUE(c->DeregisterCollection(reported));
    EXPECT_FALSE(c->DeregisterCollection(reported));  // once only
    EXPECT_EQ(reported->GetDir(), kDsl);              // still alive until OnSync returns
    EXPECT_TRUE(c->RegisterCollection(lte = new cDBWanRoutingCollection("lte")));
  };
  Sync(kDsl, 0, {Route("office", 3)});
  ASSERT_TRUE(Logged(manager, "subscribe " + kLte));
  EXPECT_EQ(manager, (Lines{"subscribe " + kDsl, "subscribe " + kStatus, "unsubscribe " + kDsl,
                            "subscribe " + kLte}));

  // Garbage is dropped with a trace and the rest goes on.
  Send(proto::kOpSync, proto::cUnsubscribe{"not a sync"});
  Send(99, proto::cUnsubscribe{"/"});
  cDBStatusWan wan;
  wan.m_wanSetupName.Set("dsl");
  kest::cSerializeBuffer raw;
  wan.Serialize(raw);
  Sync(kStatus, proto::kSyncFull,
       {{false, "LanStatus", {0xFF}}, {false, "WanStatus", raw.Bytes()}, {false, "Printer", {1}}});
  ASSERT_TRUE(Logged(seen, kStatus + " setup dsl"));
  std::string all;
  for (auto const& m : traces.Messages()) all += m + "\n";
  for (char const* text :
       {"dropped sync message", "dropped message with unknown op 99",
        "dropped record /Status/Network/LanStatus", "dropped record /Status/Network/Printer"})
    EXPECT_NE(all.find(text), std::string::npos) << text << " in\n" << all;

  Send(proto::kOpDumpRequest, proto::cDumpRequest{"/var/tmp"});
  ASSERT_TRUE(Logged(seen, "OnDumpRequest /var/tmp"));
  ASSERT_TRUE(Logged(manager, "dump-result /var/tmp failed"));

  // The manager drops the connection: reported, everything subscribed again,
  // and no change applied before the new snapshot.
  seen.clear();
  manager.clear();
  channel->Close("test");
  ASSERT_TRUE(Logged(manager, "subscribe " + kStatus) && Logged(seen, "OnConnect"));
  Sync(kStatus, 0, {{false, "WanStatus", raw.Bytes()}});
  Sync(kStatus, proto::kSyncFull, {{false, "WanStatus", raw.Bytes()}});
  ASSERT_TRUE(Logged(seen, kStatus + " setup dsl"));
  Settle();
  EXPECT_EQ(seen, (Lines{"OnDisconnect", "OnConnect", kStatus + " setup dsl"}));

  // A stop is no lost connection.
  seen.clear();
  client->Stop();
  EXPECT_TRUE(client->DeregisterCollection(lte));
  EXPECT_TRUE(client->DeregisterCollection(status));
  EXPECT_EQ(client->Registered(), 0u);
  Settle();
  EXPECT_EQ(seen, Lines{});
}

}  // namespace
}  // namespace dataIO
