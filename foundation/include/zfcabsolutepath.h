// foundation/include/zfcabsolutepath.h: CAbsolutePath, a volume and a path on it.
//
// Threads: as CPath.
#pragma once

#include <iosfwd>

#include "foundation/include/zfcexport.h"
#include "foundation/include/zfcpath.h"
#include "foundation/include/zfcvolume.h"

namespace ZepFoundation ZEP_FOUNDATION_API {

class CAbsolutePath : public CVolume, public virtual CPath {  // a path from its volume on
 public:
  CAbsolutePath() = default;
  CAbsolutePath(const CVolume& volume, const CPath& path);
  // The volume that the text begins with (see CVolume), then the path; all of the text is the path where there is no
  // volume.
  //   flag       of both
  //   separator  of the path; a URL's path takes the URL's own
  CAbsolutePath(const wcstring& text, unsigned char flag = 0, char16_t separator = u'\\');
  CAbsolutePath(const char16_t* text, unsigned char flag = 0, char16_t separator = u'\\');
  CAbsolutePath(const CAbsolutePath&) = default;
  CAbsolutePath& operator=(const CAbsolutePath&) = default;
  ~CAbsolutePath() override = default;

  // The text of volume and path, without and with annotations.
  [[nodiscard]] wcstring Text() const { return VolumeName() + Path(); }
  [[nodiscard]] wcstring TextWithAnnotations() const { return VolumeName() + PathWithAnnotations(); }

  // The same place in another form; annotations stay, and the path is rooted. What has no such form stays what it is.
  //   AsDOS   "C:\x", of "\\server\C$\x" and of a URL whose host reads as a drive ("file://C:/x"); else of a URL
  //           "\\host\x"; a share stays a share
  //   AsUNC   "\\server\share\x": a drive is the share "C$" of this machine; a URL's host is the server
  //   AsURL   "file://server/share/x", "file://C:/x"; a URL keeps its scheme
  //   server  in place of the server or host that would be told; AsURL makes the share "C$" of a drive then
  [[nodiscard]] CAbsolutePath AsDOS() const;
  [[nodiscard]] CAbsolutePath AsUNC() const;
  [[nodiscard]] CAbsolutePath AsUNC(const wcstring& server) const;
  [[nodiscard]] CAbsolutePath AsURL() const;
  [[nodiscard]] CAbsolutePath AsURL(const wcstring& server) const;

  // Equal volumes and equal paths; the relations hold between paths on equal volumes alone.
  bool operator==(const CAbsolutePath& other) const;
  [[nodiscard]] bool IsAncestorOf(const CAbsolutePath& other) const;
  [[nodiscard]] bool IsParentOf(const CAbsolutePath& other) const;
  [[nodiscard]] bool IsSiblingOf(const CAbsolutePath& other) const;
  // As CPath::RemoveRoot; on success the volume goes too.
  bool RemoveRoot(const CAbsolutePath& root);

  // Reads the text in the form of wcstring::BinaryIn2, units up to a zero unit. Nothing changes when the stream fails.
  void BinaryIn2(bistream& stream);

  // Replaces volume and path by those of a text; the flags stay.
  void Text(const wcstring& text);

 private:
  // Volume and path of a form in which `separator` stands between elements.
  [[nodiscard]] CAbsolutePath InForm(const CVolume& volume, const CPath& path, char16_t separator) const;
};

// As those of CPath (foundation/include/zfcpath.h), with the whole text.
bistream& operator>>(bistream& stream, CAbsolutePath& path);
bostream& operator<<(bostream& stream, const CAbsolutePath& path);
std::istream& operator>>(std::istream& stream, CAbsolutePath& path);
std::ostream& operator<<(std::ostream& stream, const CAbsolutePath& path);

}  // namespace ZEP_FOUNDATION_API
