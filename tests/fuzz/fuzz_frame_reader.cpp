// kest's frame reader on an arbitrary byte stream, as a peer's socket would
// deliver it. Byte 0 picks how the stream is cut into reads (0: one read);
// every frame taken out must encode back to exactly the bytes it came from.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "kest/frame.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::size_t chunk = data[0] == 0 ? size : data[0];
  const std::uint8_t* stream = data + 1;
  const std::size_t len = size - 1;

  kest::cFrameReader reader;
  std::vector<std::uint8_t> reencoded;
  std::size_t fed = 0;
  bool broken = false;
  while (fed < len && !broken) {
    const std::size_t n = len - fed < chunk ? len - fed : chunk;
    reader.Feed(stream + fed, n);
    fed += n;
    for (;;) {
      kest::cFrame frame;
      std::string error;
      kest::cFrameReader::Result r = reader.Next(frame, error);
      if (r == kest::cFrameReader::kNeedMore) break;
      if (r == kest::cFrameReader::kError) {
        FUZZ_CHECK(!error.empty());
        broken = true;  // the connection would be closed here
        break;
      }
      FUZZ_CHECK(frame.body.Size() + kest::kFrameHeader <= kest::kMaxFrame + 4);
      kest::EncodeFrame(frame, reencoded);
    }
  }
  FUZZ_CHECK(reencoded.size() <= len);
  FUZZ_CHECK(std::vector<std::uint8_t>(stream, stream + reencoded.size()) == reencoded);
  if (!broken) FUZZ_CHECK(reencoded.size() + reader.Buffered() == len);
  return 0;
}
