#include "platform/loader/frame.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <vector>

namespace kr::loader {
namespace {

using Bytes = std::vector<unsigned char>;

Bytes body(size_t n, unsigned char fill) {
  Bytes b(n, fill);
  if (n >= 2) b[0] = 0x4d, b[1] = 0x32;
  return b;
}
Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
Bytes header(uint32_t n) { return {uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)}; }
Bytes framed(const Bytes& b) { return header(uint32_t(b.size())) + b; }
Bytes slice(const Bytes& b, size_t from, size_t to) { return Bytes(b.begin() + from, b.begin() + to); }
bool isOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

struct Pipe {  // the read end to pass around; the write end stays here
  int fds[2] = {-1, -1};
  Pipe() { EXPECT_EQ(pipe2(fds, O_CLOEXEC), 0); }
  ~Pipe() { close(fds[1]); }
  UniqueFd give() { return UniqueFd(fds[0]); }
};

struct Collected {
  FrameReader reader;
  std::vector<Frame> frames;
  Bytes wire;  // everything fed
  bool feed(const Bytes& b, UniqueFd fd = {}) {
    wire.insert(wire.end(), b.begin(), b.end());
    return reader.feed(b.data(), b.size(), std::move(fd), [this](Frame& f) { frames.push_back(std::move(f)); });
  }
};

// A descriptor goes to the frame in progress when its chunk ends, or to the
// frame that ended exactly there.
TEST(loaderFrameReader, FramesComeOutWholeAndDescriptorsGoWhereTheirChunkEnds) {
  Pipe p, q;
  Collected c;
  const Bytes largest = framed(body(65535, 7)), fourth = framed(body(40, 4));
  for (unsigned char byte : largest) ASSERT_TRUE(c.feed({byte}));
  ASSERT_TRUE(c.feed(framed(body(5, 1)) + framed(body(6, 2)), p.give()));
  ASSERT_TRUE(c.feed(framed(body(5, 3)) + slice(fourth, 0, 3), q.give()));
  ASSERT_TRUE(c.feed(slice(fourth, 3, fourth.size()) + framed(body(5, 5))));
  EXPECT_TRUE(c.reader.atBoundary());
  ASSERT_EQ(c.frames.size(), 6u);
  Bytes again;
  for (const Frame& f : c.frames) again = again + framed(f.body);
  EXPECT_EQ(again, c.wire);
  EXPECT_EQ(c.frames[2].fd.get(), p.fds[0]);
  EXPECT_EQ(c.frames[4].fd.get(), q.fds[0]);
  for (int i : {0, 1, 3, 5}) EXPECT_FALSE(c.frames[i].fd) << i;
}

TEST(loaderFrameReader, BadLengthFailsAtTheHeaderAndStaysFailed) {
  for (uint32_t length : {0xFFFFFFFFu, 65536u, 0u, 1u}) {
    Collected c;
    EXPECT_FALSE(c.feed(header(length) + body(10, 1)));
    EXPECT_EQ(c.reader.error(), FrameError::kBadLength);
    EXPECT_EQ(c.reader.errorText(), "bad frame length " + std::to_string(length));
    EXPECT_FALSE(c.feed(framed(body(4, 1))));  // nothing after the first error
    EXPECT_TRUE(c.frames.empty());
  }
}

TEST(loaderFrameReader, UndeliverableDescriptorsAreRefusedOrClosed) {
  Pipe p, q, r, t;
  {
    Collected c;  // a truncated frame: its descriptor waits for the rest
    ASSERT_TRUE(c.feed(slice(framed(body(100, 3)), 0, 50), p.give()));
    EXPECT_TRUE(c.frames.empty());
    EXPECT_FALSE(c.reader.atBoundary());
    EXPECT_TRUE(isOpen(p.fds[0]));
  }
  EXPECT_FALSE(isOpen(p.fds[0]));
  Collected stray;  // no bytes with it
  EXPECT_FALSE(stray.feed({}, q.give()));
  EXPECT_EQ(stray.reader.error(), FrameError::kStrayDescriptor);
  EXPECT_FALSE(isOpen(q.fds[0]));
  Collected two;  // two for one frame
  const Bytes f = framed(body(30, 1));
  ASSERT_TRUE(two.feed(slice(f, 0, 10), r.give()));
  EXPECT_FALSE(two.feed(slice(f, 10, f.size()), t.give()));
  EXPECT_EQ(two.reader.error(), FrameError::kTwoDescriptors);
  EXPECT_TRUE(two.frames.empty());
  EXPECT_FALSE(isOpen(r.fds[0]) || isOpen(t.fds[0]));
}

struct SocketPair {
  int fds[2] = {-1, -1};
  SocketPair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds), 0); }
  ~SocketPair() { close(fds[0]), close(fds[1]); }
  // Everything readable now on the far end, fed to `c` one recvmsg() at a
  // time with the descriptor that came with it.
  void drainInto(Collected& c) {
    unsigned char buf[65536];
    alignas(cmsghdr) unsigned char control[CMSG_SPACE(sizeof(int))];
    for (;;) {
      iovec iov{buf, sizeof buf};
      msghdr msg{nullptr, 0, &iov, 1, control, sizeof control, 0};
      const ssize_t n = recvmsg(fds[1], &msg, MSG_CMSG_CLOEXEC);
      if (n <= 0) return;
      UniqueFd fd;
      if (cmsghdr* h = CMSG_FIRSTHDR(&msg)) { int raw; std::memcpy(&raw, CMSG_DATA(h), sizeof raw); fd.reset(raw); }
      ASSERT_TRUE(c.feed(Bytes(buf, buf + n), std::move(fd)));
    }
  }
};

