// Writes the seed corpora of the fuzz targets: small valid inputs made with
// the real encoders, so every fuzzer starts from messages that get past the
// first checks. Run from scripts/ci-fuzz.sh --seeds, committed under corpus/.
//
//   make_seeds DIR     writes DIR/<target>/<name>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "config_json.h"
#include "control_protocol.h"
#include "dataIO/data_protocol.h"
#include "datastore/records/db_config_wan_route.h"
#include "datastore/records/db_status_connection.h"
#include "datastore/records/db_status_lan.h"
#include "datastore/records/db_status_wan.h"
#include "datastore/records/db_status_wired_wan.h"
#include "datastore/records/db_status_wireless_wan.h"
#include "hal/hal_protocol.h"
#include "kest/frame.h"
#include "netlink_codec.h"
#include "routeIO/route_protocol.h"
#include "values/s_basic_int.h"
#include "values/s_bool.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

std::string g_root;
int g_failures = 0;

void Write(std::string const& target, std::string const& name, Bytes const& bytes) {
  const std::string dir = g_root + "/" + target;
  mkdir(g_root.c_str(), 0755);
  mkdir(dir.c_str(), 0755);
  const std::string path = dir + "/" + name;
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr || std::fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size()) {
    std::fprintf(stderr, "cannot write %s: %s\n", path.c_str(), std::strerror(errno));
    ++g_failures;
  }
  if (f != nullptr) std::fclose(f);
}

void WriteText(std::string const& target, std::string const& name, std::string const& text) {
  Write(target, name, Bytes(text.begin(), text.end()));
}

// Selector byte(s), then the body.
Bytes With(Bytes prefix, kest::cSerializeBuffer const& body) {
  prefix.insert(prefix.end(), body.Bytes().begin(), body.Bytes().end());
  return prefix;
}

kest::s_socket_addr Ip(char const* dotted) { return kest::s_socket_addr(dotted, 0); }

void FrameReader() {
  kest::cFrame req;
  req.kind = kest::cFrame::kRequest;
  req.id = 7;
  req.op = routeIO::routeop::kDelRoute;
  routeIO::EncodeCommand(routeIO::cDelRouteCmd{"backup"}, req.body);
  kest::cFrame reply;
  reply.kind = kest::cFrame::kReply;
  reply.id = 7;
  reply.op = routeIO::routeop::kDelRoute;
  routeIO::EncodeResult(routeIO::routeResult{false, -100}, reply.body);
  kest::cFrame event;  // an empty event body

  Bytes one{0}, two{3};
  kest::EncodeFrame(req, one);
  kest::EncodeFrame(req, two);
  kest::EncodeFrame(reply, two);
  kest::EncodeFrame(event, two);
  Write("frame_reader", "request", one);
  Write("frame_reader", "three_frames_in_3_byte_reads", two);
}

void RouteProtocol() {
  using namespace routeIO;
  struct {
    char const* name;
    routeCommand cmd;
  } const cmds[] = {
      {"set_gateway", cSetGatewayCmd{Ip("192.168.1.254"), "wired", "eth1", 1, 5}},
      {"set_route", cSetRouteCmd{Ip("10.20.0.0"), Ip("255.255.0.0"), Ip("192.168.1.1"),
                                 Ip("0.0.0.0"), "eth1", "backup", 0}},
      {"del_gateway", cDelGatewayCmd{"wired"}},
      {"del_route", cDelRouteCmd{"backup"}},
  };
  for (auto const& c : cmds) {
    kest::cSerializeBuffer body;
    EncodeCommand(c.cmd, body);
    Write("route_protocol", c.name, With({static_cast<std::uint8_t>(OpOf(c.cmd))}, body));
  }
  kest::cSerializeBuffer result;
  EncodeResult(routeIO::routeResult{true, 0}, result);
  Write("route_protocol", "result", With({0xFF}, result));
}

