// Services: a message sink that runs the process's loop, and the managed
// service that reports to the service control manager (the init system).
#pragma once

#include <functional>
#include <string>

#include "kest/loop.h"
#include "kest/message.h"

namespace kest {

class cService : public cMessageSink {
 public:
  cService();
  ~cService() override;

  virtual void Run();  // default: ProcessMessages()
  virtual bool Init(std::string const& name, unsigned int number);
  virtual void DeInit();
  virtual void OnMsg(cMsg& msg);  // default: ProcessMsg

  using cMessageSink::Init;
  std::string ToString() const override;
  void ProcessMsg(cMsg& msg) override;

  // Runs the loop on the calling thread until it is ended (Quit, SIGTERM,
  // SIGINT). The message map is filled before the first message.
  void ProcessMessages();
  cEventLoop& Loop() const { return kest::Loop(); }
  unsigned int Number() const { return m_number; }

 protected:
  // Run on entering ProcessMessages (after the map is filled, before the
  // first event) and on leaving it. Hooks rather than virtuals so the table
  // of virtual operations stays exactly as derived services expect it.
  std::function<void()> m_onLoopStart;
  std::function<void()> m_onLoopEnd;

 private:
  unsigned int m_number = 0;
};

// A service under a service control manager. On Linux that manager is the
// init system: with NOTIFY_SOCKET set, readiness, status and watchdog pings
// go there as sd_notify datagrams; without it the service runs standalone.
// Either way OnScmConnected is the first event of the loop.
class cScmService : public cService {
 public:
  cScmService();
  ~cScmService() override;

  bool Init(std::string const& name, unsigned int number) override;
  void DeInit() override;
  virtual void PreDispatchMessage(cMsg& msg);
  virtual bool OnScmConnected() { return SetServiceStatusRunning(); }
  virtual bool OnAliveCheck() { return SetServiceAlive(); }
  virtual void OnSystemStatus(std::string const& status);
  virtual void OnScmNotification() {}

  void ProcessMsg(cMsg& msg) override;

  bool SetServiceStatusRunning();   // READY=1 + STATUS=
  bool SetServiceAlive();           // WATCHDOG=1
  bool SetServiceStatusStopping();  // STOPPING=1
  bool ScmAttached() const { return m_notifyFd >= 0; }
  // What the service is doing, in a few words, for the operator: asked for
  // once a second from the start of the loop; each new text goes to the
  // manager as STATUS= and into the log (the only place procd shows it).
  // Not a virtual, so the table of virtual operations stays as it is.
  void SetStatusSource(std::function<std::string()> source) { m_statusSource = std::move(source); }

 private:
  void OnLoopStart();
  bool Notify(std::string const& text);
  void ScheduleAliveCheck();
  void ReportStatus();

  int m_notifyFd = -1;
  std::string m_notifyPath;
  std::uint64_t m_watchdogMs = 0;  // half of WATCHDOG_USEC, 0 = none
  cEventLoop::TimerId m_aliveTimer = 0;
  std::uint64_t m_aliveDue = 0;  // when the next alive check is due (loop clock)
  std::function<std::string()> m_statusSource;
  std::string m_status;  // the text last reported
  cEventLoop::TimerId m_statusTimer = 0;
};

}  // namespace kest
