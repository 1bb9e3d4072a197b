#include "routectl/session.h"

#include "routeIO/route_errors.h"
#include "routectl/answer.h"
#include "routectl/command.h"

namespace routectl {

namespace {

bool IsConnectionGone(std::int32_t rc) {
  return rc == routeIO::routeerr::kNotConnected || rc == routeIO::routeerr::kConnectionLost ||
         rc == routeIO::routeerr::kProtocol;
}

std::string Where(unsigned number) {
  return number == 0 ? std::string() : "line " + std::to_string(number) + ": ";
}

}  // namespace

cSession::cSession(IRouteLink& link, bool json, bool strict, Sink out, Sink err)
    : m_link(link), m_json(json), m_strict(strict), m_out(std::move(out)), m_err(std::move(err)) {}

bool cSession::Line(unsigned number, std::string_view text) {
  if (m_stopped) return false;
  cParsed parsed = ParseLine(text);
  switch (parsed.kind) {
    case cParsed::kEmpty:
      return true;
    case cParsed::kError:
      return Malformed(number, parsed.error);
    case cParsed::kCommand:
      break;
  }
  return Send(number, parsed.command);
}

bool cSession::Oversized(unsigned number) {
  if (m_stopped) return false;
  return Malformed(number, "line too long");
}

bool cSession::Malformed(unsigned number, std::string const& error) {
  ++m_malformed;
  if (!m_strict) {
    m_pending.push_back(cPending{number, {}, error});
    return true;
  }
  Drain();
  ReportMalformed(number, error);
  m_err("routectl: stopping at " + Where(number) + "--strict");
  m_stopped = true;
  return false;
}

void cSession::ReportMalformed(unsigned number, std::string const& error) {
  if (m_json) {
    m_out(SyntaxErrorJson(number, error));
  } else {
    m_err("routectl: " + Where(number) + error);
  }
}

bool cSession::Send(unsigned number, routeIO::routeCommand const& command) {
  if (m_stopped) return false;
  std::int32_t rc = m_link.Post(command);
  if (rc == 0) {
    m_pending.push_back(cPending{number, command, {}});
    return true;
  }
  // Nothing was queued: answer this command here, in its place in the order.
  Drain();
  Report(cPending{number, command, {}}, routeIO::routeResult{false, rc});
  if (IsConnectionGone(rc)) ConnectionGone(number);
  return !m_stopped;
}

void cSession::Drain() {
  while (!m_pending.empty()) {
    cPending p = std::move(m_pending.front());
    m_pending.pop_front();
    if (!p.syntaxError.empty()) {
      ReportMalformed(p.number, p.syntaxError);
      continue;
    }
    routeIO::routeResult result = m_link.Collect();
    Report(p, result);
    if (!result.success && IsConnectionGone(result.rc) && !m_link.Connected() && !m_lost) {
      ConnectionGone(p.number);
    }
  }
}

void cSession::Report(cPending const& p, routeIO::routeResult const& result) {
  bool const ok = result.success && result.rc == 0;
  if (!ok) ++m_failed;
  // A failure says which input line it answers; "ok" needs no such help.
  m_out(m_json ? AnswerJson(p.number, p.command, result)
               : (ok ? "" : Where(p.number)) + AnswerText(p.command, result));
}

void cSession::ConnectionGone(unsigned number) {
  m_lost = true;
  m_stopped = true;
  std::string why = m_link.LastError();
  m_err("routectl: connection to the route manager lost" + (why.empty() ? "" : " (" + why + ")") +
        (number == 0 ? "" : " at line " + std::to_string(number)) + "; nothing more is sent");
}

int cSession::ExitStatus() const {
  if (m_malformed > 0) return 2;
  if (m_failed > 0 || m_lost) return 1;
  return 0;
}

}  // namespace routectl
