// The binary forms of strings and identifiers: a count from outside costs no more than the bytes that are there, and
// what was read is written and read again the same.
#include "foundation/include/zfcbytes.h"
#include "foundation/include/zfcguid.h"
#include "foundation/include/zfcstring.h"
#include "foundation/include/zfcutf8.h"
#include "fuzz/fuzz_target.h"

using qx::fuzz::Require;
using ZepFoundation::bistrstream;
using ZepFoundation::bostrstream;
using ZepFoundation::CByteOrder;
using ZepFoundation::cstring;
using ZepFoundation::CZepUTF8;
using ZepFoundation::wcstring;

namespace {

template <class T>
T Reread(T& value, CByteOrder::ByteOrder order) {
  bostrstream out(order);
  value.BinaryOut(out);
  Require(out.good(), "a value can be written");
  const std::string_view bytes = out.view();
  bistrstream in(bytes.data(), static_cast<std::streamsize>(bytes.size()), order);
  T again;
  again.BinaryIn(in);
  Require(in.good(), "what was written can be read");
  return again;
}

}  // namespace

QX_FUZZ_TARGET(binary_strings) {
  if (size < 2) return 0;
  const auto order = (data[0] & 1) != 0 ? CByteOrder::kBigEndian : CByteOrder::kLittleEndian;
  bistrstream in(reinterpret_cast<const char*>(data + 1), static_cast<std::streamsize>(size - 1), order);
  // What to read next is the input's own choice.
  for (int steps = 0; in.good() && steps < 64; ++steps) {
    switch (in.get() % 6) {
      case 0: {
        wcstring text;
        text.BinaryIn(in);
        Require(text.str().size() * 2 <= size, "no more units than bytes");
        Require(Reread(text, order) == text, "a wide string comes back");
        try {
          (void)text.ascii();
        } catch (const ZepFoundation::CharConversion_error&) {  // the promised answer for a lone surrogate
        }
        break;
      }
      case 1: {
        cstring text;
        text.BinaryIn(in);
        Require(text.str().size() <= size, "no more characters than bytes");
        Require(Reread(text, order) == text, "a narrow string comes back");
        break;
      }
      case 2: {
        CZepUTF8 text;
        text.BinaryIn(in);
        Require(Reread(text, order) == text, "UTF-8 text comes back");
        (void)text.Unicode();
        (void)text.Utf7();
        break;
      }
      case 3: {
        wcstring text;
        text.BinaryIn2(in);
        break;
      }
      case 4: {
        ZepFoundation::CGUID guid;
        guid.BinaryIn(in);
        Require(in.good() || guid.Valid() == 1, "a short identifier is all zero");
        break;
      }
      default: {
        char few[4] = {};
        in.read(few, 4);
        Require(in.good() ? in.gcount() == 0 : in.gcount() < 4, "the count of a read that fell short");
        (void)in.peek();
        break;
      }
    }
  }
  (void)in.size();
  return 0;
}
