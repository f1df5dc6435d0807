// Saves a schedule of the loaded rules library into a property bag of this program and reads it back into another one.
//
// usage: own_bag LIBRARY_DIRECTORY
#include <iostream>
#include <map>
#include <string>
#include <utility>

#include "common/property_value.h"
#include "common/zepSchedIUnknown.h"
#include "common/zep_factory.h"

namespace {

class OwnBag final : public zepIPropertyBag {
 public:
  ZRESULT QueryInterface(const ZepGuid&, void** out) override { return *out = nullptr, ZEP_E_NOINTERFACE; }
  std::uint32_t AddRef() override { return 1; }
  std::uint32_t Release() override { return 1; }
  ZRESULT Write(const char16_t* name, PropertyValue* value) override {
    m_values.insert_or_assign(name, std::move(*value));
    return ZEP_S_OK;
  }
  ZRESULT Read(const char16_t* name, PropertyValue* value) override {
    const auto found = m_values.find(name);
    if (found == m_values.end()) return ZEP_E_FAIL;
    *value = std::move(found->second);
    return ZEP_S_OK;
  }
  PropertyValue& At(const char16_t* name) { return m_values[name]; }
  [[nodiscard]] std::size_t Count() const { return m_values.size(); }

 private:
  std::map<std::u16string, PropertyValue> m_values;
};

zepISchedule2* Make() {
  void* object = nullptr;
  return ZepClassFactory(CLSID_CSchedule, nullptr, 1, IID_zepISchedule, &object) == ZEP_S_OK
             ? static_cast<zepISchedule2*>(object)
             : nullptr;
}

zepIPersistPropertyBag* PersistenceOf(zepISchedule2& schedule) {
  void* persistence = nullptr;
  return schedule.QueryInterface(IID_zepIPersistPropertyBag, &persistence) == ZEP_S_OK
             ? static_cast<zepIPersistPropertyBag*>(persistence)
             : nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  static constexpr LibraryTableEntry kLibraries[] = {{"ZepSchedule", 2, "U"}};
  if (argc != 2 || InitializeZEP(argv[1], false, kLibraries, 1, 0) != ZEP_S_OK) return 1;
  zepISchedule2* const source = Make();
  zepISchedule2* const target = Make();
  if (source == nullptr || target == nullptr) return 2;
  zepIPersistPropertyBag* const saving = PersistenceOf(*source);
  zepIPersistPropertyBag* const loading = PersistenceOf(*target);
  if (saving == nullptr || loading == nullptr) return 3;

  OwnBag bag;
  source->Reset();
  source->put_Name(u"nightly");
  source->SetDayOfMonth(30);
  if (saving->Save(&bag, 1) != ZEP_S_OK) return 4;
  std::cout << bag.Count() << " properties, name " << bag.At(u"m_Name").Text();
  if (loading->Load(&bag) != ZEP_S_OK) return 5;
  std::uint16_t set = 0;
  target->GetDayOfMonth(30, &set);
  char16_t* name = nullptr;
  if (target->get_Name(&name) != ZEP_S_OK) return 6;
  std::cout << ", day 31 " << set << ", same name " << (std::u16string(name) == u"nightly") << '\n';
  ZepStringFree(name);
  saving->Release();
  loading->Release();
  source->Release();
  target->Release();
  return 0;
}
