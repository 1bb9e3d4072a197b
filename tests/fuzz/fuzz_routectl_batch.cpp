// routectl's parser on arbitrary text, one command a line, as a batch file
// or a pipe feeds it, and as words of a command line. A line that parses
// must make a command the route service can be sent.
#include "fuzz_check.h"
#include "routectl/command.h"

namespace {

void Check(routectl::cParsed const& parsed) {
  if (parsed.kind == routectl::cParsed::kError) FUZZ_CHECK(!parsed.error.empty());
  if (parsed.kind != routectl::cParsed::kCommand) return;
  (void)routectl::Verb(parsed.command);
  (void)routectl::TagOf(parsed.command);
  kest::cSerializeBuffer body;
  FUZZ_CHECK(routeIO::EncodeCommand(parsed.command, body));
  routeIO::routeCommand back;
  std::string error;
  FUZZ_CHECK(routeIO::DecodeCommand(routeIO::OpOf(parsed.command), body, back, error));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<char const*>(data), size);
  for (std::size_t start = 0; start <= text.size();) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    const std::string_view line = text.substr(start, end - start);
    Check(routectl::ParseLine(line));
    std::vector<std::string_view> words;
    for (std::size_t w = line.find_first_not_of(" \t"); w != std::string_view::npos;) {
      const std::size_t e = std::min(line.find_first_of(" \t", w), line.size());
      words.push_back(line.substr(w, e - w));
      w = line.find_first_not_of(" \t", e);
    }
    Check(routectl::ParseWords(words));
    start = end + 1;
  }
  return 0;
}
