// Reads lines from a file descriptor and tells whether more input is there
// right now, so answers can be printed as soon as a typist stops typing and
// batched while a file streams in.
#pragma once

#include <cstddef>
#include <string>

namespace routectl {

class cLineReader {
 public:
  // No command is anywhere near this long (a tag is at most 16 KiB); longer
  // lines are reported, not buffered without bound.
  static constexpr std::size_t kMaxLine = 64 * 1024;

  enum Result { kLine, kTooLong, kEof, kError };

  explicit cLineReader(int fd) : m_fd(fd) {}
  // Blocks for the next line (without its newline). A last line without a
  // newline is still a line. kError leaves errno set.
  Result Next(std::string& line);
  // A whole line is buffered, or the descriptor can be read without waiting.
  bool Ready() const;

 private:
  bool Fill();  // false at end of input or on an error (m_error)

  int m_fd;
  std::string m_buf;
  std::size_t m_pos = 0;
  bool m_eof = false;
  bool m_error = false;
  bool m_skipping = false;  // dropping the rest of an oversized line
};

}  // namespace routectl
