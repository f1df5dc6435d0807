#include "platform/xml.h"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <mutex>
#include <utility>

#include "platform/fault_point.h"
#include "platform/guid.h"
#include "platform/text.h"

namespace platform {
namespace {

constexpr std::u16string_view kProgramIdentifier = u"MSXML.DOMDocument";
constexpr GUID kClass = GuidConstant(u"{2933BF90-7B36-11D2-B20E-00C04F983E60}");
constexpr std::u16string_view kXmlBlanks = u" \t\r\n";

struct DocumentDeleter {
  void operator()(xmlDoc* document) const { xmlFreeDoc(document); }
};
struct ContextDeleter {
  void operator()(xmlParserCtxt* context) const { xmlFreeParserCtxt(context); }
};
struct StringDeleter {
  void operator()(xmlChar* text) const { xmlFree(text); }
};

void NoReport(void*, const char*, ...) {}

// The next node of a walk over all elements in document order; null at the end.
const xmlNode* NextInOrder(const xmlNode* node, const xmlNode* root) {
  if (node->children != nullptr && node->type == XML_ELEMENT_NODE) return node->children;
  while (node != root) {
    if (node->next != nullptr) return node->next;
    node = node->parent;
  }
  return nullptr;
}

const xmlNode* NextNamed(const xmlNode* from, const xmlNode* root, const std::string& name) {
  for (const xmlNode* node = from; node != nullptr; node = NextInOrder(node, root)) {
    if (node->type == XML_ELEMENT_NODE && name == reinterpret_cast<const char*>(node->name)) return node;
  }
  return nullptr;
}

}  // namespace

struct XmlDocument::Tree {
  std::unique_ptr<xmlDoc, DocumentDeleter> document;
  const xmlNode* root = nullptr;
};

std::uint32_t CoInitialize() {
  if (const ErrorCode fault = FaultAt(Operation::kCoInitialize); fault != ERROR_SUCCESS) return fault;
  static std::once_flag once;
  std::call_once(once, [] { xmlInitParser(); });
  return 0;
}

void CoUninitialize() {}

std::uint32_t XmlElement::Text(std::u16string& text) const {
  if (const ErrorCode fault = FaultAt(Operation::kXmlText); fault != ERROR_SUCCESS) return fault;
  const std::unique_ptr<xmlChar, StringDeleter> content(xmlNodeGetContent(static_cast<xmlNode*>(m_node)));
  if (!content) return kXmlFailed;
  text = WideFromUtf8(reinterpret_cast<const char*>(content.get()));
  return 0;
}

XmlDocument::XmlDocument() = default;
XmlDocument::XmlDocument(XmlDocument&&) noexcept = default;
XmlDocument& XmlDocument::operator=(XmlDocument&&) noexcept = default;
XmlDocument::~XmlDocument() = default;

std::uint32_t XmlDocument::Create(std::u16string_view identifier, XmlDocument& out) {
  if (const ErrorCode fault = FaultAt(Operation::kXmlCreate); fault != ERROR_SUCCESS) return fault;
  if (identifier.starts_with(u'{')) {
    GUID classId;
    if (const std::uint32_t rc = ClsidFromString(identifier, classId); rc != 0) return rc;
    if (classId != kClass) return kXmlNotRegistered;
  } else if (identifier != kProgramIdentifier) {
    return kInvalidClassString;
  }
  XmlDocument made;
  made.m_made = true;
  out = std::move(made);
  return 0;
}

bool XmlDocument::Load(std::u16string_view text) {
  m_tree.reset();
  if (FaultAt(Operation::kXmlLoad) != ERROR_SUCCESS || !m_made) return false;
  // Blanks are allowed in front of a declaration too.
  text.remove_prefix(std::min(text.find_first_not_of(kXmlBlanks), text.size()));
  if (text.empty() || text.size() > kXmlMaxUnits) return false;
  const std::string bytes = Utf8FromWide(text);
  const std::unique_ptr<xmlParserCtxt, ContextDeleter> context(xmlNewParserCtxt());
  if (!context) return false;
  context->sax->error = &NoReport;
  context->sax->warning = &NoReport;
  auto tree = std::make_unique<Tree>();
  tree->document.reset(xmlCtxtReadMemory(context.get(), bytes.data(), static_cast<int>(bytes.size()), nullptr, "UTF-8",
                                         XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
  if (!tree->document || context->wellFormed != 1 || context->nsWellFormed != 1) return false;
  // A declaration of a document type could define entities that grow without end or name files.
  if (tree->document->intSubset != nullptr || tree->document->extSubset != nullptr) return false;
  tree->root = xmlDocGetRootElement(tree->document.get());
  if (tree->root == nullptr) return false;
  m_tree = std::move(tree);
  return true;
}

bool XmlDocument::FindFirst(std::u16string_view tag, XmlElement& element) const {
  if (const ErrorCode fault = FaultAt(Operation::kXmlFind); fault != ERROR_SUCCESS) throw XmlError(fault);
  if (!m_tree) return false;
  const xmlNode* const node = NextNamed(m_tree->root, m_tree->root, Utf8FromWide(tag));
  if (node == nullptr) return false;
  element.m_node = const_cast<xmlNode*>(node);
  return true;
}

std::size_t XmlDocument::Count(std::u16string_view tag) const {
  if (!m_tree) return 0;
  const std::string name = Utf8FromWide(tag);
  std::size_t count = 0;
  for (const xmlNode* node = NextNamed(m_tree->root, m_tree->root, name); node != nullptr; ++count) {
    const xmlNode* const next = NextInOrder(node, m_tree->root);
    node = next == nullptr ? nullptr : NextNamed(next, m_tree->root, name);
  }
  return count;
}

}  // namespace platform
