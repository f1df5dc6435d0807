#include "platform/terminal.h"

#include <locale.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <wchar.h>

#include <algorithm>

namespace platform {
namespace {

int DescriptorOf(StandardStream stream) {
  switch (stream) {
    case StandardStream::kInput:
      return STDIN_FILENO;
    case StandardStream::kOutput:
      return STDOUT_FILENO;
    case StandardStream::kError:
      return STDERR_FILENO;
  }
  return -1;
}

// The calling thread reads UTF-8 in its life, whatever the process's locale is.
class Utf8Scope {
 public:
  Utf8Scope() : m_before(::uselocale(Utf8())) {}
  ~Utf8Scope() { (void)::uselocale(m_before); }
  Utf8Scope(const Utf8Scope&) = delete;
  Utf8Scope& operator=(const Utf8Scope&) = delete;

 private:
  // Lives to the end of the process. None leaves the thread's locale as it is.
  static locale_t Utf8() {
    static const locale_t utf8 = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    return utf8;
  }
  locale_t m_before;
};

// The first character of a text that isn't empty. A byte that belongs to none is one of its own.
TextFit FirstCharacter(std::string_view text) {
  wchar_t character = 0;
  mbstate_t state = {};
  const std::size_t bytes = ::mbrtowc(&character, text.data(), text.size(), &state);
  if (bytes == 0 || bytes > text.size()) return {1, 1};
  const int columns = ::wcwidth(character);
  return {bytes, columns < 0 ? 1 : static_cast<std::size_t>(columns)};
}

}  // namespace

bool IsTerminal(StandardStream stream) { return ::isatty(DescriptorOf(stream)) == 1; }

std::size_t TerminalColumns(StandardStream stream) {
  winsize size = {};
  return IsTerminal(stream) && ::ioctl(DescriptorOf(stream), TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

TextFit FitText(std::string_view text, std::size_t columns) {
  unsigned char all = 0;
  for (const char c : text) all |= static_cast<unsigned char>(c);
  if (all < 0x80) {
    const std::size_t fitting = std::min(text.size(), columns);
    return {fitting, fitting};
  }
  const Utf8Scope utf8;
  TextFit fit;
  while (fit.bytes < text.size()) {
    const TextFit next = FirstCharacter(text.substr(fit.bytes));
    if (next.columns > columns - fit.columns) break;
    fit = {fit.bytes + next.bytes, fit.columns + next.columns};
  }
  return fit;
}

}  // namespace platform
