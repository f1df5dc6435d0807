// Identifier text: what is read is written and read again the same.
#include <sstream>

#include "common/bus_records.h"
#include "foundation/include/zfcguid.h"
#include "fuzz/fuzz_target.h"
#include "platform/text.h"

using qx::fuzz::Require;
using ZepFoundation::CGUID;
using ZepFoundation::wcstring;

QX_FUZZ_TARGET(guid) {
  const std::string text(qx::fuzz::Text(data, size));
  const std::u16string wide = platform::WideFromUtf8(text);
  const CGUID guid(wide.c_str());
  const wcstring shown = guid.GUIDAsString(0);
  Require(shown.str().size() == 38, "the braced form has 38 characters");
  Require(CGUID(shown) == guid, "the braced form is read again");
  Require(guid.GUIDAsString(1).str().size() == 32, "the stripped form has 32 digits");
  Require(guid.Valid() == 1 || ZepFoundation::IsValidGUIDString(wide.c_str()) == 1, "what is read passes the check");
  CGUID streamed(0, 0, wcstring());
  std::istringstream in(text);
  streamed.Read(in);

  ScheduleGuid id{};
  if (qx::ParseScheduleId(text, id)) Require(CGUID(wide.c_str()) == CGUID(id), "both readers agree");
  return 0;
}
