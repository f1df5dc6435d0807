// A message library for the tests of error texts; without PROBE_HAS_TEXTS one that lacks the entry.
#include <cstdint>

#ifdef PROBE_HAS_TEXTS
extern "C" const char16_t* ZepMessageText(std::uint32_t code) {
  return code == 0xE0000001 ? u"The volume is on fire." : nullptr;
}
#else
extern "C" int ZepNothing() {
  return 0;
}
#endif
