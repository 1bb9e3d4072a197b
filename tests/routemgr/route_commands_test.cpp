#include "service_fixture.h"

TEST_F(ServiceTest, SetRouteMasksTheNetworkAndReplacesARouteOfTheSameTag) {
  auto r = SetRoute(1, "192.168.1.77", "255.255.255.0", "10.0.0.1", "a", "0.0.0.0", "eth1", 7);
  EXPECT_TRUE(r.success && r.rc == 0);
  EXPECT_EQ(hal.Take(),
            Lines{"ConfigureIPGateway 192.168.1.0 255.255.255.0 10.0.0.1 0.0.0.0 'eth1' 7 1"});
  EXPECT_EQ(Traces(), Lines{"Recieved SetRoute (Net:192.168.1.77/255.255.255.0, GW: 10.0.0.1, "
                            "Tag:a, IF:eth1, SRC:0.0.0.0)"});

  // A failed removal of the old route is traced twice but does not fail the new one.
  hal.answer["RemoveIPGateway"] = -3;
  r = SetRoute(1, "10.2.0.0", "255.255.0.0", "10.0.0.2", "a");
  EXPECT_EQ(hal.Take(),
            (Lines{"RemoveIPGateway 192.168.1.0 255.255.255.0 10.0.0.1 1",
                   "ConfigureIPGateway 10.2.0.0 255.255.0.0 10.0.0.2 0.0.0.0 'eth1' 0 1"}));
  EXPECT_TRUE(r.success);
  EXPECT_EQ(Traces().back(), "Error Deleting existing Route after SetRoute Cmd (rc:-3)");
  EXPECT_EQ(svc->Routes().size(), 1u);

  // A failed installation keeps the route for the refresh.
  hal.answer["ConfigureIPGateway"] = 5;
  r = SetRoute(1, "10.1.0.0", "255.255.0.0", "10.0.0.1", "b");
  EXPECT_TRUE(!r.success && r.rc == 5);
  EXPECT_EQ(Traces().back(), "Error Setting Route :5");
  EXPECT_EQ(svc->Routes().count("b"), 1u);
  EXPECT_EQ(svc->RoutesByClient().at(Client(1)), (std::set<std::string>{"a", "b"}));
}

TEST_F(ServiceTest, DelRoute) {
  struct Case {
    char const* name;
    bool setFirst;
    int halAnswer;
    routeIO::routeResult want;
    Lines halLog;
  } cases[] = {
      {"known", true, 0, {true, 0}, {"RemoveIPGateway 10.1.0.0 255.255.0.0 10.0.0.1 1"}},
      {"hal fails", true, -2, {false, -2}, {"RemoveIPGateway 10.1.0.0 255.255.0.0 10.0.0.1 1"}},
      {"unknown tag", false, 0, {false, -100}, {}},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.setFirst) SetRoute(1, "10.1.2.3", "255.255.0.0", "10.0.0.1", "a");
    hal.Take();
    hal.answer["RemoveIPGateway"] = c.halAnswer;
    auto r = svc->DelRoute(Client(1), "a");
    EXPECT_EQ(r.success, c.want.success);
    EXPECT_EQ(r.rc, c.want.rc);
    EXPECT_EQ(hal.Take(), c.halLog);
    EXPECT_EQ(svc->Routes().count("a"), 0u);
  }
  // The client keeps its (now empty) entry until its connection closes.
  EXPECT_TRUE(svc->RoutesByClient().at(Client(1)).empty());
}

// Tags are shared between clients: A's close removes B's route x, in tag
// order and all of them even when the HAL fails; B's close then finds
// nothing left.
TEST_F(ServiceTest, AClosingClientTakesItsTagsWithIt) {
  SetRoute(1, "10.3.0.0", "255.255.0.0", "10.0.0.1", "c");
  SetRoute(1, "10.1.0.0", "255.255.0.0", "10.0.0.1", "x");
  SetRoute(2, "10.1.0.0", "255.255.0.0", "10.0.0.2", "x");
  SetRoute(1, "10.2.0.0", "255.255.0.0", "10.0.0.1", "b");
  SetRoute(2, "10.2.0.0", "255.255.0.0", "10.0.0.1", "b");
  svc->DelRoute(Client(2), "b");
  hal.Take();
  Traces();
  hal.answer["RemoveIPGateway"] = -1;
  svc->OnClientClosed(nullptr, Client(1));
  EXPECT_EQ(hal.Take(), (Lines{"RemoveIPGateway 10.3.0.0 255.255.0.0 10.0.0.1 1",
                               "RemoveIPGateway 10.1.0.0 255.255.0.0 10.0.0.2 1"}));
  EXPECT_EQ(Traces(), (Lines{"Route Client Closed:10.0.0.1:4001",
                             "found custom routes by disconnected client - deleting",
                             "Error Deleting Route :-1", "Error Deleting Route :-1",
                             "2 of 3 routes deleted"}));
  EXPECT_TRUE(svc->Routes().empty());

  svc->OnClientClosed(nullptr, Client(2));
  EXPECT_TRUE(hal.Take().empty());
  EXPECT_EQ(Traces().back(), "0 of 1 routes deleted");
  EXPECT_TRUE(svc->RoutesByClient().empty());
}
