// A short tour of kr::message: build a configuration object, put it on the
// wire, read it back, and see how copies share until a write.
#include <kr/kr.h>

#include <cstdio>
#include <iostream>

namespace {
// A handler's own fields: numbers below 0xFE0000, each with its kind.
constexpr kr::u32_id kMtu(1);
constexpr kr::bool_id kEnabled(2);
constexpr kr::string_id kIfName(3);
constexpr kr::addr6_id kAddress(4);
constexpr kr::u32_array_id kVlans(5);

void printHex(const std::vector<unsigned char>& bytes) {
  for (size_t i = 0; i < bytes.size(); ++i) std::printf("%02x%s", bytes[i], (i + 1) % 16 ? " " : "\n");
  std::printf("\n");
}
}  // namespace

int main() {
  kr::message iface;
  iface.insert(kr::STD_ID, 7);
  iface.insert(kr::STD_DESCR, "uplink to the core switch");
  iface.insert(kMtu, 1500);
  iface.insert(kEnabled, true);
  iface.insert(kIfName, "eth0");
  kr::IPAddr6 addr;
  addr.fromStr("2001:db8::7");
  iface.insert(kAddress, addr);
  iface.insert(kVlans, {10, 20, 30});

  kr::message request;
  request.insert_vector(kr::SYS_TO, 20);
  request.insert(kr::SYS_CMD, kr::CMD_SETOBJ);
  request.insert(kr::message_id(0x100), iface);

  std::vector<unsigned char> wire;
  request.flatten(wire);
  std::cout << "a CMD_SETOBJ request for [20], " << wire.size() << " bytes on the wire"
            << " (SYS_TO right after the magic 4d 32):\n";
  printHex(wire);

  kr::message received(wire);
  kr::message obj = received.get(kr::message_id(0x100));
  std::cout << "received: cmd " << kr::commandName(received.get(kr::SYS_CMD)) << ", object "
            << obj.get(kr::STD_ID) << " \"" << obj.get(kr::STD_DESCR) << "\" " << obj.get(kIfName)
            << " mtu " << obj.get(kMtu) << " at " << obj.get(kAddress) << ", equal to the sent one: "
            << (obj == iface ? "yes" : "no") << "\n";

  kr::message copy = iface;
  std::cout << "a copy shares the original's representation: " << (copy.sharesWith(iface) ? "yes" : "no");
  copy.insert(kMtu, 9000);
  std::cout << "; after a write it has its own: " << (copy.sharesWith(iface) ? "no" : "yes") << " (mtu "
            << iface.get(kMtu) << " vs " << copy.get(kMtu) << ")\n";

  kr::message err = kr::errorMsg(kr::ERROR_NOTALLOWED, "");
  std::cout << "an error reply reads: " << kr::getError(err) << "\n";
  return 0;
}
