// platform/xml.h: the document object model as far as the system uses it: load a text, find an element by tag name.
//
// The parser is strict: no network, no entities but the five predefined ones, no document type declaration, nothing
// repaired. Results are 32-bit results of the published object (0, or negative ones; winerror.h).
// Threads: every function from any thread; one document by one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "platform/error_codes.h"

namespace platform {

// Greatest text that is looked at, in 16-bit units; greater ones are refused as not well-formed.
inline constexpr std::size_t kXmlMaxUnits = 1 << 20;

inline constexpr std::uint32_t kXmlNotRegistered = 0x80040154;  // no object of that class
inline constexpr std::uint32_t kXmlFailed = 0x80004005;         // a text that can't be read

// Prepares this thread for objects; each success is ended by CoUninitialize().
[[nodiscard]] std::uint32_t CoInitialize();
void CoUninitialize();

// Thrown by a lookup that can't be carried out.
class XmlError : public std::runtime_error {
 public:
  explicit XmlError(std::uint32_t result) : std::runtime_error("the document can't be searched"), m_result(result) {}
  [[nodiscard]] std::uint32_t result() const { return m_result; }

 private:
  std::uint32_t m_result;
};

// An element of a document, which it doesn't outlive.
class XmlElement {
 public:
  // The text of the element and all within it, in order, without comments. Blanks at its ends are kept: a value that
  // somebody sent arrives as it left.
  //   returns  0; kXmlFailed, `text` untouched
  [[nodiscard]] std::uint32_t Text(std::u16string& text) const;

 private:
  friend class XmlDocument;
  void* m_node = nullptr;
};

// A document. Empty by default, move only.
class XmlDocument {
 public:
  XmlDocument();
  XmlDocument(XmlDocument&&) noexcept;
  XmlDocument& operator=(XmlDocument&&) noexcept;
  ~XmlDocument();

  // Makes the object by its program identifier, "MSXML.DOMDocument", or by the class identifier's braced text.
  //   returns  0; kInvalidClassString (guid.h) for text that is neither; kXmlNotRegistered
  [[nodiscard]] static std::uint32_t Create(std::u16string_view identifier, XmlDocument& out);

  // Takes a text; the encoding that it declares doesn't count. False for text that isn't well-formed, has an undeclared
  // prefix or a document type declaration, or is longer than kXmlMaxUnits; the document is empty then.
  [[nodiscard]] bool Load(std::u16string_view text);

  // The first element of that name in document order; names compare exactly, without their prefix.
  //   returns  false when there is none
  //   throws   XmlError
  [[nodiscard]] bool FindFirst(std::u16string_view tag, XmlElement& element) const;

  // How many there are.
  [[nodiscard]] std::size_t Count(std::u16string_view tag) const;

  explicit operator bool() const { return m_made; }

 private:
  struct Tree;
  bool m_made = false;
  std::unique_ptr<Tree> m_tree;
};

}  // namespace platform