void HalProtocol() {
  using namespace hal;
  cHalRequest set;
  set.op = halop::kConfigureIPGateway;
  set.network = "10.20.0.0";
  set.netmask = "255.255.0.0";
  set.gateway = "192.168.1.1";
  set.source = "0.0.0.0";
  set.ifname = "eth1";
  set.metric = 10;
  cHalRequest del = set;
  del.op = halop::kRemoveIPGateway;
  cHalRequest defGw = set;
  defGw.op = halop::kConfigureIpDefaultGateway;
  defGw.network = defGw.netmask = "0.0.0.0";
  cHalRequest delGw = defGw;
  delGw.op = halop::kRemoveIPDefaultGateway;
  cHalRequest list;
  list.op = halop::kListRoutes;
  cHalRequest fault;
  fault.op = halop::kInjectFault;
  fault.faultOp = halop::kConfigureIPGateway;
  fault.faultCode = -101;
  fault.faultCount = 2;
  struct {
    char const* name;
    cHalRequest const& req;
  } const reqs[] = {{"configure_ip_gateway", set},      {"remove_ip_gateway", del},
                    {"configure_default_gateway", defGw}, {"remove_default_gateway", delGw},
                    {"list_routes", list},               {"inject_fault", fault}};
  for (auto const& r : reqs) {
    kest::cSerializeBuffer body;
    if (!EncodeRequest(r.req, body)) {
      std::fprintf(stderr, "hal request %s does not encode\n", r.name);
      ++g_failures;
      continue;
    }
    Write("hal_protocol", r.name, With({static_cast<std::uint8_t>(r.req.op)}, body));
  }
  kest::cSerializeBuffer result;
  EncodeResult(-22, result);
  Write("hal_protocol", "result", With({0xFE}, result));
  kest::cSerializeBuffer table;
  EncodeRouteList(0, {Describe(set), Describe(defGw)}, table);
  Write("hal_protocol", "route_list", With({0xFF}, table));
}

template <typename R>
Bytes RecordBytes(R const& record) {
  kest::cSerializeBuffer buf;
  record.Serialize(buf);
  return buf.Bytes();
}

dataIO::cDBConfigWanRoute ExampleRoute() {
  return dataIO::cDBConfigWanRoute("office", "/Config/Network/WanSetups/dsl/Routing/",
                                   Ip("10.10.0.0"), Ip("255.255.0.0"), Ip("0.0.0.0"),
                                   dataIO::kGwSelectorVpn, "head office LAN");
}

dataIO::cDBStatusWan ExampleWan() {
  dataIO::cDBStatusWan wan;
  wan.SetDefault();
  wan.m_wanState.Set(1);
  wan.m_wanSetupName.Set("dsl");
  return wan;
}

void DataProtocol() {
  using namespace dataIO::proto;
  auto put = [](std::uint8_t op, char const* name, auto const& msg) {
    kest::cSerializeBuffer body;
    Encode(msg, body);
    Write("data_protocol", name, With({op}, body));
  };
  put(kOpSubscribe, "subscribe", cSubscribe{"/Status/Network/", 1});
  put(kOpUnsubscribe, "unsubscribe", cUnsubscribe{"/Status/Network/"});
  put(kOpDumpRequest, "dump_request", cDumpRequest{"/tmp"});
  put(kOpDumpResult, "dump_result", cDumpResult{"/tmp", true});
  put(kOpRefused, "refused", cRefused{"/Nowhere/", "no such directory"});

  cSync sync;
  sync.dir = "/Config/Network/WanSetups/dsl/Routing/";
  sync.tag = 2;
  sync.flags = kSyncFull;
  sync.entries.push_back(cSyncEntry{false, "office", RecordBytes(ExampleRoute())});
  sync.entries.push_back(cSyncEntry{true, "old", {}});
  put(kOpSync, "sync", sync);

  // The same sync in chunks, each with its u16 length, for the assembler.
  Bytes stream{0};
  for (kest::cSerializeBuffer const& part : EncodeSyncChunks(sync, 64)) {
    stream.push_back(static_cast<std::uint8_t>(part.Size()));
    stream.push_back(static_cast<std::uint8_t>(part.Size() >> 8));
    stream.insert(stream.end(), part.Bytes().begin(), part.Bytes().end());
  }
  Write("data_protocol", "sync_chunks", stream);
}

void Values() {
  auto put = [](std::uint8_t sel, char const* name, kest::ISerialize const& v) {
    kest::cSerializeBuffer body;
    v.Serialize(body);
    Write("values", name, With({sel}, body));
  };
  put(0, "s_bool", kest::s_bool(true));
  put(1, "s_int8", kest::s_int8(-79));
  put(2, "s_uint8", kest::s_uint8(200));
  put(3, "s_uint16", kest::s_uint16(1492));
  put(4, "s_uint32", kest::s_uint32(86400));
  put(5, "s_uint64", kest::s_uint64(0x0123456789ABCDEFull));
  put(6, "s_string", kest::s_string("eth1"));
  put(7, "s_socket_addr", kest::s_socket_addr("192.168.1.254", 0));
  WriteText("values", "dotted_quad", std::string(1, '\x08') + "10.20.0.0");
}

