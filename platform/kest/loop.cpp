#include "kest/loop.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <unordered_map>
#include <utility>
#include <vector>

#include "kest/format.h"
#include "kest/trace.h"

namespace kest {
namespace {

// Ids stay unique across loops so that a stale id kept over ResetLoop()
// can never cancel someone else's timer.
cEventLoop::TimerId g_nextTimerId = 1;
std::uint32_t g_nextWatchGen = 1;

cSteadyClock g_steadyClock;

// Self-pipe shared by every loop: the signal handler may only write a byte.
int g_sigPipe[2] = {-1, -1};

extern "C" void StopSignalHandler(int) {
  int saved = errno;
  if (g_sigPipe[1] >= 0) {
    char b = 's';
    ssize_t r = write(g_sigPipe[1], &b, 1);
    (void)r;
  }
  errno = saved;
}

// At most this many events per epoll_wait; more are picked up next round.
constexpr int kMaxEvents = 64;
// RunUntilIdle gives up after this many busy rounds so a peer that keeps a
// descriptor permanently readable cannot hold a test forever.
constexpr int kIdleRoundLimit = 10000;

}  // namespace

struct cEventLoop::Impl {
  struct Watch {
    FdCallback cb;
    std::uint32_t events;
    std::uint32_t gen;
  };
  int epfd = -1;
  std::map<int, std::unique_ptr<Watch>> watches;
  // A callback may unwatch or re-watch its own descriptor: while callbacks
  // run, a replaced or removed watch waits here, so the callback it holds
  // outlives its own call.
  int dispatching = 0;
  std::vector<std::unique_ptr<Watch>> retired;
  // DeleteLater's objects, each with the function that deletes it.
  std::vector<std::pair<void*, void (*)(void*)>> doomed;

  ~Impl() {
    for (auto& d : doomed) d.second(d.first);
  }
  std::map<std::pair<std::uint64_t, TimerId>, std::function<void()>> timers;
  std::unordered_map<TimerId, std::uint64_t> timerDue;
  std::deque<std::function<void()>> posted;
  bool signalsWatched = false;

  void Retire(std::unique_ptr<Watch> w) {
    if (dispatching > 0) retired.push_back(std::move(w));
  }

