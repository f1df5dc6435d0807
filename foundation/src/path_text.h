// foundation/src/path_text.h: reading the texts of path classes off streams. Threads: the stream's.
#pragma once

#include <istream>

#include "foundation/include/zfcbytes.h"
#include "foundation/include/zfcstring.h"
#include "foundation/src/stream_token.h"

namespace ZepFoundation {

// Has `set` take the text that a stream holds, nothing when the stream fails.
template <class Set>
bistream& ReadPathText(bistream& stream, Set set) {
  wcstring text;
  text.BinaryIn(stream);
  if (stream.good()) set(text);
  return stream;
}
template <class Set>
std::istream& ReadPathText(std::istream& stream, Set set) {
  const cstring token(TakeToken(stream, LeadingSpace::kSkip));
  if (!stream.fail()) set(wcstring(token));
  return stream;
}

}  // namespace ZepFoundation
