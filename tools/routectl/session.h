// One routectl run over one connection: commands are posted without waiting
// (pipelined) and their answers collected and printed in input order, one
// line each. Kept apart from the socket so it can be driven by a fake.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>

#include "routeIO/route_protocol.h"

namespace routectl {

// The part of routeIO::cRouteClient a session needs.
class IRouteLink {
 public:
  virtual std::int32_t Post(routeIO::routeCommand const& cmd) = 0;  // 0 or a routeerr code
  virtual routeIO::routeResult Collect() = 0;
  virtual bool Connected() const = 0;
  virtual std::string LastError() const = 0;

 protected:
  ~IRouteLink() = default;
};

class cSession {
 public:
  using Sink = std::function<void(std::string const&)>;  // gets one line, no newline

  cSession(IRouteLink& link, bool json, bool strict, Sink out, Sink err);

  // One line of batch input, numbered from 1. False once nothing more will
  // be sent: a malformed line under --strict, or the connection is gone.
  bool Line(unsigned number, std::string_view text);
  // A line of input that was too long to be read whole.
  bool Oversized(unsigned number);
  // A parsed command; number 0 for one from the command line.
  bool Send(unsigned number, routeIO::routeCommand const& command);
  // Collects and prints every answer still owed.
  void Drain();

  std::size_t Outstanding() const { return m_pending.size(); }
  bool Stopped() const { return m_stopped; }
  // 2 after a malformed line, else 1 after a failed command or a lost
  // connection, else 0.
  int ExitStatus() const;

 private:
  // A posted command awaiting its answer, or a malformed line: reported in
  // its place among the answers.
  struct cPending {
    unsigned number;
    routeIO::routeCommand command;
    std::string syntaxError;  // empty for a command
  };

  bool Malformed(unsigned number, std::string const& error);
  void Report(cPending const& p, routeIO::routeResult const& result);
  void ReportMalformed(unsigned number, std::string const& error);
  void ConnectionGone(unsigned number);

  IRouteLink& m_link;
  bool m_json;
  bool m_strict;
  Sink m_out;
  Sink m_err;
  std::deque<cPending> m_pending;
  unsigned m_failed = 0;
  unsigned m_malformed = 0;
  bool m_lost = false;
  bool m_stopped = false;
};

}  // namespace routectl
