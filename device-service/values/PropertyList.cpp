#include "values/PropertyList.h"

#include <algorithm>
#include <utility>

namespace Lumo {

PropertyList::PropertyList(Properties properties) : m_readOnly(true) {
  m_items.reserve(properties.size());
  for (Property& property : properties) {
    insert(std::make_unique<PropertyItem>(std::move(property)), m_items.size());
  }
}

lumo_error PropertyList::Push(PropertyItem* item, int position) {
  if (position < 0) return kInvalidArgument;
  if (m_readOnly || item->m_list != nullptr) return kAlreadyOwned;
  const std::size_t size = m_items.size();
  const std::size_t index =
      position == 0 ? size : std::min(static_cast<std::size_t>(position) - 1, size);
  // Nothing fails after this, so the item either stays the caller's or becomes the list's.
  if (size == m_items.capacity()) m_items.reserve(std::max<std::size_t>(4, 2 * size));
  insert(std::unique_ptr<PropertyItem>(item), index);
  return kSuccess;
}

PropertyItem* PropertyList::Next(const PropertyItem& item) const {
  const std::size_t next = item.m_index + 1;
  return Contains(item) && next < m_items.size() ? m_items[next].get() : nullptr;
}

Properties PropertyList::TakeProperties() {
  Properties properties;
  properties.reserve(m_items.size());
  for (const auto& item : m_items) properties.push_back(std::move(item->m_property));
  m_items.clear();
  return properties;
}

void PropertyList::insert(std::unique_ptr<PropertyItem> item, std::size_t index) {
  item->m_list = this;
  m_items.insert(m_items.begin() + static_cast<std::ptrdiff_t>(index), std::move(item));
  for (; index < m_items.size(); ++index) m_items[index]->m_index = index;
}

}  // namespace Lumo
