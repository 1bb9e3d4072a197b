#include <algorithm>
#include <utility>

#include "kest/format.h"
#include "recording_fakes.h"

int FakeHal::ConfigureIPGateway(std::string const& network, std::string const& netmask,
                                std::string const& gateway, std::string const& source,
                                std::string const& ifname, unsigned int const& metric,
                                bool const& gwAvailable) {
  log.push_back(kest::FormatString("ConfigureIPGateway %s %s %s %s '%s' %u %d", network.c_str(),
                                   netmask.c_str(), gateway.c_str(), source.c_str(), ifname.c_str(),
                                   metric, gwAvailable ? 1 : 0));
  return Answer("ConfigureIPGateway");
}

int FakeHal::RemoveIPGateway(std::string const& network, std::string const& netmask,
                             std::string const& gateway, bool const& gwAvailable) {
  log.push_back(kest::FormatString("RemoveIPGateway %s %s %s %d", network.c_str(), netmask.c_str(),
                                   gateway.c_str(), gwAvailable ? 1 : 0));
  return Answer("RemoveIPGateway");
}

int FakeHal::ConfigureIpDefaultGateway(std::string const& gateway, unsigned int metric) {
  log.push_back(kest::FormatString("ConfigureIpDefaultGateway %s %u", gateway.c_str(), metric));
  return Answer("ConfigureIpDefaultGateway");
}

int FakeHal::RemoveIPDefaultGateway(std::string const& gateway) {
  log.push_back("RemoveIPDefaultGateway " + gateway);
  return Answer("RemoveIPDefaultGateway");
}

int FakeHal::Answer(char const* op) {
  auto it = answerLine.find(log.back());
  return it != answerLine.end() ? it->second : answer[op];
}

std::vector<std::string> FakeHal::Take() { return std::exchange(log, {}); }

FakeData::~FakeData() {
  for (auto* c : registered) delete c;
}

bool FakeData::RegisterCollection(dataIO::cDBCollection* collection) {
  log.push_back("Register " + collection->GetDir() + (refuse ? " refused" : ""));
  if (!refuse) registered.push_back(collection);
  return !refuse;
}

bool FakeData::DeregisterCollection(dataIO::cDBCollection* collection) {
  log.push_back("Deregister " + (collection ? collection->GetDir() : std::string("null")));
  if (!collection) return true;
  registered.erase(std::remove(registered.begin(), registered.end(), collection), registered.end());
  delete collection;
  return true;
}

bool FakeData::Start() {
  log.push_back("Start");
  return true;
}

void FakeData::Stop() { log.push_back("Stop"); }

std::vector<std::string> FakeData::Take() { return std::exchange(log, {}); }
