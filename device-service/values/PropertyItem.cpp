#include "values/PropertyItem.h"

namespace Lumo {

PropertyItem* PropertyItem::From(void* handle) {
  // Handles of services, requests and lists are odd numbers, which no item lies at.
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): the address is a number here
  if (handle == nullptr || reinterpret_cast<std::uintptr_t>(handle) % alignof(PropertyItem) != 0) {
    return nullptr;
  }
  auto* item = static_cast<PropertyItem*>(handle);
  return item->m_tag == kTag ? item : nullptr;
}

}  // namespace Lumo
