// Stand-ins for the HAL proxy and the data manager: they record every call
// as one readable line, so a test states a scenario and compares the log.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "dataIO/data_client.h"
#include "hal/hal_client.h"

class FakeHal : public hal::IHalApi {
 public:
  int ConfigureIPGateway(std::string const& network, std::string const& netmask,
                         std::string const& gateway, std::string const& source,
                         std::string const& ifname, unsigned int const& metric,
                         bool const& gwAvailable) override;
  int RemoveIPGateway(std::string const& network, std::string const& netmask,
                      std::string const& gateway, bool const& gwAvailable) override;
  int ConfigureIpDefaultGateway(std::string const& gateway, unsigned int metric) override;
  int RemoveIPDefaultGateway(std::string const& gateway) override;

  std::vector<std::string> Take();  // the log so far, cleared
  std::vector<std::string> log;
  // Result of the next calls of an operation ("ConfigureIPGateway", ...); 0 when unset.
  std::map<std::string, int> answer;
  std::map<std::string, int> answerLine;  // by the call's log line; before answer

 private:
  int Answer(char const* op);  // for the call just logged
};

class FakeData : public dataIO::IDataApi {
 public:
  ~FakeData();
  bool RegisterCollection(dataIO::cDBCollection* collection) override;
  bool DeregisterCollection(dataIO::cDBCollection* collection) override;
  bool Start() override;
  void Stop() override;

  std::vector<std::string> Take();
  std::vector<std::string> log;
  bool refuse = false;  // answer the next registrations with false
  std::vector<dataIO::cDBCollection*> registered;
};
