// Messages, message maps and message sinks.
#pragma once

#include <string>
#include <vector>

#include "kest/serialize.h"

namespace kest {

class cChannel;

class cMsg {
 public:
  explicit cMsg(std::string name, cChannel* channel = nullptr)
      : m_name(std::move(name)), m_channel(channel) {}
  std::string const& Name() const { return m_name; }
  cChannel* Channel() const { return m_channel; }
  cSerializeBuffer& Payload() { return m_payload; }

 private:
  std::string m_name;
  cChannel* m_channel;
  cSerializeBuffer m_payload;
};

class cMessageSink;
using MsgHandler = void (cMessageSink::*)(cMsg&);

class cMessageMap {
 public:
  struct Entry {
    std::string name;
    MsgHandler handler;
    cChannel* channel;  // nullptr: from any channel
  };
  void AddEntry(std::string const& name, MsgHandler handler, cChannel* channel);
  // First entry in insertion order whose name matches and whose channel is
  // null or the message's channel.
  Entry const* Find(cMsg const& msg) const;
  std::vector<Entry> const& Entries() const { return m_entries; }
  void Clear() { m_entries.clear(); }

 private:
  std::vector<Entry> m_entries;
};

class cMessageSink {
 public:
  cMessageSink();
  virtual ~cMessageSink();
  cMessageSink(const cMessageSink&) = delete;
  cMessageSink& operator=(const cMessageSink&) = delete;

  virtual std::string ToString() const;
  virtual void InitMessageMap() {}
  virtual void OnMsgIgnore(cMsg& msg);  // traces the ignored message's name
  virtual bool Init(std::string const& name);
  // Runs the map entry for msg; false when there is none.
  virtual bool ProcessMessageHandlers(cMsg& msg);
  // Dispatch: map entry, else OnMsgIgnore. Fills the map on first use.
  virtual void ProcessMsg(cMsg& msg);
  virtual bool AuthorizedChannel(cMsg& msg, std::string const& what);

  cMessageMap& MessageMap() { return m_map; }
  std::string const& Name() const { return m_name; }

  // Queues msg for this sink on the process's loop. A sink destroyed before
  // the message is dispatched never sees it.
  void Post(cMsg msg);
  static void PostTo(cMessageSink* sink, cMsg msg);
  static bool Alive(cMessageSink const* sink);

 protected:
  void EnsureMessageMap();

 private:
  cMessageMap m_map;
  std::string m_name;
  bool m_mapReady = false;
};

}  // namespace kest
