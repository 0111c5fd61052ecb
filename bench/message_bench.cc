// kr::message against protobuf (generated C++) and msgpack-cxx on one
// typical configuration object of 12 fields, in the same run. Every
// benchmark also reports operator-new calls per iteration ("allocs"); at
// the end a table prints the times side by side with their ratios.
#include <benchmark/benchmark.h>
#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#else
static unsigned long long __rdtsc() { return 0; }  // no cycle counter: cycles/byte reads 0
#endif

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <new>
#include <string>
#include <vector>

#include <unistd.h>

#include <msgpack.hpp>

#include "bench/median_reporter.h"
#include "config_object.pb.h"
#include "kr/kr.h"

// ---- Allocation counter --------------------------------------------------------
// Replacing the global operator new in the executable also catches the calls
// made inside libkr.so and libprotobuf.so (ELF interposition). msgpack's
// zone takes its chunks with malloc and is not seen here.
static unsigned long long g_allocs = 0;

void* operator new(std::size_t n) {
  ++g_allocs;
  if (void* p = std::malloc(n ? n : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

// ---- The object ------------------------------------------------------------------
// Every value is non-default so that proto3 writes every field too.
using Addr = std::array<unsigned char, 16>;
struct Values {
  uint32_t id = 4711, mtu = 9000, vlan = 120, priority = 5, flags = 0x80000011;
  bool enabled = true, dhcp = true;
  std::string name = "GigabitEthernet0/1/2", descr = "uplink to core-sw-01";
  Addr addr{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0x12, 0, 0, 0, 0, 0, 0, 0, 1};  // 2001:db8:0:12::1
  std::vector<uint32_t> ports{22, 80, 443, 8080};
  uint32_t asn = 65001, weight = 100;
  std::string label = "core-1";
  friend bool operator==(const Values&, const Values&) = default;
};
const Values kV;

// kr field ids: the same numbers as in config_object.proto.
constexpr kr::u32_id kId{1}, kMtu{2}, kVlan{3}, kPriority{4}, kFlags{5};
constexpr kr::bool_id kEnabled{6}, kDhcp{7};
constexpr kr::string_id kName{8}, kDescr{9};
constexpr kr::addr6_id kAddr{10};
constexpr kr::u32_array_id kPorts{11};
constexpr kr::message_id kPeer{12};
constexpr kr::u32_id kAsn{1}, kWeight{2};
constexpr kr::string_id kLabel{3};

// msgpack: positional arrays (MSGPACK_DEFINE), its usual compact form.
struct MpPeer {
  uint32_t asn = 0, weight = 0;
  std::string label;
  MSGPACK_DEFINE(asn, weight, label);
};
struct MpConfig {
  uint32_t id = 0, mtu = 0, vlan = 0, priority = 0, flags = 0;
  bool enabled = false, dhcp = false;
  std::string name, descr;
  Addr addr{};  // packed as bin 16
  std::vector<uint32_t> ports;
  MpPeer peer;
  MSGPACK_DEFINE(id, mtu, vlan, priority, flags, enabled, dhcp, name, descr, addr, ports, peer);
};

kr::message makeKr(const Values& v) {
  kr::message peer;
  peer.insert(kAsn, v.asn);
  peer.insert(kWeight, v.weight);
  peer.insert(kLabel, v.label);
  kr::message m;
  m.insert(kId, v.id);
  m.insert(kMtu, v.mtu);
  m.insert(kVlan, v.vlan);
  m.insert(kPriority, v.priority);
  m.insert(kFlags, v.flags);
  m.insert(kEnabled, v.enabled);
  m.insert(kDhcp, v.dhcp);
  m.insert(kName, v.name);
  m.insert(kDescr, v.descr);
  kr::IPAddr6 a;
  std::copy(v.addr.begin(), v.addr.end(), a.bytes);
  m.insert(kAddr, a);
  m.insert(kPorts, v.ports);
  m.insert(kPeer, peer);
  return m;
}

krbench::ConfigObject makePb(const Values& v) {
  krbench::ConfigObject c;
  c.set_id(v.id);
  c.set_mtu(v.mtu);
  c.set_vlan(v.vlan);
  c.set_priority(v.priority);
  c.set_flags(v.flags);
  c.set_enabled(v.enabled);
  c.set_dhcp(v.dhcp);
  c.set_name(v.name);
  c.set_descr(v.descr);
  c.set_addr6(v.addr.data(), v.addr.size());
  for (uint32_t p : v.ports) c.add_ports(p);
  c.mutable_peer()->set_asn(v.asn);
  c.mutable_peer()->set_weight(v.weight);
  c.mutable_peer()->set_label(v.label);
  return c;
}

MpConfig makeMp(const Values& v) {
  return MpConfig{v.id,   v.mtu,   v.vlan,  v.priority, v.flags, v.enabled,
                  v.dhcp, v.name,  v.descr, v.addr,     v.ports, {v.asn, v.weight, v.label}};
}

// Back to plain values, for the startup check.
Values fromKr(const kr::message& m) {
  Values v;
  v.id = m.get(kId), v.mtu = m.get(kMtu), v.vlan = m.get(kVlan);
  v.priority = m.get(kPriority), v.flags = m.get(kFlags);
  v.enabled = m.get(kEnabled), v.dhcp = m.get(kDhcp);
  v.name = m.get(kName), v.descr = m.get(kDescr);
  kr::IPAddr6 a = m.get(kAddr);
  std::copy(a.bytes, a.bytes + 16, v.addr.begin());
  v.ports = m.get(kPorts);
  kr::message peer = m.get(kPeer);
  v.asn = peer.get(kAsn), v.weight = peer.get(kWeight), v.label = peer.get(kLabel);
  return v;
}
Values fromPb(const krbench::ConfigObject& c) {
  Values v;
  v.id = c.id(), v.mtu = c.mtu(), v.vlan = c.vlan(), v.priority = c.priority(), v.flags = c.flags();
  v.enabled = c.enabled(), v.dhcp = c.dhcp(), v.name = c.name(), v.descr = c.descr();
  if (c.addr6().size() != 16) v.addr = {};
  else std::copy(c.addr6().begin(), c.addr6().end(), v.addr.begin());
  v.ports.assign(c.ports().begin(), c.ports().end());
  v.asn = c.peer().asn(), v.weight = c.peer().weight(), v.label = c.peer().label();
  return v;
}
Values fromMp(const MpConfig& c) {
  return Values{c.id,   c.mtu,   c.vlan, c.priority, c.flags,        c.enabled,        c.dhcp,
                c.name, c.descr, c.addr, c.ports,    c.peer.asn, c.peer.weight, c.peer.label};
}

// Reads every field without copying a string, as a handler would.
const std::string kNoString;
const std::vector<unsigned> kNoPorts;
uint64_t touchKr(const kr::message& m) {
  uint64_t s = m.get(kId) + m.get(kMtu) + m.get(kVlan) + m.get(kPriority) + m.get(kFlags);
  s += m.get(kEnabled) + m.get(kDhcp);
  s += m.get_const<std::string>(kName.id, kNoString).size() + m.get_const<std::string>(kDescr.id, kNoString).size();
  s += m.get_const<kr::IPAddr6>(kAddr.id, kr::IPAddr6()).bytes[15];
  for (unsigned p : m.get_const<std::vector<unsigned>>(kPorts.id, kNoPorts)) s += p;
  kr::message peer = m.get(kPeer);  // nested messages are stored flat: this parses
  return s + peer.get(kAsn) + peer.get(kWeight) + peer.get_const<std::string>(kLabel.id, kNoString).size();
}
uint64_t touchPb(const krbench::ConfigObject& c) {
  uint64_t s = c.id() + c.mtu() + c.vlan() + c.priority() + c.flags() + c.enabled() + c.dhcp();
  s += c.name().size() + c.descr().size() + static_cast<unsigned char>(c.addr6()[15]);
  for (uint32_t p : c.ports()) s += p;
  return s + c.peer().asn() + c.peer().weight() + c.peer().label().size();
}
uint64_t touchMp(const MpConfig& c) {
  uint64_t s = c.id + c.mtu + c.vlan + c.priority + c.flags + c.enabled + c.dhcp;
  s += c.name.size() + c.descr.size() + c.addr[15];
  for (uint32_t p : c.ports) s += p;
  return s + c.peer.asn + c.peer.weight + c.peer.label.size();
}

MpConfig unpackMp(const std::vector<unsigned char>& wire) {
  msgpack::object_handle oh = msgpack::unpack(reinterpret_cast<const char*>(wire.data()), wire.size());
  MpConfig c;
  oh.get().convert(c);
  return c;
}

// ---- Fixtures, built once in main ----------------------------------------------------
struct Fixture {
  kr::message kr, krDecoded, kr100;
  krbench::ConfigObject pb;
  MpConfig mp;
  std::vector<unsigned char> krWire, pbWire, mpWire;
};
Fixture* F = nullptr;

[[noreturn]] void die(const char* what) {
  std::fprintf(stderr, "kr_bench_message: %s\n", what);
  std::abort();
}

void buildAndVerify(Fixture& f) {
  f.kr = makeKr(kV);
  f.pb = makePb(kV);
  f.mp = makeMp(kV);
  f.kr.flatten(f.krWire);
  f.pbWire.resize(f.pb.ByteSizeLong());
  if (!f.pb.SerializeToArray(f.pbWire.data(), static_cast<int>(f.pbWire.size()))) die("protobuf encode failed");
  msgpack::sbuffer sb;
  msgpack::pack(sb, f.mp);
  f.mpWire.assign(sb.data(), sb.data() + sb.size());

  // Every side must decode back to the same values.
  if (!f.krDecoded.unflatten(f.krWire.data(), static_cast<unsigned>(f.krWire.size())))
    die("kr decode failed");
  if (fromKr(f.kr) != kV || fromKr(f.krDecoded) != kV) die("kr round trip differs from the expected values");
  krbench::ConfigObject pb;
  if (!pb.ParseFromArray(f.pbWire.data(), static_cast<int>(f.pbWire.size()))) die("protobuf decode failed");
  if (fromPb(pb) != kV) die("protobuf round trip differs from the expected values");
  if (fromMp(unpackMp(f.mpWire)) != kV) die("msgpack round trip differs from the expected values");
  if (touchKr(f.krDecoded) != touchPb(pb) || touchPb(pb) != touchMp(f.mp)) die("read-all checksums differ");

  // 100 fields: the 12 above plus 88 u32 and string fields.
  f.kr100 = f.kr;
  for (unsigned i = 100; i < 188; ++i) {
    if (i % 2) f.kr100.insert(kr::u32_id(i), i * 1000);
    else f.kr100.insert(kr::string_id(i), "value-of-field-" + std::to_string(i));
  }
  if (f.kr100.count() != 100) die("the 100-field message does not have 100 fields");
  kr::message c(f.kr);
  if (!c.sharesWith(f.kr)) die("copying a built kr::message did not share it");

  std::printf("wire bytes: kr %zu, protobuf %zu, msgpack %zu\n", f.krWire.size(), f.pbWire.size(),
              f.mpWire.size());
}

// Runs `body` per iteration and reports operator-new calls per iteration.
template <class Body>
void timed(benchmark::State& st, Body body) {
  const unsigned long long before = g_allocs;
  for (auto _ : st) body();
  st.counters["allocs"] = benchmark::Counter(double(g_allocs - before), benchmark::Counter::kAvgIterations);
}

// ---- Benchmarks -------------------------------------------------------------------------
void EncodeKr(benchmark::State& st) {
  std::vector<unsigned char> buf(F->kr.max_length());
  timed(st, [&] {
    unsigned len = static_cast<unsigned>(buf.size());
    F->kr.flatten(buf.data(), &len);
    benchmark::DoNotOptimize(len);
    benchmark::ClobberMemory();
  });
}
void EncodeVectorKr(benchmark::State& st) {
  std::vector<unsigned char> out;
  timed(st, [&] {
    F->kr.flatten(out);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  });
}
void EncodePb(benchmark::State& st) {
  std::vector<unsigned char> buf(F->pb.ByteSizeLong());
  timed(st, [&] {
    bool ok = F->pb.SerializeToArray(buf.data(), static_cast<int>(buf.size()));
    benchmark::DoNotOptimize(ok);
    benchmark::ClobberMemory();
  });
}
void EncodeMp(benchmark::State& st) {
  msgpack::sbuffer sb;
  timed(st, [&] {
    sb.clear();
    msgpack::pack(sb, F->mp);
    benchmark::DoNotOptimize(sb.data());
    benchmark::ClobberMemory();
  });
}

// Decoding into a fresh object each time; its destruction is included.
// `Read` additionally reads every field (kr then parses the nested message).
template <bool Read>
void DecodeKr(benchmark::State& st) {
  const auto& w = F->krWire;
  timed(st, [&] {
    kr::message m;
    bool ok = m.unflatten(w.data(), static_cast<unsigned>(w.size()));
    benchmark::DoNotOptimize(ok);
    if constexpr (Read) benchmark::DoNotOptimize(touchKr(m));
    benchmark::DoNotOptimize(m);
  });
}
template <bool Read>
void DecodePb(benchmark::State& st) {
  const auto& w = F->pbWire;
  timed(st, [&] {
    krbench::ConfigObject c;
    bool ok = c.ParseFromArray(w.data(), static_cast<int>(w.size()));
    benchmark::DoNotOptimize(ok);
    if constexpr (Read) benchmark::DoNotOptimize(touchPb(c));
    benchmark::DoNotOptimize(c);
  });
}
template <bool Read>
void DecodeMp(benchmark::State& st) {
  const auto& w = F->mpWire;
  timed(st, [&] {
    MpConfig c = unpackMp(w);
    if constexpr (Read) benchmark::DoNotOptimize(touchMp(c));
    benchmark::DoNotOptimize(c);
  });
}

void CopyKr(benchmark::State& st, const kr::message* src) {
  timed(st, [&] {
    kr::message c(*src);
    benchmark::DoNotOptimize(c);
  });
}
void CopyPb(benchmark::State& st) {
  timed(st, [&] {
    krbench::ConfigObject c;
    c.CopyFrom(F->pb);
    benchmark::DoNotOptimize(c);
  });
}
void CopyMp(benchmark::State& st) {
  timed(st, [&] {
    MpConfig c(F->mp);
    benchmark::DoNotOptimize(c);
  });
}

// The lookups are inline; ClobberMemory keeps them from being hoisted out
// of the loop.
void GetU32Kr(benchmark::State& st) {
  timed(st, [&] {
    benchmark::DoNotOptimize(F->krDecoded.get(kMtu));
    benchmark::ClobberMemory();
  });
}
void GetStringKr(benchmark::State& st) {
  timed(st, [&] {
    benchmark::DoNotOptimize(&F->krDecoded.get_const<std::string>(kName.id, kNoString));
    benchmark::ClobberMemory();
  });
}
void GetBoolKr(benchmark::State& st) {
  timed(st, [&] {
    benchmark::DoNotOptimize(F->krDecoded.get(kDhcp));
    benchmark::ClobberMemory();
  });
}
void SetU32Kr(benchmark::State& st) {
  kr::message m = makeKr(kV);  // its own representation: no copy on write
  unsigned v = 0;
  timed(st, [&] {
    m.insert(kMtu, ++v);
    benchmark::ClobberMemory();
  });
}

// Equality of two equal objects that do not share a representation.
void EqualKr(benchmark::State& st) {
  const kr::message a = makeKr(kV), b = makeKr(kV);
  if (!(a == b)) die("equal objects compare unequal");
  timed(st, [&] { benchmark::DoNotOptimize(a == b); });
}

// A configuration change of three fields applied with its undo record.
void MergeKr(benchmark::State& st) {
  kr::message change;
  change.insert(kMtu, 1500u);
  change.insert(kDescr, std::string("uplink to core-sw-02"));
  change.insert(kr::u32_id(40), 7u);
  timed(st, [&] {
    kr::message obj = F->kr;
    kr::message undo;
    kr::merge(obj, change, undo);
    benchmark::DoNotOptimize(undo);
  });
}

// The allocation-free dump, as a crash report writes it.
void DumpKr(benchmark::State& st) {
  char buf[4096];
  timed(st, [&] {
    kr::Dumper d(buf, sizeof buf);
    F->kr.dump2(d, "", 0);
    benchmark::DoNotOptimize(d.position());
  });
}

// SipHash over st.range(0) bytes; cycles per byte from the time stamp
// counter, which runs at the nominal clock rate.
template <unsigned OutLen>
void SipHashKr(benchmark::State& st) {
  std::vector<unsigned char> in(static_cast<size_t>(st.range(0)), 0xA5);
  unsigned char key[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}, out[16];
  const unsigned long long start = __rdtsc();
  timed(st, [&] {
    kr::siphash(in.data(), static_cast<unsigned>(in.size()), key, out, OutLen);
    benchmark::DoNotOptimize(out);
  });
  st.counters["cycles/B"] =
      double(__rdtsc() - start) / double(st.iterations()) / double(in.size());
  st.SetBytesProcessed(int64_t(st.iterations()) * st.range(0));
}

// ---- Ratio table ---------------------------------------------------------------------------
// Prints the console output as usual and keeps ns and allocs per run (the
// median when repeated) for a side-by-side table at the end.
class RatioReporter : public MedianReporter {
 public:
  void keep(const std::string& name, const Run& r) override {
    results_[name] = {r.GetAdjustedRealTime(), counter(r, "allocs", -1.0), counter(r, "cycles/B", 0.0)};
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    auto ns = [&](const std::string& n) { return results_.count(n) ? results_[n].ns : 0.0; };
    auto allocs = [&](const std::string& n) { return results_.count(n) ? results_[n].allocs : -1.0; };
    std::printf("\n%-12s %10s %12s %11s %12s %11s   allocs kr/pb/mp\n", "op", "kr ns", "protobuf ns",
                "msgpack ns", "protobuf/kr", "msgpack/kr");
    for (const char* op : {"encode", "decode", "decode_read", "copy"}) {
      const std::string o = op;
      double k = ns(o + "/kr"), p = ns(o + "/protobuf"), m = ns(o + "/msgpack");
      if (k <= 0) continue;
      std::printf("%-12s %10.1f %12.1f %11.1f %12.2f %11.2f   %.0f/%.0f/%.0f%s\n", op, k, p, m, p / k, m / k,
                  allocs(o + "/kr"), allocs(o + "/protobuf"), allocs(o + "/msgpack"),
                  o.starts_with("decode") ? " (msgpack: + its zone chunk, malloc'd)" : "");
    }
    std::printf("\nkr only:\n");
    for (const char* n : {"encode_vector/kr", "copy_decoded/kr", "copy_fields_100/kr", "get_u32/kr",
                          "get_string/kr", "get_bool/kr", "set_u32/kr", "equal/kr", "merge_undo/kr",
                          "dump_dumper/kr"})
      if (results_.count(n)) std::printf("  %-20s %8.1f ns  %5.2f allocs/op\n", n, ns(n), allocs(n));
    for (const auto& [name, r] : results_)
      if (name.starts_with("siphash"))
        std::printf("  %-20s %8.1f ns  %5.2f cycles/byte\n", name.c_str(), r.ns, r.cyclesPerByte);
  }

 private:
  struct Result {
    double ns, allocs, cyclesPerByte;
  };
  std::map<std::string, Result> results_;
};

}  // namespace

int main(int argc, char** argv) {
  GOOGLE_PROTOBUF_VERIFY_VERSION;
  Fixture fixture;
  F = &fixture;
  buildAndVerify(fixture);

  benchmark::RegisterBenchmark("encode/kr", EncodeKr);
  benchmark::RegisterBenchmark("encode/protobuf", EncodePb);
  benchmark::RegisterBenchmark("encode/msgpack", EncodeMp);
  benchmark::RegisterBenchmark("encode_vector/kr", EncodeVectorKr);
  benchmark::RegisterBenchmark("decode/kr", DecodeKr<false>);
  benchmark::RegisterBenchmark("decode/protobuf", DecodePb<false>);
  benchmark::RegisterBenchmark("decode/msgpack", DecodeMp<false>);
  benchmark::RegisterBenchmark("decode_read/kr", DecodeKr<true>);
  benchmark::RegisterBenchmark("decode_read/protobuf", DecodePb<true>);
  benchmark::RegisterBenchmark("decode_read/msgpack", DecodeMp<true>);
  benchmark::RegisterBenchmark("copy/kr", CopyKr, &fixture.kr);
  benchmark::RegisterBenchmark("copy/protobuf", CopyPb);
  benchmark::RegisterBenchmark("copy/msgpack", CopyMp);
  // A parsed message is marked unshareable, so copying it copies every field.
  benchmark::RegisterBenchmark("copy_decoded/kr", CopyKr, &fixture.krDecoded);
  benchmark::RegisterBenchmark("copy_fields_100/kr", CopyKr, &fixture.kr100);
  benchmark::RegisterBenchmark("get_u32/kr", GetU32Kr);
  benchmark::RegisterBenchmark("get_string/kr", GetStringKr);
  benchmark::RegisterBenchmark("get_bool/kr", GetBoolKr);
  benchmark::RegisterBenchmark("set_u32/kr", SetU32Kr);
  benchmark::RegisterBenchmark("equal/kr", EqualKr);
  benchmark::RegisterBenchmark("merge_undo/kr", MergeKr);
  benchmark::RegisterBenchmark("dump_dumper/kr", DumpKr);
  for (int size : {16, 64, 1024}) {
    benchmark::RegisterBenchmark(("siphash64/" + std::to_string(size)).c_str(), SipHashKr<8>)->Arg(size);
    benchmark::RegisterBenchmark(("siphash128/" + std::to_string(size)).c_str(), SipHashKr<16>)->Arg(size);
  }

  const int status = runBenchmarks<RatioReporter>(argc, argv);
  google::protobuf::ShutdownProtobufLibrary();
  return status;
}