void Records() {
  dataIO::cDBStatusConnection connection;
  connection.SetDefault();
  dataIO::cDBStatusLan lan;
  lan.SetDefault();
  dataIO::cDBStatusWiredWan wired;
  wired.SetDefault();
  dataIO::cDBStatusWirelessWan wireless;
  wireless.SetDefault();
  auto put = [](std::uint8_t sel, char const* name, Bytes const& bytes) {
    Bytes out{sel};
    out.insert(out.end(), bytes.begin(), bytes.end());
    Write("records", name, out);
  };
  put(0, "config_wan_route", RecordBytes(ExampleRoute()));
  put(1, "status_connection", RecordBytes(connection));
  put(2, "status_lan", RecordBytes(lan));
  put(3, "status_wan", RecordBytes(ExampleWan()));
  put(4, "status_wired_wan", RecordBytes(wired));
  put(5, "status_wireless_wan", RecordBytes(wireless));

  // Sync steps: [action][name][u16 len][bytes]; action 0 begin, 1 receive,
  // 2 remove, 3 end. Name 2 is the WAN status; route names are route0..3.
  auto step = [](Bytes& out, std::uint8_t action, std::uint8_t name, Bytes const& bytes) {
    out.push_back(action);
    out.push_back(name);
    out.push_back(static_cast<std::uint8_t>(bytes.size()));
    out.push_back(static_cast<std::uint8_t>(bytes.size() >> 8));
    out.insert(out.end(), bytes.begin(), bytes.end());
  };
  Bytes status{6};
  step(status, 0, 0, {});
  step(status, 1, 2, RecordBytes(ExampleWan()));
  step(status, 3, 0, {});
  step(status, 0, 0, {});
  step(status, 2, 2, {});
  step(status, 3, 0, {});
  Write("records", "status_sync", status);
  Bytes routing{7};
  step(routing, 0, 0, {});
  step(routing, 1, 0, RecordBytes(ExampleRoute()));
  step(routing, 1, 1, RecordBytes(ExampleRoute()));
  step(routing, 3, 0, {});
  step(routing, 0, 0, {});
  step(routing, 2, 1, {});
  step(routing, 3, 0, {});
  Write("records", "routing_sync", routing);
}

// A kernel's answer: routes of a dump, then NLMSG_DONE; or an error ack.
void Netlink() {
  const std::uint32_t seq = 42;
  Bytes prefix{seq & 0xFF, 0, 0, 0};
  halproxy::nl::cNlRoute route;
  route.dst = 0x0A140000;
  route.dstLen = 16;
  route.type = RTN_UNICAST;
  route.protocol = halproxy::nl::kRouteProtocol;
  route.scope = RT_SCOPE_UNIVERSE;
  route.table = RT_TABLE_MAIN;
  route.gateway = 0xC0A80101;
  route.oif = 2;
  route.priority = 10;
  route.hasPriority = true;

  Bytes dump = prefix;
  for (int i = 0; i < 2; ++i) {
    Bytes msg = halproxy::nl::BuildNewRoute(route, NLM_F_MULTI, seq);
    dump.insert(dump.end(), msg.begin(), msg.end());
    route.dst += 0x100;
  }
  nlmsghdr done{};
  done.nlmsg_len = NLMSG_LENGTH(sizeof(int));
  done.nlmsg_type = NLMSG_DONE;
  done.nlmsg_flags = NLM_F_MULTI;
  done.nlmsg_seq = seq;
  const int zero = 0;
  Bytes doneBytes(NLMSG_ALIGN(done.nlmsg_len));
  std::memcpy(doneBytes.data(), &done, sizeof done);
  std::memcpy(doneBytes.data() + NLMSG_HDRLEN, &zero, sizeof zero);
  dump.insert(dump.end(), doneBytes.begin(), doneBytes.end());
  Write("netlink_reply", "route_dump", dump);

  Bytes request = halproxy::nl::BuildNewRoute(route, NLM_F_CREATE | NLM_F_REPLACE, seq);
  nlmsghdr ack{};
  ack.nlmsg_len = NLMSG_LENGTH(sizeof(nlmsgerr));
  ack.nlmsg_type = NLMSG_ERROR;
  ack.nlmsg_seq = seq;
  nlmsgerr err{};
  err.error = -EEXIST;
  std::memcpy(&err.msg, request.data(), sizeof err.msg);
  Bytes ackBytes(NLMSG_ALIGN(ack.nlmsg_len));
  std::memcpy(ackBytes.data(), &ack, sizeof ack);
  std::memcpy(ackBytes.data() + NLMSG_HDRLEN, &err, sizeof err);
  Bytes errorReply = prefix;
  errorReply.insert(errorReply.end(), ackBytes.begin(), ackBytes.end());
  Write("netlink_reply", "error_ack", errorReply);
  err.error = 0;
  std::memcpy(ackBytes.data() + NLMSG_HDRLEN, &err, sizeof err);
  Bytes okReply = prefix;
  okReply.insert(okReply.end(), ackBytes.begin(), ackBytes.end());
  Write("netlink_reply", "ok_ack", okReply);

  // An error with the kernel's extended-ack text (request header only).
  const char text[] = "Nexthop has invalid gateway";
  nlattr attr{};
  attr.nla_type = NLMSGERR_ATTR_MSG;
  attr.nla_len = static_cast<std::uint16_t>(NLA_HDRLEN + sizeof text);
  const std::size_t payload = sizeof(nlmsgerr) + NLA_ALIGN(attr.nla_len);
  nlmsghdr ext{};
  ext.nlmsg_len = NLMSG_LENGTH(payload);
  ext.nlmsg_type = NLMSG_ERROR;
  ext.nlmsg_flags = NLM_F_CAPPED | NLM_F_ACK_TLVS;
  ext.nlmsg_seq = seq;
  err.error = -EINVAL;
  Bytes extBytes(NLMSG_ALIGN(ext.nlmsg_len));
  std::memcpy(extBytes.data(), &ext, sizeof ext);
  std::memcpy(extBytes.data() + NLMSG_HDRLEN, &err, sizeof err);
  std::memcpy(extBytes.data() + NLMSG_HDRLEN + sizeof err, &attr, sizeof attr);
  std::memcpy(extBytes.data() + NLMSG_HDRLEN + sizeof err + NLA_HDRLEN, text, sizeof text);
  Bytes extReply = prefix;
  extReply.insert(extReply.end(), extBytes.begin(), extBytes.end());
  Write("netlink_reply", "extended_ack", extReply);
}

