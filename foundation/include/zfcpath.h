// foundation/include/zfcpath.h: CPath, a list of named elements, and CPathElement, one of them.
//
// A path has two views, its text and its elements. The elements are built from the text when they are first needed,
// also by const operations; changes are made to the elements, and Path() builds the text anew. A text is never
// malformed: what isn't something richer is taken as elements.
// Threads: a path belongs to one thread at a time, reading it included.
#pragma once

#include <compare>
#include <cstddef>
#include <iosfwd>
#include <map>
#include <string_view>
#include <vector>

#include "foundation/include/zfcexport.h"
#include "foundation/include/zfcstring.h"

namespace ZepFoundation ZEP_FOUNDATION_API {

class bistream;
class bostream;

// One element. Elements compare by their text alone, character by character: separator and flag have no part in it.
class CPathElement {
 public:
  explicit CPathElement(const wcstring& text = {}, unsigned char flag = 0, char16_t separator = u'\\')
      : m_text(text), m_separator(separator), m_flag(flag) {}
  CPathElement(const CPathElement&) = default;
  CPathElement(CPathElement&&) noexcept = default;
  CPathElement& operator=(const CPathElement&) = default;
  CPathElement& operator=(CPathElement&&) noexcept = default;
  virtual ~CPathElement() = default;

  // Sets the extension, what stands behind the last "."; an empty one takes the "." away too.
  //   replace  0: an element that has an extension keeps it
  virtual void Extension(const wcstring& extension, unsigned char replace);
  // The extension without its "."; empty when there is none. A "." in front is part of the name: "." , ".." and
  // ".profile" have no extension.
  [[nodiscard]] virtual wcstring Extension() const;
  // The text without extension and its ".".
  [[nodiscard]] virtual wcstring Name() const;

  [[nodiscard]] const wcstring& Text() const { return m_text; }
  void Text(const wcstring& text) { m_text = text; }
  [[nodiscard]] char16_t Separator() const { return m_separator; }
  [[nodiscard]] unsigned char Flag() const { return m_flag; }

  friend bool operator==(const CPathElement& a, const CPathElement& b) { return a.m_text == b.m_text; }
  friend std::strong_ordering operator<=>(const CPathElement& a, const CPathElement& b) {
    return a.m_text <=> b.m_text;
  }

 private:
  wcstring m_text;
  char16_t m_separator;
  unsigned char m_flag;
};

// A path. "?" with "=" behind it ends the elements and begins the annotations, pairs KEY=VALUE with "&" between them.
class CPath {
 public:
  using Elements = std::vector<CPathElement>;
  using AnnotationMap = std::map<wcstring, wcstring>;

  // Takes the text; one separator at its end is dropped when it isn't all of the text.
  //   flag       handed to each element
  //   separator  a text without it, where it is "\" or "/", is read with the one of the two that it has
  CPath(const wcstring& text = {}, unsigned char flag = 0, char16_t separator = u'\\');
  // Null counts as empty.
  CPath(const char16_t* text, unsigned char flag = 0, char16_t separator = u'\\');
  CPath(const CPath&) = default;
  CPath(CPath&&) = default;
  CPath& operator=(const CPath&) = default;
  CPath& operator=(CPath&&) = default;
  virtual ~CPath() = default;

  // Removes up to `count` elements from the end and, in every case, all annotations. True when exactly `count` were
  // removed.
  virtual bool Lop(int count);
  // Removes up to `count` elements from the front; the annotations stay. True when exactly `count` were removed.
  virtual bool Swallow(int count);
  // Drops each "." and each ".." with the element before it. False, and nothing changed, for a path that isn't rooted
  // and where ".." has no element before it.
  virtual bool Normalize();

  // Root flag and elements; separator, flag and annotations don't count.
  bool operator==(const CPath& other) const;
  // Relative paths first, then by elements from the front.
  bool operator<(const CPath& other) const;
  // Puts the other's elements behind these; its annotations are added, a key that is there takes the new value. The
  // root flag stays this path's.
  CPath& operator+=(const CPath& other);
  CPath& operator+=(const CPathElement& element);

