// A listener that accepts framed connections and hands their frames to a
// handler in the loop.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>

#include "kest/access_point.h"
#include "kest/channel.h"
#include "kest/hello.h"
#include "kest/loop.h"
#include "kest/options.h"

namespace kest {

class cService;

// A connection reaches the handler only once its hello has been accepted:
// until then it is the server's alone, and nothing it sends is executed.
class IServerHandler {
 public:
  virtual void OnOpen(cChannel* channel) = 0;
  virtual void OnFrame(cChannel* channel, cFrame& frame) = 0;
  // After the frames of one read (see IChannelHandler::OnFramesDone).
  virtual void OnFramesDone(cChannel* channel) { (void)channel; }
  virtual void OnClose(cChannel* channel) = 0;  // every opened channel gets exactly one

 protected:
  ~IServerHandler() = default;
};

struct cServerLimits {
  std::size_t maxConnections = 64;  // the next one is refused with a trace
  // Unix sockets: connections one uid may hold at once, so that one user
  // cannot take every slot. Root is not counted against it (it can stop the
  // server anyway). 0: no limit.
  std::size_t maxPerUid = 16;
  // A peer has this long to complete its hello, and each frame it starts;
  // a slow drip would otherwise hold a slot for ever. Idle connections that
  // have said hello stay: route clients hold theirs as long as their routes.
  std::size_t frameTimeoutMs = 10000;
  std::size_t sendLimit = cChannel::kDefaultSendLimit;
  unsigned socketMode = 0660;               // Unix sockets only
  std::string socketGroup;                  // Unix sockets only; empty = keep
  std::set<unsigned> allowUids, allowGids;  // Unix sockets only; both empty = anyone
};

// A send limit below one largest frame would disconnect a peer that reads
// well the first time a full-size answer is due.
constexpr std::size_t kMinSendLimit = kMaxFrame + 4;

// The limits as programs take them from options and properties. Each
// returns false with a reason that quotes the text.
// Octal permission bits, "0660" or "660", at most 0777.
bool ParseSocketMode(std::string const& text, unsigned& mode, std::string& error);
// "0,daemon,1000": user (groups: group) names or numbers, added to ids;
// "" adds nothing.
bool ParseIdList(std::string const& text, bool groups, std::set<unsigned>& ids, std::string& error);
// A decimal count of at least min.
bool ParseCount(std::string const& text, std::size_t min, std::size_t& out, std::string& error);

// The listener options shared by the programs that serve ("--max-connections",
// "--max-per-uid", "--send-limit", "--frame-timeout", "--socket-mode",
// "--socket-group", "--allow-uid", "--allow-gid"). False when name is none of
// them; otherwise ok tells whether the value parsed (why says what is wrong)
// and unixOnly whether the option needs a Unix socket.
bool TakeLimitOption(std::string const& name, std::string const& value, cServerLimits& limits,
                     bool& ok, bool& unixOnly, std::string& why);
// Their lines for a program's --help.
extern char const kLimitOptionsUsage[];
// The same on a command line (kest/options.h), keys from kLimitOptionKey on.
constexpr int kLimitOptionKey = kLongOnly + 100;
void AddLimitOptions(std::vector<cOption>& options);
// False when key is none of them; otherwise as above.
bool TakeLimitOption(int key, std::string const& value, cServerLimits& limits, bool& ok,
                     bool& unixOnly, std::string& why);

class cServer : private IChannelHandler {
 public:
  cServer(cService* service, IServerHandler* handler, std::string traceModule,
          cServiceId const& self);
  // Closes everything without calling the handler, which may be half gone.
  ~cServer();
  cServer(const cServer&) = delete;
  cServer& operator=(const cServer&) = delete;

  // Allow-lists need a Unix access point: TCP peers have no credentials,
  // so listening on TCP with one is refused rather than open to anyone.
  bool Listen(std::string const& accessPoint, std::string& error);
  void Close();  // closes the listener and every channel (handlers hear OnClose)
  bool Listening() const { return m_listenFd >= 0; }
  std::uint16_t BoundPort() const;  // the real port when listening on port 0
  void SetLimits(cServerLimits const& limits) { m_limits = limits; }
  std::size_t Connections() const { return m_channels.size(); }
  // Reply to a request frame.
  bool Reply(cChannel* channel, std::uint32_t id, std::uint16_t op, cSerializeBuffer const& body);

 private:
  void OnChannelClosed(cChannel* channel, std::string const& reason) override;
  void OnFrame(cChannel* channel, cFrame& frame) override;
  void OnFramesDone(cChannel* channel) override;
  struct cConn {
    std::unique_ptr<cChannel> channel;
    bool greeted = false;   // hello accepted, handler told
    bool progress = false;  // a frame completed during the current read
    bool hasUid = false;
    unsigned uid = 0;
    cEventLoop::TimerId stall = 0;  // hello or an unfinished frame is due
  };
  void Accept();
  // The reason to refuse a new peer, or empty.
  std::string Admit(int fd, bool& hasUid, unsigned& uid);
  void Greet(cConn& conn, cFrame& frame);
  void ArmStall(cConn& conn, char const* what);
  void DisarmStall(cConn& conn);
  // Traces once, tells the peer why (an event frame) and closes.
  void Refuse(cChannel* channel, std::string const& reason);
  void RefuseFd(int fd, std::string const& peer, std::string const& reason);
  int OpenListener(std::string& why);
  bool PrepareUnixPath(std::string const& path, std::string& why);
  bool SetUnixAccess(std::string const& path, std::string& why);
  void PauseAccepting();
  std::string Where() const;   // the access point with the real port
  std::string Bounds() const;  // the limits in force, for the listen trace

  IServerHandler* m_handler;
  std::string m_module;
  cServiceId m_self;
  cServerLimits m_limits;
  int m_listenFd = -1;
  cAccessPoint m_ap;
  std::string m_unixPath;
  cEventLoop::TimerId m_resumeTimer = 0;
  std::map<cChannel*, cConn> m_channels;
};

}  // namespace kest
