// The process's one event loop: epoll over watched descriptors, timers on an
// injectable clock, and a FIFO of posted work. Every callback runs on the
// thread that runs the loop.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "kest/clock.h"

namespace kest {

class cEventLoop {
 public:
  using FdCallback =
      std::function<void(std::uint32_t events)>;  // EPOLLIN/EPOLLOUT/EPOLLERR/EPOLLHUP
  using TimerId = std::uint64_t;

  cEventLoop();
  ~cEventLoop();
  cEventLoop(const cEventLoop&) = delete;
  cEventLoop& operator=(const cEventLoop&) = delete;

  bool WatchFd(int fd, std::uint32_t events, FdCallback cb);
  bool ModifyFd(int fd, std::uint32_t events);
  void UnwatchFd(int fd);  // safe from inside that fd's own callback

  TimerId AddTimer(std::uint64_t delayMs, std::function<void()> cb);  // one-shot
  void CancelTimer(TimerId id);                                       // unknown id: no effect

  void Post(std::function<void()> fn);
  // Queues fn ahead of all posted work (framework start-up events that must
  // come first whatever was posted before the loop ran).
  void PostFront(std::function<void()> fn);
  // Deletes obj in turn with posted work, i.e. after the callback running
  // now has returned: for an object that ends from inside its own callback.
  // What the loop still holds when it is destroyed goes with it.
  template <class T>
  void DeleteLater(std::unique_ptr<T> obj) {
    DeleteLater(obj.release(), [](void* p) { delete static_cast<T*>(p); });
  }

  // Runs until Quit(). SIGTERM and SIGINT (see InstallStopSignals) call Quit.
  void Run();
  void Quit();
  bool Quitting() const { return m_quit; }
  // One iteration: waits at most maxWaitMs (0 = poll) for descriptors,
  // then runs due timers and posted work. Returns true if anything ran.
  bool RunOnce(int maxWaitMs);
  // Runs posted work, due timers and ready descriptors without blocking
  // until nothing is left to do (bounded, so a busy peer cannot spin it forever).
  void RunUntilIdle();

  void SetClock(IClock* clock);  // nullptr: the steady clock
  IClock& Clock() const { return *m_clock; }
  std::uint64_t NowMs() const { return m_clock->NowMs(); }

  // SIGTERM/SIGINT end the loop through a self-pipe; the handler only writes a byte.
  void InstallStopSignals();

 private:
  void DeleteLater(void* obj, void (*destroy)(void*));

  struct Impl;
  std::unique_ptr<Impl> m_impl;
  IClock* m_clock;
  bool m_quit = false;
};

// The process's loop (created on first use).
cEventLoop& Loop();
// Replaces the process's loop by a fresh one (tests).
void ResetLoop();

}  // namespace kest
