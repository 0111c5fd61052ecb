// The bus framing as the loader reads and writes it: a 4-byte big-endian
// length L, then L bytes of a flat message (kr/message/message.h). A
// descriptor travels as SCM_RIGHTS ancillary data with the bytes of the
// frame it belongs to.
//
// FrameReader is the loader's parser of outside bytes. It is fed what each
// recvmsg() returned, one chunk at a time, and hands out whole frames. It
// trusts nothing: a length below kMinFrameLength or above kMaxFrameLength
// is an error before any memory is taken, and it never allocates more
// than the declared length of the frame in progress. After the first
// error it stays failed and delivers nothing more.
//
//   FrameReader reader;
//   reader.feed(buf, n, std::move(fdThatCameWithIt), [&](Frame& f) { route(f); });
//   if (reader.failed()) drop(reader.errorText());
//
// Descriptors: a descriptor belongs to the frame that is in progress when
// the chunk it arrived with ends; if that chunk ends exactly on a frame
// boundary, to the frame that ended there. (The kernel hands a descriptor
// out with the first bytes of the sendmsg() that carried it and never reads
// past them in the same call, so a peer that sends each descriptor with a
// sendmsg() ending with its frame gets it attached to that frame.) A
// descriptor with no bytes, or a second one for the same frame, is an
// error.
//
// FrameWriter is one client's output queue. It frames flat messages, keeps
// them until the socket takes them and refuses to grow past its byte and
// descriptor limits, so a client that stops reading cannot make the loader
// hold unbounded memory or descriptors. A frame with a descriptor is sent
// by a sendmsg() of its own, with the descriptor.
//
// Neither class is thread-safe; the loader uses them from its event loop.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>
#include <string>
#include <vector>

#include "kr/loop/function.h"
#include "kr/util/unique_fd.h"

namespace kr::loader {

// Bytes of the length header.
inline constexpr size_t kFrameHeader = 4;
// The flat form starts with two magic bytes, so no message is shorter.
inline constexpr uint32_t kMinFrameLength = 2;
// L must stay below 65536.
inline constexpr uint32_t kMaxFrameLength = 65535;

// One frame: the flat message's bytes (exactly L of them) and the
// descriptor that came with it, if any. The receiver owns both.
struct Frame {
  std::vector<unsigned char> body;
  UniqueFd fd;
};

enum class FrameError {
  kNone,
  kBadLength,         // L < kMinFrameLength or L > kMaxFrameLength
  kStrayDescriptor,   // a descriptor arrived without any bytes
  kTwoDescriptors,    // a second descriptor for the same frame
};

class FrameReader {
 public:
  // Called once per complete frame, in stream order; the sink may move the
  // body and the descriptor out, but must not destroy the reader.
  using Sink = kr::function<void(Frame&)>;

  FrameReader() = default;
  FrameReader(const FrameReader&) = delete;
  FrameReader& operator=(const FrameReader&) = delete;

  // Consumes one received chunk and the descriptor that came with it
  // (empty when none). Calls `sink` for every frame the chunk completes.
  // False once the stream is bad (see error()); the chunk's remaining bytes
  // and the descriptor are then discarded (the descriptor is closed).
  bool feed(const unsigned char* data, size_t n, UniqueFd fd, const Sink& sink);

  // The stream ended (the peer closed): true when it ended between frames.
  // A partial frame and its descriptor are discarded either way.
  bool atBoundary() const { return got_ == 0; }

  bool failed() const { return error_ != FrameError::kNone; }
  FrameError error() const { return error_; }
  // A one-line description of the error ("bad frame length 70000").
  std::string errorText() const;

 private:
  void takeHeaderByte(unsigned char b);
  bool fail(FrameError e);

  unsigned char header_[kFrameHeader] = {};
  size_t got_ = 0;         // bytes of the current frame so far, header included
  uint32_t length_ = 0;    // L of the current frame, once its header is in
  uint32_t badLength_ = 0;
  std::vector<unsigned char> body_;
  UniqueFd pendingFd_;     // arrived with the current, unfinished frame
  FrameError error_ = FrameError::kNone;
};

class FrameWriter {
 public:
  // Per client: 1 MiB of frames and 64 descriptors waiting at most.
  static constexpr size_t kDefaultByteLimit = 1 << 20;
  static constexpr size_t kDescriptorLimit = 64;

  enum class Queued { kOk, kTooLong, kFull };
  enum class Flushed { kDone, kPending, kFailed };

  // `byteLimit` is raised to one largest frame if it is smaller.
  explicit FrameWriter(size_t byteLimit = kDefaultByteLimit);
  FrameWriter(const FrameWriter&) = delete;
  FrameWriter& operator=(const FrameWriter&) = delete;

  // Queues `body` (a flat message) as one frame, with `fd` to pass along.
  // kTooLong: the body is longer than kMaxFrameLength; kFull: the queue
  // would pass its byte or descriptor limit. On failure nothing is queued
  // and `fd` is closed.
  Queued enqueue(std::span<const unsigned char> body, UniqueFd fd = {});

  // Sends as much as the non-blocking stream socket `sock` takes now.
  // kPending: the socket is full, call again when it is writable. kFailed:
  // the socket is broken; *err (when not null) gets errno. A descriptor is
  // closed here once the kernel has taken it.
  Flushed flush(int sock, int* err = nullptr);

  bool empty() const { return queue_.empty(); }
  size_t queuedBytes() const { return bytes_; }
  size_t queuedFrames() const { return queue_.size(); }

 private:
  struct Entry {
    std::vector<unsigned char> bytes;  // header and body
    size_t sent = 0;
    UniqueFd fd;
  };
  ssize_t sendSome(int sock);
  void consume(size_t n);

  std::deque<Entry> queue_;
  size_t bytes_ = 0;        // not yet sent, over all entries
  size_t descriptors_ = 0;  // entries still holding a descriptor
  size_t byteLimit_;
};

}  // namespace kr::loader
