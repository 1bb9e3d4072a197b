#include "routectl/command.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using routeIO::cDelGatewayCmd;
using routeIO::cDelRouteCmd;
using routeIO::cSetGatewayCmd;
using routeIO::cSetRouteCmd;

// A parsed command as one readable line, so cases compare whole commands.
std::string Show(routectl::cParsed const& p) {
  if (p.kind == routectl::cParsed::kEmpty) return "empty";
  if (p.kind == routectl::cParsed::kError) return "error: " + p.error;
  struct {
    std::string operator()(cSetGatewayCmd const& c) const {
      return "SetGateway " + c.tag + " " + c.address.GetIPString() + " dev=" + c.ifname +
             " type=" + std::to_string(c.type) + " prio=" + std::to_string(c.priority);
    }
    std::string operator()(cSetRouteCmd const& c) const {
      return "SetRoute " + c.tag + " " + c.network.GetIPString() + "/" + c.netmask.GetIPString() +
             " via " + c.gateway.GetIPString() + " dev=" + c.ifname +
             " src=" + c.source.GetIPString() + " prio=" + std::to_string(c.priority);
    }
    std::string operator()(cDelGatewayCmd const& c) const { return "DelGateway " + c.tag; }
    std::string operator()(cDelRouteCmd const& c) const { return "DelRoute " + c.tag; }
  } show;
  return std::visit(show, p.command);
}

struct Case {
  char const* line;
  char const* expected;
};

TEST(RoutectlParse, AcceptsTheGrammar) {
  Case const cases[] = {
      {"gateway set wired 192.168.1.1", "SetGateway wired 192.168.1.1 dev= type=2 prio=0"},
      {"gateway set wired 192.168.1.1 dev eth1 type default metric 5",
       "SetGateway wired 192.168.1.1 dev=eth1 type=1 prio=5"},
      {"gw add vpn 10.8.0.1 metric 7 type normal dev tun0",
       "SetGateway vpn 10.8.0.1 dev=tun0 type=2 prio=7"},
      {"gateway set odd 1.2.3.4 type 7", "SetGateway odd 1.2.3.4 dev= type=7 prio=0"},
      {"gateway set max 1.2.3.4 metric 4294967295",
       "SetGateway max 1.2.3.4 dev= type=2 prio=4294967295"},
      {"gateway del wired", "DelGateway wired"},
      {"route set backup 10.20.0.0/16 via 192.168.1.1 dev eth1",
       "SetRoute backup 10.20.0.0/255.255.0.0 via 192.168.1.1 dev=eth1 src=0.0.0.0 prio=0"},
      {"route set b 192.168.1.77/255.255.255.0 via 10.0.0.1 src 10.0.0.2 metric 3",
       "SetRoute b 192.168.1.77/255.255.255.0 via 10.0.0.1 dev= src=10.0.0.2 prio=3"},
      {"route add h 8.8.8.8 via 10.0.0.1",
       "SetRoute h 8.8.8.8/255.255.255.255 via 10.0.0.1 "
       "dev= src=0.0.0.0 prio=0"},
      {"route set d default via 10.0.0.1",
       "SetRoute d 0.0.0.0/0.0.0.0 via 10.0.0.1 dev= "
       "src=0.0.0.0 prio=0"},
      {"route set z 10.0.0.0/0 via 10.0.0.1",
       "SetRoute z 10.0.0.0/0.0.0.0 via 10.0.0.1 dev= src=0.0.0.0 prio=0"},
      {"route del backup", "DelRoute backup"},
      {"  \troute   delete  Backup  # comment", "DelRoute Backup"},
      {"route del x#y", "DelRoute x#y"},
      {"route set t 10.0.0.0/8 via 1.1.1.1\r",
       "SetRoute t 10.0.0.0/255.0.0.0 via 1.1.1.1 dev= "
       "src=0.0.0.0 prio=0"},
      {"", "empty"},
      {"   ", "empty"},
      {"# route del x", "empty"},
  };
  for (auto const& c : cases) {
    EXPECT_EQ(Show(routectl::ParseLine(c.line)), c.expected) << c.line;
  }
}

