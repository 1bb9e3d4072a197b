// The data manager's store: every record's serialised bytes by directory and
// item name, built from the device configuration. Changes are found by
// comparing bytes, so only records that really changed are pushed.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "dataIO/data_protocol.h"
#include "device_config.h"

namespace datamgr {

using Bytes = std::vector<std::uint8_t>;
using ItemMap = std::map<std::string, Bytes>;  // item name -> record bytes
using Store = std::map<std::string, ItemMap>;  // directory -> items; no empty directories

Store BuildStore(cDeviceConfig const& config);

// One change per directory that differs (flags 0, tag 0): the records that are
// new or whose bytes changed, and the removal of those that are gone.
std::vector<dataIO::proto::cSync> DiffStores(Store const& before, Store const& after);

// Everything under one directory as a complete snapshot for a subscription.
dataIO::proto::cSync Snapshot(Store const& store, std::string const& dir, std::uint32_t tag);

// Text of one stored record for people: the record's own text where the
// directory's record type is known, else its size.
std::string DescribeRecord(std::string const& dir, std::string const& name, Bytes const& bytes);

}  // namespace datamgr
