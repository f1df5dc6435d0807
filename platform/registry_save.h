// platform/registry_save.h: writing a key with all below it to a file.
//
// The file is JSON in UTF-8, the listing of `qxsched reg list --json` for each key, one inside the other:
//   {"keys":[{"name":NAME,"keys":[...],"values":[...]}...],"values":[{"name":NAME,"type":TYPE,"data":DATA}...]}
// in order of names, ended by a line end. TYPE is REG_SZ, REG_EXPAND_SZ, REG_MULTI_SZ, REG_DWORD, REG_BINARY or the
// type's number in decimal. DATA is a text, an array of texts for REG_MULTI_SZ, a number for a REG_DWORD of 4 bytes,
// else lower-case hexadecimal text. A text that "data" can't show whole (odd size, no terminator, something behind it,
// a lone surrogate) has its bytes as "raw" beside "data"; so has a REG_DWORD of another size. Threads: any.
#pragma once

#include <string>

#include "platform/error_codes.h"
#include "platform/registry.h"

namespace platform {

//   key         open with KEY_QUERY_VALUE and KEY_ENUMERATE_SUB_KEYS
//   nativePath  a kernel name (NativePath of platform/file.h) that no file has yet
//   returns     ERROR_ALREADY_EXISTS (183): there is such a file, left as it is; codes of keys and files, no file then
// A change that is made meanwhile may show in a part of the file.
[[nodiscard]] ErrorCode SaveKey(const RegistryKey& key, const std::string& nativePath);

}  // namespace platform
