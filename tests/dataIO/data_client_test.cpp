#include "dataIO/data_client.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <memory>

#include "dataIO/data_protocol.h"
#include "datastore/records/db_network_status_collection.h"
#include "datastore/records/db_wan_routing_collection.h"
#include "kest/loop.h"
#include "kest/server.h"
#include "kest/service.h"
#include "kest/trace.h"

namespace dataIO {
namespace {

std::string const kDsl = "/Config/Network/WanSetups/dsl/Routing/";
std::string const kStatus = "/Status/Network/";

// Stands in for the data manager: records what the client sends and sends
// what a test tells it to.
class cFakeManager : public kest::IServerHandler {
 public:
  explicit cFakeManager(kest::cService* service) : server(service, this, "fake") {}

  void OnOpen(kest::cChannel* ch) override { channel = ch; }
  void OnClose(kest::cChannel* ch) override {
    if (channel == ch) channel = nullptr;
  }
  void OnFrame(kest::cChannel*, kest::cFrame& frame) override {
    std::string error;
    if (frame.op == proto::kOpSubscribe) {
      proto::cSubscribe m;
      ASSERT_TRUE(proto::Decode(frame.body, m, error));
      tags[m.dir] = m.tag;
      log.push_back("subscribe " + m.dir);
    } else if (frame.op == proto::kOpUnsubscribe) {
      proto::cUnsubscribe m;
      ASSERT_TRUE(proto::Decode(frame.body, m, error));
      log.push_back("unsubscribe " + m.dir);
    } else if (frame.op == proto::kOpDumpResult) {
      proto::cDumpResult m;
      ASSERT_TRUE(proto::Decode(frame.body, m, error));
      log.push_back("dump-result " + m.dir + (m.ok ? " ok" : " failed"));
    }
  }

  void Send(std::uint16_t op, kest::cSerializeBuffer body) {
    ASSERT_NE(channel, nullptr);
    kest::cFrame frame;
    frame.op = op;
    frame.body = std::move(body);
    channel->Send(frame);
  }
  void Sync(std::string const& dir, std::uint8_t flags, std::vector<proto::cSyncEntry> entries) {
    kest::cSerializeBuffer body;
    proto::Encode(proto::cSync{dir, flags & proto::kSyncFull ? tags[dir] : 0, flags, entries}, body);
    Send(proto::kOpSync, std::move(body));
  }

  kest::cServer server;
  kest::cChannel* channel = nullptr;
  std::vector<std::string> log;
  std::map<std::string, std::uint32_t> tags;
};

std::string Routes(cDBWanRoutingCollection::RouteMap const& routes) {
  std::string text;
  for (auto const& r : routes) text += (text.empty() ? "" : "; ") + r.first + " " + r.second.ToString("");
  return text.empty() ? "-" : text;
}

class cRecorder : public IDataClient {
 public:
  void OnConnect(kest::cServiceClient*) override { log.push_back("OnConnect"); }
  void OnDisconnect(kest::cServiceClient*) override { log.push_back("OnDisconnect"); }
  void OnSync(cDataClient* client, cDBCollection* c) override {
    ++depth;
    EXPECT_EQ(depth, 1) << "OnSync re-entered";
    EXPECT_TRUE(c->IsSynced());
    std::string line = "OnSync " + c->GetDir();
    if (auto* r = dynamic_cast<cDBWanRoutingCollection*>(c)) {
      line += " received [" + Routes(r->RoutesReceived()) + "] in force [" +
              Routes(r->RoutesInForce()) + "]" + (r->HasChanged() ? " changed" : " unchanged");
    }
    if (auto* s = dynamic_cast<cDBNetworkStatusCollection*>(c))
      line += " setup " + s->ReceivedWanSetupName();
    log.push_back(line);
    if (onSync) onSync(client, c);
    --depth;
  }
  bool OnDumpRequest(cDataClient*, kest::s_string const& dir) override {
    log.push_back("OnDumpRequest " + dir.Get());
    return false;
  }

  std::vector<std::string> log;
  std::function<void(cDataClient*, cDBCollection*)> onSync;
  int depth = 0;
};

proto::cSyncEntry Route(std::string const& key, char const* net, char const* mask,
                        std::uint8_t via) {
  cDBConfigWanRoute r(key, kDsl, kest::s_socket_addr(net, 0), kest::s_socket_addr(mask, 0),
                      kest::s_socket_addr(), via, "");
  kest::cSerializeBuffer b;
  r.Serialize(b);
  return {false, key, b.Bytes()};
}

class DataClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    kest::ResetLoop();
    std::string error;
    ASSERT_TRUE(fake.server.Listen("127.0.0.1:0", error)) << error;
    client = std::make_unique<cDataClient>(&service, &rec, 1000,
                                           "127.0.0.1:" + std::to_string(fake.server.BoundPort()));
  }

