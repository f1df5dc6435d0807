// Uses something of every concern of the installed foundation library; prints what it got.
#include <iostream>
#include <sstream>
#include <string>

#include "foundation/include/zfcabsolutepath.h"
#include "foundation/include/zfcbytes.h"
#include "foundation/include/zfcconfig.h"
#include "foundation/include/zfcdatetime.h"
#include "foundation/include/zfcdbg.h"
#include "foundation/include/zfcguid.h"
#include "foundation/include/zfclog.h"
#include "foundation/include/zfcregistry.h"
#include "foundation/include/zfcreport.h"
#include "foundation/include/zfcsync.h"
#include "foundation/include/zfctext.h"
#include "foundation/include/zfcutf8.h"
#include "platform/registry.h"

using namespace ZepFoundation;

int main(int argc, char** argv) {
  if (argc != 2 || platform::OpenRegistryStore(std::string(argv[1]) + "/registry.db") != 0) return 1;
  CRegistry& registry = CRegistry::Instance();
  wcstring text;
  std::uint32_t number = 0;
  if (!registry.SetValue(CPath(u"\\HKCU\\A\\text"), u"text").Succeeded()) return 2;
  if (!registry.FetchValue(CPath(u"\\HKCU\\A\\text"), text).Succeeded()) return 3;
  if (CConfigInfo::Instance().SetUserValue(CPath(u"n"), 5u) == 0) return 4;
  if (CConfigInfo::Instance().GetUserValue(CPath(u"n"), number) == 0) return 5;
  bostrstream out(CByteOrder::kBigEndian);
  CDate date;
  date.SetDate(2024, 2, 29);
  date.BinaryOut(out);
  out << CAbsolutePath(u"C:\\dir");
  std::ostringstream error;
  PrintSystemError(u"", 5, error);
  char16_t* wide = nullptr;
  const int converted = ZepUtf8ToWcs(&wide, "abc");
  ZepFreeString(wide);
  CCriticalSection section;
  const ScopedEntry entry(&section);
  bool caught = false;
  try {
    (void)wcstring(u"\xD800").ascii();
  } catch (const CharConversion_error&) {  // the same type on both sides of the library's edge
    caught = true;
  }
  DebugTrace(kTraceArea, kTraceError, __FILE__, __LINE__) << "SS nothing\n" << std::flush << "@@@";
  std::cout << text.ascii() << ' ' << number << ' ' << out.view().size() << ' ' << converted << ' '
            << CGUID(u"{00000000-0000-0000-0000-000000000000}").Valid() << ' ' << section.GetEntryCount() << ' '
            << caught << ' ' << error.str();
  return platform::CloseRegistryStore() == 0 ? 0 : 6;
}
