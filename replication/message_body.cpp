#include "replication/message_body.h"

#include <exception>

#include "foundation/include/zfclog.h"
#include "platform/guid.h"
#include "platform/memory.h"
#include "platform/text.h"
#include "platform/xml.h"
#include "replication/wire.h"

namespace qx {
namespace {

using ZepFoundation::ForLog;
using ZepFoundation::ServiceLog;

constexpr std::u16string_view kRootBegin = u"<QxSchedService>";
constexpr std::u16string_view kRootEnd = u"</QxSchedService>";
constexpr std::u16string_view kDataBegin = u"<OpData>";
constexpr std::u16string_view kDataEnd = u"/<OpData>";  // Deliberate: no closing tag; both sides agree on it.

constexpr std::uint32_t kNullPointer = 0x80004003;
constexpr std::uint32_t kNoMemory = 0x8007000E;
constexpr std::uint32_t kNoElement = 1;

// The texts of form A in their order around the numbers.
struct TextField {
  std::u16string_view tag;
  BSTR SCHEDULE_OBJECT::*field;
};
constexpr TextField kTextsBeforeCode[] = {{u"AppName", &SCHEDULE_OBJECT::bstrApplication},
                                          {u"ObjID", &SCHEDULE_OBJECT::bstrObjectID}};
constexpr std::u16string_view kTaskOpcode = u"TaskOpcode";
constexpr TextField kTextsBehindCode[] = {{u"Wrapper", &SCHEDULE_OBJECT::bstrWrapperBinaryName},
                                          {u"XMLFilePath", &SCHEDULE_OBJECT::bstrXMLFilePathName},
                                          {u"Parameters", &SCHEDULE_OBJECT::bstrParameters},
                                          {u"PreScript", &SCHEDULE_OBJECT::bstrPreScript},
                                          {u"PostScript", &SCHEDULE_OBJECT::bstrPostScript}};
constexpr std::u16string_view kUseGuid = u"UseGuid";
constexpr std::u16string_view kMsgType = u"MSG_TYPE";

// The identifier's five groups: where each stands in the braced text.
struct Group {
  std::u16string_view tag;
  std::size_t begin;
  std::size_t length;
};
constexpr Group kGroups[] = {
    {u"DATA1", 1, 8}, {u"DATA2", 10, 4}, {u"DATA3", 15, 4}, {u"DATA4", 20, 4}, {u"DATA5", 25, 12}};

void AppendElement(std::u16string& xml, std::u16string_view tag, std::u16string_view text) {
  xml.append(u"<").append(tag).append(u">").append(text).append(u"</").append(tag).append(u">");
}

std::u16string Decimal(std::uint32_t number) { return platform::WideFromUtf8(std::to_string(number)); }

void AppendTexts(std::u16string& xml, std::span<const TextField> fields, const SCHEDULE_OBJECT& schedule) {
  for (const TextField& field : fields) AppendElement(xml, field.tag, (schedule.*field.field).value_or(u""));
}

void AppendIdAndType(std::u16string& xml, const ScheduleGuid& id, std::uint32_t msgType) {
  const std::u16string text = platform::GuidText(id);
  for (const Group& group : kGroups) {
    AppendElement(xml, group.tag, std::u16string_view(text).substr(group.begin, group.length));
  }
  AppendElement(xml, kMsgType, Decimal(msgType));
  xml.append(kRootEnd);
}

// The end of each form: shown and measured.
std::uint32_t Measure(const std::u16string& xml) {
  ServiceLog(3, u"XML string created is %s", ForLog(xml));
  platform::ErrorCode error = platform::ERROR_SUCCESS;
  const int length = platform::WideCharToMultiByte(platform::kCodePageUtf8, 0, xml.c_str(), -1, nullptr, 0, nullptr,
                                                   nullptr, error);
  if (length != 0) return static_cast<std::uint32_t>(length);
  ServiceLog(1, u"Failed CreateXMLString:WideCharToMultiByte with error %l", error);
  return 0;
}

// Reads elements of one document; behind the first failure the rest isn't looked at.
class ElementReader {
 public:
  explicit ElementReader(const platform::XmlDocument& document) : m_document(document) {}

  bool Text(std::u16string_view tag, std::u16string& text) {
    if (m_result != 0) return false;
    platform::XmlElement element;
    if (!m_document.FindFirst(tag, element)) {
      ServiceLog(1, u"ERROR: There is no element with tag name %s", tag);
      m_result = kNoElement;
      return false;
    }
    m_result = element.Text(text);
    if (m_result != 0) {
      ServiceLog(1, u"Failed to get the %s, error = %x", tag, m_result);
      return false;
    }
    ServiceLog(3, u"%s loaded from XML string is %s", tag, ForLog(text));
    return true;
  }
  bool Number(std::u16string_view tag, std::uint32_t& number) {
    std::u16string text;
    if (!Text(tag, text)) return false;
    number = ParseDecimal(platform::Utf8FromWide(text));
    return true;
  }
  [[nodiscard]] std::uint32_t Result() const { return m_result; }

