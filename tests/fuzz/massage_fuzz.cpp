// MoveManager::massageMsg over a host map and a text built from the input:
// every line but the last is "identifier=name", the last line is the text.
// The rewrite must end (libFuzzer's time-out catches one that does not),
// including for names that hold their own identifier; a text holding no
// identifier comes back unchanged, and a name that is its own identifier
// changes nothing.
#include <sstream>
#include <string>

#include "hopper/MoveManager.h"
#include "tests/fuzz/FuzzCheck.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 512) return 0;
  const std::string input(reinterpret_cast<const char*>(data), size);
  IPtoNameMap hosts;
  size_t begin = 0;
  for (size_t end; (end = input.find('\n', begin)) != std::string::npos; begin = end + 1) {
    const std::string line = input.substr(begin, end - begin);
    const size_t eq = line.find('=');
    if (eq == std::string::npos) continue;
    hosts[line.substr(0, eq)] = line.substr(eq + 1);
  }
  const std::string text = input.substr(begin);

  bool mentioned = false, onlySelf = true;
  for (const auto& [id, name] : hosts) {
    if (id.empty() || id == name) continue;
    onlySelf = false;
    mentioned = mentioned || text.find(id) != std::string::npos;
  }
  std::ostringstream out, err;
  MoveManager manager(hosts, false, false, -1, System::OS_NONE, out, err);
  std::string massaged = text;
  manager.massageMsg(massaged);
  if (!mentioned || onlySelf) FUZZ_CHECK(massaged == text);
  return 0;
}