  bool RunUntil(std::function<bool()> done) {
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (!done() && std::chrono::steady_clock::now() < deadline) kest::Loop().RunOnce(10);
    return done();
  }
  // Lets whatever is in flight arrive (nothing is expected to).
  void Settle() {
    for (int i = 0; i < 20; ++i) kest::Loop().RunOnce(5);
  }
  bool Logged(std::vector<std::string> const& log, std::string const& line) {
    return RunUntil([&] { return std::find(log.begin(), log.end(), line) != log.end(); });
  }
  void Connect() {
    ASSERT_TRUE(client->Start());
    ASSERT_TRUE(Logged(rec.log, "OnConnect"));
  }

  kest::cService service;
  cFakeManager fake{&service};
  cRecorder rec;
  std::unique_ptr<cDataClient> client;
};

TEST_F(DataClientTest, EachSyncShowsTheReceivedEntriesAgainstThoseInForce) {
  // Registered before the connection: subscribed once it is up.
  ASSERT_TRUE(client->RegisterCollection(new cDBWanRoutingCollection("dsl")));
  auto* twin = new cDBWanRoutingCollection("dsl");
  EXPECT_FALSE(client->RegisterCollection(twin));  // same directory: refused, still ours
  delete twin;
  EXPECT_FALSE(client->RegisterCollection(nullptr));
  Connect();
  ASSERT_TRUE(Logged(fake.log, "subscribe " + kDsl));

  struct Step {
    std::uint8_t flags;
    std::vector<proto::cSyncEntry> entries;
    std::string expected;
  } const steps[] = {
      {proto::kSyncFull,
       {Route("office", "10.10.0.0", "255.255.0.0", 3)},
       "received [office 10.10.0.0/255.255.0.0 via vpn (gw 0.0.0.0)] in force [-] changed"},
      {0,
       {Route("office", "10.10.0.0", "255.255.0.0", 1), Route("mgmt", "10.50.0.0", "255.255.255.0", 2)},
       "received [mgmt 10.50.0.0/255.255.255.0 via wireless (gw 0.0.0.0); office "
       "10.10.0.0/255.255.0.0 via wired (gw 0.0.0.0)] in force [office 10.10.0.0/255.255.0.0 via "
       "vpn (gw 0.0.0.0)] changed"},
      {0,  // the same entry again changes nothing
       {Route("office", "10.10.0.0", "255.255.0.0", 1)},
       "received [mgmt 10.50.0.0/255.255.255.0 via wireless (gw 0.0.0.0); office "
       "10.10.0.0/255.255.0.0 via wired (gw 0.0.0.0)] in force [mgmt 10.50.0.0/255.255.255.0 via "
       "wireless (gw 0.0.0.0); office 10.10.0.0/255.255.0.0 via wired (gw 0.0.0.0)] unchanged"},
      {0,
       {{true, "mgmt", {}}},
       "received [office 10.10.0.0/255.255.0.0 via wired (gw 0.0.0.0)] in force [mgmt "
       "10.50.0.0/255.255.255.0 via wireless (gw 0.0.0.0); office 10.10.0.0/255.255.0.0 via wired "
       "(gw 0.0.0.0)] changed"},
      {proto::kSyncFull,  // a new snapshot without "office" removes it
       {},
       "received [-] in force [office 10.10.0.0/255.255.0.0 via wired (gw 0.0.0.0)] changed"},
  };
  for (auto const& step : steps) {
    rec.log.clear();
    fake.Sync(kDsl, step.flags, step.entries);
    ASSERT_TRUE(RunUntil([&] { return !rec.log.empty(); }));
    EXPECT_EQ(rec.log[0], "OnSync " + kDsl + " " + step.expected);
  }
}

TEST_F(DataClientTest, DeregisteringTheReportedCollectionInsideOnSyncIsSafe) {
  Connect();
  ASSERT_TRUE(client->RegisterCollection(new cDBWanRoutingCollection("dsl")));
  ASSERT_TRUE(Logged(fake.log, "subscribe " + kDsl));
  // As the route manager does on a WAN setup change: drop the reported
  // collection and register its successor, all inside OnSync.
  rec.onSync = [&](cDataClient* c, cDBCollection* reported) {
    rec.onSync = nullptr;
    EXPECT_TRUE(c->DeregisterCollection(reported));
    EXPECT_FALSE(c->DeregisterCollection(reported));  // once only
    EXPECT_EQ(reported->GetDir(), kDsl);               // still alive until OnSync returns
    EXPECT_TRUE(c->RegisterCollection(new cDBWanRoutingCollection("lte")));
  };
  fake.Sync(kDsl, proto::kSyncFull, {Route("office", "10.10.0.0", "255.255.0.0", 3)});
  ASSERT_TRUE(Logged(fake.log, "subscribe /Config/Network/WanSetups/lte/Routing/"));
  EXPECT_EQ(fake.log[1], "unsubscribe " + kDsl);
  EXPECT_EQ(client->Registered(), 1u);

  // Later changes of the old directory reach nobody.
  rec.log.clear();
  fake.Sync(kDsl, 0, {Route("x", "10.1.0.0", "255.255.0.0", 1)});
  Settle();
  EXPECT_TRUE(rec.log.empty());
}

