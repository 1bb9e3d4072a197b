// Process start and the framework's property list.
#pragma once

#include <map>
#include <string>

namespace kest {

class cPropertyList {
 public:
  std::string GetStringForKey(std::string const& key, std::string const& def) const;
  bool Has(std::string const& key) const;
  void Set(std::string const& key, std::string const& value);
  // Parses "key=value" lines ('#' comments, blank lines ignored). On a
  // malformed line returns false with "path:line: reason" in error.
  bool LoadFile(std::string const& path, std::string& error);
  void Clear() { m_values.clear(); }

 private:
  std::map<std::string, std::string> m_values;
};

// Framework start. Understands:
//   --props FILE         load properties from FILE
//   --prop KEY=VALUE     set one property (repeatable; wins over the file)
//   -h, --help           usage on stdout, exit 0
//   -V, --version        version on stdout, exit 0
// Anything else, or a malformed properties line, is named on stderr and the
// process exits with status 2 before anything starts. The third argument is
// extra usage text for --help.
bool kestInit(int argc, char** argv, std::string const& usage);
void kestDeinit(bool full);
cPropertyList& kestProperties();

}  // namespace kest
