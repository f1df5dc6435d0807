// common/refusals.h: the results with which the rules library refuses a call, each with its trace.
//
// A refusal is traced with the file and line of the operation that refuses.
// Threads: every function may be called from any thread.
#pragma once

#include <ostream>

#include "common/zepSchedIUnknown.h"
#include "foundation/include/zfcdbg.h"

namespace qx {

inline ZRESULT RefusePointer(ZepFoundation::TracePlace at = ZepFoundation::TracePlace::Current()) {
  QX_TRACE_AT(ZepFoundation::kTraceError, at.file, at.line, "ZEP_E_POINTER");
  return ZEP_E_POINTER;
}

inline ZRESULT RefuseArgument(ZepFoundation::TracePlace at = ZepFoundation::TracePlace::Current()) {
  QX_TRACE_AT(ZepFoundation::kTraceError, at.file, at.line, "ZEP_E_INVALIDARG");
  return ZEP_E_INVALIDARG;
}

inline ZRESULT RefuseFail(ZepFoundation::TracePlace at = ZepFoundation::TracePlace::Current()) {
  QX_TRACE_AT(ZepFoundation::kTraceError, at.file, at.line, "ZEP_E_FAIL");
  return ZEP_E_FAIL;
}

}  // namespace qx
