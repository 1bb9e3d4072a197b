// routectl's batch parser on arbitrary text, one command per line, as a
// batch file or a pipe feeds it. A line that parses must make a command the
// route service can be sent.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_check.h"
#include "routectl/command.h"

namespace {

void Check(routectl::cParsed const& parsed) {
  switch (parsed.kind) {
    case routectl::cParsed::kEmpty: break;
    case routectl::cParsed::kError: FUZZ_CHECK(!parsed.error.empty()); break;
    case routectl::cParsed::kCommand: {
      (void)routectl::Verb(parsed.command);
      (void)routectl::TagOf(parsed.command);
      kest::cSerializeBuffer body;
      FUZZ_CHECK(routeIO::EncodeCommand(parsed.command, body));
      routeIO::routeCommand back;
      std::string error;
      FUZZ_CHECK(routeIO::DecodeCommand(routeIO::OpOf(parsed.command), body, back, error));
      break;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<char const*>(data), size);
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    const std::string_view line = text.substr(start, end - start);
    Check(routectl::ParseLine(line));

    // The same words as a command line gives them (no comments there).
    std::vector<std::string_view> words;
    std::size_t w = 0;
    while (w < line.size()) {
      while (w < line.size() && (line[w] == ' ' || line[w] == '\t')) ++w;
      std::size_t e = w;
      while (e < line.size() && line[e] != ' ' && line[e] != '\t') ++e;
      if (e > w) words.push_back(line.substr(w, e - w));
      w = e;
    }
    Check(routectl::ParseWords(words));
    start = end + 1;
  }
  return 0;
}