  bool RunPosted() {
    std::size_t n = posted.size();
    for (std::size_t i = 0; i < n && !posted.empty(); ++i) {
      std::function<void()> fn = std::move(posted.front());
      posted.pop_front();
      if (fn) fn();
    }
    return n > 0;
  }
};

cEventLoop::cEventLoop() : m_impl(new Impl), m_clock(&g_steadyClock) {
  m_impl->epfd = epoll_create1(EPOLL_CLOEXEC);
  if (m_impl->epfd < 0) {
    KEST_TRACE("kest", "001", "epoll_create1 failed (errno:%d/%s)", errno, std::strerror(errno));
  }
}

cEventLoop::~cEventLoop() {
  if (m_impl->epfd >= 0) close(m_impl->epfd);
}

bool cEventLoop::WatchFd(int fd, std::uint32_t events, FdCallback cb) {
  if (fd < 0 || m_impl->epfd < 0) return false;
  auto it = m_impl->watches.find(fd);
  std::uint32_t gen = g_nextWatchGen++;
  epoll_event ev{};
  ev.events = events;
  ev.data.u64 = (static_cast<std::uint64_t>(gen) << 32) | static_cast<std::uint32_t>(fd);
  int op = it == m_impl->watches.end() ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
  if (epoll_ctl(m_impl->epfd, op, fd, &ev) != 0) {
    KEST_TRACE("kest", "002", "cannot watch fd %d (errno:%d/%s)", fd, errno, std::strerror(errno));
    return false;
  }
  std::unique_ptr<Impl::Watch>& slot = m_impl->watches[fd];
  m_impl->Retire(std::move(slot));
  slot.reset(new Impl::Watch{std::move(cb), events, gen});
  return true;
}

bool cEventLoop::ModifyFd(int fd, std::uint32_t events) {
  auto it = m_impl->watches.find(fd);
  if (it == m_impl->watches.end()) return false;
  epoll_event ev{};
  ev.events = events;
  ev.data.u64 =
      (static_cast<std::uint64_t>(it->second->gen) << 32) | static_cast<std::uint32_t>(fd);
  if (epoll_ctl(m_impl->epfd, EPOLL_CTL_MOD, fd, &ev) != 0) {
    KEST_TRACE("kest", "002", "cannot modify watch of fd %d (errno:%d/%s)", fd, errno,
               std::strerror(errno));
    return false;
  }
  it->second->events = events;
  return true;
}

void cEventLoop::UnwatchFd(int fd) {
  auto it = m_impl->watches.find(fd);
  if (it == m_impl->watches.end()) return;
  // The descriptor may already be closed; the entry goes away regardless.
  epoll_ctl(m_impl->epfd, EPOLL_CTL_DEL, fd, nullptr);
  m_impl->Retire(std::move(it->second));
  m_impl->watches.erase(it);
}

cEventLoop::TimerId cEventLoop::AddTimer(std::uint64_t delayMs, std::function<void()> cb) {
  TimerId id = g_nextTimerId++;
  std::uint64_t due = NowMs() + delayMs;
  m_impl->timers.emplace(std::make_pair(due, id), std::move(cb));
  m_impl->timerDue.emplace(id, due);
  return id;
}

void cEventLoop::CancelTimer(TimerId id) {
  auto it = m_impl->timerDue.find(id);
  if (it == m_impl->timerDue.end()) return;
  m_impl->timers.erase(std::make_pair(it->second, id));
  m_impl->timerDue.erase(it);
}

void cEventLoop::Post(std::function<void()> fn) { m_impl->posted.push_back(std::move(fn)); }

void cEventLoop::DeleteLater(void* obj, void (*destroy)(void*)) {
  if (obj == nullptr) return;
  m_impl->doomed.emplace_back(obj, destroy);
  Post([this, obj] {
    auto& doomed = m_impl->doomed;
    for (auto it = doomed.begin(); it != doomed.end(); ++it) {
      if (it->first != obj) continue;
      void (*destroy)(void*) = it->second;
      doomed.erase(it);
      destroy(obj);
      return;
    }
  });
}

void cEventLoop::PostFront(std::function<void()> fn) { m_impl->posted.push_front(std::move(fn)); }

void cEventLoop::Run() {
  while (!m_quit) RunOnce(-1);
  m_quit = false;
}

void cEventLoop::Quit() { m_quit = true; }

bool cEventLoop::RunOnce(int maxWaitMs) {
  Impl& im = *m_impl;
  bool ran = im.RunPosted();

  std::uint64_t now = NowMs();
  int timeout = maxWaitMs;
  if (ran || !im.posted.empty() || m_quit) {
    timeout = 0;
  } else if (!im.timers.empty()) {
    std::uint64_t due = im.timers.begin()->first.first;
    if (due <= now) {
      timeout = 0;
    } else if (m_clock == &g_steadyClock) {
      // A manual clock only moves when a test moves it: waiting for its
      // timers would block forever, so only the real clock bounds the wait.
      std::uint64_t left = due - now;
      int l = left > 0x7fffffff ? 0x7fffffff : static_cast<int>(left);
      if (timeout < 0 || l < timeout) timeout = l;
    }
  }

  if (im.epfd >= 0) {
    epoll_event events[kMaxEvents];
    int n = epoll_wait(im.epfd, events, kMaxEvents, timeout);
    if (n < 0 && errno != EINTR) {
      KEST_TRACE("kest", "001", "epoll_wait failed (errno:%d/%s)", errno, std::strerror(errno));
    }
    for (int i = 0; i < n; ++i) {
      int fd = static_cast<int>(static_cast<std::uint32_t>(events[i].data.u64));
      std::uint32_t gen = static_cast<std::uint32_t>(events[i].data.u64 >> 32);
      auto it = im.watches.find(fd);
      // Unwatched (or re-watched) by an earlier callback of this round.
      if (it == im.watches.end() || it->second->gen != gen) continue;
      Impl::Watch& w = *it->second;
      if (w.cb) {
        ++im.dispatching;
        w.cb(events[i].events);
        if (--im.dispatching == 0) im.retired.clear();
      }
      ran = true;
    }
  } else if (timeout != 0) {
    // Without epoll there is nothing to wait on; do not spin either.
    usleep(1000);
  }

  now = NowMs();
  std::vector<TimerId> due;
  for (auto& t : im.timers) {
    if (t.first.first > now) break;
    due.push_back(t.first.second);
  }
  for (TimerId id : due) {
    auto d = im.timerDue.find(id);
    if (d == im.timerDue.end()) continue;  // cancelled by an earlier timer
    auto t = im.timers.find(std::make_pair(d->second, id));
    std::function<void()> cb = std::move(t->second);
    im.timers.erase(t);
    im.timerDue.erase(d);
    if (cb) cb();
    ran = true;
  }

  // Work that descriptors and timers posted (timer messages) runs in the
  // same round, so one RunOnce delivers what a due timer sends.
  if (im.RunPosted()) ran = true;
  return ran;
}

void cEventLoop::RunUntilIdle() {
  for (int i = 0; i < kIdleRoundLimit; ++i) {
    if (!RunOnce(0)) return;
  }
  KEST_TRACE("kest", "002", "RunUntilIdle: still busy after %d rounds", kIdleRoundLimit);
}

void cEventLoop::SetClock(IClock* clock) { m_clock = clock ? clock : &g_steadyClock; }

void cEventLoop::InstallStopSignals() {
  if (g_sigPipe[0] < 0) {
    if (pipe2(g_sigPipe, O_NONBLOCK | O_CLOEXEC) != 0) {
      KEST_TRACE("kest", "001", "cannot create signal pipe (errno:%d/%s)", errno,
                 std::strerror(errno));
      g_sigPipe[0] = g_sigPipe[1] = -1;
      return;
    }
  }
  struct sigaction sa {};
  sa.sa_handler = StopSignalHandler;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = SA_RESTART;
  for (int sig : {SIGTERM, SIGINT}) {
    if (sigaction(sig, &sa, nullptr) != 0) {
      KEST_TRACE("kest", "001", "cannot install handler for signal %d (errno:%d/%s)", sig, errno,
                 std::strerror(errno));
    }
  }
  if (m_impl->signalsWatched) return;
  m_impl->signalsWatched = WatchFd(g_sigPipe[0], EPOLLIN, [this](std::uint32_t) {
    char buf[64];
    while (read(g_sigPipe[0], buf, sizeof buf) > 0) {
    }
    KEST_TRACE("kest", "004", "stop signal received, ending the loop");
    Quit();
  });
}

namespace {
std::unique_ptr<cEventLoop>& LoopSlot() {
  static std::unique_ptr<cEventLoop> loop;
  return loop;
}
}  // namespace

cEventLoop& Loop() {
  auto& slot = LoopSlot();
  if (!slot) slot.reset(new cEventLoop);
  return *slot;
}

void ResetLoop() { LoopSlot().reset(new cEventLoop); }

}  // namespace kest
