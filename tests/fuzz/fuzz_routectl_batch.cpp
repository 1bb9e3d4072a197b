// routectl's parser on arbitrary text, one command a line, as a batch file
// or a pipe feeds it. A line that parses must make a command the route
// service can be sent.
#include "fuzz_check.h"
#include "routectl/command.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<char const*>(data), size);
  for (std::size_t start = 0; start <= text.size();) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    routectl::cParsed const parsed = routectl::ParseLine(text.substr(start, end - start));
    start = end + 1;
    if (parsed.kind == routectl::cParsed::kError) FUZZ_CHECK(!parsed.error.empty());
    if (parsed.kind != routectl::cParsed::kCommand) continue;
    kest::cSerializeBuffer body;
    FUZZ_CHECK(routeIO::EncodeCommand(parsed.command, body));
    routeIO::routeCommand back;
    std::string error;
    FUZZ_CHECK(routeIO::DecodeCommand(routeIO::OpOf(parsed.command), body, back, error));
  }
  return 0;
}
