// SIGUSR1 state dumps of a running routemgr, alone and while route clients
// keep it busy. The file is always /tmp/routemgr.dmp: these tests hold a
// CTest resource lock and recognise their own routemgr by its access points.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "e2e/stack.h"
#include "routeIO/route_client.h"

namespace e2e {
namespace {

constexpr char kDumpFile[] = "/tmp/routemgr.dmp";
constexpr int kDumpTimeoutMs = 5000;

// Asks for a dump and reads it once it is whole: ours (it names our data
// manager), ending in a newline, and the same on two reads in a row.
std::string FreshDump(cStack& stack) {
  unlink(kDumpFile);
  stack.route->Signal(SIGUSR1);
  std::string text;
  bool whole = PollUntil(
      [&] {
        text = ReadFile(kDumpFile);
        if (text.empty() || text.back() != '\n') return false;
        if (text.find("CONNECTED (" + stack.DataSap() + ")") == std::string::npos) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        return ReadFile(kDumpFile) == text;
      },
      kDumpTimeoutMs);
  return whole ? text : "";
}

// "EMPTY" or "N Entries" after a label padded to 26 columns.
bool Count(std::string const& line, std::string const& label, int& n) {
  std::string head = " - " + label;
  head.resize(3 + 24, ' ');
  if (line.compare(0, head.size(), head) != 0) return false;
  std::string value = line.substr(head.size());
  if (value == "EMPTY") {
    n = 0;
    return true;
  }
  return std::sscanf(value.c_str(), "%d Entries", &n) == 1 &&
         value == std::to_string(n) + " Entries";
}

// The dump's structure holds together: every count matches the blocks that
// follow it, tags are in order, and nothing is cut short or left over.
// Returns "" or what is wrong.
std::string Inconsistency(std::string const& text, int& routes) {
  std::vector<std::string> l = SplitLines(text);
  std::size_t i = 0;
  auto at = [&](std::size_t k) { return k < l.size() ? l[k] : std::string("<end>"); };
  if (at(0) != "--- ROUTEMGR LR-DUMP ---") return "header: " + at(0);
  if (at(1) != "- Dumpsource: SIG_REQ") return "source: " + at(1);
  char const* const fixed[] = {
      " - m_dataClient:           CONNECTED (", " - m_halClient:            CONNECTED (",
      " - m_networkStatus:        IS SYNCED (", " - m_StatusReceived:       TRUE",
      " - m_RoutingCollection:    IS SYNCED (", " - m_ConfigReceived:       TRUE"};
  for (i = 0; i < 6; ++i)
    if (at(2 + i).rfind(fixed[i], 0) != 0)
      return "line " + std::to_string(3 + i) + ": " + at(2 + i);
  i = 8;
  struct {
    char const* label;
    char const* block;
    std::size_t lines;
    char const* tagLabel;
  } const tables[] = {{"m_Gateways:", "  - cGWEntry:", 6, "   - Gateway Tag:   "},
                      {"m_Routes:", "  - cRouteEntry:", 7, "   - Route Tag:           "}};
  for (auto const& t : tables) {
    int n = 0;
    if (!Count(at(i), t.label, n)) return "count: " + at(i);
    ++i;
    std::string previous;
    for (int k = 0; k < n; ++k, i += t.lines) {
      if (at(i) != t.block)
        return std::string(t.label) + " block " + std::to_string(k) + ": " + at(i);
      std::string tag = at(i + 1).substr(std::string(t.tagLabel).size());
      if (at(i + 1).rfind(t.tagLabel, 0) != 0 || (k > 0 && !(previous < tag)))
        return "tag order: " + at(i + 1);
      previous = tag;
      for (std::size_t m = 1; m < t.lines; ++m)
        if (at(i + m).rfind("   - ", 0) != 0) return "entry line: " + at(i + m);
    }
    routes = n;
  }
  int configured = 0;
  if (!Count(at(i), "Routes By Config:", configured)) return "config count: " + at(i);
  ++i;
  for (int k = 0; k < configured; ++k, ++i)
    if (at(i).rfind("  - ", 0) != 0) return "configured route: " + at(i);
  if (i != l.size()) return "left over: " + at(i);
  return "";
}

TEST(E2eDump, SignalWritesTheStateDump) {
  cStack stack;
  ASSERT_TRUE(stack.Start());
  ASSERT_EQ(stack
                .Routectl({"-b", "-"},
                          "gateway set wired 192.168.1.254 dev eth1 type default "
                          "metric 5\ngateway set vpn 10.8.0.1 dev tun0 metric 7\n")
                .out,
            "ok\nok\n");
  routeIO::cRouteClient client;
  std::string error;
  ASSERT_TRUE(client.Connect(stack.RouteSap(), 3000, error)) << error;
  // Host bits set: the dump shows the network as given.
  ASSERT_EQ(
      client
          .SetRoute(kest::s_socket_addr("10.20.0.77", 0), kest::s_socket_addr("255.255.0.0", 0),
                    kest::s_socket_addr("192.168.1.1", 0), kest::s_socket_addr("192.168.1.20", 0),
                    "eth1", "backup", 4)
          .rc,
      0);

  std::string dump = FreshDump(stack);
  ASSERT_FALSE(dump.empty()) << "no dump from routemgr in " << kDumpFile;
  int routes = 0;
  EXPECT_EQ(Inconsistency(dump, routes), "") << dump;
  std::string const expected[] = {
      " - m_dataClient:           CONNECTED (" + stack.DataSap() + ")\n",
      " - m_halClient:            CONNECTED (" + stack.HalSap() + ")\n",
      " - m_Gateways:             2 Entries\n"
      "  - cGWEntry:\n"
      "   - Gateway Tag:   vpn\n"
      "   - m_gatewayIP:   10.8.0.1\n"
      "   - m_gatewayIF:   tun0\n"
      "   - m_gatewayPrio: 7\n"
      "   - m_gatewayType: NORMAL\n"
      "  - cGWEntry:\n"
      "   - Gateway Tag:   wired\n"
      "   - m_gatewayIP:   192.168.1.254\n"
      "   - m_gatewayIF:   eth1\n"
      "   - m_gatewayPrio: 5\n"
      "   - m_gatewayType: DEFAULT\n"
      " - m_Routes:               1 Entries\n"
      "  - cRouteEntry:\n"
      "   - Route Tag:           backup\n"
      "   - Network:             10.20.0.77/255.255.0.0\n"
      "   - m_gatewayIP:         192.168.1.1\n"
      "   - m_preferredSourceIP: 192.168.1.20\n"
      "   - m_gatewayIF:         eth1\n"
      "   - m_routePrio:         4\n"
      " - Routes By Config:       4 Entries\n"};
  for (auto const& part : expected) EXPECT_NE(dump.find(part), std::string::npos) << part << dump;

  // The route goes with its client, and the next dump says so.
  client.Close();
  EXPECT_TRUE(PollUntil(
      [&] {
        return FreshDump(stack).find(" - m_Routes:               EMPTY\n") != std::string::npos;
      },
      kDumpTimeoutMs));
}

TEST(E2eDump, SignalUnderLoadWritesConsistentDumps) {
  cStack stack;
  ASSERT_TRUE(stack.Start());
  // Route clients that set and delete routes as fast as routemgr answers,
  // now and then announcing a gateway too.
  constexpr int kClients = 3, kLines = 6000, kTags = 150;
  std::vector<std::unique_ptr<cProcess>> load;
  for (int c = 0; c < kClients; ++c) {
    std::string path = stack.Dir() + "/load" + std::to_string(c) + ".txt";
    std::ofstream f(path);
    for (int n = 0; n < kLines; ++n) {
      int tag = n % kTags;
      if ((n / kTags) % 2 == 0) {
        f << "route set c" << c << "-" << tag << " 10." << (c + 40) << "." << tag
          << ".0/24 via 192.168.1.1 dev eth1 metric " << n << "\n";
      } else {
        f << "route del c" << c << "-" << tag << "\n";
      }
      if (n % 500 == 0) f << "gateway set g" << c << " 192.168.1." << (n % 250 + 1) << "\n";
    }
    f.close();
    load.push_back(stack.SpawnRoutectl({"-b", path}));
  }
  auto loadRunning = [&] {
    for (auto& p : load)
      if (p->Running()) return true;
    return false;
  };

  int dumps = 0, underLoad = 0;
  while (loadRunning() || dumps < 3) {
    bool const loaded = loadRunning();
    std::string dump = FreshDump(stack);
    ASSERT_FALSE(dump.empty()) << "no dump under load (dump " << dumps << ")";
    int routes = 0;
    ASSERT_EQ(Inconsistency(dump, routes), "") << dump;
    ++dumps;
    if (loaded) ++underLoad;
  }
  for (auto& p : load) {
    EXPECT_TRUE(p->WaitExit(kStartTimeoutMs));
    EXPECT_EQ(p->Status(), 0) << p->Log().substr(0, 400);
  }
  EXPECT_GT(underLoad, 0) << "the load was over before the first dump";
  RecordProperty("dumps", dumps);
}

}  // namespace
}  // namespace e2e
