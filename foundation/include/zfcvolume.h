// foundation/include/zfcvolume.h: CVolume, the location part of an address: a drive, a server with a share, or a URL's
// scheme and host.
//
// Threads: a volume belongs to one thread at a time, reading it included.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>

#include "foundation/include/zfcexport.h"
#include "foundation/include/zfcstring.h"

namespace ZepFoundation ZEP_FOUNDATION_API {

class bistream;
class bostream;

enum EURLType : std::int32_t {
  eURLNone = 0,
  eURLHttp = 1,
  eURLFtp = 2,
  eURLFile = 3,
  eURLDtfs = 4,
  eURLPkzip = 5,
  eURLNews = 6,
  eURLSp = 7,  // "sp$"
  eURLBent = 8,
  eURLSm = 9,
  eURLHttps = 10,
};

class CVolume {  // where a path begins: drive, share, volume
 public:
  enum Kind : std::int32_t { eUnknown = 0, eUNC = 1, eURL = 2, eDrive = 3 };

  // Reads the volume at the beginning of an address; what stands behind it is left out.
  //   "C:..."                   a drive, whatever its letter
  //   "\\server\share..."       a server and its share
  //   "scheme://host..."        a URL, in any case; an unknown scheme is type 0 and lost. The separator may be "\" as
  //                             well: the host is what stands behind the first "\\", only where there is none behind
  //                             "//". Of the type "file" the first "|" counts as ":", as in "file://C|/x"
  //   anything else             no volume: kind 0, empty
  CVolume(const wcstring& text = {}, unsigned char flag = 0);
  // A server's share.
  CVolume(const wcstring& server, const wcstring& share, unsigned char flag);
  // A URL's host, with "/" as separator.
  CVolume(EURLType type, const wcstring& host, unsigned char flag);
  CVolume(const CVolume&) = default;
  CVolume(CVolume&&) noexcept = default;
  CVolume& operator=(const CVolume&) = default;
  CVolume& operator=(CVolume&&) noexcept = default;
  virtual ~CVolume() = default;

  // The server of a share, the host of a URL; empty for others. Setting it makes a share's server of a drive's or
  // missing volume.
  [[nodiscard]] wcstring ServerName() const;
  void ServerName(const wcstring& server);
  // The share of a server; empty for others. Setting it makes a share of any volume, and keeps the server that is told.
  [[nodiscard]] wcstring ShareName() const;
  void ShareName(const wcstring& share);
  // The volume as the beginning of an address: "C:", "\\server\share", "http://host". Deliberate: the scheme "sm" is
  // read but not written.
  [[nodiscard]] wcstring VolumeName() const;
  // Reads a text as the constructor does.
  void VolumeName(const wcstring& text);

  [[nodiscard]] EURLType URLType() const { return m_urlType; }
  [[nodiscard]] Kind VolumeKind() const { return m_volumeKind; }
  [[nodiscard]] char16_t VolumeSeparator() const { return m_separator; }
  [[nodiscard]] unsigned char VolumeFlag() const { return m_flag; }

  // Kind, type and name, character by character; separator and flag don't count.
  friend bool operator==(const CVolume& a, const CVolume& b) { return a.SameVolume(b); }

 protected:
  [[nodiscard]] bool SameVolume(const CVolume& other) const;
  // Reads the volume; gives the text behind it, as a file's URL with its bar turned into a colon.
  wcstring ParseVolume(const wcstring& text);

 private:
  // Puts server and share into the volume's text.
  void SetShare(const wcstring& server, const wcstring& share);

  wcstring m_name;  // drive with ":", server and share with a separator between them, or host
  EURLType m_urlType = eURLNone;
  char16_t m_separator = u'\\';
  unsigned char m_flag;
  Kind m_volumeKind = eUnknown;
  mutable unsigned char m_textStale = 1;  // m_text no longer is what VolumeName() gives
  mutable wcstring m_text;
};

// As those of CPath (foundation/include/zfcpath.h), with the text of VolumeName().
bistream& operator>>(bistream& stream, CVolume& volume);
bostream& operator<<(bostream& stream, const CVolume& volume);
std::istream& operator>>(std::istream& stream, CVolume& volume);
std::ostream& operator<<(std::ostream& stream, const CVolume& volume);

}  // namespace ZEP_FOUNDATION_API
