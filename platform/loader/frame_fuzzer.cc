// libFuzzer target for the loader's frame reader (frame.cc), the parser of
// the bytes its clients send.
//
// Input: a script of received chunks. Each chunk starts with one byte h:
// bit 7 says a descriptor came with the chunk, bits 6..0 are its length
// (0x7F: all the rest of the input); the chunk's bytes follow. The chunks
// are fed to a FrameReader as recvmsg() would hand them over, each
// descriptor a real one (a duplicate of a pipe).
//
// An oracle computes the outcome from the whole byte stream and the chunk
// end offsets, without the reader's incremental state: the frames are cut
// by walking the lengths; a chunk's descriptor belongs to the frame that
// holds the chunk's last byte; the first error in stream order (a length
// outside 2..65535 once its header is complete, a descriptor with no bytes,
// a second descriptor for one frame) ends the stream. Checks:
//   - the reader delivers exactly the frames that end before the error, in
//     order, with exactly the bytes of the stream, and reports the error;
//   - each delivered frame has exactly the descriptor of its chunk;
//   - no body holds more room than the largest frame;
//   - once the reader and the delivered frames are gone, every descriptor
//     handed to it is closed (none leaks, none is closed twice while in
//     use).
// A violated check prints what failed and aborts.
//
// The fuzz build links a target's one source with the kr objects only, so
// the reader is compiled in here rather than linked.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "platform/loader/frame.cc"  // NOLINT(bugprone-suspicious-include)

#include "fuzz/fuzz_check.h"

namespace {

using kr::loader::FrameError;

struct Chunk {
  size_t begin = 0, end = 0;  // in the stream
  bool fd = false;
};

struct Script {
  std::vector<unsigned char> stream;
  std::vector<Chunk> chunks;
};

Script parse(const uint8_t* data, size_t size) {
  Script s;
  size_t i = 0;
  while (i < size) {
    const uint8_t h = data[i++];
    size_t n = h & 0x7F;
    if (n == 0x7F || n > size - i) n = size - i;
    // At most 500 descriptors, well below the process's limit.
    s.chunks.push_back({s.stream.size(), s.stream.size() + n, (h & 0x80) != 0 && s.chunks.size() < 500});
    s.stream.insert(s.stream.end(), data + i, data + i + n);
    i += n;
  }
  return s;
}

struct Expected {
  struct Frame {
    size_t begin, end;  // the body
    int chunk = -1;     // whose descriptor it gets
  };
  std::vector<Frame> frames;  // delivered ones
  FrameError error = FrameError::kNone;
  bool boundary = true;       // the stream ended between frames
};

// Frames as the lengths cut them; *badAt is where a bad header ends (or
// SIZE_MAX). The last entry may be unfinished, or the one with a bad
// length: descriptors may still arrive for it before its header is whole.
std::vector<Expected::Frame> cut(const std::vector<unsigned char>& s, size_t* badAt) {
  std::vector<Expected::Frame> frames;
  *badAt = SIZE_MAX;
  size_t pos = 0;
  while (pos < s.size()) {
    if (s.size() - pos < 4) {
      frames.push_back({pos + 4, SIZE_MAX});  // unfinished header
      break;
    }
    const size_t len = size_t(s[pos]) << 24 | size_t(s[pos + 1]) << 16 | size_t(s[pos + 2]) << 8 | s[pos + 3];
    if (len < 2 || len > 65535) {  // in progress until its header is complete
      frames.push_back({pos + 4, SIZE_MAX});
      *badAt = pos + 4;
      break;
    }
    frames.push_back({pos + 4, pos + 4 + len});
    pos += 4 + len;
  }
  return frames;
}

Expected oracle(const Script& s) {
  Expected e;
  size_t badAt = 0;
  std::vector<Expected::Frame> frames = cut(s.stream, &badAt);
  size_t stop = SIZE_MAX;  // frames ending at or before `stop` are delivered
  for (size_t k = 0; k < s.chunks.size() && e.error == FrameError::kNone; ++k) {
    const Chunk& c = s.chunks[k];
    if (badAt <= c.end) {
      e.error = FrameError::kBadLength;
      stop = badAt;
      break;
    }
    if (!c.fd) continue;
    if (c.begin == c.end) {
      e.error = FrameError::kStrayDescriptor;
      stop = c.end;
      break;
    }
    for (Expected::Frame& f : frames) {
      if (f.begin - 4 >= c.end || f.end < c.end) continue;  // not holding byte end - 1
      if (f.chunk >= 0) {
        e.error = FrameError::kTwoDescriptors;
        stop = c.end - 1;  // the frame ending here is not delivered either
      }
      f.chunk = int(k);
      break;
    }
  }
  const size_t streamEnd = s.stream.size();
  for (const Expected::Frame& f : frames) {
    if (f.end <= std::min(stop, streamEnd)) e.frames.push_back(f);
    else e.boundary = false;
  }
  return e;
}

bool isOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const int base = [] {
    int p[2];
    if (pipe2(p, O_CLOEXEC) != 0) std::abort();
    return p[0];
  }();
  const Script script = parse(data, size);
  const Expected want = oracle(script);

  std::vector<int> given(script.chunks.size(), -1);
  std::vector<kr::loader::Frame> got;
  {
    kr::loader::FrameReader reader;
    bool ok = true;
    for (size_t k = 0; k < script.chunks.size() && ok; ++k) {
      const Chunk& c = script.chunks[k];
      kr::UniqueFd fd;
      if (c.fd) {
        fd.reset(fcntl(base, F_DUPFD_CLOEXEC, 0));
        CHECK(fd, k);
        given[k] = fd.get();
      }
      ok = reader.feed(script.stream.data() + c.begin, c.end - c.begin, std::move(fd),
                       [&](kr::loader::Frame& f) { got.push_back(std::move(f)); });
      CHECK(ok == !reader.failed(), k);
    }
    CHECK(reader.error() == want.error, int(reader.error()));
    CHECK(got.size() == want.frames.size(), got.size());
    if (!reader.failed()) CHECK(reader.atBoundary() == want.boundary, 0);
    for (size_t i = 0; i < got.size(); ++i) {
      const Expected::Frame& f = want.frames[i];
      CHECK(got[i].body.size() == f.end - f.begin, i);
      CHECK(std::equal(got[i].body.begin(), got[i].body.end(), script.stream.begin() + long(f.begin)), i);
      CHECK(got[i].fd.get() == (f.chunk >= 0 ? given[f.chunk] : -1), i);
      CHECK(!got[i].fd || isOpen(got[i].fd.get()), i);
    }
    for (const kr::loader::Frame& f : got) CHECK(f.body.capacity() <= kr::loader::kMaxFrameLength, f.body.capacity());
  }
  got.clear();
  for (size_t k = 0; k < given.size(); ++k)
    if (given[k] >= 0) CHECK(!isOpen(given[k]), k);
  return 0;
}
