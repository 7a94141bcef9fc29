#ifndef DEVICE_SERVICE_VALUES_GLIBHANDLE_H
#define DEVICE_SERVICE_VALUES_GLIBHANDLE_H

#include <gio/gio.h>

#include <memory>

namespace Lumo {

// Owning pointers to what GLib hands out.
template <auto Free>
struct GLibDeleter {
  template <typename T>
  void operator()(T* handle) const noexcept {
    Free(handle);
  }
};

template <typename T>
using ObjectPtr = std::unique_ptr<T, GLibDeleter<g_object_unref>>;

using GErrorPtr = std::unique_ptr<GError, GLibDeleter<g_error_free>>;
using TextPtr = std::unique_ptr<char, GLibDeleter<g_free>>;
using MainContextPtr = std::unique_ptr<GMainContext, GLibDeleter<g_main_context_unref>>;
using ByteArrayPtr = std::unique_ptr<GByteArray, GLibDeleter<g_byte_array_unref>>;

// Casts an object, or one of its interfaces, to another of its types.
template <typename To, typename From>
To* CastObject(From* object) noexcept {
  return static_cast<To*>(static_cast<void*>(object));
}

// Destroys a source before it drops it, also from within the source's callback.
inline void EndSource(GSource* source) noexcept {
  g_source_destroy(source);
  g_source_unref(source);
}
using AttachedSourcePtr = std::unique_ptr<GSource, GLibDeleter<EndSource>>;

}  // namespace Lumo

#endif  // DEVICE_SERVICE_VALUES_GLIBHANDLE_H
