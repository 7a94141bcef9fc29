#ifndef APPDATACHANNEL_GLIBHANDLE_H
#define APPDATACHANNEL_GLIBHANDLE_H

#include <gio/gio.h>

#include <memory>

namespace AppDataChannel {

// Owning pointers to what GLib hands out.
template <auto Free>
struct GLibDeleter {
  template <typename T>
  void operator()(T* handle) const noexcept {
    Free(handle);
  }
};

using GErrorPtr = std::unique_ptr<GError, GLibDeleter<g_error_free>>;
using BytesPtr = std::unique_ptr<GBytes, GLibDeleter<g_bytes_unref>>;
using VariantPtr = std::unique_ptr<GVariant, GLibDeleter<g_variant_unref>>;
using NodeInfoPtr = std::unique_ptr<GDBusNodeInfo, GLibDeleter<g_dbus_node_info_unref>>;
using ConnectionPtr = std::unique_ptr<GDBusConnection, GLibDeleter<g_object_unref>>;
using CancellablePtr = std::unique_ptr<GCancellable, GLibDeleter<g_object_unref>>;
using MainContextPtr = std::unique_ptr<GMainContext, GLibDeleter<g_main_context_unref>>;
using SourcePtr = std::unique_ptr<GSource, GLibDeleter<g_source_unref>>;
using InvocationPtr = std::unique_ptr<GDBusMethodInvocation, GLibDeleter<g_object_unref>>;

}  // namespace AppDataChannel

#endif  // APPDATACHANNEL_GLIBHANDLE_H