 private:
  const platform::XmlDocument& m_document;
  std::uint32_t m_result = 0;
};

void ReadTexts(ElementReader& reader, std::span<const TextField> fields, SCHEDULE_OBJECT& schedule) {
  for (const TextField& field : fields) {
    std::u16string text;
    if (reader.Text(field.tag, text)) schedule.*field.field = std::move(text);
  }
}

void ReadSchedule(ElementReader& reader, SCHEDULE_OBJECT& schedule) {
  ReadTexts(reader, kTextsBeforeCode, schedule);
  (void)reader.Number(kTaskOpcode, schedule.dwTaskOpCode);
  ReadTexts(reader, kTextsBehindCode, schedule);
  std::uint32_t useGuid = 0;
  if (reader.Number(kUseGuid, useGuid)) schedule.bUseGUID = useGuid != 0;
}

std::uint32_t ReadIdAndType(ElementReader& reader, BSTR* id, std::uint32_t& msgType) {
  std::u16string text;
  for (const Group& group : kGroups) {
    std::u16string part;
    (void)reader.Text(group.tag, part);
    text.append(text.empty() ? u"{" : u"-").append(part);
  }
  std::uint32_t type = 0;
  if (!reader.Number(kMsgType, type)) return reader.Result();
  text.append(u"}");
  if (id == nullptr) return kNullPointer;
  if (!platform::NamedBuffer<char16_t>(text.size() + 1, "ParseXMLContent")) return kNoMemory;
  *id = std::move(text);
  msgType = type;
  return 0;
}

// COM on this thread for a scope.
class ComponentScope {
 public:
  ComponentScope() {
    const std::uint32_t result = platform::CoInitialize();
    m_open = static_cast<std::int32_t>(result) >= 0;
    if (!m_open) ServiceLog(1, u"ParseXMLContent: CoInitialize returned with value: %x", result);
  }
  ComponentScope(const ComponentScope&) = delete;
  ComponentScope& operator=(const ComponentScope&) = delete;
  ~ComponentScope() {
    if (m_open) platform::CoUninitialize();
  }

 private:
  bool m_open = false;
};

//   schedule  null for form B
std::uint32_t Parse(const char16_t* xml, SCHEDULE_OBJECT* schedule, BSTR* id, std::uint32_t& msgType) {
  if (xml == nullptr) return 0;
  const ComponentScope components;
  try {
    platform::XmlDocument document;
    if (const std::uint32_t result = platform::XmlDocument::Create(u"MSXML.DOMDocument", document); result != 0) {
      ServiceLog(1, u"ParseXMLContent: CreateInstance failed with error  %x", result);
      return result;
    }
    if (!document.Load(xml)) {
      ServiceLog(1, u"ParseXMLContent Failed to load the XML String");
      return 0;
    }
    ElementReader reader(document);
    if (schedule != nullptr) ReadSchedule(reader, *schedule);
    return ReadIdAndType(reader, id, msgType);
  } catch (const platform::XmlError& error) {
    ServiceLog(1, u"ParseXMLContent:Caught some Exception");
    return error.result();
  } catch (const std::exception&) {
    ServiceLog(1, u"ParseXMLContent:Caught some Exception");
    return kNoMemory;
  }
}

}  // namespace

std::uint32_t CreateXMLString(const SCHEDULE_OBJECT& schedule, const ScheduleGuid& id, std::uint32_t msgType,
                              std::u16string& xml) {
  xml.append(kRootBegin);
  AppendTexts(xml, kTextsBeforeCode, schedule);
  AppendElement(xml, kTaskOpcode, Decimal(schedule.dwTaskOpCode));
  AppendTexts(xml, kTextsBehindCode, schedule);
  AppendElement(xml, kUseGuid, schedule.bUseGUID != 0 ? u"1" : u"0");
  AppendIdAndType(xml, id, msgType);
  return Measure(xml);
}

std::uint32_t CreateXMLString(const ScheduleGuid& id, std::uint32_t msgType, std::u16string& xml) {
  xml.append(kRootBegin);
  AppendIdAndType(xml, id, msgType);
  return Measure(xml);
}

std::uint32_t CreateXMLString(std::u16string_view data, std::uint32_t msgType, std::u16string& xml) {
  xml.append(kRootBegin).append(kDataBegin).append(data).append(kDataEnd);
  AppendElement(xml, kMsgType, Decimal(msgType));
  xml.append(kRootEnd);
  return Measure(xml);
}

std::uint32_t ParseXMLContent(const char16_t* xml, SCHEDULE_OBJECT& schedule, BSTR* id, std::uint32_t& msgType) {
  return Parse(xml, &schedule, id, msgType);
}

std::uint32_t ParseXMLContent(const char16_t* xml, BSTR* id, std::uint32_t& msgType) {
  return Parse(xml, nullptr, id, msgType);
}

std::optional<std::u16string_view> FindOperationData(std::u16string_view text) {
  const std::size_t begin = text.find(kDataBegin);
  const std::size_t end = text.find(kDataEnd);
  if (begin == std::u16string_view::npos || end == std::u16string_view::npos) return std::nullopt;
  const std::size_t data = begin + kDataBegin.size();
  if (end < data) return std::nullopt;
  return text.substr(data, end - data);
}

}  // namespace qx
