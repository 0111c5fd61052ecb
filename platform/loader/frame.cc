#include "platform/loader/frame.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cstring>

#include "kr/util/fd_passing.h"

namespace kr::loader {

// ---- FrameReader -------------------------------------------------------------

bool FrameReader::feed(const unsigned char* data, size_t n, UniqueFd fd, const Sink& sink) {
  if (failed()) return false;
  if (n == 0) return fd ? fail(FrameError::kStrayDescriptor) : true;
  size_t pos = 0;
  while (pos < n) {
    if (got_ < kFrameHeader) {
      takeHeaderByte(data[pos++]);
      if (failed()) return false;
      continue;
    }
    const size_t take = std::min(n - pos, size_t(length_) - body_.size());
    body_.insert(body_.end(), data + pos, data + pos + take);
    pos += take;
    got_ += take;
    if (body_.size() < length_) continue;
    Frame frame{std::move(body_), std::move(pendingFd_)};
    body_ = {};
    got_ = 0;
    if (pos == n && fd) {
      if (frame.fd) return fail(FrameError::kTwoDescriptors);
      frame.fd = std::move(fd);
    }
    sink(frame);
  }
  if (fd) {  // the chunk ended inside a frame: the descriptor waits for it
    if (pendingFd_) return fail(FrameError::kTwoDescriptors);
    pendingFd_ = std::move(fd);
  }
  return true;
}

// The length is checked the moment its last byte is in, before the body
// takes any memory; the body then reserves exactly L.
void FrameReader::takeHeaderByte(unsigned char b) {
  header_[got_++] = b;
  if (got_ < kFrameHeader) return;
  length_ = uint32_t(header_[0]) << 24 | uint32_t(header_[1]) << 16 | uint32_t(header_[2]) << 8 | header_[3];
  if (length_ < kMinFrameLength || length_ > kMaxFrameLength) {
    badLength_ = length_;
    fail(FrameError::kBadLength);
    return;
  }
  body_.reserve(length_);
}

bool FrameReader::fail(FrameError e) {
  error_ = e;
  body_ = {};
  pendingFd_.reset();
  return false;
}

std::string FrameReader::errorText() const {
  switch (error_) {
    case FrameError::kNone:
      return "no error";
    case FrameError::kBadLength:
      return "bad frame length " + std::to_string(badLength_);
    case FrameError::kStrayDescriptor:
      return "descriptor without frame bytes";
    case FrameError::kTwoDescriptors:
      return "two descriptors for one frame";
  }
  return "unknown frame error";
}

// ---- FrameWriter -------------------------------------------------------------

namespace {
// Frames gathered into one sendmsg().
constexpr size_t kMaxIov = 64;
}  // namespace

FrameWriter::FrameWriter(size_t byteLimit) : byteLimit_(std::max(byteLimit, kFrameHeader + kMaxFrameLength)) {}

FrameWriter::Queued FrameWriter::enqueue(std::span<const unsigned char> body, UniqueFd fd) {
  if (body.size() > kMaxFrameLength) return Queued::kTooLong;
  const size_t size = kFrameHeader + body.size();
  if (size > byteLimit_ - bytes_ || (fd && descriptors_ >= kDescriptorLimit)) return Queued::kFull;
  Entry e;
  e.bytes.resize(size);
  const uint32_t len = static_cast<uint32_t>(body.size());
  e.bytes[0] = static_cast<unsigned char>(len >> 24);
  e.bytes[1] = static_cast<unsigned char>(len >> 16);
  e.bytes[2] = static_cast<unsigned char>(len >> 8);
  e.bytes[3] = static_cast<unsigned char>(len);
  if (!body.empty()) std::memcpy(e.bytes.data() + kFrameHeader, body.data(), body.size());
  e.fd = std::move(fd);
  descriptors_ += e.fd ? 1 : 0;
  bytes_ += size;
  queue_.push_back(std::move(e));
  return Queued::kOk;
}

FrameWriter::Flushed FrameWriter::flush(int sock, int* err) {
  while (!queue_.empty()) {
    const ssize_t r = sendSome(sock);
    if (r < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) return Flushed::kPending;
      if (err) *err = errno;
      return Flushed::kFailed;
    }
    consume(static_cast<size_t>(r));
  }
  return Flushed::kDone;
}

// One sendmsg(): the front frame alone with its descriptor, or else the
// frames up to the next one that has a descriptor.
ssize_t FrameWriter::sendSome(int sock) {
  iovec iov[kMaxIov];
  size_t count = 0;
  msghdr msg{};
  FdControl control;
  Entry& front = queue_.front();
  if (front.fd) {
    iov[count++] = {front.bytes.data() + front.sent, front.bytes.size() - front.sent};
    attachFd(msg, control, front.fd.get());
  } else {
    for (Entry& e : queue_) {
      if (e.fd || count == kMaxIov) break;
      iov[count++] = {e.bytes.data() + e.sent, e.bytes.size() - e.sent};
    }
  }
  msg.msg_iov = iov;
  msg.msg_iovlen = count;
  const ssize_t r = sendmsg(sock, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
  if (r > 0 && front.fd) {  // the peer holds it now
    front.fd.reset();
    --descriptors_;
  }
  return r;
}

void FrameWriter::consume(size_t n) {
  bytes_ -= n;
  while (n > 0) {
    Entry& e = queue_.front();
    const size_t take = std::min(n, e.bytes.size() - e.sent);
    e.sent += take;
    n -= take;
    if (e.sent == e.bytes.size()) queue_.pop_front();
  }
}

}  // namespace kr::loader
