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

Bytes framed(const Bytes& b) {
  const size_t n = b.size();
  Bytes out{uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)};
  out.insert(out.end(), b.begin(), b.end());
  return out;
}

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

bool isOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

// A pipe's read end to pass around; the write end stays here.
struct Pipe {
  int fds[2] = {-1, -1};
  Pipe() { EXPECT_EQ(pipe2(fds, O_CLOEXEC), 0); }
  ~Pipe() {
    for (int fd : fds)
      if (isOpen(fd)) close(fd);
  }
  UniqueFd give() { return UniqueFd(fds[0]); }
};

struct Collected {
  FrameReader reader;
  std::vector<Frame> frames;
  bool feed(const Bytes& b, UniqueFd fd = {}) {
    return reader.feed(b.data(), b.size(), std::move(fd), [this](Frame& f) { frames.push_back(std::move(f)); });
  }
};

// ---- Reader ------------------------------------------------------------------------

TEST(loaderFrameReader, FrameFedByteByByteComesOutWhole) {
  Collected c;
  const Bytes b = body(300, 7);
  for (unsigned char byte : framed(b)) ASSERT_TRUE(c.feed({byte}));
  ASSERT_EQ(c.frames.size(), 1u);
  EXPECT_EQ(c.frames[0].body, b);
  EXPECT_FALSE(c.frames[0].fd);
  EXPECT_TRUE(c.reader.atBoundary());
}

TEST(loaderFrameReader, TwoFramesInOneChunkComeOutInOrder) {
  Collected c;
  ASSERT_TRUE(c.feed(framed(body(2, 0)) + framed(body(9, 1))));
  ASSERT_EQ(c.frames.size(), 2u);
  EXPECT_EQ(c.frames[0].body, body(2, 0));
  EXPECT_EQ(c.frames[1].body, body(9, 1));
}

TEST(loaderFrameReader, TruncatedFrameIsNotDeliveredAndItsDescriptorIsClosed) {
  Pipe p;
  {
    Collected c;
    const Bytes whole = framed(body(100, 3));
    ASSERT_TRUE(c.feed(Bytes(whole.begin(), whole.begin() + 50), p.give()));
    EXPECT_TRUE(c.frames.empty());
    EXPECT_FALSE(c.reader.atBoundary());
    EXPECT_TRUE(isOpen(p.fds[0]));  // waits for the rest of its frame
  }
  EXPECT_FALSE(isOpen(p.fds[0]));
}

TEST(loaderFrameReader, BadLengthFailsAtTheHeaderAndStaysFailed) {
  for (uint32_t length : {0xFFFFFFFFu, 65536u, 0x7FFFFFFFu, 0u, 1u}) {
    Collected c;
    const Bytes header{uint8_t(length >> 24), uint8_t(length >> 16), uint8_t(length >> 8), uint8_t(length)};
    EXPECT_FALSE(c.feed(header + body(10, 1)));
    EXPECT_EQ(c.reader.error(), FrameError::kBadLength);
    EXPECT_EQ(c.reader.errorText(), "bad frame length " + std::to_string(length));
    EXPECT_FALSE(c.feed(framed(body(4, 1))));  // nothing after the first error
    EXPECT_TRUE(c.frames.empty());
  }
  Collected largest;  // 65535 is allowed
  EXPECT_TRUE(largest.feed(framed(body(65535, 2))));
  EXPECT_EQ(largest.frames.size(), 1u);
}

TEST(loaderFrameReader, DescriptorGoesToTheFrameThatEndsItsChunk) {
  Pipe p;
  Collected c;
  ASSERT_TRUE(c.feed(framed(body(5, 1)) + framed(body(6, 2)), p.give()));
  ASSERT_EQ(c.frames.size(), 2u);
  EXPECT_FALSE(c.frames[0].fd);
  EXPECT_EQ(c.frames[1].fd.get(), p.fds[0]);
}

TEST(loaderFrameReader, DescriptorWithAPartialFrameWaitsForItsEnd) {
  Pipe p;
  Collected c;
  const Bytes second = framed(body(40, 2));
  ASSERT_TRUE(c.feed(framed(body(5, 1)) + Bytes(second.begin(), second.begin() + 3), p.give()));
  ASSERT_TRUE(c.feed(Bytes(second.begin() + 3, second.end()) + framed(body(5, 3))));
  ASSERT_EQ(c.frames.size(), 3u);
  EXPECT_FALSE(c.frames[0].fd);
  EXPECT_EQ(c.frames[1].fd.get(), p.fds[0]);
  EXPECT_FALSE(c.frames[2].fd);
}

