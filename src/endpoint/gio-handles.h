// Owners of GLib and GIO objects. Internal.
#ifndef PELMAR_GIO_HANDLES_H
#define PELMAR_GIO_HANDLES_H

#include <gio/gio.h>

#include <memory>
#include <string>

struct GObjectRelease {
    void operator()(gpointer object) const { g_object_unref(object); }
};
struct VariantRelease {
    void operator()(GVariant* variant) const { g_variant_unref(variant); }
};
struct ErrorRelease {
    void operator()(GError* error) const { g_error_free(error); }
};
// A source that was attached: it fires no more.
struct SourceRelease {
    void operator()(GSource* source) const
    {
        g_source_destroy(source);
        g_source_unref(source);
    }
};
struct ContextRelease {
    void operator()(GMainContext* context) const { g_main_context_unref(context); }
};

template <typename Object>
using GObjectPtr = std::unique_ptr<Object, GObjectRelease>;
using VariantPtr = std::unique_ptr<GVariant, VariantRelease>;
using ErrorPtr = std::unique_ptr<GError, ErrorRelease>;
using SourcePtr = std::unique_ptr<GSource, SourceRelease>;
using ContextPtr = std::unique_ptr<GMainContext, ContextRelease>;

inline GObjectPtr<GDBusConnection> NewReference(GDBusConnection* connection)
{
    return GObjectPtr<GDBusConnection>(G_DBUS_CONNECTION(g_object_ref(connection)));
}

// GIO returns some failures without a reason.
inline std::string TextOf(const GError* error)
{
    return error != nullptr ? error->message : "GIO gave no reason";
}

#endif
