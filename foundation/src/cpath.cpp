// foundation/src/cpath.cpp
#include "foundation/include/zfcpath.h"

#include <algorithm>
#include <istream>
#include <iterator>
#include <ostream>
#include <string>

#include "foundation/include/zfcbytes.h"
#include "foundation/src/path_text.h"

namespace ZepFoundation {
namespace {

constexpr std::size_t kNotFound = std::u16string_view::npos;

// Where an element's extension begins, at its "."; kNotFound when it has none.
std::size_t ExtensionPoint(std::u16string_view text) {
  const std::size_t point = text.rfind(u'.');
  return point == kNotFound || text.find_first_not_of(u'.') > point ? kNotFound : point;
}

}  // namespace

// --- CPathElement ---

void CPathElement::Extension(const wcstring& extension, unsigned char replace) {
  const std::size_t point = ExtensionPoint(m_text.view());
  if (point != kNotFound && replace == 0) return;
  std::u16string text(m_text.view().substr(0, point));
  if (!extension.empty()) text.append(u".").append(extension.view());
  m_text = wcstring(std::move(text));
}

wcstring CPathElement::Extension() const {
  const std::size_t point = ExtensionPoint(m_text.view());
  return point == kNotFound ? wcstring() : m_text.substr(point + 1);
}

wcstring CPathElement::Name() const {
  return m_text.substr(0, ExtensionPoint(m_text.view()));
}

// --- CPath: making and parsing ---

CPath::CPath(const wcstring& text, unsigned char flag, char16_t separator)
    : m_separator(separator), m_elementFlag(flag) {
  SetText(text);
}

CPath::CPath(const char16_t* text, unsigned char flag, char16_t separator) : CPath(wcstring(text), flag, separator) {}

void CPath::SetText(const wcstring& text) {
  m_elements.clear();
  m_annotations.clear();
  m_parsed = 0;
  m_textStale = 1;
  m_rooted = !text.empty() && text[0] == m_separator ? 1 : 0;
  const bool endsInSeparator = text.length() > 1 && text[text.length() - 1] == m_separator;
  m_text = endsInSeparator ? text.substr(0, text.length() - 1) : text;
}

void CPath::Parse() const {
  if (m_parsed != 0) return;
  BuildPathElementVector();
  m_parsed = 1;
}

void CPath::BuildPathElementVector() const {
  m_rooted = 0;
  m_elements.clear();
  m_annotations.clear();
  std::u16string_view text = m_text.view();
  const std::size_t question = text.find(u'?');
  if (question != kNotFound && text.find(u'=', question) != kNotFound) {
    BuildAnnotationMap(text.substr(question + 1));
    text = text.substr(0, question);
  }
  if (text.find(m_separator) == kNotFound && (m_separator == u'\\' || m_separator == u'/')) {
    for (const char16_t other : {u'/', u'\\'}) {
      if (text.find(other) == kNotFound) continue;
      m_separator = other;
      break;
    }
  }
  if (text.starts_with(m_separator)) {
    m_rooted = 1;
    text.remove_prefix(1);
  }
  while (!text.empty()) {
    const std::size_t end = text.find(m_separator);
    m_elements.emplace_back(wcstring(text.substr(0, end)), m_elementFlag, m_separator);
    text = end == kNotFound ? std::u16string_view() : text.substr(end + 1);
  }
}

void CPath::BuildAnnotationMap(std::u16string_view text) const {
  for (bool more = true; more;) {
    const std::size_t end = text.find(u'&');
    const std::u16string_view pair = text.substr(0, end);
    const std::size_t equals = pair.find(u'=');
    if (equals != kNotFound) m_annotations[wcstring(pair.substr(0, equals))] = wcstring(pair.substr(equals + 1));
    more = end != kNotFound;
    if (more) text.remove_prefix(end + 1);
  }
}

// --- CPath: text ---

wcstring CPath::BuildText(unsigned char flag) const {
  Parse();
  std::u16string text;
  if (m_rooted != 0 && (!m_elements.empty() || flag == 0)) text += m_separator;
  for (std::size_t i = 0; i < m_elements.size(); ++i) {
    if (i != 0) text += m_separator;
    text += m_elements[i].Text().view();
  }
  return wcstring(std::move(text));
}

wcstring CPath::Path(unsigned char flag) const {
  if (flag == 0) return BuildText(flag);  // not kept: for a bare root it isn't the text that a set flag asks for
  if (m_textStale != 0) {
    m_text = BuildText(flag);
    m_textStale = 0;
  }
  return m_text;
}

void CPath::Path(const wcstring& text, char16_t separator) {
  const wcstring kept = text;  // may be a part of this
  m_separator = separator;
  SetText(kept);
}

wcstring CPath::PathWithAnnotations(unsigned char flag) const {
  wcstring text = Path(flag);
  char16_t before = u'?';
  for (const auto& [key, value] : Annotations()) {
    text = text + before + key + u'=' + value;
    before = u'&';
  }
  // A separator at the end would be dropped from the last value; a pair without "=" is passed over.
  const char16_t last = text.empty() ? u'\0' : text[text.length() - 1];
  if (before == u'&' && (last == u'\\' || last == u'/' || last == m_separator)) text.push_back(u'&');
  return text;
}

bool CPath::Rooted() const {
  Parse();
  return m_rooted != 0;
}

void CPath::Rooted(unsigned char rooted) {
  Parse();
  m_rooted = rooted != 0 ? 1 : 0;
  m_textStale = 1;
}

char16_t CPath::Separator() const {
  Parse();
  return m_separator;
}

// --- CPath: elements ---

std::size_t CPath::Count() const {
  Parse();
  return m_elements.size();
}

const CPathElement& CPath::operator[](std::size_t index) const {
  Parse();
  return m_elements.at(index);
}

bool CPath::Lop(int count) {
  Parse();
  m_annotations.clear();
  m_textStale = 1;
  int removed = 0;
  for (; removed < count && !m_elements.empty(); ++removed) m_elements.pop_back();
  return removed == count;
}

bool CPath::Swallow(int count) {
  Parse();
  m_textStale = 1;
  const std::size_t removed = std::min(m_elements.size(), static_cast<std::size_t>(std::max(count, 0)));
  m_elements.erase(m_elements.begin(), m_elements.begin() + static_cast<std::ptrdiff_t>(removed));
  return static_cast<std::ptrdiff_t>(removed) == count;
}

bool CPath::Normalize() {
  Parse();
  if (m_rooted == 0) return false;
  Elements gathered;
  for (const CPathElement& element : m_elements) {
    if (element.Text() == u".") continue;
    if (element.Text() != u"..") {
      gathered.push_back(element);
    } else if (gathered.empty()) {
      return false;
    } else {
      gathered.pop_back();
    }
  }
  m_elements = std::move(gathered);
  m_textStale = 1;
  return true;
}

CPath& CPath::operator+=(const CPath& other) {
  const CPath added = other;  // may be this
  added.Parse();
  Parse();
  m_elements.insert(m_elements.end(), added.m_elements.begin(), added.m_elements.end());
  for (const auto& [key, value] : added.m_annotations) m_annotations[key] = value;
  m_textStale = 1;
  return *this;
}

CPath& CPath::operator+=(const CPathElement& element) {
  Parse();
  m_elements.push_back(element);
  m_textStale = 1;
  return *this;
}

CPath operator+(const CPath& a, const CPath& b) {
  CPath joined = a;
  joined += b;
  return joined;
}

// --- CPath: comparing ---

std::size_t CPath::CommonElements(const CPath& other) const {
  Parse();
  other.Parse();
  const auto differ =
      std::mismatch(m_elements.begin(), m_elements.end(), other.m_elements.begin(), other.m_elements.end());
  return static_cast<std::size_t>(differ.first - m_elements.begin());
}

bool CPath::operator==(const CPath& other) const {
  const std::size_t common = CommonElements(other);
  return m_rooted == other.m_rooted && common == m_elements.size() && common == other.m_elements.size();
}

bool CPath::operator<(const CPath& other) const {
  Parse();
  other.Parse();
  if (m_rooted != other.m_rooted) return m_rooted == 0;
  return m_elements < other.m_elements;
}

bool CPath::IsAncestorOf(const CPath& other) const {
  return Count() < other.Count() && CommonElements(other) == Count();
}

bool CPath::IsParentOf(const CPath& other) const {
  return Count() + 1 == other.Count() && IsAncestorOf(other);
}

bool CPath::IsSiblingOf(const CPath& other) const {
  return Count() == other.Count() && CommonElements(other) + 1 >= Count();
}

bool CPath::RemoveRoot(const CPath& root) {
  if (Rooted() != root.Rooted() || CommonElements(root) != root.Count()) return false;
  m_elements.erase(m_elements.begin(), m_elements.begin() + static_cast<std::ptrdiff_t>(root.Count()));
  m_rooted = 0;
  m_textStale = 1;
  return true;
}

bool CPath::EfficientOrder(const CPath& other) const {
  Parse();
  other.Parse();
  if (m_rooted != other.m_rooted) return m_rooted == 0;
  return std::lexicographical_compare(m_elements.rbegin(), m_elements.rend(), other.m_elements.rbegin(),
                                      other.m_elements.rend());
}

// --- CPath: annotations ---

bool CPath::AddAnnotation(const wcstring& key, const wcstring& value) {
  if (key.view().find_first_of(u"=&") != kNotFound || value.find(u'&') != kNotFound) return false;
  Parse();
  m_annotations[key] = value;
  return true;
}

bool CPath::DeleteAnnotation(const wcstring& key) {
  Parse();
  return m_annotations.erase(key) != 0;
}

void CPath::ClearAnnotations() {
  Parse();
  m_annotations.clear();
}

wcstring CPath::AnnotationValue(const wcstring& key) const {
  Parse();
  const auto found = m_annotations.find(key);
  return found == m_annotations.end() ? wcstring() : found->second;
}

const CPath::AnnotationMap& CPath::Annotations() const {
  Parse();
  return m_annotations;
}

// --- streams ---

bistream& operator>>(bistream& stream, CPath& path) {
  return ReadPathText(stream, [&](const wcstring& text) { path.Path(text, path.Separator()); });
}

bostream& operator<<(bostream& stream, const CPath& path) {
  path.PathWithAnnotations().BinaryOut(stream);
  return stream;
}

std::istream& operator>>(std::istream& stream, CPath& path) {
  return ReadPathText(stream, [&](const wcstring& text) { path.Path(text, path.Separator()); });
}

std::ostream& operator<<(std::ostream& stream, const CPath& path) {
  path.PathWithAnnotations().Print(stream);
  return stream;
}

bistream& operator>>(bistream& stream, CPathElement& element) {
  return ReadPathText(stream, [&](const wcstring& text) { element.Text(text); });
}

bostream& operator<<(bostream& stream, const CPathElement& element) {
  element.Text().BinaryOut(stream);
  return stream;
}

std::istream& operator>>(std::istream& stream, CPathElement& element) {
  return ReadPathText(stream, [&](const wcstring& text) { element.Text(text); });
}

std::ostream& operator<<(std::ostream& stream, const CPathElement& element) {
  element.Text().Print(stream);
  return stream;
}

}  // namespace ZepFoundation
