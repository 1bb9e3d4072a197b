#include "store.h"

#include <memory>

#include "datastore/records/directories.h"
#include "kest/format.h"

namespace datamgr {

namespace {

void Put(Store& store, dataIO::cDBItem const& record) {
  kest::cSerializeBuffer buf;
  record.Serialize(buf);
  store[record.GetDir()][record.GetName()] = buf.Bytes();
}

std::unique_ptr<dataIO::cDBItem> StatusRecord(std::string const& name) {
  if (name == dataIO::cDBStatusConnection::kItemName)
    return std::make_unique<dataIO::cDBStatusConnection>();
  if (name == dataIO::cDBStatusWan::kItemName) return std::make_unique<dataIO::cDBStatusWan>();
  if (name == dataIO::cDBStatusWiredWan::kItemName)
    return std::make_unique<dataIO::cDBStatusWiredWan>();
  if (name == dataIO::cDBStatusWirelessWan::kItemName)
    return std::make_unique<dataIO::cDBStatusWirelessWan>();
  if (name == dataIO::cDBStatusLan::kItemName) return std::make_unique<dataIO::cDBStatusLan>();
  return nullptr;
}

bool IsRoutingDir(std::string const& dir) {
  std::string const prefix = dataIO::kWanSetupsDir;
  std::string const suffix = std::string("/") + dataIO::kRoutingDirName + "/";
  return dir.size() > prefix.size() + suffix.size() && dir.compare(0, prefix.size(), prefix) == 0 &&
         dir.compare(dir.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

Store BuildStore(cDeviceConfig const& config) {
  Store store;
  Put(store, config.connection);
  Put(store, config.wan);
  Put(store, config.wiredWan);
  Put(store, config.wirelessWan);
  Put(store, config.lan);
  for (auto const& setup : config.wanSetups) {
    for (auto const& route : setup.second) Put(store, route.second);
  }
  return store;
}

std::vector<dataIO::proto::cSync> DiffStores(Store const& before, Store const& after) {
  static ItemMap const kNone;
  std::vector<dataIO::proto::cSync> changes;
  std::map<std::string, int> dirs;
  for (auto const& d : before) dirs[d.first];
  for (auto const& d : after) dirs[d.first];
  for (auto const& d : dirs) {
    auto const b = before.find(d.first);
    auto const a = after.find(d.first);
    ItemMap const& old = b == before.end() ? kNone : b->second;
    ItemMap const& now = a == after.end() ? kNone : a->second;
    dataIO::proto::cSync sync;
    sync.dir = d.first;
    for (auto const& item : now) {
      auto const was = old.find(item.first);
      if (was == old.end() || was->second != item.second)
        sync.entries.push_back({false, item.first, item.second});
    }
    for (auto const& item : old) {
      if (now.count(item.first) == 0) sync.entries.push_back({true, item.first, {}});
    }
    if (!sync.entries.empty()) changes.push_back(std::move(sync));
  }
  return changes;
}

dataIO::proto::cSync Snapshot(Store const& store, std::string const& dir, std::uint32_t tag) {
  dataIO::proto::cSync sync;
  sync.dir = dir;
  sync.tag = tag;
  sync.flags = dataIO::proto::kSyncFull;
  auto const d = store.find(dir);
  if (d != store.end()) {
    for (auto const& item : d->second) sync.entries.push_back({false, item.first, item.second});
  }
  return sync;
}

std::string DescribeRecord(std::string const& dir, std::string const& name, Bytes const& bytes) {
  std::unique_ptr<dataIO::cDBItem> record;
  if (dir == dataIO::kNetworkStatusDir) {
    record = StatusRecord(name);
  } else if (IsRoutingDir(dir)) {
    record = std::make_unique<dataIO::cDBConfigWanRoute>(name, dir);
  }
  if (record) {
    kest::cSerializeBuffer buf(bytes.data(), bytes.size());
    if (record->Deserialize(buf)) return record->ToString("");
  }
  return kest::FormatString("<%zu bytes>", bytes.size());
}

}  // namespace datamgr