void DatamgrControl() {
  using namespace datamgr::ctl;
  auto put = [](char const* name, cRequest const& req) {
    kest::cSerializeBuffer body;
    Encode(req, body);
    Write("datamgr_control", name, With({static_cast<std::uint8_t>(req.op - 100)}, body));
  };
  cRequest setup;
  setup.op = kOpSetWanSetup;
  setup.setup = "lte";
  put("set_wan_setup", setup);
  cRequest set;
  set.op = kOpRouteSet;
  set.setup = "dsl";
  set.key = "office";
  set.network = 0x0A0A0000;
  set.netmask = 0xFFFF0000;
  set.selector = 3;
  set.description = "head office";
  put("route_set", set);
  cRequest del;
  del.op = kOpRouteDel;
  del.setup = "dsl";
  del.key = "office";
  put("route_del", del);
  cRequest dump;
  dump.op = kOpDump;
  put("dump", dump);
  cRequest list;
  list.op = kOpList;
  list.dir = "/Status/Network/";
  put("list", list);
  kest::cSerializeBuffer reply;
  Encode(cReply{kRefused, "no route office in setup dsl"}, reply);
  Write("datamgr_control", "reply", With({0xFF}, reply));
}

void DatamgrConfig(char const* example) {
  FILE* f = std::fopen(example, "rb");
  if (f == nullptr) {
    std::fprintf(stderr, "cannot read %s\n", example);
    ++g_failures;
    return;
  }
  std::string text;
  char buf[4096];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, n);
  std::fclose(f);
  WriteText("datamgr_config", "example_device", text);
  WriteText("datamgr_config", "minimal",
            R"({"status": {"wanSetup": "dsl"}, "wanSetups": {"dsl": {"routing": {"r": )"
            R"({"network": "10.1.0.0", "netmask": "255.255.0.0", "via": "wired"}}}}})");
}

void RoutectlBatch() {
  WriteText("routectl_batch", "batch",
            "# announce the WAN, then the routes\n"
            "gateway set wired 192.168.1.254 dev eth1 type default metric 5\n"
            "route set backup 10.20.0.0/16 via 192.168.1.1 dev eth1 src 192.168.1.20 metric 3\n"
            "route set host 10.9.9.9 via 192.168.1.1\n"
            "route set all default via 10.64.0.1 dev wwan0\n"
            "route set masked 172.16.0.0/255.240.0.0 via 10.64.0.1\n"
            "\n"
            "route del backup\n"
            "gateway set vpn 10.8.0.1 type 7\n"
            "gateway del wired  # gone\n");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s CORPUS_DIR EXAMPLE_DEVICE_JSON\n", argv[0]);
    return 2;
  }
  g_root = argv[1];
  FrameReader();
  RouteProtocol();
  HalProtocol();
  DataProtocol();
  Values();
  Records();
  Netlink();
  DatamgrControl();
  DatamgrConfig(argv[2]);
  RoutectlBatch();
  return g_failures == 0 ? 0 : 1;
}
