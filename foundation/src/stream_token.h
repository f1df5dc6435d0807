// foundation/src/stream_token.h: taking one word off a stream, without the stream's locale. Threads: the stream's.
#pragma once

#include <istream>
#include <string>

namespace ZepFoundation {

// White space: blank, \t, \n, \v, \f, \r.
template <class CharT>
constexpr bool IsSpace(CharT c) {
  return c == CharT(' ') || (c >= CharT('\t') && c <= CharT('\r'));
}

enum class LeadingSpace { kSkip, kEndsTheToken };

// The characters up to the first white space, which is taken off the stream too, or up to the end, which sets eofbit. A
// stream that has no character left, or is in a failed state already, gets failbit and gives an empty text.
// The stream's buffer is read directly: extraction from a stream of 16-bit characters would ask for a locale facet that
// doesn't exist.
template <class CharT>
std::basic_string<CharT> TakeToken(std::basic_istream<CharT>& stream, LeadingSpace leading) {
  using Traits = std::char_traits<CharT>;
  std::basic_string<CharT> token;
  std::basic_streambuf<CharT>* const buffer = stream.rdbuf();
  if (!stream.good() || buffer == nullptr) {
    stream.setstate(std::ios_base::failbit);
    return token;
  }
  bool taken = false;
  for (;;) {
    const auto next = buffer->sbumpc();
    if (Traits::eq_int_type(next, Traits::eof())) {
      stream.setstate(taken ? std::ios_base::eofbit : std::ios_base::eofbit | std::ios_base::failbit);
      return token;
    }
    const CharT c = Traits::to_char_type(next);
    if (IsSpace(c)) {
      if (token.empty() && leading == LeadingSpace::kSkip) continue;
      return token;
    }
    taken = true;
    token.push_back(c);
  }
}

}  // namespace ZepFoundation
