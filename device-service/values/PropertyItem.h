#ifndef DEVICE_SERVICE_VALUES_PROPERTYITEM_H
#define DEVICE_SERVICE_VALUES_PROPERTYITEM_H

#include <cstddef>
#include <cstdint>
#include <utility>

#include "values/Property.h"

namespace Lumo {

class PropertyList;

// What a property handle of the C interface points to. Its creator owns it until it is pushed to a
// list, which then owns it; the handle is valid as long as the list.
class PropertyItem {
 public:
  explicit PropertyItem(Property property) : m_property(std::move(property)) {}
  PropertyItem(const PropertyItem&) = delete;
  PropertyItem& operator=(const PropertyItem&) = delete;

  // Null when the handle is null or recognisably not that of a property.
  static PropertyItem* From(void* handle) {
    // Handles of services, requests and lists are odd numbers, at which no item lies.
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): the address is a number here
    const auto address = reinterpret_cast<std::uintptr_t>(handle);
    if (handle == nullptr || address % alignof(PropertyItem) != 0) return nullptr;
    auto* const item = static_cast<PropertyItem*>(handle);
    return item->m_tag == kTag ? item : nullptr;
  }

  const Property& Get() const { return m_property; }

 private:
  friend class PropertyList;

  static constexpr std::uint32_t kTag = 0x70726f70;  // "prop"

  const std::uint32_t m_tag = kTag;
  Property m_property;
  const PropertyList* m_list = nullptr;  // the owner, if any
  std::size_t m_index = 0;               // its place there
};

}  // namespace Lumo

#endif  // DEVICE_SERVICE_VALUES_PROPERTYITEM_H
