// foundation/src/cabsolute_path.cpp
#include "foundation/include/zfcabsolutepath.h"

#include <istream>
#include <ostream>
#include <string_view>

#include "foundation/include/zfcbytes.h"
#include "foundation/include/zfcxplat.h"
#include "foundation/src/path_text.h"

namespace ZepFoundation {
namespace {

constexpr char16_t kShareMark = u'$';  // behind a drive's letter, its share on every machine

bool IsDriveName(std::u16string_view name) {
  return name.size() == 2 && name[1] == u':';
}

wcstring DriveOfShare(const wcstring& share) {
  const bool isDrive = share.length() == 2 && share[1] == kShareMark;
  return isDrive ? wcstring(share.substr(0, 1) + u':') : wcstring();
}

wcstring ShareOfDrive(const wcstring& drive) {
  return drive.substr(0, 1) + kShareMark;
}

// A URL's path without its first element, which names the share.
CPath BehindShare(const CPath& path) {
  CPath rest = path;
  (void)rest.Swallow(1);
  return rest;
}

}  // namespace

CAbsolutePath::CAbsolutePath(const CVolume& volume, const CPath& path) : CPath(path), CVolume(volume) {}

CAbsolutePath::CAbsolutePath(const wcstring& text, unsigned char flag, char16_t separator)
    : CPath(wcstring(), flag, separator), CVolume(wcstring(), flag) {
  const wcstring rest = ParseVolume(text);
  Path(rest, VolumeKind() == eURL ? VolumeSeparator() : separator);
}

CAbsolutePath::CAbsolutePath(const char16_t* text, unsigned char flag, char16_t separator)
    : CAbsolutePath(wcstring(text), flag, separator) {}

void CAbsolutePath::Text(const wcstring& text) {
  const char16_t separator = Separator();
  const wcstring rest = ParseVolume(wcstring(text));
  Path(rest, VolumeKind() == eURL ? VolumeSeparator() : separator);
}

// --- forms ---

CAbsolutePath CAbsolutePath::InForm(const CVolume& volume, const CPath& path, char16_t separator) const {
  CPath formed(wcstring(), path.Flag(), separator);
  for (std::size_t i = 0; i < path.Count(); ++i) {
    formed += CPathElement(path[i].Text(), path[i].Flag(), separator);
  }
  formed.Rooted(1);
  for (const auto& [key, value] : path.Annotations()) (void)formed.AddAnnotation(key, value);
  return {volume, formed};
}

CAbsolutePath CAbsolutePath::AsDOS() const {
  if (VolumeKind() == eUNC) {
    const wcstring drive = DriveOfShare(ShareName());
    return drive.empty() ? *this : InForm(CVolume(drive, VolumeFlag()), *this, u'\\');
  }
  if (VolumeKind() != eURL) return *this;
  if (IsDriveName(ServerName().view())) return InForm(CVolume(ServerName(), VolumeFlag()), *this, u'\\');
  return AsUNC();
}

CAbsolutePath CAbsolutePath::AsUNC() const {
  const bool isDrive = VolumeKind() == eDrive || (VolumeKind() == eURL && IsDriveName(ServerName().view()));
  return AsUNC(isDrive ? wcstring(XPlat::MachineName()) : ServerName());
}

CAbsolutePath CAbsolutePath::AsUNC(const wcstring& server) const {
  if (VolumeKind() == eDrive || (VolumeKind() == eURL && IsDriveName(ServerName().view()))) {
    const wcstring drive = VolumeKind() == eDrive ? VolumeName() : ServerName();
    return InForm(CVolume(server, ShareOfDrive(drive), VolumeFlag()), *this, u'\\');
  }
  if (VolumeKind() == eUNC) return InForm(CVolume(server, ShareName(), VolumeFlag()), *this, u'\\');
  if (VolumeKind() != eURL || Empty()) return *this;
  return InForm(CVolume(server, (*this)[0].Text(), VolumeFlag()), BehindShare(*this), u'\\');
}

CAbsolutePath CAbsolutePath::AsURL() const {
  if (VolumeKind() != eDrive) return AsURL(ServerName());
  return InForm(CVolume(eURLFile, VolumeName(), VolumeFlag()), *this, u'/');
}

CAbsolutePath CAbsolutePath::AsURL(const wcstring& server) const {
  if (VolumeKind() == eDrive) return AsUNC(server).AsURL(server);
  const CVolume volume(URLType() == eURLNone ? eURLFile : URLType(), server, VolumeFlag());
  CPath path(wcstring(), Flag(), u'/');
  if (VolumeKind() == eUNC && !ShareName().empty()) path += CPathElement(ShareName(), Flag(), u'/');
  path += *this;
  return InForm(volume, path, u'/');
}

// --- relations ---

bool CAbsolutePath::operator==(const CAbsolutePath& other) const {
  return SameVolume(other) && CPath::operator==(other);
}

bool CAbsolutePath::IsAncestorOf(const CAbsolutePath& other) const {
  return SameVolume(other) && CPath::IsAncestorOf(other);
}

bool CAbsolutePath::IsParentOf(const CAbsolutePath& other) const {
  return SameVolume(other) && CPath::IsParentOf(other);
}

bool CAbsolutePath::IsSiblingOf(const CAbsolutePath& other) const {
  return SameVolume(other) && CPath::IsSiblingOf(other);
}

bool CAbsolutePath::RemoveRoot(const CAbsolutePath& root) {
  if (!SameVolume(root) || !CPath::RemoveRoot(root)) return false;
  VolumeName(wcstring());
  return true;
}

// --- streams ---

void CAbsolutePath::BinaryIn2(bistream& stream) {
  wcstring text;
  text.BinaryIn2(stream);
  if (stream.good()) Text(text);
}

bistream& operator>>(bistream& stream, CAbsolutePath& path) {
  return ReadPathText(stream, [&](const wcstring& text) { path.Text(text); });
}

bostream& operator<<(bostream& stream, const CAbsolutePath& path) {
  path.TextWithAnnotations().BinaryOut(stream);
  return stream;
}

std::istream& operator>>(std::istream& stream, CAbsolutePath& path) {
  return ReadPathText(stream, [&](const wcstring& text) { path.Text(text); });
}

std::ostream& operator<<(std::ostream& stream, const CAbsolutePath& path) {
  path.TextWithAnnotations().Print(stream);
  return stream;
}

}  // namespace ZepFoundation
