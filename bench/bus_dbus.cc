#include "bench/bus_dbus.h"

#ifndef KR_BENCH_HAVE_DBUS

namespace busbench::dbus {
bool available() { return false; }
int echoServer(const std::string&, Shared*) { return 2; }
int requester(const std::string&, Shared*, int, const Gate&) { return 2; }
int publisher(const std::string&, Shared*, int, const Gate&) { return 2; }
int subscriber(const std::string&, Shared*, int) { return 2; }
int idleClient(const std::string&, Shared*, const Gate&) { return 2; }
}  // namespace busbench::dbus

#else

#include <dbus/dbus.h>

#include <cstdio>
#include <cstring>

namespace busbench::dbus {
namespace {

void report(const char* role, const char* what, DBusError* err) {
  std::fprintf(stderr, "kr_bench_bus: D-Bus %s: %s: %s\n", role, what,
               err && dbus_error_is_set(err) ? err->message : "failed");
  if (err) dbus_error_free(err);
}

// A private connection, registered with the bus (Hello); null on failure.
DBusConnection* connect(const std::string& address, const char* role) {
  DBusError err;
  dbus_error_init(&err);
  DBusConnection* c = dbus_connection_open_private(address.c_str(), &err);
  if (!c) {
    report(role, "connect", &err);
    return nullptr;
  }
  if (!dbus_bus_register(c, &err)) {
    report(role, "register", &err);
    return nullptr;
  }
  return c;
}

bool ownName(DBusConnection* c, const char* name, const char* role) {
  DBusError err;
  dbus_error_init(&err);
  const int r = dbus_bus_request_name(c, name, DBUS_NAME_FLAG_DO_NOT_QUEUE, &err);
  if (r == DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) return true;
  report(role, "request name", &err);
  return false;
}

// The payload of every message: a u32 and a 32-byte string.
bool appendPayload(DBusMessage* m, dbus_uint32_t n) {
  const char* text = kPayload.c_str();
  return dbus_message_append_args(m, DBUS_TYPE_UINT32, &n, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
}

bool readPayload(DBusMessage* m, dbus_uint32_t* n) {
  const char* text = nullptr;
  DBusError err;
  dbus_error_init(&err);
  if (!dbus_message_get_args(m, &err, DBUS_TYPE_UINT32, n, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID)) {
    dbus_error_free(&err);
    return false;
  }
  return std::strlen(text) == kPayload.size();
}

}  // namespace

bool available() { return true; }

int echoServer(const std::string& address, Shared* shared) {
  DBusConnection* c = connect(address, "server");
  if (!c || !ownName(c, kEchoName, "server")) return 1;
  ++shared->ready;
  while (dbus_connection_read_write(c, -1)) {
    while (DBusMessage* m = dbus_connection_pop_message(c)) {
      dbus_uint32_t n = 0;
      if (dbus_message_is_method_call(m, kInterface, "Echo") && readPayload(m, &n)) {
        DBusMessage* reply = dbus_message_new_method_return(m);
        appendPayload(reply, n);
        dbus_connection_send(c, reply, nullptr);
        dbus_message_unref(reply);
      }
      dbus_message_unref(m);
    }
  }
  return 1;  // the daemon went away
}

int requester(const std::string& address, Shared* shared, int slot, const Gate& gate) {
  DBusConnection* c = connect(address, "requester");
  if (!c) return 1;
  Slot& s = shared->slots[slot];
  ++shared->ready;
  gate.wait();
  for (dbus_uint32_t seq = 0;; ++seq) {
    const int64_t sent = nowNs();
    DBusMessage* call = dbus_message_new_method_call(kEchoName, kPath, kInterface, "Echo");
    appendPayload(call, seq);
    DBusError err;
    dbus_error_init(&err);
    DBusMessage* reply = dbus_connection_send_with_reply_and_block(c, call, DBUS_TIMEOUT_USE_DEFAULT, &err);
    dbus_message_unref(call);
    dbus_uint32_t echoed = ~seq;
    const bool ok = reply && readPayload(reply, &echoed) && echoed == seq;
    if (reply) dbus_message_unref(reply);
    dbus_error_free(&err);
    const int64_t got = nowNs();
    if (!ok) ++s.errors;
    if (sent >= shared->startNs && !shared->over(got)) {
      ++s.done;
      s.record(got - sent);
    }
    if (shared->over(got)) return 0;
  }
}

int publisher(const std::string& address, Shared* shared, int slot, const Gate& gate) {
  DBusConnection* c = connect(address, "publisher");
  if (!c || !ownName(c, kPublisherName, "publisher")) return 1;
  Slot& s = shared->slots[slot];
  ++shared->ready;
  gate.wait();
  long credits = kWindow;
  auto takeAcks = [&] {
    while (DBusMessage* m = dbus_connection_pop_message(c)) {
      dbus_uint32_t n = 0;
      if (dbus_message_is_method_call(m, kInterface, "Ack") &&
          dbus_message_get_args(m, nullptr, DBUS_TYPE_UINT32, &n, DBUS_TYPE_INVALID))
        credits += n;
      dbus_message_unref(m);
    }
  };
  dbus_uint32_t id = 0;
  unsigned int sinceRead = 0;
  while (!shared->over(nowNs())) {
    if (credits > 0) {
      DBusMessage* sig = dbus_message_new_signal(kPath, kInterface, "Changed");
      appendPayload(sig, id++);
      dbus_connection_send(c, sig, nullptr);
      dbus_message_unref(sig);
      --credits;
      // Acknowledgements are read now and then, as the kr publisher does.
      if (++sinceRead == 32) {
        sinceRead = 0;
        dbus_connection_read_write(c, 0);
        takeAcks();
      }
    } else {
      sinceRead = 0;
      if (!dbus_connection_read_write(c, 100)) return 1;
      takeAcks();
    }
  }
  s.done = id;
  return 0;
}

int subscriber(const std::string& address, Shared* shared, int slot) {
  DBusConnection* c = connect(address, "subscriber");
  if (!c) return 1;
  DBusError err;
  dbus_error_init(&err);
  dbus_bus_add_match(c, "type='signal',interface='org.kr.bench',member='Changed'", &err);
  if (dbus_error_is_set(&err)) {
    report("subscriber", "add match", &err);
    return 1;
  }
  Slot& s = shared->slots[slot];
  ++shared->ready;
  dbus_uint32_t unacked = 0;
  while (dbus_connection_read_write(c, -1)) {
    while (DBusMessage* m = dbus_connection_pop_message(c)) {
      dbus_uint32_t id = 0;
      if (dbus_message_is_signal(m, kInterface, "Changed")) {
        if (!readPayload(m, &id)) ++s.errors;
        if (shared->inWindow(nowNs())) {
          ++s.done;
          ++s.messages;
        }
        if (++unacked == kAckEvery) {
          DBusMessage* ack = dbus_message_new_method_call(kPublisherName, kPath, kInterface, "Ack");
          dbus_message_set_no_reply(ack, TRUE);
          dbus_message_append_args(ack, DBUS_TYPE_UINT32, &unacked, DBUS_TYPE_INVALID);
          dbus_connection_send(c, ack, nullptr);
          dbus_message_unref(ack);
          unacked = 0;
        }
      }
      dbus_message_unref(m);
    }
  }
  return 1;
}

int idleClient(const std::string& address, Shared* shared, const Gate& gate) {
  if (!connect(address, "client")) return 1;
  ++shared->ready;
  gate.wait();
  return 0;
}

}  // namespace busbench::dbus

#endif
