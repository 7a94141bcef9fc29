#ifndef DEVICE_SERVICE_VALUES_PROPERTYLIST_H
#define DEVICE_SERVICE_VALUES_PROPERTYLIST_H

#include <memory>
#include <vector>

#include "values/Error.h"
#include "values/PropertyItem.h"

namespace Lumo {

// Properties in order; a name may occur several times. Used by one thread at a time.
class PropertyList {
 public:
  // A caller's list, to be filled and given away.
  PropertyList() = default;
  // A list that a callback may only read.
  explicit PropertyList(Properties properties);
  PropertyList(const PropertyList&) = delete;
  PropertyList& operator=(const PropertyList&) = delete;

  bool IsReadOnly() const { return m_readOnly; }

  // Takes the item over unless it returns an error. Position 0 appends; position n makes the item
  // the n-th of the list, or the last if the list is shorter.
  lumo_error Push(PropertyItem* item, int position);

  // Null at the end.
  PropertyItem* First() const { return m_items.empty() ? nullptr : m_items.front().get(); }
  PropertyItem* Next(const PropertyItem& item) const;
  bool Contains(const PropertyItem& item) const { return item.m_list == this; }

  // Empties the list.
  Properties TakeProperties();

 private:
  void insert(std::unique_ptr<PropertyItem> item, std::size_t index);

  std::vector<std::unique_ptr<PropertyItem>> m_items;
  bool m_readOnly = false;
};

}  // namespace Lumo

#endif  // DEVICE_SERVICE_VALUES_PROPERTYLIST_H
