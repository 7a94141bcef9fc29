#ifndef HOST_GLIBHANDLE_H
#define HOST_GLIBHANDLE_H

#include <gio/gio.h>

#include <memory>

namespace QivoThing {

// Owning pointers to what GLib hands out.
template <auto Free>
struct GLibDeleter {
  template <typename T>
  void operator()(T* handle) const noexcept {
    Free(handle);
  }
};

using CancellablePtr = std::unique_ptr<GCancellable, GLibDeleter<g_object_unref>>;
using ConnectionPtr = std::unique_ptr<GDBusConnection, GLibDeleter<g_object_unref>>;
using DescriptorsPtr = std::unique_ptr<gint, GLibDeleter<g_free>>;
using GErrorPtr = std::unique_ptr<GError, GLibDeleter<g_error_free>>;
using MainLoopPtr = std::unique_ptr<GMainLoop, GLibDeleter<g_main_loop_unref>>;
using OptionContextPtr = std::unique_ptr<GOptionContext, GLibDeleter<g_option_context_free>>;
using StringListPtr = std::unique_ptr<gchar*, GLibDeleter<g_strfreev>>;
// An array whose strings belong to somebody else.
using StringsPtr = std::unique_ptr<const gchar*, GLibDeleter<g_free>>;
using VariantPtr = std::unique_ptr<GVariant, GLibDeleter<g_variant_unref>>;

}  // namespace QivoThing

#endif  // HOST_GLIBHANDLE_H
