// Path text: what is read is written and read again the same.
#include <sstream>

#include "foundation/include/zfcabsolutepath.h"
#include "foundation/include/zfcbytes.h"
#include "foundation/include/zfcpath.h"
#include "fuzz/fuzz_target.h"
#include "platform/text.h"

using qx::fuzz::Require;
using ZepFoundation::CAbsolutePath;
using ZepFoundation::CPath;
using ZepFoundation::CPathElement;
using ZepFoundation::wcstring;

namespace {

// Whether PathWithAnnotations() stands for the path, by the contract in its header. Elements that were read hold no
// separator.
bool HasItsText(const CPath& path) {
  const auto holds = [](const CPathElement& element, char16_t c) { return element.Text().find(c) != wcstring::npos; };
  const std::size_t count = path.Count();
  for (std::size_t i = 0; i < count; ++i) {
    if (holds(path[i], u'?')) return false;
  }
  if (count == 0) return true;
  if (path[count - 1].Text().empty() || (!path.Rooted() && path[0].Text().empty())) return false;
  const char16_t separator = path.Separator();
  const char16_t other = separator == u'\\' ? u'/' : separator == u'/' ? u'\\' : u'\0';
  return path.Rooted() || count > 1 || other == u'\0' || !holds(path[0], other);
}

}  // namespace

QX_FUZZ_TARGET(path) {
  if (size == 0) return 0;
  static constexpr char16_t kSeparators[] = {u'\\', u'/', u'.', u':'};
  const std::string_view bytes = qx::fuzz::Text(data + 1, size - 1);
  const wcstring text(platform::WideFromUtf8(bytes).c_str());
  CPath path(text, 0, kSeparators[data[0] & 3]);
  const CPath again(path.PathWithAnnotations(), 0, path.Separator());
  Require(!HasItsText(path) || (again == path && again.Annotations() == path.Annotations()),
          "a path that has its text is read from it");
  for (std::size_t i = 0; i < path.Count(); ++i) {
    CPathElement element = path[i];
    (void)element.Name();
    (void)element.Extension();
    element.Extension(wcstring(u"x"), 1);
  }
  CPath normal = path;
  if (normal.Normalize()) {
    CPath twice = normal;
    Require(twice.Normalize() && twice == normal, "a normal path stays");
  }
  Require(!path.IsAncestorOf(path) && !path.EfficientOrder(path), "the orders are strict");
  CPath tail = path;
  Require(tail.RemoveRoot(path) && tail.Empty(), "a path is its own root");
  CPath lopped = path;
  (void)lopped.Lop(1);
  (void)lopped.Swallow(1);
  (void)(path + lopped);

  CAbsolutePath address(text);
  for (const CAbsolutePath& form : {address.AsDOS(), address.AsUNC(), address.AsURL()})
    (void)form.TextWithAnnotations();
  (void)address.ServerName();
  (void)address.ShareName();
  address.ShareName(wcstring(u"s"));

  std::istringstream in{std::string(bytes)};
  in >> path;
  ZepFoundation::bistrstream binary(bytes.data(), static_cast<std::streamsize>(bytes.size()),
                                    ZepFoundation::CByteOrder::kBigEndian);
  binary >> path;
  binary >> address;
  return 0;
}
