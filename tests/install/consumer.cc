// A program outside the tree that uses the installed kr: builds a message,
// flattens it, parses it back and checks that nothing changed.
#include <kr/kr.h>

#include <cstdio>
#include <string>
#include <vector>

int main() {
  kr::message m;
  m.insert(kr::u32_id(1), 8080);
  m.insert(kr::string_id(2), std::string("eth0"));
  m.insert_vector(kr::SYS_TO, 14, 2);

  std::vector<unsigned char> wire;
  m.flatten(wire);
  kr::message back;
  const bool parsed = back.unflatten(wire.data(), static_cast<unsigned>(wire.size()));

  const bool ok = parsed && back == m && back.get(kr::u32_id(1)) == 8080 &&
                  back.get(kr::string_id(2)) == "eth0" && back.get(kr::SYS_TO) == std::vector<unsigned>{14, 2} &&
                  wire.size() > 6 && wire[0] == 0x4D && wire[1] == 0x32 && wire[2] == 0x01 && wire[5] == 0x88;
  std::printf("kr consumer: %zu flat bytes, round trip %s\n", wire.size(), ok ? "ok" : "FAILED");
  return ok ? 0 : 1;
}
