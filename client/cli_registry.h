// client/cli_registry.h: what `qxsched reg` does, on the key store itself.
//
// A key is named "HKLM\SOFTWARE\...", by a root's long or short name in any case. The store must be open
// (WithKeyStore). Texts are UTF-8; data goes to `out`, messages to `err`, each a line "qxsched: ...".
// Every function returns the program's exit code: kExitDone; kExitFailed the store failed (code and sentence in the
// message); kExitUsage text that can't be used (the message says what can); kExitNotFound no such key or value;
// kExitPermission.
// Threads: any.
#pragma once

#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

namespace qx {

// Lists the sub keys and values of a key, in order of names.
//   json  {"keys":[NAME...],"values":[{"name":NAME,"type":TYPE,"data":DATA}...]} on one line. TYPE is REG_SZ,
//         REG_EXPAND_SZ, REG_MULTI_SZ, REG_DWORD, REG_BINARY or the type's number in decimal. DATA is a text, an array
//         of texts for REG_MULTI_SZ, a number for a REG_DWORD of 4 bytes, else lower-case hexadecimal text. A text that
//         "data" can't show whole (odd size, no terminator, something behind it, a lone surrogate) has its bytes as
//         "raw" beside "data", which then holds what can be read of it; so has a REG_DWORD of another size.
// Otherwise a line for each: sub keys as NAME with "\" behind, values as NAME, type and data between tabs; in names and
// data a backslash, tab or line end is written \\, \t, \n, \r, any other control character \xNN.
int RegList(std::string_view keyText, bool json, std::ostream& out, std::ostream& err);

// Shows one value.
//   name  empty for the default value
//   json  the value's object as RegList() has it, on one line; otherwise its data alone: a text as it is, the texts of
//         a REG_MULTI_SZ a line each, a number in decimal, other bytes in lower-case hexadecimal. A damaged text is
//         shown as far as it can be read, and said to be damaged on `err`.
int RegGet(std::string_view keyText, std::string_view name, bool json, std::ostream& out, std::ostream& err);

// Sets a value; makes the key, and those above it, when absent. Bad arguments change nothing.
//   name      empty for the default value
//   data      by type: REG_SZ and REG_EXPAND_SZ the text; REG_DWORD decimal or 0x and hexadecimal, 0 to 4294967295;
//             REG_BINARY pairs of hexadecimal digits; REG_MULTI_SZ one text a line, none of them empty
//   typeText  one of these five names in any case
int RegSet(std::string_view keyText, std::string_view name, std::string_view data, std::string_view typeText,
           std::ostream& err);

// Deletes a value, or without a name the key with all below it.
int RegDelete(std::string_view keyText, const std::optional<std::string>& name, std::ostream& err);

}  // namespace qx