TEST(RoutectlParse, RejectsMalformedLinesNamingTheProblem) {
  Case const cases[] = {
      {"router set x", "error: unknown command 'router' (gateway or route)"},
      {"route", "error: 'route' needs 'set' or 'del'"},
      {"route get x", "error: unknown route command 'get' (set or del)"},
      {"route del", "error: usage: route del TAG"},
      {"route del a b", "error: unexpected word 'b' after the tag"},
      {"route set x 10.0.0.0/8", "error: 'via GW' is missing"},
      {"route set x 10.0.0.0/8 via", "error: 'via' needs a value"},
      {"route set x 10.0.0.0/8 via 1.2.3", "error: bad gateway address '1.2.3' (a.b.c.d)"},
      {"route set x 10.0.0.0/33 via 1.2.3.4", "error: bad prefix length in '10.0.0.0/33' (0..32)"},
      {"route set x 10.0.0.0/ via 1.2.3.4", "error: bad prefix length in '10.0.0.0/' (0..32)"},
      {"route set x 10.0.0.256/8 via 1.2.3.4",
       "error: bad prefix '10.0.0.256/8' (a.b.c.d/len or a.b.c.d/netmask)"},
      {"route set x 10.0.0.0/255.0.255.0 via 1.2.3.4",
       "error: netmask in '10.0.0.0/255.0.255.0' is not contiguous"},
      {"route set x 10.0.0.0/8 via 1.2.3.4 via 1.2.3.5", "error: 'via' given twice"},
      {"route set x 10.0.0.0/8 via 1.2.3.4 type default",
       "error: unexpected word 'type' (expected one of: via, dev, src, metric)"},
      {"route set x 10.0.0.0/8 via 1.2.3.4 src 1.2.3.4.5",
       "error: bad source address '1.2.3.4.5' (a.b.c.d)"},
      {"route set x 10.0.0.0/8 via 1.2.3.4 metric -1",
       "error: bad metric '-1' (a number 0..4294967295)"},
      {"route set x 10.0.0.0/8 via 1.2.3.4 metric 4294967296",
       "error: bad metric '4294967296' (a number 0..4294967295)"},
      {"route set x 10.0.0.0/8 via 1.2.3.4 dev abcdefghijklmnop",
       "error: interface name 'abcdefghijklmnop' longer than 15 characters"},
      {"gateway set wired", "error: usage: gateway set TAG ADDR [dev IF] [type T] [metric N]"},
      {"gateway set wired 1.2.3.4 type fancy",
       "error: bad type 'fancy' (default, normal or a number)"},
      {"gateway set wired 01.2.3.4x", "error: bad gateway address '01.2.3.4x' (a.b.c.d)"},
      {"gateway set wired 1.2.3.4 metric", "error: 'metric' needs a value"},
      {"gateway del", "error: usage: gateway del TAG"},
  };
  for (auto const& c : cases) {
    EXPECT_EQ(Show(routectl::ParseLine(c.line)), c.expected) << c.line;
  }
}

TEST(RoutectlParse, BoundsWhatItQuotesAndWhatItAccepts) {
  std::string junk = "route \x01\xff" + std::string(100, 'x');
  EXPECT_EQ(Show(routectl::ParseLine(junk)),
            "error: unknown route command '??xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx...' "
            "(set or del)");
  std::string longTag(kest::s_string::kMaxLength + 1, 't');
  EXPECT_EQ(Show(routectl::ParseLine("route del " + longTag)),
            "error: tag longer than 16384 bytes");
  routectl::cParsed nul = routectl::ParseLine(std::string("route del a\0b", 13));
  ASSERT_EQ(nul.kind, routectl::cParsed::kCommand);
  EXPECT_EQ(routectl::TagOf(nul.command), std::string("a\0b", 3));
}

TEST(RoutectlParse, WordsFromTheCommandLineKeepBlanksAndHashes) {
  std::vector<std::string_view> words{"route", "del", "#my tag"};
  EXPECT_EQ(Show(routectl::ParseWords(words)), "DelRoute #my tag");
}

}  // namespace