TEST(loaderFrameWriter, FramesGoOutWithABigEndianLengthAndADescriptorWithItsOwnFrame) {
  SocketPair s;
  Pipe p;
  FrameWriter w;
  for (unsigned char i : {1, 2, 3})
    ASSERT_EQ(w.enqueue(body(i * 150, i), i == 2 ? p.give() : UniqueFd()), FrameWriter::Queued::kOk);
  EXPECT_EQ(w.queuedBytes(), 900u + 12);
  EXPECT_EQ(w.flush(s.fds[0]), FrameWriter::Flushed::kDone);
  EXPECT_TRUE(w.empty());
  EXPECT_FALSE(isOpen(p.fds[0]));  // the writer's copy is gone once sent
  Collected c;
  s.drainInto(c);
  EXPECT_EQ(c.wire, framed(body(150, 1)) + framed(body(300, 2)) + framed(body(450, 3)));
  ASSERT_EQ(c.frames.size(), 3u);
  EXPECT_FALSE(c.frames[0].fd || c.frames[2].fd);
  ASSERT_TRUE(c.frames[1].fd);
  ASSERT_EQ(write(p.fds[1], "x", 1), 1);  // the received one is the same pipe
  char got = 0;
  EXPECT_EQ(read(c.frames[1].fd.get(), &got, 1), 1);
  EXPECT_EQ(got, 'x');

  shutdown(s.fds[1], SHUT_RD);
  w.enqueue(body(2, 0));
  int err = 0;
  EXPECT_EQ(w.flush(s.fds[0], &err), FrameWriter::Flushed::kFailed);
  EXPECT_EQ(err, EPIPE);
}

TEST(loaderFrameWriter, QueueRefusesTooLongFramesAndStaysWithinItsLimits) {
  FrameWriter w(10);  // raised to one largest frame
  EXPECT_EQ(w.enqueue(body(65536, 0)), FrameWriter::Queued::kTooLong);
  EXPECT_EQ(w.enqueue(body(65535, 0)), FrameWriter::Queued::kOk);
  EXPECT_EQ(w.enqueue(body(2, 0)), FrameWriter::Queued::kFull);
  EXPECT_EQ(w.queuedFrames(), 1u);

  std::vector<Pipe> pipes(FrameWriter::kDescriptorLimit + 1);
  FrameWriter d;  // goes first, closing what it holds
  for (size_t i = 0; i < FrameWriter::kDescriptorLimit; ++i)
    ASSERT_EQ(d.enqueue(body(2, 0), pipes[i].give()), FrameWriter::Queued::kOk);
  EXPECT_EQ(d.enqueue(body(2, 0), pipes.back().give()), FrameWriter::Queued::kFull);
  EXPECT_FALSE(isOpen(pipes.back().fds[0]));
  EXPECT_EQ(d.enqueue(body(2, 0)), FrameWriter::Queued::kOk);  // without a descriptor it fits
}

TEST(loaderFrameWriter, FullSocketLeavesTheRestPendingUntilItDrains) {
  SocketPair s;
  int small = 4096;
  setsockopt(s.fds[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  FrameWriter w;
  for (int i = 0; i < 10; ++i) ASSERT_EQ(w.enqueue(body(60000, uint8_t(i))), FrameWriter::Queued::kOk);
  Collected c;
  EXPECT_EQ(w.flush(s.fds[0]), FrameWriter::Flushed::kPending);
  for (int round = 0; round < 1000 && !w.empty(); ++round) {
    s.drainInto(c);
    ASSERT_NE(w.flush(s.fds[0]), FrameWriter::Flushed::kFailed);
  }
  s.drainInto(c);
  ASSERT_EQ(c.frames.size(), 10u);
  for (int i = 0; i < 10; ++i) EXPECT_EQ(c.frames[i].body, body(60000, uint8_t(i)));
}

}  // namespace
}  // namespace kr::loader