TEST(loaderFrameReader, DescriptorWithoutBytesIsRefusedAndClosed) {
  Pipe p;
  Collected c;
  EXPECT_FALSE(c.feed({}, p.give()));
  EXPECT_EQ(c.reader.error(), FrameError::kStrayDescriptor);
  EXPECT_FALSE(isOpen(p.fds[0]));
}

TEST(loaderFrameReader, TwoDescriptorsForOneFrameAreRefusedAndBothClosed) {
  Pipe p, q;
  Collected c;
  const Bytes f = framed(body(30, 1));
  ASSERT_TRUE(c.feed(Bytes(f.begin(), f.begin() + 10), p.give()));
  EXPECT_FALSE(c.feed(Bytes(f.begin() + 10, f.end()), q.give()));
  EXPECT_EQ(c.reader.error(), FrameError::kTwoDescriptors);
  EXPECT_TRUE(c.frames.empty());
  EXPECT_FALSE(isOpen(p.fds[0]));
  EXPECT_FALSE(isOpen(q.fds[0]));
}

// ---- Writer ------------------------------------------------------------------------

struct SocketPair {
  int fds[2] = {-1, -1};
  SocketPair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds), 0); }
  ~SocketPair() {
    close(fds[0]);
    close(fds[1]);
  }
  // Everything readable now on the far end, fed to `c` one recvmsg() at a
  // time with the descriptor that came with it.
  void drainInto(Collected& c) {
    for (;;) {
      unsigned char buf[65536];
      iovec iov{buf, sizeof buf};
      alignas(cmsghdr) unsigned char control[CMSG_SPACE(sizeof(int))];
      msghdr msg{};
      msg.msg_iov = &iov;
      msg.msg_iovlen = 1;
      msg.msg_control = control;
      msg.msg_controllen = sizeof control;
      const ssize_t n = recvmsg(fds[1], &msg, MSG_CMSG_CLOEXEC);
      if (n <= 0) return;
      UniqueFd fd;
      if (cmsghdr* h = CMSG_FIRSTHDR(&msg)) {
        int raw;
        std::memcpy(&raw, CMSG_DATA(h), sizeof raw);
        fd.reset(raw);
      }
      ASSERT_TRUE(c.feed(Bytes(buf, buf + n), std::move(fd)));
    }
  }
};

TEST(loaderFrameWriter, FramesGoOutWithABigEndianLength) {
  SocketPair s;
  FrameWriter w;
  ASSERT_EQ(w.enqueue(body(2, 0)), FrameWriter::Queued::kOk);
  ASSERT_EQ(w.enqueue(body(300, 1)), FrameWriter::Queued::kOk);
  EXPECT_EQ(w.queuedBytes(), 310u);
  EXPECT_EQ(w.flush(s.fds[0]), FrameWriter::Flushed::kDone);
  EXPECT_TRUE(w.empty());
  Bytes got(400);
  ASSERT_EQ(read(s.fds[1], got.data(), got.size()), 310);
  got.resize(310);
  EXPECT_EQ(got, framed(body(2, 0)) + framed(body(300, 1)));
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

TEST(loaderFrameWriter, DescriptorArrivesWithItsOwnFrame) {
  SocketPair s;
  Pipe p;
  FrameWriter w;
  w.enqueue(body(3, 1));
  w.enqueue(body(4, 2), p.give());
  w.enqueue(body(5, 3));
  ASSERT_EQ(w.flush(s.fds[0]), FrameWriter::Flushed::kDone);
  EXPECT_FALSE(isOpen(p.fds[0]));  // the writer's copy is gone once sent
  Collected c;
  s.drainInto(c);
  ASSERT_EQ(c.frames.size(), 3u);
  EXPECT_FALSE(c.frames[0].fd);
  ASSERT_TRUE(c.frames[1].fd);
  EXPECT_FALSE(c.frames[2].fd);
  ASSERT_EQ(write(p.fds[1], "x", 1), 1);  // the received one is the same pipe
  char got = 0;
  EXPECT_EQ(read(c.frames[1].fd.get(), &got, 1), 1);
  EXPECT_EQ(got, 'x');
}

TEST(loaderFrameWriter, BrokenSocketFails) {
  SocketPair s;
  shutdown(s.fds[1], SHUT_RD);
  FrameWriter w;
  w.enqueue(body(2, 0));
  int err = 0;
  EXPECT_EQ(w.flush(s.fds[0], &err), FrameWriter::Flushed::kFailed);
  EXPECT_EQ(err, EPIPE);
}

}  // namespace
}  // namespace kr::loader