TEST_F(DataClientTest, DeregistrationOfNullAndWhileStoppedIsAccepted) {
  EXPECT_FALSE(client->DeregisterCollection(nullptr));
  Connect();
  auto* status = new cDBNetworkStatusCollection();
  ASSERT_TRUE(client->RegisterCollection(status));
  ASSERT_TRUE(Logged(fake.log, "subscribe " + kStatus));
  rec.log.clear();
  client->Stop();
  EXPECT_TRUE(client->DeregisterCollection(status));
  EXPECT_EQ(client->Registered(), 0u);
  Settle();
  EXPECT_TRUE(rec.log.empty()) << "an explicit stop is not reported as a lost connection";
}

TEST_F(DataClientTest, RestartingFromInsideOnSyncReconnectsOnce) {
  Connect();
  ASSERT_TRUE(client->RegisterCollection(new cDBNetworkStatusCollection()));
  ASSERT_TRUE(Logged(fake.log, "subscribe " + kStatus));
  // The route manager's restart: stop, drop everything, start again.
  rec.onSync = [&](cDataClient* c, cDBCollection* reported) {
    rec.onSync = nullptr;
    c->Stop();
    c->DeregisterCollection(reported);
    c->Start();
  };
  rec.log.clear();
  fake.Sync(kStatus, proto::kSyncFull, {});
  ASSERT_TRUE(Logged(rec.log, "OnConnect"));
  Settle();
  EXPECT_EQ(rec.log, (std::vector<std::string>{"OnSync " + kStatus + " setup ", "OnConnect"}));
}

TEST_F(DataClientTest, UndecodableInputIsDroppedWithATraceAndTheRestGoesOn) {
  kest::cTraceCapture traces;
  Connect();
  ASSERT_TRUE(client->RegisterCollection(new cDBNetworkStatusCollection()));
  ASSERT_TRUE(Logged(fake.log, "subscribe " + kStatus));

  fake.Send(proto::kOpSync, kest::cSerializeBuffer("\x05junk", 5));
  fake.Send(99, kest::cSerializeBuffer());
  cDBStatusWan wan;
  wan.m_wanSetupName.Set("dsl");
  kest::cSerializeBuffer wanBytes;
  wan.Serialize(wanBytes);
  fake.Sync(kStatus, proto::kSyncFull,
            {{false, "LanStatus", {0xFF, 0x00}}, {false, "WanStatus", wanBytes.Bytes()},
             {false, "Printer", {1}}});
  ASSERT_TRUE(Logged(rec.log, "OnSync " + kStatus + " setup dsl"));

  auto has = [&](std::string const& text) {
    for (auto const& m : traces.Messages())
      if (m.find(text) != std::string::npos) return true;
    return false;
  };
  EXPECT_TRUE(has("dropped sync message"));
  EXPECT_TRUE(has("dropped message with unknown op 99"));
  EXPECT_TRUE(has("dropped record /Status/Network/LanStatus"));
  EXPECT_TRUE(has("dropped record /Status/Network/Printer"));
  EXPECT_EQ(std::count(rec.log.begin(), rec.log.end(), "OnDisconnect"), 0);
}

TEST_F(DataClientTest, DumpRequestsAndALostConnectionReachTheCallbacks) {
  Connect();
  ASSERT_TRUE(client->RegisterCollection(new cDBNetworkStatusCollection()));
  ASSERT_TRUE(Logged(fake.log, "subscribe " + kStatus));
  std::uint32_t const firstTag = fake.tags[kStatus];

  kest::cSerializeBuffer body;
  proto::Encode(proto::cDumpRequest{"/var/tmp"}, body);
  fake.Send(proto::kOpDumpRequest, std::move(body));
  ASSERT_TRUE(Logged(rec.log, "OnDumpRequest /var/tmp"));
  ASSERT_TRUE(Logged(fake.log, "dump-result /var/tmp failed"));

  // The manager goes away: reported, then the client reconnects and
  // subscribes its registered collection again.
  rec.log.clear();
  fake.log.clear();
  fake.channel->Close("test");
  ASSERT_TRUE(Logged(rec.log, "OnConnect"));
  EXPECT_EQ(rec.log, (std::vector<std::string>{"OnDisconnect", "OnConnect"}));
  ASSERT_TRUE(Logged(fake.log, "subscribe " + kStatus));
  EXPECT_NE(fake.tags[kStatus], firstTag);
}

}  // namespace
}  // namespace dataIO