  // The text without annotations.
  //   flag  not 0: a rooted path without elements is empty text, not a lone separator; a text that is up to date is
  //         given as it stands
  [[nodiscard]] wcstring Path(unsigned char flag = 0) const;
  // Replaces all but the elements' flag, as the constructor.
  void Path(const wcstring& text, char16_t separator);
  // Path(flag), then "?" and the annotations in order of their keys, when there are any; an "&" ends a text that would
  // end in "\", "/" or the separator. Read by a constructor with the same separator it gives the same root flag,
  // elements and annotations, except for what no text stands for:
  //   an empty last element                     is lost
  //   an empty first element of a relative path makes it rooted
  //   an element with the separator in it       comes back as several
  //   a relative path of one element that holds the other one of "\" and "/" comes back with that separator, as several
  //   an element with "?" in it                 begins the annotations where a "=" follows
  //   a bare root under a set flag              is empty text
  // Only Lop(), Swallow(), RemoveRoot(), Rooted() and the joining of elements lead to one of the first four, or a text
  // with one more separator at its end than is dropped.
  [[nodiscard]] wcstring PathWithAnnotations(unsigned char flag = 0) const;

  // Whether the path begins at a root; sets it.
  [[nodiscard]] bool Rooted() const;
  void Rooted(unsigned char rooted);
  [[nodiscard]] char16_t Separator() const;
  [[nodiscard]] unsigned char Flag() const { return m_elementFlag; }

  // The number of elements.
  [[nodiscard]] std::size_t Count() const;
  [[nodiscard]] bool Empty() const { return Count() == 0; }
  // Throws std::out_of_range for an index that isn't below Count().
  [[nodiscard]] const CPathElement& operator[](std::size_t index) const;

  // Relations look at the elements alone. Ancestor: fewer elements, equal to the other's first ones; parent: exactly
  // one fewer; sibling: as many, and all but the last equal.
  [[nodiscard]] bool IsAncestorOf(const CPath& other) const;
  [[nodiscard]] bool IsParentOf(const CPath& other) const;
  [[nodiscard]] bool IsSiblingOf(const CPath& other) const;
  // Takes the elements of an equal path or an ancestor off the front, so that the rest is relative; the annotations
  // stay. False, and nothing changed, when `root` is neither.
  bool RemoveRoot(const CPath& root);
  // A strict order for visiting paths: relative ones first; then by elements from the last to the first; of two that
  // are equal so far the one that runs out comes first.
  [[nodiscard]] bool EfficientOrder(const CPath& other) const;

  // Sets an annotation. False, and nothing changed, for text that the form KEY=VALUE can't hold: a key with "=" or "&",
  // a value with "&".
  bool AddAnnotation(const wcstring& key, const wcstring& value);
  // False when there is none of that key.
  bool DeleteAnnotation(const wcstring& key);
  void ClearAnnotations();
  // Empty when there is none of that key.
  [[nodiscard]] wcstring AnnotationValue(const wcstring& key) const;
  [[nodiscard]] const AnnotationMap& Annotations() const;
  [[nodiscard]] AnnotationMap::const_iterator AnnotationBegin() const { return Annotations().begin(); }
  [[nodiscard]] AnnotationMap::const_iterator AnnotationEnd() const { return Annotations().end(); }

 protected:
  // For internal use: elements, root flag and annotations from the text; annotations from the part behind "?"; the text
  // from elements and root flag.
  virtual void BuildPathElementVector() const;
  virtual void BuildAnnotationMap(std::u16string_view text) const;
  [[nodiscard]] virtual wcstring BuildText(unsigned char flag) const;

 private:
  void Parse() const;
  void SetText(const wcstring& text);
  // How many elements from the front are equal.
  [[nodiscard]] std::size_t CommonElements(const CPath& other) const;

  mutable Elements m_elements;
  mutable unsigned char m_parsed = 0;
  mutable unsigned char m_rooted = 0;
  mutable char16_t m_separator;
  mutable unsigned char m_textStale = 1;
  mutable wcstring m_text;
  unsigned char m_elementFlag;
  mutable AnnotationMap m_annotations;
};

// Joins two paths into a third, as operator+= does.
[[nodiscard]] CPath operator+(const CPath& a, const CPath& b);

// The binary form is a path's text with its annotations as a wcstring; reading sets the path from it and keeps flag and
// separator. The narrow form is that text in the system code page; reading skips white space and takes one word. A
// failed read leaves the target as it was. Elements take the text as it is.
bistream& operator>>(bistream& stream, CPath& path);
bostream& operator<<(bostream& stream, const CPath& path);
std::istream& operator>>(std::istream& stream, CPath& path);
std::ostream& operator<<(std::ostream& stream, const CPath& path);
bistream& operator>>(bistream& stream, CPathElement& element);
bostream& operator<<(bostream& stream, const CPathElement& element);
std::istream& operator>>(std::istream& stream, CPathElement& element);
std::ostream& operator<<(std::ostream& stream, const CPathElement& element);

}  // namespace ZEP_FOUNDATION_API
