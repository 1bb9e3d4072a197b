// kest's frame reader on an arbitrary byte stream, as a peer's socket would
// deliver it, and every frame it yields judged as the first frame of a
// connection on both sides (the hello). Byte 0 is the size of each read (0: one read).
#include <algorithm>
#include <vector>

#include "fuzz_check.h"
#include "kest/frame.h"
#include "kest/hello.h"

constexpr kest::cServiceId kSelf{"routeMgr", "the route manager", 1};

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::size_t chunk = data[0] == 0 ? size : data[0];
  const std::uint8_t* stream = data + 1;
  const std::size_t len = size - 1;

  kest::cFrameReader reader;
  std::vector<std::uint8_t> reencoded;
  kest::cFrameReader::Result r = kest::cFrameReader::kNeedMore;
  for (std::size_t fed = 0; fed < len && r != kest::cFrameReader::kError; fed += chunk) {
    reader.Feed(stream + fed, std::min(len - fed, chunk));
    kest::cFrame frame;
    std::string error;
    while ((r = reader.Next(frame, error)) == kest::cFrameReader::kFrame) {
      FUZZ_CHECK(frame.body.Size() + kest::kFrameHeader <= kest::kMaxFrame + 4);
      kest::EncodeFrame(frame, reencoded);
      kest::cFrame answer = frame;
      std::string why;
      (void)kest::JudgeGreeting(answer, frame.id, kSelf, "127.0.0.1:3712", why);
      (void)kest::JudgeHello(frame, kSelf);
    }
    if (r == kest::cFrameReader::kError) FUZZ_CHECK(!error.empty());  // connection closed here
  }
  // The frames taken out are exactly the bytes consumed; the rest is buffered.
  FUZZ_CHECK(reencoded.size() <= len && std::equal(reencoded.begin(), reencoded.end(), stream));
  if (r != kest::cFrameReader::kError) FUZZ_CHECK(reencoded.size() + reader.Buffered() == len);
  return 0;
}
