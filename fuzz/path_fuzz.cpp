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

QX_FUZZ_TARGET(path) {
  if (size == 0) return 0;
  static constexpr char16_t kSeparators[] = {u'\\', u'/', u'.', u':'};
  const std::string_view bytes = qx::fuzz::Text(data + 1, size - 1);
  const wcstring text(platform::WideFromUtf8(bytes).c_str());
  CPath path(text, 0, kSeparators[data[0] & 3]);
  const CPath again(path.PathWithAnnotations(), 0, path.Separator());
  // A separator at the end of a text is dropped, so that an empty element at the end doesn't come back; a text without
  // its separator may be read with another one.
  const bool emptyEnd = path.Empty() || path[path.Count() - 1].Text().view().empty();
  const bool otherSeparator = again.Separator() != path.Separator();
  Require(again.Count() == path.Count() || emptyEnd || otherSeparator || bytes.find('?') != std::string_view::npos,
          "the text has the same elements");
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
