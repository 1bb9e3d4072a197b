#include "routectl/line_reader.h"

#include <errno.h>
#include <poll.h>
#include <unistd.h>

namespace routectl {

bool cLineReader::Fill() {
  if (m_pos > 0) {
    m_buf.erase(0, m_pos);
    m_pos = 0;
  }
  char chunk[16 * 1024];
  for (;;) {
    ssize_t n = ::read(m_fd, chunk, sizeof(chunk));
    if (n > 0) {
      m_buf.append(chunk, static_cast<std::size_t>(n));
      return true;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) m_error = true;
    m_eof = true;
    return false;
  }
}

cLineReader::Result cLineReader::Next(std::string& line) {
  for (;;) {
    std::size_t nl = m_buf.find('\n', m_pos);
    if (nl != std::string::npos) {
      bool skipped = m_skipping || nl - m_pos > kMaxLine;
      m_skipping = false;
      if (!skipped) line.assign(m_buf, m_pos, nl - m_pos);
      m_pos = nl + 1;
      if (skipped) return kTooLong;
      return kLine;
    }
    if (m_buf.size() - m_pos > kMaxLine) {
      m_skipping = true;
      m_buf.clear();
      m_pos = 0;
    }
    if (m_eof || !Fill()) {
      if (m_error) return kError;
      if (m_skipping || m_buf.size() - m_pos > kMaxLine) {
        m_skipping = false;
        m_buf.clear();
        m_pos = 0;
        return kTooLong;
      }
      if (m_pos < m_buf.size()) {
        line.assign(m_buf, m_pos, std::string::npos);
        m_pos = m_buf.size();
        return kLine;
      }
      return kEof;
    }
  }
}

bool cLineReader::Ready() const {
  if (m_buf.find('\n', m_pos) != std::string::npos || m_eof) return true;
  pollfd p{m_fd, POLLIN, 0};
  int n;
  do {
    n = ::poll(&p, 1, 0);
  } while (n < 0 && errno == EINTR);
  return n > 0;
}

}  // namespace routectl
