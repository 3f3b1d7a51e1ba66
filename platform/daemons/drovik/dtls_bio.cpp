#include "daemons/drovik/dtls_bio.h"

#include <memory>

#include "base/handle.h"
#include "daemons/drovik/dtls.h"

namespace fenro::drovik {
namespace {

Channel& channel_of(BIO* bio) {
  return *static_cast<Channel*>(BIO_get_data(bio));
}

int bio_write(BIO* bio, const char* bytes, int length) {
  channel_of(bio).take({bytes, static_cast<std::size_t>(length)});
  return length;
}

int bio_read(BIO* bio, char* buffer, int size) {
  BIO_clear_retry_flags(bio);
  const int length = channel_of(bio).give(buffer, size);
  if (length < 0) BIO_set_retry_read(bio);
  return length;
}

// What is not known answers 0: the size of packets is ours, and so are time-outs.
long bio_control(BIO* bio, int what, long number, void*) {
  switch (what) {
    case BIO_CTRL_FLUSH: return 1;
    case BIO_CTRL_DGRAM_SET_PEEK_MODE: channel_of(bio).set_peek(number != 0); return 1;
    default: return 0;
  }
}

using Method = std::unique_ptr<BIO_METHOD, FreeWith<BIO_meth_free>>;

Method make_method() {
  Method method{BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "drovik datagrams")};
  if (!method) return method;
  BIO_meth_set_write(method.get(), bio_write);
  BIO_meth_set_read(method.get(), bio_read);
  BIO_meth_set_ctrl(method.get(), bio_control);
  return method;
}

}  // namespace

BIO* make_bio(Channel& channel) {
  static const Method method = make_method();
  BIO* bio = method ? BIO_new(method.get()) : nullptr;
  if (!bio) return nullptr;
  BIO_set_data(bio, &channel);
  BIO_set_init(bio, 1);
  return bio;
}

}  // namespace fenro::drovik
