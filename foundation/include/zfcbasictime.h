// foundation/include/zfcbasictime.h: CBasicTime, the runtime library's time functions one caller at a time.
//
// Each call works under one process-wide lock and leaves its result in the object.
// Threads: an object belongs to one thread; different objects may be used from any.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

#include "foundation/include/zfcexport.h"

namespace ZepFoundation ZEP_FOUNDATION_API {

class CBasicTime {  // the C library's time calls with fixed answers
 public:
  virtual ~CBasicTime() = default;

  // Breakdown of an instant; valid to the object's next call of the same name. Null for a null pointer and for an
  // instant whose year has no int.
  std::tm* GmtTime(const std::int64_t* seconds);
  std::tm* LocalTime(const std::int64_t* seconds);
  // Local fields to seconds since 1970: a value that exists once gives that instant, one in a gap moves forward by the
  // gap's length, one in an overlap is the later instant unless tm_isdst is 1. Fields out of range are carried, and all
  // fields of `time` set to the result. -1 for a null pointer and for fields without a result, which stay as they are.
  std::int64_t MkTime(std::tm* time);
  // The local text form, as in "Thu Jan  1 00:00:00 1970\n"; null as above.
  const char* CTime(const std::int64_t* seconds);
  // The text form of fields; null for a null pointer.
  const char* AscTime(const std::tm* time);

 private:
  std::string m_ctimeText;
  std::string m_asctimeText;
  std::tm m_gmtResult{};
  std::tm m_localResult{};
};

}  // namespace ZepFoundation
