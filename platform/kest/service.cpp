#include "kest/service.h"

#include "kest/format.h"

namespace kest {

cService::cService() = default;
cService::~cService() = default;

void cService::Run() { ProcessMessages(); }

bool cService::Init(std::string const& name, unsigned int number) {
  m_number = number;
  return cMessageSink::Init(name);
}

void cService::DeInit() {}

void cService::OnMsg(cMsg& msg) { cMessageSink::ProcessMsg(msg); }

std::string cService::ToString() const {
  return FormatString("cService %s (%u)", Name().c_str(), m_number);
}

void cService::ProcessMsg(cMsg& msg) { OnMsg(msg); }

void cService::ProcessMessages() {
  EnsureMessageMap();
  cEventLoop& loop = Loop();
  loop.InstallStopSignals();
  if (m_onLoopStart) m_onLoopStart();
  loop.Run();
  if (m_onLoopEnd) m_onLoopEnd();
}

}  // namespace kest
