// foundation/src/cvolume.cpp
#include "foundation/include/zfcvolume.h"

#include <algorithm>
#include <istream>
#include <iterator>
#include <ostream>
#include <string>
#include <string_view>

#include "foundation/include/zfcbytes.h"
#include "foundation/src/path_text.h"

namespace ZepFoundation {
namespace {

constexpr std::size_t kNowhere = std::u16string_view::npos;

struct Scheme {
  std::u16string_view name;     // as it is looked up
  std::u16string_view written;  // as VolumeName() gives it
};
constexpr Scheme kSchemes[] = {
    {u"", u""},
    {u"http", u"http:"},
    {u"ftp", u"ftp:"},
    {u"file", u"file:"},
    {u"dtfs", u"dtfs:"},
    {u"pkzip", u"pkzip:"},
    {u"news", u"news:"},
    {u"sp$", u"sp$:"},
    {u"bent", u"bent:"},
    {u"sm", u""},  // Deliberate: not written.
    {u"https", u"https:"},
};

EURLType TypeOf(const wcstring& scheme) {
  const auto* row = std::find_if(std::next(std::begin(kSchemes)), std::end(kSchemes),
                                 [&](const Scheme& s) { return s.name == scheme.view(); });
  return row == std::end(kSchemes) ? eURLNone : static_cast<EURLType>(row - std::begin(kSchemes));
}

std::u16string_view WrittenScheme(EURLType type) {
  const auto index = static_cast<std::size_t>(type);
  return index < std::size(kSchemes) ? kSchemes[index].written : std::u16string_view();
}

}  // namespace

CVolume::CVolume(const wcstring& text, unsigned char flag) : m_flag(flag) {
  (void)ParseVolume(text);
}

CVolume::CVolume(const wcstring& server, const wcstring& share, unsigned char flag) : m_flag(flag) {
  SetShare(server, share);
}

CVolume::CVolume(EURLType type, const wcstring& host, unsigned char flag)
    : m_name(host), m_urlType(type), m_separator(u'/'), m_flag(flag), m_volumeKind(eURL) {}

wcstring CVolume::ParseVolume(const wcstring& text) {
  std::u16string rest(text.view());
  m_name.clear();
  m_urlType = eURLNone;
  m_separator = u'\\';
  m_volumeKind = eUnknown;
  m_textStale = 1;
  if (rest.size() > 1 && rest[1] == u':') {
    m_volumeKind = eDrive;
    m_name = wcstring(rest.substr(0, 2));
    return wcstring(rest.substr(2));
  }
  std::size_t prefix = rest.find(u"\\\\");
  if (prefix == kNowhere) prefix = rest.find(u"//");
  if (prefix == kNowhere) return text;
  const bool isUnc = prefix == 0 && rest[0] == u'\\';
  const std::size_t colon = rest.find(u':');
  if (!isUnc && (colon == kNowhere || colon > prefix)) return text;  // neither a server's nor a scheme's: elements
  m_separator = rest[prefix];
  m_volumeKind = isUnc ? eUNC : eURL;
  if (!isUnc) m_urlType = TypeOf(wcstring(rest.substr(0, colon)).tolower());
  rest.erase(0, prefix + 2);
  if (m_urlType == eURLFile) {
    const std::size_t bar = rest.find(u'|');
    if (bar != kNowhere) rest[bar] = u':';
  }
  std::size_t end = rest.find(m_separator);
  if (isUnc && end != kNowhere) end = rest.find(m_separator, end + 1);  // server and share
  m_name = wcstring(rest.substr(0, end));
  return end == kNowhere ? wcstring() : wcstring(rest.substr(end));
}

void CVolume::SetShare(const wcstring& server, const wcstring& share) {
  m_volumeKind = eUNC;
  m_urlType = eURLNone;
  m_separator = u'\\';
  m_name = share.empty() ? server : server + u'\\' + share;
  m_textStale = 1;
}

wcstring CVolume::ServerName() const {
  if (m_volumeKind == eURL) return m_name;
  return m_volumeKind == eUNC ? m_name.substr(0, m_name.find(m_separator)) : wcstring();
}

void CVolume::ServerName(const wcstring& server) {
  if (m_volumeKind != eURL) return SetShare(server, ShareName());
  m_name = server;
  m_textStale = 1;
}

wcstring CVolume::ShareName() const {
  const std::size_t end = m_volumeKind == eUNC ? m_name.find(m_separator) : kNowhere;
  return end == kNowhere ? wcstring() : m_name.substr(end + 1);
}

void CVolume::ShareName(const wcstring& share) {
  SetShare(ServerName(), share);
}

wcstring CVolume::VolumeName() const {
  if (m_textStale != 0) {
    std::u16string text;
    if (m_volumeKind == eUNC || m_volumeKind == eURL) {
      text.append(WrittenScheme(m_urlType)).append(2, m_separator);
    }
    m_text = wcstring(text.append(m_name.view()));
    m_textStale = 0;
  }
  return m_text;
}

void CVolume::VolumeName(const wcstring& text) {
  (void)ParseVolume(wcstring(text));
}

bool CVolume::SameVolume(const CVolume& other) const {
  return m_volumeKind == other.m_volumeKind && m_urlType == other.m_urlType && m_name == other.m_name;
}

bistream& operator>>(bistream& stream, CVolume& volume) {
  return ReadPathText(stream, [&](const wcstring& text) { volume.VolumeName(text); });
}

bostream& operator<<(bostream& stream, const CVolume& volume) {
  volume.VolumeName().BinaryOut(stream);
  return stream;
}

std::istream& operator>>(std::istream& stream, CVolume& volume) {
  return ReadPathText(stream, [&](const wcstring& text) { volume.VolumeName(text); });
}

std::ostream& operator<<(std::ostream& stream, const CVolume& volume) {
  volume.VolumeName().Print(stream);
  return stream;
}

}  // namespace ZepFoundation
