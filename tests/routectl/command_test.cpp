#include "routectl/command.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace routeIO;

// A parsed command as one readable line, so cases compare whole commands.
std::string Show(routectl::cParsed const& p) {
  if (p.kind != routectl::cParsed::kCommand) return p.kind == p.kEmpty ? "empty" : p.error;
  std::string s = routectl::Verb(p.command) + " " + routectl::TagOf(p.command);
  if (auto* g = std::get_if<cSetGatewayCmd>(&p.command))
    s += " " + g->address.GetIPString() + " dev=" + g->ifname + " type=" + std::to_string(g->type) +
         " prio=" + std::to_string(g->priority);
  if (auto* r = std::get_if<cSetRouteCmd>(&p.command))
    s += " " + r->network.GetIPString() + "/" + r->netmask.GetIPString() + " via " +
         r->gateway.GetIPString() + " dev=" + r->ifname + " src=" + r->source.GetIPString() +
         " prio=" + std::to_string(r->priority);
  return s;
}

TEST(RoutectlParse, LinesOfTheGrammarGiveTheirCommandOthersNameTheirFault) {
  std::pair<char const*, char const*> const cases[] = {
      {"gateway set wired 192.168.1.1", "gateway set wired 192.168.1.1 dev= type=2 prio=0"},
      {"gw add vpn 10.8.0.1 metric 7 type default dev tun0",
       "gateway set vpn 10.8.0.1 dev=tun0 type=1 prio=7"},
      {"gateway set odd 1.2.3.4 type 7 metric 4294967295",
       "gateway set odd 1.2.3.4 dev= type=7 prio=4294967295"},
      {"gateway del wired", "gateway del wired"},
      {"route set backup 10.20.0.0/16 via 192.168.1.1 dev eth1",
       "route set backup 10.20.0.0/255.255.0.0 via 192.168.1.1 dev=eth1 src=0.0.0.0 prio=0"},
      {"route add b 192.168.1.77/255.255.255.0 via 10.0.0.1 src 10.0.0.2 metric 3",
       "route set b 192.168.1.77/255.255.255.0 via 10.0.0.1 dev= src=10.0.0.2 prio=3"},
      {"route set d default via 10.0.0.1\r",
       "route set d 0.0.0.0/0.0.0.0 via 10.0.0.1 dev= src=0.0.0.0 prio=0"},
      {"  \troute   delete  Backup  # comment", "route del Backup"},
      {"route del x#y", "route del x#y"},
      {" # route del x", "empty"},
      {"router set x", "unknown command 'router' (gateway or route)"},
      {"route del", "usage: route del TAG"},
      {"gateway set wired 01.2.3.4x", "bad gateway address '01.2.3.4x' (a.b.c.d)"},
      {"route set x 010.0.0.0/8 via 1.2.3.4",  // refused as inet_pton does, not read as 10
       "bad prefix '010.0.0.0/8' (a.b.c.d/len or a.b.c.d/netmask)"},
      {"route set x 10.0.0.0/8", "'via GW' is missing"},
      {"route set x 10.0.0.0/33 via 1.2.3.4", "bad prefix length in '10.0.0.0/33' (0..32)"},
      {"route set x 10.0.0.0/255.0.255.0 via 1.2.3.4",
       "netmask in '10.0.0.0/255.0.255.0' is not contiguous"},
      {"route set x 10.0.0.0/8 via 1.2.3.4 type default",
       "unexpected word 'type' (expected one of: via, dev, src, metric)"},
      {"route set x 10.0.0.0/8 via 1.2.3.4 metric -1", "bad metric '-1' (a number 0..4294967295)"},
      {"route set x 10.0.0.0/8 via 1.2.3.4 dev abcdefghijklmnop",
       "interface name 'abcdefghijklmnop' longer than 15 characters"},
      {"gateway set wired", "usage: gateway set TAG ADDR [dev IF] [type T] [metric N]"},
      {"gateway set wired 1.2.3.4 type fancy", "bad type 'fancy' (default, normal or a number)"},
  };
  for (auto const& [line, expected] : cases)
    EXPECT_EQ(Show(routectl::ParseLine(line)), expected) << line;
}

TEST(RoutectlParse, BoundsWhatItQuotesAndTakesWordsAsGiven) {
  EXPECT_EQ(Show(routectl::ParseLine("route \x01\xff" + std::string(100, 'x'))),
            "unknown route command '??xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx...' (set or del)");
  EXPECT_EQ(
      Show(routectl::ParseLine("route del " + std::string(kest::s_string::kMaxLength + 1, 't'))),
      "tag longer than 16384 bytes");
  // Words from the command line keep blanks and hashes.
  EXPECT_EQ(Show(routectl::ParseWords({"route", "del", "#my tag"})), "route del #my tag");
}

}  // namespace
