// The passes whose HAL answers are only traced go out as batches: against a
// real proxy they must ask and trace exactly what the recording fake, asked
// one call at a time, shows for the same answers.
#ifdef HALPROXY_BIN
#include <algorithm>
#include <functional>
#include <iterator>
#include <sstream>

#include "hal/hal_protocol.h"
#include "service_fixture.h"
#include "support/stack.h"

namespace {

// The proxy's log of the requests it answered, in the fake's notation.
Lines ProxyCalls(std::string const& log) {
  Lines calls;
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::vector<std::string> const w{std::istream_iterator<std::string>(words), {}};
    auto const arrow = std::find(w.begin(), w.end(), "->");
    if (arrow - w.begin() < 5) continue;  // not "date time level request -> result"
    std::vector<std::string> const r(w.begin() + 3, arrow);
    std::string const& op = r[0];
    auto net = [&] {
      return r[1].substr(0, r[1].find('/')) + " " + r[1].substr(r[1].find('/') + 1);
    };
    auto avail = [](std::string const& a) { return a.substr(a.find('=') + 1); };
    if (op == "ConfigureIPGateway" && r.size() == 11)
      calls.push_back(op + " " + net() + " " + r[3] + " " + r[7] + " '" +
                      (r[5] == "-" ? "" : r[5]) + "' " + r[9] + " " + avail(r[10]));
    else if (op == "RemoveIPGateway" && r.size() == 5)
      calls.push_back(op + " " + net() + " " + r[3] + " " + avail(r[4]));
    else if (op == "ConfigureIpDefaultGateway" && r.size() == 4)
      calls.push_back(op + " " + r[1] + " " + r[3]);
    else if (op == "RemoveIPDefaultGateway" && r.size() == 2)
      calls.push_back(op + " " + r[1]);
  }
  return calls;
}

struct Outcome {
  Lines calls, traces;
};

class HalBatchTest : public ServiceTest {
 protected:
  // The scenario; fail(step) makes the HAL answer as the proxy will at that step.
  Outcome Scenario(std::function<void(int)> const& fail) {
    Outcome run;
    fail(0);
    SetGw("wired", "192.168.1.1", NORMAL, 0, "eth1");
    ConnectData();
    SyncStatus("dsl");
    SyncRouting({{"a", "10.1.0.0", "255.255.0.0", 1},
                 {"b", "10.2.0.0", "255.255.0.0", 3},
                 {"c", "10.3.0.0", "255.255.0.0", 1}});
    // The VPN's interface does not exist: its route fails between two good ones.
    SetGw("vpn", "10.8.0.1", NORMAL, 7, "tun0");
    SetRoute(1, "10.4.0.0", "255.255.0.0", "192.168.1.1", "t1");
    SetRoute(1, "10.5.0.0", "255.255.0.0", "192.168.1.1", "t2", "0.0.0.0", "tun0");
    SetRoute(1, "10.6.0.0", "255.255.0.0", "192.168.1.1", "t3");
    svc->OnClientClosed(nullptr, Client(1));
    fail(1);  // the next removal meets an injected fault
    SyncRouting({{"a", "10.1.0.0", "255.255.0.0", 1}, {"c", "10.3.0.0", "255.255.0.0", 1}});
    fail(2);  // the proxy is gone
    run.calls = hal.Take();
    svc->DelGateway("wired");
    run.traces = Traces();
    return run;
  }
};

TEST_F(HalBatchTest, BatchedPassesAskAndTraceAsTheCallsOneByOne) {
  if (std::string const why = testsupport::CannotStartPrograms(); !why.empty()) GTEST_SKIP() << why;
  Outcome const fake = Scenario([this](int step) {
    auto& line = hal.answer;
    if (step == 0) {
      line["ConfigureIPGateway 10.2.0.0 255.255.0.0 10.8.0.1 0.0.0.0 'tun0' 7 1"] = -19;
      line["ConfigureIPGateway 10.5.0.0 255.255.0.0 192.168.1.1 0.0.0.0 'tun0' 0 1"] = -19;
    }
    if (step == 1) line["RemoveIPGateway 10.1.0.0 255.255.0.0 192.168.1.1 1"] = -1;
    if (step == 2) {
      line["RemoveIPGateway 10.1.0.0 255.255.0.0 192.168.1.1 1"] = -1004;  // in flight
      hal.answer["RemoveIPGateway"] = hal.answer["ConfigureIPGateway"] = -1001;
    }
  });
  EXPECT_EQ(fake.traces.back(), "Error Setting Route :-1001");

  testsupport::cStack stack;
  // Fault injection is a test operation, off unless switched on.
  stack.halArgs.insert(stack.halArgs.end(), {"--interfaces=eth1", "--enable-test-ops"});
  ASSERT_TRUE(stack.StartHal());
  kest::cService service;
  hal::cHalClient tester(&service, nullptr, 3000, stack.halSap);
  svc = std::make_unique<cRouteMgrService>("127.0.0.1:1", stack.halSap);
  svc->DataClient().Redirect(&data);
  ASSERT_TRUE(tester.Start() && svc->HalClient().Start());
  ASSERT_TRUE(testsupport::PumpUntil(
      [&] { return tester.IsConnected() && svc->HalClient().IsConnected(); }));
  clients.clear();
  Traces();
  Lines calls;
  Outcome const real = Scenario([&](int step) {
    if (step == 1) {
      EXPECT_EQ(0, tester.InjectFault(hal::halop::kRemoveIPGateway, -1, 1));
    }
    if (step == 2) {
      calls = ProxyCalls(stack.hal->Log());
      stack.hal->Kill();
    }
  });
  EXPECT_EQ(calls, fake.calls);
  EXPECT_EQ(real.traces, fake.traces);
}

}  // namespace
#endif  // HALPROXY_BIN
