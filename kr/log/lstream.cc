#include "kr/log/lstream.h"

#include "kr/log/logger.h"

namespace kr {

lstreambuf::lstreambuf(const unsigned int* topics) {
  for (; *topics != 0; ++topics) topics_.push_back(static_cast<uint16_t>(*topics));
  resetPutArea();
}

lstreambuf::lstreambuf(unsigned int topic, va_list more) {
  topics_.push_back(static_cast<uint16_t>(topic));
  for (unsigned int t = va_arg(more, unsigned int); t != 0; t = va_arg(more, unsigned int)) {
    topics_.push_back(static_cast<uint16_t>(t));
  }
  resetPutArea();
}

lstreambuf::~lstreambuf() { flushBuffer(); }

// The put area stops one short of the buffer, so the character that finds
// it full still has a place: it completes the record.
int lstreambuf::overflow(int c) {
  if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::eof();
  *pptr() = traits_type::to_char_type(c);
  pbump(1);
  flushBuffer();
  return c;
}

int lstreambuf::sync() {
  flushBuffer();
  return 0;
}

bool lstreambuf::flushBuffer() {
  const size_t n = static_cast<size_t>(pptr() - pbase());
  if (n == 0) return true;
  if (!logger_) {
    logger_ = Logger::getLogger();
    source_ = logger_->registerSource(topics_);
  }
  const bool newline = buf_[n - 1] == '\n';
  logger_->log(source_, buf_, static_cast<unsigned int>(newline ? n - 1 : n));
  if (echo_ && echo_->rdbuf()) {
    std::streambuf* out = echo_->rdbuf();
    out->sputn(buf_, static_cast<std::streamsize>(n));
    if (!newline) out->sputc('\n');
    out->pubsync();
  }
  resetPutArea();
  return true;
}

lstream::lstream(const unsigned int* topics) : std::ostream(nullptr), buf_(new lstreambuf(topics)) {
  rdbuf(buf_);
}

lstream::lstream(unsigned int topic, ...) : std::ostream(nullptr) {
  va_list more;
  va_start(more, topic);
  buf_ = new lstreambuf(topic, more);
  va_end(more);
  rdbuf(buf_);
}

lstream::lstream(std::ostream& echo, unsigned int topic, ...) : std::ostream(nullptr) {
  va_list more;
  va_start(more, topic);
  buf_ = new lstreambuf(topic, more);
  va_end(more);
  buf_->setEcho(&echo);
  rdbuf(buf_);
}

lstream::~lstream() {
  flush();
  rdbuf(nullptr);
  delete buf_;
}

bool lstream::isMuted() const {
  const Source* s = buf_->source();
  return s != nullptr && s->muted && buf_->echo() == nullptr;
}

}  // namespace kr
